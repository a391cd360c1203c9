# SPDX-License-Identifier: Apache-2.0
"""Peers that fall silent for good. Each takes minutes, so these runs go on beside all other tests."""

import pytest

pytestmark = pytest.mark.background


def test_server_that_never_says_a_word_fails_the_session_start(long_runs):
    run = long_runs.silent_server.result()
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"
    assert run.err.startswith("Unable to start SSH session: ")
    # Two starts, the second in compatibility mode, of two minutes each.
    assert 235 < run.seconds < 330


def test_server_that_falls_silent_amid_the_key_exchange_fails_the_session_start(long_runs):
    run = long_runs.silent_key_exchange.result()
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"
    assert 110 < run.seconds < 330


def test_server_that_never_answers_to_the_password_is_a_lost_connection(long_runs):
    run = long_runs.silent_login.result()
    assert run.status == 18
    assert run.session.error().code == "SshConnectionFault"
    assert 110 < run.seconds < 330


def test_peer_that_vanishes_amid_a_command_is_noticed(long_runs):
    run = long_runs.vanished_peer.result()
    assert run.statuses == ["SshConnectionFault"]
    assert 60 < run.seconds < 240
    assert run.cpu_seconds < 20
