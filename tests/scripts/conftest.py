# SPDX-License-Identifier: Apache-2.0
"""Tests of the scripts; they run outside of the sandbox, as root."""

import pathlib

import pytest


@pytest.fixture(scope="session")
def top():
    """The top of the tree."""
    return pathlib.Path(__file__).resolve().parents[2]
