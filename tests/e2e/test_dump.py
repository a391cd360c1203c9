# SPDX-License-Identifier: Apache-2.0
"""Dumping: the commands on the source host, and what becomes of the dump here."""

import os
import resource
import shlex

import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OWNER, PLAIN
from harness.agents import DUMP, AgentCatalogue, DeployedAgent
from harness.content import small_disk
from harness.disks import full_disk_at
from harness.dumps import (DUMPER_FAILED, IDLE, MASK, assert_dumped, assert_failed, one_call,
                           temporary_names)
from harness.hostile import Planted
from harness.places import make_dir, write
from harness.program import source
from harness.relay import FIN, HALF_CLOSE, RST, STALL, Fault
from harness.session import Session, shape
from harness.waiting import open_for_reader, wait_until

SUDO = r"sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ "
CHECKS = [b"sudo -V", b"sudo -k; sudo -S -p ' ' true"]


def test_commands_without_sudo(dump, agent, server):
    assert_dumped(dump("--domains=d.example", "--no-content"))
    here = agent.directory
    assert server.commands() == [
        rf"sh -c cd\ {here}\;\ perl\ {here}/run.pl\ --migration-mode\ --dump-domains=-\ --include-app-distrib"
        r"\ --no-content".encode(),
        f"cat {here}/dump.xml".encode()]
    assert one_call(agent).cwd == str(here)
    assert one_call(agent).uid == MOVER.uid


def commands_with_sudo(here, login):
    return [*CHECKS,
            rf"sh -c cd\ {here}\;\ {SUDO}perl\ {here}/run.pl\ --migration-mode\ --dump-all".encode(),
            rf"sh -c cd\ {here}\;\ {SUDO}chown\ {login}\ {here}/dump.xml".encode(),
            f"cat {here}/dump.xml".encode()]


@pytest.mark.parametrize("account, sudo_password", [(MOVER, MOVER.sudo_password), (OWNER, OWNER.sudo_password),
                                                    (NOPASS, ""), (NOPASS, "never-asked-For-1")],
                         ids=["root's password", "own password", "no password", "password that is not asked for"])
def test_commands_with_sudo(dump, agent, server, account, sudo_password):
    # As root leaves it when root's umask is strict.
    agent.on("dump", "umask 077; unlink qq($FindBin::Bin/dump.xml);")
    assert_dumped(dump("--sudo-password", action="--dump-all", account=account, sudo_password=sudo_password))
    assert server.commands() == commands_with_sudo(agent.directory, account.login)
    assert one_call(agent).uid == 0
    assert (agent.directory / "dump.xml").stat().st_uid == account.uid
    assert (agent.directory / "dump.xml").stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("account, sudo_password, before", [
    (MOVER, MOVER.sudo_password, b""), (NOPASS, "", b""), (NOPASS, "never-asked-For-1", b"never-asked-For-1\n")],
    ids=["asked", "empty", "not asked"])
def test_password_line_that_sudo_does_not_take_is_the_first_of_the_dumpers_input(dump, agent, account, sudo_password,
                                                                                before):
    options = {"account": account, "sudo_password": sudo_password}
    assert_dumped(dump("--sudo-password", "--domains=d,e", "--clients=c", **options))
    assert_dumped(dump("--sudo-password", **options))
    assert [call.stdin for call in agent.calls()] == [before + b"d,e\nc", before]


@pytest.mark.parametrize("sudo_password, line", [("a sudo Password", b"a sudo Password\n"), ("", b"")])
def test_sudo_is_given_the_password_line_and_then_the_lists(dump, start_sshd, agent, workspace, outbox, sudo_password,
                                                            line):
    tools = make_dir(workspace / "bin")
    write(tools / "sudo", f'#!/bin/sh\ncase "$*" in *run.pl*) cat >{outbox}/input ; echo x >{agent.directory}/dump.xml '
                          ';; esac\n', 0o755)
    server = start_sshd(path=f"{tools}:/usr/bin:/bin")
    for options, lists in ((["--resellers=r"], b"r"), ([], b"")):
        assert_dumped(dump("--sudo-password", *options, to=server, sudo_password=sudo_password), b"x\n")
        assert (outbox / "input").read_bytes() == line + lists


def test_sudo_that_is_not_allowed_ends_the_dump_before_the_dumper_runs(dump, agent, server):
    run = dump("--sudo-password", account=PLAIN, sudo_password=PLAIN.password)
    assert_failed(run, "SudoNotAllowed", "sudo is not allowed for user plain on host 127.0.0.1.")
    assert server.commands() == CHECKS
    assert agent.calls() == []


def test_dumper_runs_under_the_interpreter_of_its_agent(tallowick, product, server, outbox):
    directory = make_dir(outbox / "agent", 0o777)
    write(make_dir(directory / "bin") / "run", f"printf '<%s/>' \"$2\" >{directory}/dump.xml\n")
    AgentCatalogue(product).install("Shell", EntryPoint="bin/run", Interpreter="/bin/sh")
    run = tallowick.run("--dump-all", *source(server), f"--agent-dir={directory}", "--agent-name=Shell")
    assert_dumped(run, b"<--dump-all/>")
    assert server.commands()[0] == (
        rf"sh -c cd\ {directory}\;\ /bin/sh\ {directory}/bin/run\ --migration-mode\ --dump-all".encode())


@pytest.mark.parametrize("spec", ["EntryPoint: run.pl\n", "EntryPoint: run.pl\nInterpreter:\n",
                                  "EntryPoint: run.pl\nInterpreter:  \t \n"], ids=["absent", "empty", "blank"])
def test_agent_without_interpreter_is_run_with_perl(dump, product, agent, server, spec):
    AgentCatalogue(product).install(agent.name, spec=spec)
    assert_dumped(dump())
    assert shlex.split(shlex.split(server.commands()[0].decode())[2])[2:4] == ["perl", f"{agent.directory}/run.pl"]


def test_words_with_odd_letters_are_quoted_one_by_one(tallowick, product, server, outbox):
    odd = DeployedAgent(product, outbox / "a b", entry_point="x'$y.pl")
    assert_dumped(tallowick.run("--dump-all", *source(server), *odd.options))
    # Only the directory that is entered stands unquoted, so here it is not entered.
    assert server.commands() == [
        rf"sh -c cd\ {outbox}/a\ b\;\ perl\ {outbox}/a\\\ b/x\\\'\\\$y.pl\ --migration-mode\ --dump-all".encode(),
        rf"cat {outbox}/a\ b/dump.xml".encode()]
    assert one_call(odd).cwd == str(MOVER.home)


def test_login_root_dumps_without_sudo(dump, agent):
    assert_dumped(dump(account=ACCOUNTS["root"]))
    assert one_call(agent).uid == 0


def test_status_document_tells_that_the_agent_waits(tallowick, server, agent):
    os.mkfifo(agent.directory / "held", 0o666)
    agent.on("dump", "open my $held, '<', qq($FindBin::Bin/held); readline $held;")
    running = tallowick.start("--dump-all", *source(server), *agent.options)
    with open_for_reader(agent.directory / "held"):
        assert shape(running.session.status) == (
            "migration-status", {}, "", [("agent", {"action": "wait"}, "", [("host", {}, "127.0.0.1", [])])])
    assert_dumped(running.wait())


@pytest.mark.parametrize("size", [0, 1, 65535, 65536, 65537, 5_000_000])
def test_dump_of_any_size_arrives_byte_for_byte(dump, agent, size):
    content = (bytes(range(256)) * (size // 256 + 1))[:size]
    agent.answer(dump=content)
    run = dump()
    assert_dumped(run, content)
    assert run.session.names() == ["archives", "dump-name", "dump.xml", "migration.log", "migration.result",
                                   "migration.status"]


def test_dump_is_never_logged(dump):
    assert "one.example" not in dump("--verbose", "--clients=c").session.log


@pytest.mark.parametrize("umask", [0o000, 0o077])
def test_dump_is_readable_for_all_whatever_the_umask_is(dump, umask):
    file = dump(umask=umask).session.file("dump.xml")
    assert file.stat().st_mode & 0o777 == 0o644


def test_later_dump_replaces_the_earlier_one_as_a_whole(dump, agent):
    first = dump()
    before = first.session.file("dump.xml").open("rb")
    agent.answer(dump=b"<later/>")
    with before:
        assert_dumped(dump(session=first.session), b"<later/>")
        assert before.read() == DUMP


def test_dump_name_is_the_path_as_it_was_given(tallowick, server, agent, workspace):
    path = f"{workspace}/given//session/"
    run = tallowick.run("--dump-all", *source(server), *agent.options, f"--session-path={path}", session=False)
    assert run.status == 0
    assert (workspace / "given/session/dump-name").read_text() == f"{path}/dump.xml"


def test_longer_name_of_an_earlier_dump_is_replaced(dump, tallowick):
    session = tallowick.new_session()
    make_dir(session.path)
    write(session.file("dump-name"), "x" * 5000 + "\n")
    assert_dumped(dump(session=session))


def test_dumper_that_fails_is_quoted(dump, agent):
    agent.fail("dump", "oh dear\nso sorry", 3)
    run = dump("--domains=d")
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format("oh dear\nso sorry"))
    assert not run.session.file("dump.xml").exists()
    assert "Execution finished with return code 3\n" in run.session.log


def test_dumper_that_fails_in_silence(dump, agent):
    agent.on("dump", "exit 1;")
    assert_failed(dump(), "CantRetrieveDumpFile", DUMPER_FAILED.format(""))


def test_dumper_that_fails_after_it_left_a_dump_is_a_failure(dump, agent):
    write(agent.directory / "dump.xml", DUMP)
    agent.fail("dump")
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile")
    assert not run.session.file("dump.xml").exists()


@pytest.mark.parametrize("sudo", [(), ("--sudo-password",)], ids=["without sudo", "with sudo"])
def test_dumper_that_is_killed_is_a_failure(dump, agent, sudo):
    agent.on("dump", "print STDERR q(some words); kill KILL => $$; sleep 1000;")
    run = dump(*sudo, sudo_password=MOVER.sudo_password)
    assert_failed(run, "CantRetrieveDumpFile")
    # Under sudo, the prompt and the shell's own remark stand around them.
    assert "some words" in run.session.error().inner.description
    assert "Execution finished with return code 137\n" in run.session.log


def test_dumper_that_does_not_exist_is_a_failure(dump, agent):
    agent.entry_point.unlink()
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile")
    assert f"{agent.directory}/run.pl" in run.session.error().inner.description
    assert "Execution finished with return code 2\n" in run.session.log


def test_interpreter_that_does_not_exist_is_a_failure(dump, product, agent):
    AgentCatalogue(product).install(agent.name, EntryPoint="run.pl", Interpreter="no-such-interpreter")
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile")
    assert "no-such-interpreter" in run.session.error().inner.description
    assert "Execution finished with return code 127\n" in run.session.log


def test_failed_dumper_leaves_the_earlier_dump_alone(dump, agent):
    session = dump().session
    session.file("dump-name").unlink()
    agent.fail("dump")
    assert_failed(dump(session=session), "CantRetrieveDumpFile")
    assert session.file("dump.xml").read_bytes() == DUMP


def test_dumper_that_leaves_no_dump_is_a_failure_that_quotes_cat(dump, agent):
    agent.answer(dump=None)
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile",
                  DUMPER_FAILED.format(f"cat: {agent.directory}/dump.xml: No such file or directory\n"))
    assert not run.session.file("dump.xml").exists()


def test_with_sudo_a_dumper_that_leaves_no_dump_is_a_failure_that_quotes_chown(dump, agent, server):
    agent.answer(dump=None)
    run = dump("--sudo-password", sudo_password=MOVER.sudo_password)
    assert_failed(run, "CantTakeFileOwnership")
    assert run.session.error().inner.description.startswith(f"Cannot take ownership of {agent.directory}/dump.xml: ")
    assert "No such file or directory" in run.session.error().inner.description
    assert not any(command.startswith(b"cat ") for command in server.commands())


def test_dump_that_the_login_cannot_read_is_a_failure(dump, agent):
    agent.on("dump", "unlink qq($FindBin::Bin/dump.xml); umask 0777;")
    assert_failed(dump(), "CantRetrieveDumpFile",
                  DUMPER_FAILED.format(f"cat: {agent.directory}/dump.xml: Permission denied\n"))


def test_failed_download_leaves_the_earlier_dump_alone(dump, agent):
    session = dump().session
    session.file("dump-name").unlink()
    (agent.directory / "dump.xml").unlink()
    agent.answer(dump=None)
    assert_failed(dump(session=session), "CantRetrieveDumpFile")
    assert session.file("dump.xml").read_bytes() == DUMP


@pytest.mark.parametrize("end", ["exit 1", "kill -KILL $$"])
def test_download_that_stops_half_way_leaves_the_earlier_dump_alone(dump, agent, start_sshd, workspace, end):
    session = dump().session
    session.file("dump-name").unlink()
    tools = make_dir(workspace / "bin")
    write(tools / "cat", f"#!/bin/sh\nhead -c 3 \"$1\"; echo oops >&2; {end}\n", 0o755)
    run = dump(session=session, to=start_sshd(path=f"{tools}:/usr/bin:/bin"))
    assert_failed(run, "CantRetrieveDumpFile")
    assert session.error().inner.description.startswith(DUMPER_FAILED.format("oops\n"))
    assert session.file("dump.xml").read_bytes() == DUMP


LINES = "".join(f"line {number:06} of many\n" for number in range(100_000))
SAY_MUCH = r"for (0 .. 99_999) { printf STDERR qq(line %06d of many\n), $_; printf qq(line %06d of many\n), $_; }"


def test_dumper_that_says_megabytes_is_no_failure_and_is_logged_whole(tallowick_release, server, agent):
    agent.on("dump", SAY_MUCH)
    run = tallowick_release.run("--dump-all", *source(server), *agent.options)
    assert_dumped(run)
    for stream in ("stdout", "stderr"):
        chunks = [record.text for record in run.session.records if record.text.startswith(f"remote {stream} -> ")]
        assert "".join(chunk.removeprefix(f"remote {stream} -> ") for chunk in chunks) == LINES


def test_standard_error_of_a_failed_dumper_is_told_whole_up_to_128_kib(tallowick_release, server, agent):
    agent.on("dump", "print STDERR 'x' x 65536, 'y' x 65536; exit 5;")
    run = tallowick_release.run("--dump-all", *source(server), *agent.options)
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format("x" * 65536 + "y" * 65536))


def test_of_a_longer_standard_error_both_ends_are_told(tallowick_release, server, agent):
    agent.on("dump", SAY_MUCH + "exit 5;")
    run = tallowick_release.run("--dump-all", *source(server), *agent.options)
    told = f"{LINES[:65536]}\n[{len(LINES) - 131072} bytes left out]\n{LINES[-65536:]}"
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format(told))


def test_standard_error_that_is_no_text_is_told_as_text(dump, agent):
    agent.on("dump", r'binmode STDERR; print STDERR "\xff\x00\x1b[1mbold\x{c3}\x{bc}"; exit 1;')
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format("\ufffd\ufffd\ufffd[1mbold\u00fc"))


READ_INPUT = "my $input = do { local (@ARGV, $/) = glob qq($FindBin::Bin/.agent/calls/*/stdin); <> };"


def test_password_line_that_the_dumper_quotes_is_masked(dump, agent):
    agent.on("dump", READ_INPUT + "print STDERR qq(what is '$input'?); exit 1;")
    run = dump("--sudo-password", "--domains=d", account=NOPASS, sudo_password="some-Sudo-Password 4")
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format(f"what is '{MASK}\nd'?"))


def test_access_to_its_host_that_the_dumper_quotes_is_masked(dump, agent, server):
    agent.on("dump", READ_INPUT + "print $input; print STDERR $input; exit 1;")
    run = dump("--content-transport=rsync", "--verbose")
    assert run.status == 2
    lines = f"127.0.0.1\nmover\n{MASK}\n{server.port}\n"
    assert run.session.error().inner.description == DUMPER_FAILED.format(lines)
    for label in ("stdin <-", "stdout ->", "stderr ->"):
        assert f"remote {label} {lines}" in run.session.log


def test_agent_that_is_not_known_ends_the_dump_before_the_connection(tallowick, server, agent):
    run = tallowick.run("--dump-all", *source(server), f"--agent-dir={agent.directory}", "--agent-name=Other")
    assert_failed(run, "AgentNotFound", "Agent Other was not found or does not contain proper spec file")
    assert server.commands() == []
    assert "Resolving" not in run.session.log


@pytest.mark.parametrize("spec", ["EntryPoint run.pl\n", "Entrypoint: run.pl\n"], ids=["no colon", "unknown key"])
def test_agent_with_a_broken_spec_file_is_not_known(dump, product, agent, server, spec):
    AgentCatalogue(product).install(agent.name, spec=spec)
    assert_failed(dump(), "AgentNotFound")
    assert server.commands() == []


def test_failed_connection_is_included(tallowick, agent):
    run = tallowick.run("--dump-all", *source(1), *agent.options)
    assert_failed(run, "ConnectionRefused", "No one listening on the remote address at host 127.0.0.1")


def test_refused_login_is_included(dump, agent):
    assert_failed(dump(password="wrong-Password-7"), "SshInvalidCredentials")
    assert agent.calls() == []


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_connection_lost_while_the_dumper_runs_is_included(tallowick, server, agent, start_relay, kind):
    os.mkfifo(agent.directory / "held", 0o666)
    agent.on("dump", "open my $held, '<', qq($FindBin::Bin/held); readline $held;")
    relay = start_relay(server)
    running = tallowick.start("--dump-all", *source(relay), *agent.options)
    with open_for_reader(agent.directory / "held"):
        relay.connections[0].act(kind, "server")
        run = running.wait()
    assert_failed(run, "SshConnectionFault", "Lost connection with the remote host")
    assert not run.session.file("dump.xml").exists()


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_connection_lost_amid_the_dump_leaves_the_earlier_one_alone(dump, server, agent, start_relay, kind):
    session = dump().session
    session.file("dump-name").unlink()
    agent.answer(dump=b"x" * 3_000_000)
    run = dump(to=start_relay(server, Fault(kind, 1_000_000)), session=session)
    assert_failed(run, "SshConnectionFault")
    assert session.file("dump.xml").read_bytes() == DUMP


def test_half_of_a_dump_never_shows(tallowick, server, agent, start_relay):
    agent.answer(dump=b"x" * 3_000_000)
    relay = start_relay(server, Fault(STALL, 1_000_000))
    running = tallowick.start("--dump-all", *source(relay), *agent.options)
    wait_until(lambda: relay.connections and relay.connections[0].cut.is_set(), "half of the dump")
    wait_until(lambda: [name for name in temporary_names(running.session)
                        if running.session.file(name).stat().st_size], "what was received of it")
    assert not running.session.file("dump.xml").exists()
    relay.connections[0].close()
    assert_failed(running.wait(), "SshConnectionFault")


KINDS = ["link to a file", "link to nothing", "fifo", "character device", "directory"]


@pytest.mark.parametrize("kind", KINDS)
def test_what_is_no_regular_file_is_not_replaced_by_the_dump(dump, tallowick, outside, kind):
    session = tallowick.new_session()
    make_dir(session.path)
    planted = Planted(kind, session.file("dump.xml"), outside)
    assert_failed(dump(session=session), "StreamWrite", "Cannot write data to the stream")
    assert planted.is_at(session.file("dump.xml"))


@pytest.mark.parametrize("kind", KINDS)
def test_what_is_no_regular_file_is_not_written_as_the_record_of_the_dumps_name(dump, tallowick, outside, kind):
    session = tallowick.new_session()
    make_dir(session.path)
    planted = Planted(kind, session.file("dump-name"), outside)
    assert_name_not_written(dump(session=session))
    assert planted.is_at(session.file("dump-name"))


def assert_name_not_written(run):
    beginning = f"Error during {run.session.file('dump-name')} write: "
    assert run.status == 2
    assert run.err.startswith(beginning) and len(run.err) > len(beginning)
    error = run.session.error()
    assert (error.code, error.description, error.inner) == ("FileWrite", run.err, None)
    assert run.session.succeeded() == "error"
    assert shape(run.session.status) == IDLE
    assert run.session.file("dump.xml").read_bytes() == DUMP


@pytest.mark.parametrize("earlier", [True, False])
def test_full_disk_leaves_the_earlier_dump_alone(dump, agent, workspace, earlier):
    with small_disk(workspace / "disk", "size=512k") as disk:
        session = Session(disk / "session")
        if earlier:
            dump(session=session)
            session.file("dump-name").unlink()
        agent.answer(dump=b"x" * 3_000_000)
        assert_failed(dump(session=session), "StreamWrite", "Cannot write data to the stream")
        assert session.file("dump.xml").exists() == earlier
        if earlier:
            assert session.file("dump.xml").read_bytes() == DUMP


def test_last_byte_of_the_dump_that_cannot_be_written_counts(dump, agent):
    limit = 200_000
    options = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))}
    agent.answer(dump=b"x" * limit)
    assert_dumped(dump(**options), b"x" * limit)
    agent.answer(dump=b"x" * (limit + 1))
    assert_failed(dump(**options), "StreamWrite")


def test_full_disk_below_the_record_of_the_dumps_name_is_told(dump, tallowick, workspace):
    session = tallowick.new_session()
    make_dir(session.path)
    with full_disk_at(session.file("dump-name"), workspace / "disk"):
        assert_name_not_written(dump(session=session))


def test_next_dump_succeeds_where_the_last_one_failed(dump, agent):
    agent.fail("dump")
    session = dump().session
    agent.on("dump", "")
    assert_dumped(dump(session=session))
