# SPDX-License-Identifier: Apache-2.0
"""Removing the agent from the source host: what is done, and that it never fails."""

import pytest

from harness.accounts import MOVER, PLAIN
from harness.places import make_dir, write
from harness.program import source
from harness.relay import FIN, RST, Fault


def options(server, agent, account=MOVER):
    return ["--remove-agent", *source(server, account), f"--agent-dir={agent}", "--agent-name=SomeAgent"]


@pytest.fixture
def agent(outbox):
    """An agent's directory with files in it, below a directory of the login's."""
    directory = make_dir(outbox / "agent", 0o777)
    make_dir(directory / "lib", 0o777)
    write(directory / "main", "text")
    return directory


def test_agent_directory_is_removed_with_everything_in_it(tallowick, server, agent):
    run = tallowick.run(*options(server, agent))
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert not agent.exists()
    assert server.commands() == [rf"sh -c cd\ {agent}\;\ rm\ -rf\ {agent}".encode()]
    assert run.session.succeeded() == "success"


def test_with_sudo_root_removes_what_the_login_cannot(tallowick, server, workspace):
    agent = make_dir(workspace / "agent")
    write(agent / "main", "text", 0o600)
    run = tallowick.run(*options(server, agent), "--sudo-password", sudo_password=MOVER.sudo_password)
    assert run.status == 0
    assert not agent.exists()
    assert server.commands() == [
        b"sudo -V", b"sudo -k; sudo -S -p ' ' true",
        rf"sh -c cd\ {agent}\;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ rm\ -rf\ {agent}".encode()]


def test_directory_with_odd_letters_is_quoted_for_the_removal(tallowick, server, outbox):
    odd = make_dir(outbox / "a'b", 0o777)
    assert tallowick.run(*options(server, odd)).status == 0
    # Quoted once for "rm" and once more as a word of "sh -c"; the "cd" gets it as it is.
    assert server.commands() == [rf"sh -c cd\ {outbox}/a\'b\;\ rm\ -rf\ {outbox}/a\\\'b".encode()]


def test_no_status_document_is_kept(tallowick, server, agent):
    assert tallowick.run(*options(server, agent)).session.names() == ["archives", "migration.log",
                                                                       "migration.result"]


def test_removal_that_fails_is_a_success(tallowick, server, workspace):
    agent = make_dir(workspace / "agent")
    write(agent / "main", "text")
    run = tallowick.run(*options(server, agent))
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.succeeded() == "success"
    assert (agent / "main").exists()


def test_missing_directory_is_a_success(tallowick, server):
    run = tallowick.run(*options(server, "/no/such/agent"))
    assert (run.status, run.stderr) == (0, b"")


def test_wrong_password_is_a_success(tallowick, server, agent):
    run = tallowick.run(*options(server, agent), password="wrong-Password-4")
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.succeeded() == "success"
    assert agent.exists()


def test_refused_connection_is_a_success(tallowick):
    run = tallowick.run(*options(1, "/agent"))
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.succeeded() == "success"


def test_unknown_host_is_a_success(tallowick):
    run = tallowick.run("--remove-agent", "--host=nowhere.invalid", "--login=mover", "--agent-dir=/a", "--agent-name=b")
    assert run.status == 0


def test_sudo_that_is_not_allowed_is_a_success(tallowick, server, agent):
    run = tallowick.run(*options(server, agent, PLAIN), "--sudo-password", password=PLAIN.password,
                        sudo_password=PLAIN.password)
    assert (run.status, run.stderr) == (0, b"")
    assert agent.exists()


@pytest.mark.parametrize("kind", [FIN, RST])
def test_lost_connection_is_a_success(tallowick, server, start_relay, agent, kind):
    run = tallowick.run(*options(start_relay(server, Fault(kind, 2200)), agent))
    assert (run.status, run.stderr) == (0, b"")


def test_output_of_the_removal_is_not_kept(tallowick, server, workspace):
    agent = make_dir(workspace / "agent")
    write(agent / "main", "text")
    run = tallowick.run(*options(server, agent))
    assert (run.stdout, run.stderr) == (b"", b"")
    assert run.session.result().findall("message") == []
