# SPDX-License-Identifier: Apache-2.0
"""Tests of the scripts; they run outside of the sandbox, as root."""

import pathlib
import signal

import pytest

# Ignored by whoever started the tests in the background, it would be so in everything that they start.
signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture(scope="session")
def top():
    """The top of the tree."""
    return pathlib.Path(__file__).resolve().parents[2]
