# SPDX-License-Identifier: Apache-2.0
"""Working as root through sudo: the check, the password line, every way in which sudo can be odd."""

import os

import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OWNER, PLAIN, SPACEY
from harness.places import make_dir, write
from harness.product import SMALL_REPORT
from harness.program import source

VERSION = b"sudo -V"
TEST = b"sudo -k; sudo -S -p ' ' true"
SCOUT = rb"sh -c cd\ \;\ sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ perl"
WHO = "print scalar(getpwuid($<)), qq(\\n); print while <DATA>;\n__DATA__\nthe rest\n"


def send(tallowick, server, account, sudo_password, **options):
    return tallowick.run("--send-scout", "--sudo-password", *source(server, account), password=account.password,
                         sudo_password=sudo_password, **options)


def assert_not_allowed(run, account):
    text = f"sudo is not allowed for user {account.login} on host 127.0.0.1."
    assert (run.status, run.err) == (2, text)
    error = run.session.error()
    assert (error.code, error.description) == ("SudoNotAllowed", text)


@pytest.mark.parametrize("account", [MOVER, OWNER, SPACEY], ids=lambda account: account.login)
def test_scout_runs_as_root_with_the_password_that_sudo_asks_for(tallowick, product, server, account):
    product.set_scout(WHO)
    run = send(tallowick, server, account, account.sudo_password)
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.scout_result == b"root\nthe rest\n"
    assert server.commands() == [VERSION, TEST, SCOUT]


def test_scout_runs_as_root_without_password_line_when_the_sudo_password_is_empty(tallowick, product, server):
    product.set_scout(WHO)
    run = send(tallowick, server, NOPASS, "")
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.scout_result == b"root\nthe rest\n"
    assert server.commands() == [VERSION, TEST, SCOUT]


def test_without_the_option_nothing_is_prefixed_or_checked(tallowick, product, server):
    product.set_scout(WHO)
    run = tallowick.run("--send-scout", *source(server))
    assert run.session.scout_result == b"mover\nthe rest\n"
    assert server.commands() == [rb"sh -c cd\ \;\ perl"]


def test_wrong_sudo_password_is_not_allowed(tallowick, server):
    run = send(tallowick, server, OWNER, "wrong-Sudo-1")
    assert_not_allowed(run, OWNER)
    assert server.commands() == [VERSION, TEST]


def test_own_password_where_sudo_asks_for_roots_is_not_allowed(tallowick, server):
    assert_not_allowed(send(tallowick, server, MOVER, MOVER.password), MOVER)


def test_login_outside_of_sudoers_is_not_allowed(tallowick, server):
    assert_not_allowed(send(tallowick, server, PLAIN, PLAIN.password), PLAIN)


def test_empty_sudo_password_where_one_is_asked_for_is_not_allowed(tallowick, server):
    run = send(tallowick, server, OWNER, "")
    assert_not_allowed(run, OWNER)
    assert server.commands() == [VERSION, TEST]


def test_host_without_sudo_is_told(tallowick, start_sshd, workspace):
    tools = make_dir(workspace / "bin")
    for name in ("sh", "cat"):
        os.symlink(f"/bin/{name}", tools / name)
    server = start_sshd(path=str(tools))
    run = send(tallowick, server, OWNER, OWNER.password)
    text = ("sudo command not found on the host 127.0.0.1. "
            "You should install sudo to this host or supply root password for the migration.")
    assert (run.status, run.err) == (2, text)
    error = run.session.error()
    assert (error.code, error.description) == ("SudoNotFound", text)
    assert server.commands() == [VERSION]


def test_two_root_commands_check_sudo_only_once(tallowick, server, outbox):
    # Taking the file and reading it: more than one command of one action.
    write(outbox / "dumping-status.xml", "text")
    run = tallowick.run("--get-dumping-status", "--sudo-password", *source(server), f"--agent-dir={outbox}",
                        "--agent-name=a", sudo_password=MOVER.sudo_password)
    assert run.status == 0
    assert server.commands().count(VERSION) == server.commands().count(TEST) == 1


def test_login_root_works_without_sudo(tallowick, product, server):
    product.set_scout(WHO)
    root = ACCOUNTS["root"]
    run = tallowick.run("--send-scout", *source(server, root), password=root.password)
    assert run.session.scout_result == b"root\nthe rest\n"


def test_sudo_that_asks_for_nothing_leaves_the_password_line_to_the_command(tallowick, server):
    run = send(tallowick, server, NOPASS, NOPASS.password)
    assert run.status == 2
    assert run.session.error().code == "FailedToExecuteScout"
    assert "syntax error" in run.err
    assert NOPASS.password not in run.err


@pytest.fixture
def fake_sudo(workspace, start_sshd):
    """A server whose "sudo" is a shell script; what it was called with is in the file "calls"."""
    def make(script):
        tools = make_dir(workspace / "bin")
        write(workspace / "calls", b"", 0o666)
        write(tools / "sudo", f"#!/bin/sh\necho \"$*\" >>{workspace}/calls\n{script}\n", 0o755)
        return start_sshd(path=f"{tools}:/usr/bin:/bin")

    return make


@pytest.mark.parametrize("status", [1, 2, 127, 255])
def test_any_failure_of_the_version_query_means_that_there_is_no_sudo(tallowick, fake_sudo, status):
    run = send(tallowick, fake_sudo(f"exit {status}"), OWNER, OWNER.password)
    assert (run.status, run.session.error().code) == (2, "SudoNotFound")


@pytest.mark.parametrize("status", [1, 2, 127, 255])
def test_any_failure_of_the_test_command_means_that_sudo_is_not_allowed(tallowick, fake_sudo, status):
    run = send(tallowick, fake_sudo(f'[ "$1" = -V ] || exit {status}'), OWNER, OWNER.password)
    assert_not_allowed(run, OWNER)


def test_sudo_that_is_killed_amid_the_test_is_not_allowed(tallowick, fake_sudo):
    run = send(tallowick, fake_sudo('[ "$1" = -V ] || kill -KILL $$'), OWNER, OWNER.password)
    assert_not_allowed(run, OWNER)


def test_version_query_and_test_may_say_much(tallowick, fake_sudo):
    server = fake_sudo('head -c 300000 /dev/zero; head -c 300000 /dev/zero >&2; [ "$1" = -S ] && [ "$4" != true ] '
                       '&& exit 5; exit 0')
    run = send(tallowick, server, OWNER, OWNER.password)
    assert run.status == 2
    assert run.session.error().code == "FailedToExecuteScout"


def test_test_command_gets_the_password_without_newline(tallowick, fake_sudo, workspace):
    server = fake_sudo(f'case "$*" in *true) cat >{workspace}/outbox/input ;; esac')
    directory = make_dir(workspace / "outbox")
    os.chown(directory, OWNER.uid, OWNER.gid)
    send(tallowick, server, OWNER, "a sudo Password")
    assert (directory / "input").read_bytes() == b"a sudo Password"


def test_command_gets_the_password_line_before_its_own_input(tallowick, fake_sudo, product, workspace):
    product.set_scout("the script\n")
    server = fake_sudo(f'case "$*" in *perl) cat >{workspace}/outbox/input ;; esac')
    directory = make_dir(workspace / "outbox")
    os.chown(directory, OWNER.uid, OWNER.gid)
    assert send(tallowick, server, OWNER, "a sudo Password").status == 0
    assert (directory / "input").read_bytes() == b"a sudo Password\nthe script\n"


def test_command_gets_only_its_own_input_when_the_sudo_password_is_empty(tallowick, fake_sudo, product, workspace):
    product.set_scout("the script\n")
    server = fake_sudo(f'case "$*" in *perl) cat >{workspace}/outbox/input ;; esac')
    directory = make_dir(workspace / "outbox")
    os.chown(directory, OWNER.uid, OWNER.gid)
    assert send(tallowick, server, OWNER, "").status == 0
    assert (directory / "input").read_bytes() == b"the script\n"


def test_cached_credentials_are_dropped_and_the_prompt_is_a_blank(tallowick, fake_sudo, workspace):
    server = fake_sudo("exit 0")
    assert send(tallowick, server, OWNER, OWNER.password).status == 0
    assert (workspace / "calls").read_text().splitlines() == [
        "-V", "-k", "-S -p   true", "-k", "-S -p   perl"]


def test_sudo_that_reads_nothing_does_not_hang(tallowick, fake_sudo, product):
    product.set_scout("# filler\n" * 1000000)
    run = send(tallowick, fake_sudo('case "$*" in *perl) exit 9 ;; esac'), OWNER, OWNER.password)
    assert run.status == 2
    assert "The return code is 9\n" in run.err


def test_connection_lost_amid_the_check_is_no_missing_sudo(tallowick, start_scripted):
    run = send(tallowick, start_scripted(run=lambda command: (command.read_input(), command.drop())), OWNER,
               OWNER.password)
    assert run.status == 18
    assert run.session.error().code == "SshConnectionFault"


def test_report_through_sudo_equals_the_one_without(tallowick, server):
    assert send(tallowick, server, OWNER, OWNER.password).session.scout_result == SMALL_REPORT
