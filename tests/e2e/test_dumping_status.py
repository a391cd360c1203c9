# SPDX-License-Identifier: Apache-2.0
"""Printing the dumping status, and removing the local one."""

import os

import pytest

from harness.accounts import MOVER, NOPASS, OWNER
from harness.isolation import with_writable_root
from harness.places import make_dir, write
from harness.program import source
from harness.session import shape
from harness.waiting import wait_until

STATUS = b'<?xml version="1.0"?>\n<dumping-status><dump-is-running/></dumping-status>\n'
IDLE = ("migration-status", {}, "", [("idle", {}, "", [])])


@pytest.fixture
def agent(outbox):
    """An agent's directory on the source host."""
    return outbox


def options(server, agent, account=MOVER):
    return ["--get-dumping-status", *source(server, account), f"--agent-dir={agent}", "--agent-name=SomeAgent"]


def test_remote_status_is_printed_byte_for_byte(tallowick, server, agent):
    write(agent / "dumping-status.xml", STATUS)
    run = tallowick.run(*options(server, agent))
    assert (run.status, run.stdout, run.stderr) == (0, STATUS, b"")
    assert server.commands() == [f"cat {agent}/dumping-status.xml".encode()]
    assert run.session.succeeded() == "success"


@pytest.mark.parametrize("size", [0, 1, 65535, 65536, 65537, 3_000_000])
def test_status_of_any_size_is_printed_whole(tallowick, server, agent, size):
    content = (bytes(range(256)) * (size // 256 + 1))[:size]
    write(agent / "dumping-status.xml", content)
    run = tallowick.run(*options(server, agent))
    assert (run.status, run.stdout) == (0, content)


def test_printed_status_is_never_logged(tallowick, server, agent):
    write(agent / "dumping-status.xml", STATUS)
    assert "dump-is-running" not in tallowick.run(*options(server, agent)).session.log


def test_relative_agent_directory_lies_in_the_home_of_the_login(tallowick, server):
    directory = make_dir(MOVER.home / "relative-agent")
    write(directory / "dumping-status.xml", STATUS)
    assert tallowick.run(*options(server, "relative-agent")).stdout == STATUS


def test_agent_directory_with_odd_letters_is_quoted(tallowick, server, agent):
    odd = make_dir(agent / "a b'c\"d$e")
    write(odd / "dumping-status.xml", STATUS)
    run = tallowick.run(*options(server, odd))
    assert run.stdout == STATUS
    assert server.commands() == [rf"""cat {agent}/a\ b\'c\"d\$e/dumping-status.xml""".encode()]


def test_agent_directory_with_a_trailing_slash_gives_two(tallowick, server, agent):
    write(agent / "dumping-status.xml", STATUS)
    assert tallowick.run(*options(server, f"{agent}/")).stdout == STATUS
    assert server.commands() == [f"cat {agent}//dumping-status.xml".encode()]


def test_missing_remote_status_is_a_success_that_prints_nothing(tallowick, server, agent):
    run = tallowick.run(*options(server, agent))
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert run.session.succeeded() == "success"
    assert f"{agent}/dumping-status.xml: No such file or directory" in run.session.log


def test_status_document_tells_that_the_agent_waits(tallowick, server, agent):
    os.mkfifo(agent / "dumping-status.xml")
    os.chmod(agent / "dumping-status.xml", 0o666)
    running = tallowick.start(*options(server, agent))
    wait_until(server.commands, "the command line")
    assert shape(running.session.status) == (
        "migration-status", {}, "", [("agent", {"action": "wait"}, "", [("host", {}, "127.0.0.1", [])])])
    (agent / "dumping-status.xml").write_bytes(STATUS)
    run = running.wait()
    assert (run.status, run.stdout) == (0, STATUS)
    assert shape(run.session.status) == IDLE


def test_idle_status_that_cannot_be_saved_after_a_success_is_a_failure(tallowick, server, agent):
    os.mkfifo(agent / "dumping-status.xml")
    os.chmod(agent / "dumping-status.xml", 0o666)
    running = tallowick.start(*options(server, agent))
    wait_until(server.commands, "the command line")
    status = running.session.file("migration.status")
    status.unlink()
    make_dir(make_dir(status) / "in the way")
    (agent / "dumping-status.xml").write_bytes(STATUS)
    run = running.wait()
    assert run.status == 2
    assert run.stdout == STATUS
    assert run.err.startswith("Cannot rename ")
    assert run.session.error().code == "CantRenameFile"
    assert run.session.succeeded() == "error"


def test_connection_failure_keeps_its_cause_but_not_its_status(tallowick):
    run = tallowick.run(*options(1, "/agent"))
    assert run.status == 2
    assert run.err == "Error during getting dumping status"
    error = run.session.error()
    assert (error.code, error.description) == ("DumpStatusError", "Error during getting dumping status")
    assert (error.inner.code, error.inner.description) == (
        "ConnectionRefused", "No one listening on the remote address at host 127.0.0.1")
    assert error.inner.inner is None
    assert error.identifier != error.inner.identifier
    assert "\nInner exception:\nConnectionRefused[" in run.session.log


def test_command_that_is_refused_is_an_error_that_names_its_status(tallowick, start_scripted):
    run = tallowick.run(*options(start_scripted(accepts_exec=lambda command: False), "/agent"))
    assert (run.status, run.stdout) == (2, b"")
    error = run.session.error()
    assert (error.code, error.inner.code, error.inner.description) == (
        "DumpStatusError", "SshUnknown",
        "Command 'cat /agent/dumping-status.xml' has failed on the remote host with return code 255")


@pytest.mark.parametrize("size", [10, 100, 3_000_000])
def test_standard_output_that_is_full_is_no_success(tallowick, server, agent, size):
    write(agent / "dumping-status.xml", b"x" * size)
    with open("/dev/full", "wb") as full:
        run = tallowick.run(*options(server, agent), stdout=full)
    assert run.status == 2
    error = run.session.error()
    assert error.code == "DumpStatusError"
    assert (error.inner.code, error.inner.description) == ("StreamWrite", "Cannot write data to the stream")
    assert run.session.succeeded() == "error"


def test_with_sudo_the_login_takes_the_file_first(tallowick, server, agent):
    write(agent / "dumping-status.xml", STATUS, 0o600)
    run = tallowick.run(*options(server, agent), "--sudo-password", sudo_password=MOVER.sudo_password)
    assert (run.status, run.stdout, run.stderr) == (0, STATUS, b"")
    stat = (agent / "dumping-status.xml").stat()
    assert stat.st_uid == MOVER.uid
    assert server.commands() == [
        b"sudo -V", b"sudo -k; sudo -S -p ' ' true",
        rf"sh -c cd\ {agent}\;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ chown\ mover\ {agent}/dumping-status.xml".encode(),
        f"cat {agent}/dumping-status.xml".encode()]


def test_with_sudo_a_missing_file_is_an_error_that_names_the_cause(tallowick, server, agent):
    run = tallowick.run(*options(server, agent), "--sudo-password", sudo_password=MOVER.sudo_password)
    assert (run.status, run.stdout) == (2, b"")
    error = run.session.error()
    assert error.code == "DumpStatusError"
    assert error.inner.code == "CantTakeFileOwnership"
    assert error.inner.description.startswith(f"Cannot take ownership of {agent}/dumping-status.xml: ")
    assert "No such file or directory" in error.inner.description


def test_without_sudo_nothing_is_taken(tallowick, server, agent):
    write(agent / "dumping-status.xml", STATUS)
    tallowick.run(*options(server, agent, OWNER), password=OWNER.password)
    assert len(server.commands()) == 1
    assert (agent / "dumping-status.xml").stat().st_uid == 0


def test_sudo_that_asks_for_nothing_takes_the_file_as_well(tallowick, server, agent):
    write(agent / "dumping-status.xml", STATUS, 0o600)
    run = tallowick.run(*options(server, agent, NOPASS), "--sudo-password", password=NOPASS.password,
                        sudo_password="")
    assert (run.status, run.stdout) == (0, STATUS)


def test_removing_the_local_status_opens_no_connection(tallowick, server):
    run = tallowick.run("--remove-dumping-status", password=None)
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert "Resolving" not in run.session.log
    assert server.commands() == []


def test_removing_the_local_status_succeeds_though_nothing_is_there(tallowick):
    run = tallowick.run("--remove-dumping-status", password=None)
    assert run.status == 0
    assert run.session.succeeded() == "success"
    assert shape(run.session.status) == IDLE
    assert run.session.names() == ["archives", "migration.log", "migration.result", "migration.status"]


def test_removing_the_local_status_removes_that_file_alone(tallowick, workspace):
    # Without an agent directory, which this action does not take, the path is that of the root directory.
    root = workspace / "root"
    files = make_dir(workspace / "root.files")
    write(files / "dumping-status.xml", STATUS)
    write(files / "dump.xml", STATUS)
    run = tallowick.run("--remove-dumping-status", password=None, prefix=with_writable_root(root))
    assert run.status == 0
    left = (workspace / "root.left").read_text().split()
    assert "dump.xml" in left
    assert "dumping-status.xml" not in left
