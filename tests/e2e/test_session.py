# SPDX-License-Identifier: Apache-2.0
"""Starting the SSH session, once and, if that fails, once more in compatibility mode."""

import re

import pytest

from harness.accounts import MOVER
from harness.places import make_dir, write
from harness.probe import execute, get
from harness.product import SMALL_REPORT
from harness.program import source
from harness.relay import FIN, HALF_CLOSE, RST, Fault
from harness.sshd import ALSO_OLD_KEY_EXCHANGE, OLD_KEY_EXCHANGE, PASSWORD
from harness.waiting import wait_until

COMPATIBILITY = "Attempt to start SSH session in a 'compatibility' mode"
SCOUT = rb"sh -c cd\ \;\ perl"
# The greeting passes, the key exchange does not.
IN_KEY_EXCHANGE = 300


def log_of(run, category):
    return [(record.level, record.text) for record in run.session.records if record.category == category]


def test_session_start_is_logged_with_the_cipher_that_was_agreed(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    lines = log_of(run, "k.libssh2pp.Session")
    assert lines[0] == ("DEBUG", "Trying to start SSH session")
    assert re.fullmatch(r"Selected aes\d+-(ctr|cbc) encryption method", lines[1][1]), lines[1]
    assert lines[2] == ("DEBUG", "SSH session started successfully")
    assert lines[-1] == ("DEBUG", "SSH session finished")


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
@pytest.mark.parametrize("at", [0, IN_KEY_EXCHANGE])
def test_first_connection_cut_leads_to_a_second_one_in_compatibility_mode(tallowick, old_server, start_relay, kind, at):
    relay = start_relay(old_server, Fault(kind, at, connection=0))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT
    assert len(relay.connections) == 2
    lines = log_of(run, "k.libssh2pp.Session")
    failed = [text for level, text in lines if level == "ERROR"]
    assert len(failed) == 1 and failed[0].startswith("SSH session was not started: ")
    assert ("DEBUG", COMPATIBILITY) in log_of(run, "k.Ssh")
    assert ("DEBUG", "Create a reserve channel") in lines
    assert [text for _, text in log_of(run, "k.libssh2pp.Socket")].count("Resolving 127.0.0.1") == 2


def test_reserve_channel_runs_cat_before_any_other_command(tallowick, start_scripted, start_relay):
    # A scripted server, because it handles one request after the other and so knows their order.
    def run(command):
        if command.command != b"cat":
            command.exit(0)

    server = start_scripted(run=run)
    relay = start_relay(server, Fault(FIN, 0, connection=0))
    assert tallowick.run("--send-scout", *source(relay)).status == 0
    assert server.commands() == [b"cat", SCOUT]


def test_reserve_channel_stays_open_to_the_end(tallowick, start_scripted, start_relay):
    ended = []

    def run(command):
        if command.command == b"cat":
            ended.append(command.read_input())
        else:
            assert not ended
            command.exit(0)

    relay = start_relay(start_scripted(run=run), Fault(FIN, 0, connection=0))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 0
    wait_until(lambda: ended, "the end of the reserve channel's input")
    assert ended == [b""]


def test_refused_reserve_channel_does_not_matter(tallowick, start_scripted, start_relay):
    server = start_scripted(accepts_exec=lambda command: command != b"cat")
    relay = start_relay(server, Fault(FIN, 0, connection=0))
    assert tallowick.run("--send-scout", *source(relay)).status == 0
    assert server.commands() == [b"cat", SCOUT]


def test_no_reserve_channel_without_compatibility_mode(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert server.commands() == [SCOUT]
    assert "Create a reserve channel" not in run.session.log
    assert COMPATIBILITY not in run.session.log


def test_many_commands_work_beside_the_reserve_channel(probe, old_server, start_relay, workspace):
    # The reserve channel is set non-blocking, and that is a property of the whole session.
    content = write(workspace / "remote", b"x" * 300000, 0o644)
    relay = start_relay(old_server, Fault(FIN, 0, connection=0))
    run = probe.run(relay, *[execute(f"exit {number}") for number in range(5)],
                    get(workspace / "local", content), execute("true"))
    assert run.statuses == [0, 1, 2, 3, 4, 0, 0]
    assert (workspace / "local").read_bytes() == content.read_bytes()
    assert b"cat" in old_server.commands()


def test_reserve_channel_over_a_slow_line_disturbs_nothing(probe, old_server, start_relay):
    relay = start_relay(old_server, Fault(FIN, 0, connection=0), delay=0.025)
    assert probe.run(relay, execute("exit 4"), execute("exit 5")).statuses == [4, 5]


def test_reserve_channel_takes_the_only_session_that_a_server_permits(tallowick, start_sshd, start_relay):
    server = start_sshd(("MaxSessions 1", *ALSO_OLD_KEY_EXCHANGE))
    assert tallowick.run("--send-scout", *source(server)).status == 0
    relay = start_relay(server, Fault(FIN, 0, connection=0))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 2
    assert (run.session.error().code, run.err) == ("InvalidHandle", "Invalid handle passed")


def test_both_connections_cut_is_an_error_of_the_session_start(tallowick, old_server, start_relay):
    relay = start_relay(old_server, Fault(FIN, IN_KEY_EXCHANGE))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"
    assert run.err.startswith("Unable to start SSH session: ")
    assert len(relay.connections) == 2
    failed = [text for level, text in log_of(run, "k.libssh2pp.Session") if level == "ERROR"]
    assert len(failed) == 2
    assert all(text.startswith("SSH session was not started: ") for text in failed)
    assert run.err.removeprefix("Unable to start SSH session: ") == \
        failed[1].removeprefix("SSH session was not started: ")


def test_there_is_no_third_attempt(tallowick, old_server, start_relay):
    relay = start_relay(old_server, Fault(FIN, 0, connection=0), Fault(RST, 0, connection=1))
    assert tallowick.run("--send-scout", *source(relay)).status == 2
    assert len(relay.connections) == 2


def test_server_with_nothing_but_the_old_key_exchange_succeeds(tallowick, start_sshd):
    server = start_sshd(OLD_KEY_EXCHANGE)
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT


def test_compatibility_mode_uses_the_old_key_exchange(tallowick, start_sshd, start_relay):
    server = start_sshd(OLD_KEY_EXCHANGE)
    relay = start_relay(server, Fault(FIN, 0, connection=0))
    assert tallowick.run("--send-scout", *source(relay)).status == 0
    # The two commands run beside each other, so they come into the record in any order.
    assert sorted(server.commands()) == [b"cat", SCOUT]


def test_compatibility_mode_offers_no_other_key_exchange(tallowick, start_sshd, start_relay):
    server = start_sshd(("KexAlgorithms curve25519-sha256", *PASSWORD))
    relay = start_relay(server, Fault(FIN, 0, connection=0))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"


def test_server_without_a_common_host_key_fails_both_starts(tallowick, start_sshd):
    server = start_sshd(("HostKeyAlgorithms rsa-sha2-512", *PASSWORD), host_keys=("rsa",))
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"
    assert ("DEBUG", COMPATIBILITY) in log_of(run, "k.Ssh")


def test_changed_host_key_is_accepted(tallowick, start_sshd):
    first = start_sshd()
    assert tallowick.run("--send-scout", *source(first)).status == 0
    first.stop()
    second = start_sshd(port=first.port)
    assert tallowick.run("--send-scout", *source(second)).status == 0


def test_frequent_new_keys_disturb_neither_output_nor_input(probe_release, start_sshd, workspace):
    # The release build: libssh2 itself leaks a little with every new key.
    server = start_sshd(("RekeyLimit 512K", *PASSWORD))
    content = write(workspace / "content", bytes(range(256)) * 100_000)
    run = probe_release.run(server, get(workspace / "local", content),
                    execute("cat", stdin=content, out=workspace / "echo"), execute("exit 3"))
    assert run.statuses == [0, 0, 3]
    assert (workspace / "local").read_bytes() == content.read_bytes()
    assert (workspace / "echo").read_bytes() == content.read_bytes()


def test_every_action_works_in_compatibility_mode(tallowick, old_server, start_relay, workspace):
    agent = make_dir(workspace / "agent", 0o777)
    write(agent / "dumping-status.xml", b"<dumping/>")
    options = [f"--agent-dir={agent}", "--agent-name=a"]
    relay = start_relay(old_server, Fault(FIN, 0, connection=0))
    assert tallowick.run("--get-dumping-status", *source(relay), *options).stdout == b"<dumping/>"
    relay = start_relay(old_server, Fault(FIN, 0, connection=0))
    assert tallowick.run("--remove-agent", *source(relay), *options).status == 0
    assert sorted(old_server.commands()) == [b"cat", b"cat", b"cat " + str(agent / "dumping-status.xml").encode(),
                                             rf"sh -c cd\ {agent}\;\ rm\ -rf\ {agent}".encode()]


def test_server_closes_nothing_of_its_own_when_the_session_ends(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    # The program never says farewell; it just closes the connection.
    assert f"Accepted password for {MOVER.login}" in server.log()
    assert "Received disconnect from" not in server.log()
