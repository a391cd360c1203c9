# SPDX-License-Identifier: Apache-2.0
"""Fetching the content of a dump: which files get here, under which names, and what is done on the source host."""

import hashlib
import os
import pathlib
import re
import stat
from xml.etree import ElementTree

import pytest

from harness.accounts import MOVER, NOPASS, OVNADM, PLAIN
from harness.agents import ContentFile, DeployedAgent, content_file, content_list
from harness.content import (LIST_CALL, RESULT, Commands, Poller, fetched_files, free_bytes, get_content, log_entries,
                             missing_on_both_sides, remote_files, small_disk, tree)
from harness.places import make_dir, write
from harness.relay import FIN, RST, Fault
from harness.session import shape
from harness.waiting import wait_until

MIB = 1024 * 1024


def bytes_of(size):
    """Bytes that repeat with a period that no buffer has."""
    return (bytes(range(251)) * (size // 251 + 1))[:size]


@pytest.fixture
def dumps(workspace):
    """A directory for --dumps-dir."""
    return make_dir(workspace / "dumps")


def test_files_are_fetched_and_removed_one_by_one_in_the_order_of_the_list(tallowick, server, agent):
    contents = {"b.tar": b"second name first", "sub/dir/a.tar": b"deeper", "a.tar": b"last"}
    agent.offer(contents)
    run = get_content(tallowick, server, agent)
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("b.tar", "sub/dir/a.tar", "a.tar")]
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {}


def test_agent_is_asked_once_in_its_directory_for_the_list(tallowick, server, agent):
    get_content(tallowick, server, agent)
    call, = agent.calls()
    assert (call.arguments, call.stdin, call.cwd, call.uid) == (LIST_CALL, b"", str(agent.directory), MOVER.uid)


def test_interpreter_and_entry_point_of_the_agent_are_used_and_quoted(tallowick, server, product, workspace):
    interpreter = workspace / "my perl"
    interpreter.symlink_to("/usr/bin/perl")
    agent = DeployedAgent(product, workspace / "agent", entry_point="run $me.pl", Interpreter=interpreter)
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    commands = Commands(agent, interpreter=str(interpreter))
    assert server.commands() == [commands.list(), *commands.fetched("file")]


def test_unknown_agent_is_told_before_anything_is_run(tallowick, server, agent):
    run = tallowick.run("--get-content", "--host=127.0.0.1", f"--port={server.port}", "--login=mover",
                        f"--agent-dir={agent.directory}", "--agent-name=Nobody")
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "AgentNotFound"
    assert error.description == "Agent Nobody was not found or does not contain proper spec file"
    assert server.commands() == []


def test_refused_connection_has_its_own_status_and_stands_in_the_result_document(tallowick, agent):
    run = get_content(tallowick, 1, agent)
    assert run.status == 11
    error = run.session.error(RESULT)
    assert (error.code, error.inner) == ("ConnectionRefused", None)
    assert run.err == error.description
    assert run.session.succeeded(RESULT) == "error"


def test_content_may_come_unencrypted(tallowick, server, agent):
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent, "--no-encryption")
    assert run.status == 0
    assert fetched_files(run.session) == {"file": b"text"}


def test_with_sudo_the_list_and_the_removal_run_as_root_and_the_download_as_the_login(tallowick, server, agent):
    agent.offer({"file": b"text", "locked/file": b"more"})
    os.chown(agent.directory / "locked", 0, 0)
    run = get_content(tallowick, server, agent, "--sudo-password", sudo_password=MOVER.sudo_password)
    assert run.status == 0
    commands = Commands(agent, sudo=True)
    assert server.commands() == [*Commands.SUDO, commands.list(), *commands.fetched("file", "locked/file")]
    assert agent.calls()[0].uid == 0
    assert remote_files(agent) == {}
    assert log_entries(run.session, "UnableToRemoveRemoteFile") == []


def test_sudo_that_asks_for_nothing_gets_no_password_line(tallowick, server, agent):
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent, "--sudo-password", account=NOPASS, sudo_password="")
    assert run.status == 0
    assert agent.calls()[0].stdin == b""
    assert fetched_files(run.session) == {"file": b"text"}


def test_login_without_sudo_fetches_nothing_through_sudo(tallowick, server, agent):
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent, "--sudo-password", account=PLAIN, sudo_password="some-Sudo-9")
    assert run.status == 2
    assert run.session.error(RESULT).code == "SudoNotAllowed"
    assert server.commands() == list(Commands.SUDO)


ODD_NAMES = [
    "two  blanks", " blank at both ends ", "it's", 'say "so"', "$HOME", "new\nline", "tab\tstop", "ünïcödé 名前",
    "-dash", "-rf", "--", "semi;colon&amp", "star*?[x]", "back`tick`", "back\\slash", "per%1%cent", "#hash", "~tilde",
    "{brace}", "a,b}", "100%", "<angle>", "...", "a..b", ".hidden", "-d/-e f/'g'", "sub dir/ü/\n/x", "n" * 255,
]


def test_odd_names_arrive_as_they_are_listed(tallowick, server, agent):
    contents = {name: f"content of {name}".encode() for name in ODD_NAMES}
    agent.offer(contents)
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {}
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched(*ODD_NAMES)]
    assert log_entries(run.session, "WrongMd5Sum") == []


def test_odd_names_are_removed_through_sudo_as_well(tallowick, server, agent):
    contents = {name: name.encode() for name in ("it's $x", "new\nline", "-rf \\")}
    agent.offer(contents)
    run = get_content(tallowick, server, agent, "--sudo-password", sudo_password=MOVER.sudo_password)
    assert run.status == 0
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {}


def test_slashes_and_dots_too_many_lead_to_the_same_file(tallowick, server, agent):
    agent.add("sub/file", b"text")
    agent.answer(list=content_list([content_file(".//sub/./file", b"text")]))
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert fetched_files(run.session) == {"sub/file": b"text"}
    assert server.commands()[1] == f"cat {agent.directory}/.//sub/./file".encode()


def test_files_of_any_size_arrive_whole(tallowick, server, agent):
    contents = {f"file-{size}": bytes_of(size) for size in (0, 1, 65535, 65536, 65537, 5 * MIB + 3)}
    agent.offer(contents)
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {}


def test_content_is_never_logged(tallowick, server, agent):
    agent.offer({"file": b"Content-That-Is-Private"})
    run = get_content(tallowick, server, agent)
    assert "Content-That-Is-Private" not in run.session.log


def test_empty_list_downloads_nothing_and_still_writes_both_name_records(tallowick, server, agent):
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert server.commands() == [Commands(agent).list()]
    assert run.session.file("dump-name").read_bytes() == f"{run.session.path}/dump.xml".encode()
    assert run.session.file("migration-result-name").read_bytes() == f"{run.session.path}/migration.result".encode()
    assert fetched_files(run.session) == {}


def last_status_before_idle(tallowick, server, agent, *options):
    """What the status document says once the content is here and both name records are written."""
    session = tallowick.new_session()
    # Room for the directory itself, the archives, the log, the status with its successor, and one more: after the
    # two name records the idle status cannot be written any more, so the one before it stays.
    with small_disk(session.path, "nr_inodes=6"):
        run = get_content(tallowick, server, agent, *options, session=session)
        assert run.status == 2
        assert run.err.startswith("Can not create temporary file with the template ")
        assert {"dump-name", "migration-result-name"} < set(session.names())
        return shape(session.status)


def test_empty_list_writes_the_totals_0_and_0(tallowick, server, agent):
    assert last_status_before_idle(tallowick, server, agent) == ("migration-status", {}, "", [
        ("transfer", {}, "", [
            ("host", {}, "127.0.0.1", []),
            ("files", {"total": "0", "left": "0", "size-total": "0", "size-left": "0"}, "", [])])])


def test_last_status_of_a_transfer_counts_files_and_bytes_down_to_0(tallowick, server, agent, dumps):
    agent.offer({"one": b"1234567", "sub/two": b"12345"})
    name, _, _, (transfer,) = last_status_before_idle(tallowick, server, agent, f"--dumps-dir={dumps}")
    assert (name, transfer[0]) == ("migration-status", "transfer")
    assert int(transfer[1]["speed"]) in range(13)
    assert transfer[3] == [
        ("host", {}, "127.0.0.1", []),
        ("files", {"total": "2", "left": "0", "size-total": "12", "size-left": "0"}, "", [
            ("current-file", {"size": "5", "size-left": "0"}, "sub/two", [])])]


def test_result_document_and_idle_status_tell_of_success(tallowick, server, agent):
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent)
    assert shape(run.session.result(RESULT)) == ("execution-result", {"status": "success"}, "", [])
    assert "migration.result" not in run.session.names()
    assert shape(run.session.status) == ("migration-status", {}, "", [("idle", {}, "", [])])


def test_result_documents_of_earlier_runs_are_numbered(tallowick, server, agent):
    session = tallowick.new_session()
    agent.fail("list", "first")
    get_content(tallowick, server, agent, session=session)
    agent.fail("list", "second")
    get_content(tallowick, server, agent, session=session)
    agent.on("list", "")
    get_content(tallowick, server, agent, session=session)
    assert [name for name in session.names() if name.startswith(RESULT)] == [RESULT, f"{RESULT}.1", f"{RESULT}.2"]
    assert session.succeeded(RESULT) == "success"
    assert session.error(f"{RESULT}.1").description.endswith(": first")
    assert session.error(f"{RESULT}.2").description.endswith(": second")


def test_agent_that_fails_is_told_with_its_standard_error(tallowick, server, agent):
    agent.offer({"file": b"text"})
    agent.fail("list", "no list today\n", 7)
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "CantRetrieveContentList"
    assert error.description == "Error during content list retrieval: no list today\n"
    assert error.inner is None
    assert run.err == error.description
    assert server.commands() == [Commands(agent).list()]
    assert "dump-name" not in run.session.names()


def test_present_file_with_the_right_sum_is_not_downloaded_but_removed_remotely(tallowick, server, agent):
    agent.offer({"file": b"text"})
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"text", 0o600)
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), commands.rm("file")]
    assert remote_files(agent) == {}
    assert fetched_files(session) == {"file": b"text"}
    assert stat.S_IMODE(session.file("file").stat().st_mode) == 0o600


def test_present_file_with_another_sum_is_replaced(tallowick, server, agent):
    agent.offer({"file": b"new text"})
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"a longer old text")
    assert get_content(tallowick, server, agent, session=session).status == 0
    assert fetched_files(session) == {"file": b"new text"}
    assert Commands(agent).cat("file") in server.commands()


@pytest.mark.parametrize("size", [None, 4], ids=["no size", "size"])
def test_file_without_a_listed_sum_is_always_downloaded(tallowick, server, agent, size):
    agent.add("file", b"text")
    agent.answer(list=content_list([ContentFile("file", size), ContentFile("other", size, "")]))
    agent.add("other", b"TEXT")
    session = tallowick.new_session()
    for name in ("file", "other"):
        write(make_dir(session.path) / name, b"text")
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("file", "other")]
    assert fetched_files(session) == {"file": b"text", "other": b"TEXT"}
    assert remote_files(agent) == {}


def test_listed_sum_in_upper_case_is_the_same_sum_but_skips_nothing(tallowick, server, agent):
    agent.add("file", b"text")
    agent.answer(list=content_list([ContentFile("file", 4, hashlib.md5(b"text").hexdigest().upper())]))
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"text")
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("file")]
    assert log_entries(session, "WrongMd5Sum") == []
    assert remote_files(agent) == {}


def test_file_with_a_wrong_sum_stays_remotely_and_the_next_run_fetches_it_again(tallowick, server, agent):
    agent.add("before", b"one")
    agent.add("file", b"damaged")
    agent.add("after", b"two")
    good = b"as it should be"
    agent.answer(list=content_list([content_file("before", b"one"), content_file("file", good),
                                    content_file("after", b"two")]))
    run = get_content(tallowick, server, agent)
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.succeeded(RESULT) == "success"
    assert remote_files(agent) == {"file": b"damaged"}
    assert fetched_files(run.session) == {"before": b"one", "file": b"damaged", "after": b"two"}
    entry, = log_entries(run.session, "WrongMd5Sum")
    assert f"{agent.directory}/file" in entry
    assert hashlib.md5(good).hexdigest() in entry
    assert hashlib.md5(b"damaged").hexdigest() in entry

    agent.offer({"file": good})
    server.forget()
    run = get_content(tallowick, server, agent, session=run.session)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("file")]
    assert fetched_files(run.session)["file"] == good
    assert remote_files(agent) == {}


def test_download_with_a_wrong_sum_never_replaces_the_listed_file(tallowick, server, agent):
    good = b"fetched by an earlier run"
    agent.add("sub/file", b"damaged by now")
    agent.answer(list=content_list([content_file("sub/file", good)]))
    session = tallowick.new_session()
    write(make_dir(session.path / "sub") / "file", good)
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 0
    assert Commands(agent).cat("sub/file") in server.commands()
    assert fetched_files(session) == {"sub/file": good}
    assert remote_files(agent) == {"sub/file": b"damaged by now"}
    assert len(log_entries(session, "WrongMd5Sum")) == 1


def test_without_a_sum_the_size_decides_where_the_list_gives_one(tallowick, server, agent):
    for name in ("right", "too long", "too short", "unknown"):
        agent.add(name, b"12345")
    agent.answer(list=content_list([ContentFile("right", 5), ContentFile("too long", 4), ContentFile("too short", 6),
                                    ContentFile("unknown")]))
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert sorted(remote_files(agent)) == ["too long", "too short"]
    assert sorted(fetched_files(run.session)) == ["right", "too long", "too short", "unknown"]
    entries = log_entries(run.session, "WrongMd5Sum")
    assert [re.search("'(.*?)'", entry)[1] for entry in entries] == [f"{agent.directory}/too long",
                                                                   f"{agent.directory}/too short"]
    assert "5 bytes" in entries[0] and "4 bytes" in entries[0]


def test_listed_size_does_not_matter_beside_a_right_sum(tallowick, server, agent):
    agent.add("file", b"text")
    agent.answer(list=content_list([ContentFile("file", 999, hashlib.md5(b"text").hexdigest())]))
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert remote_files(agent) == {}
    assert log_entries(run.session, "WrongMd5Sum") == []


def test_file_that_is_found_by_its_last_component_is_copied_to_the_listed_path(tallowick, server, agent):
    agent.offer({"one/two/file": b"text"})
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"text")
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), commands.rm("one/two/file")]
    assert fetched_files(session) == {"file": b"text", "one/two/file": b"text"}
    assert stat.S_IMODE(session.file("one/two/file").stat().st_mode) == 0o644


def test_two_listed_paths_with_the_same_last_component_both_exist_afterwards(tallowick, server, agent):
    contents = {"file": b"same", "one/file": b"same", "two/file": b"different", "three/file": b"same"}
    agent.offer(contents)
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("file"), commands.rm("one/file"),
                                 *commands.fetched("two/file"), commands.rm("three/file")]
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {}


def test_with_a_dumps_directory_files_go_there(tallowick, server, agent, dumps):
    contents = {"file": b"text", "sub/file": b"other"}
    agent.offer(contents)
    run = get_content(tallowick, server, agent, f"--dumps-dir={dumps}")
    assert run.status == 0
    assert tree(dumps) == contents
    assert fetched_files(run.session) == {}
    assert run.session.file("dump-name").read_bytes() == f"{dumps}/dump.xml".encode()
    assert run.session.file("migration-result-name").read_bytes() == f"{dumps}/migration.result".encode()


def test_with_a_dumps_directory_nothing_in_it_is_skipped(tallowick, server, agent, dumps):
    agent.offer({"file": b"text"})
    write(dumps / "file", b"text")
    assert get_content(tallowick, server, agent, f"--dumps-dir={dumps}").status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("file")]


def test_with_a_dumps_directory_a_match_in_the_session_directory_is_copied_there(tallowick, server, agent, dumps):
    agent.offer({"sub/file": b"text"})
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"text")
    assert get_content(tallowick, server, agent, f"--dumps-dir={dumps}", session=session).status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), commands.rm("sub/file")]
    assert tree(dumps) == {"sub/file": b"text"}
    assert remote_files(agent) == {}


def test_name_records_hold_the_directory_as_it_was_given(tallowick, server, agent, workspace):
    make_dir(workspace / "a b")
    run = get_content(tallowick, server, agent, "--dumps-dir=a b/", cwd=workspace)
    assert run.status == 0
    assert run.session.file("dump-name").read_bytes() == b"a b//dump.xml"
    assert run.session.file("migration-result-name").read_bytes() == b"a b//migration.result"


def test_name_records_hold_the_session_directory_as_it_was_given(tallowick, server, agent, workspace):
    path = workspace / "session"
    run = get_content(tallowick, server, agent, f"--session-path={path}/", session=False)
    assert run.status == 0
    assert (path / "dump-name").read_bytes() == f"{path}//dump.xml".encode()
    assert (path / "migration-result-name").read_bytes() == f"{path}//migration.result".encode()


def test_longer_name_record_of_an_earlier_run_is_replaced(tallowick, server, agent):
    session = tallowick.new_session()
    write(make_dir(session.path) / "dump-name", b"x" * 500)
    assert get_content(tallowick, server, agent, session=session).status == 0
    assert session.file("dump-name").read_bytes() == f"{session.path}/dump.xml".encode()


# What a second run meets when the agent lists again what it has listed before.
UNCHANGED = {
    "files with sums": ({"one": b"1", "two": b"22"}, True, False, 0),
    "files in subdirectories": ({"one": b"1", "sub/two": b"22", "sub/dir/two": b"333"}, True, False, 2),
    "files without sums": ({"one": b"1", "two": b"22"}, False, False, 2),
    "a dumps directory": ({"one": b"1", "sub/two": b"22"}, True, True, 2),
}


@pytest.mark.parametrize("contents, sums, elsewhere, second", UNCHANGED.values(), ids=UNCHANGED)
def test_every_byte_stays_on_one_side_when_an_unchanged_list_is_fetched_again(tallowick, server, agent, dumps,
                                                                             contents, sums, elsewhere, second):
    entries = agent.offer(contents)
    if not sums:
        agent.answer(list=content_list([ContentFile(entry.path, entry.size) for entry in entries]))
    session = tallowick.new_session()
    options = [f"--dumps-dir={dumps}"] if elsewhere else []
    target = dumps if elsewhere else session.path
    for expected in (0, second, second):
        run = get_content(tallowick, server, agent, *options, session=session)
        assert run.status == expected
        assert missing_on_both_sides(contents, agent, target) == []
        assert not [name for name in tree(target) if ".incoming-" in name]
    if second == 2:
        # Gone from the source host, so it cannot be downloaded; what is here stays.
        assert run.session.error(RESULT).inner.code == "CantRetrieveContentFile"


def test_every_byte_stays_on_one_side_when_sums_are_wrong(tallowick, server, agent):
    contents = {"one": b"1", "sub/one": b"22"}
    for path, content in contents.items():
        agent.add(path, content)
    agent.answer(list=content_list([ContentFile(path, len(content), "0" * 32)
                                    for path, content in contents.items()]))
    session = tallowick.new_session()
    for _ in range(2):
        assert get_content(tallowick, server, agent, session=session).status == 0
        assert remote_files(agent) == contents
        assert fetched_files(session) == contents


def test_list_larger_than_the_free_space_is_refused_with_both_numbers(tallowick, server, agent, workspace):
    agent.offer({"file": b"text"})
    with small_disk(workspace / "disk", "size=256k") as disk:
        free = free_bytes(disk)
        agent.answer(list=content_list([content_file("file", b"text")], size=free + 1))
        run = get_content(tallowick, server, agent, f"--dumps-dir={disk}")
        assert run.status == 2
        assert tree(disk) == {}
    error = run.session.error(RESULT)
    assert (error.code, error.inner) == ("NotEnoughSpace", None)
    assert error.description == (f"Selected filesystem has only {free} free space, but {free + 1} is needed for "
                                 "operation")
    assert run.err == error.description
    assert server.commands() == [Commands(agent).list()]
    assert remote_files(agent) == {"file": b"text"}
    assert "dump-name" not in run.session.names()


def test_list_as_large_as_the_free_space_is_fetched(tallowick, server, agent, workspace):
    agent.add("file", b"text")
    with small_disk(workspace / "disk", "size=256k") as disk:
        agent.answer(list=content_list([content_file("file", b"text")], size=free_bytes(disk)))
        assert get_content(tallowick, server, agent, f"--dumps-dir={disk}").status == 0
        assert tree(disk) == {"file": b"text"}


def test_without_the_check_of_space_a_larger_list_is_attempted(tallowick, server, agent, workspace):
    agent.add("file", b"text")
    with small_disk(workspace / "disk", "size=256k") as disk:
        agent.answer(list=content_list([content_file("file", b"text")], size=2**62))
        assert get_content(tallowick, server, agent, f"--dumps-dir={disk}", "--no-check-space").status == 0
        assert tree(disk) == {"file": b"text"}
    assert remote_files(agent) == {}


def test_missing_dumps_directory_has_no_free_space_to_ask_for(tallowick, server, agent, workspace):
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent, f"--dumps-dir={workspace}/no/such")
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "CantStatFS"
    assert error.description == f"Cannot stat filesystem containing {workspace}/no/such: No such file or directory"
    assert server.commands() == [Commands(agent).list()]
    assert not (workspace / "no").exists()


def owner_and_mode(path):
    entry = path.stat()
    return (entry.st_uid, entry.st_gid, stat.S_IMODE(entry.st_mode))


def test_missing_dumps_directory_is_made_without_the_check_of_space(tallowick, server, agent, workspace):
    agent.offer({"file": b"text"})
    run = get_content(tallowick, server, agent, f"--dumps-dir={workspace}/no/such", "--no-check-space")
    assert run.status == 0
    assert tree(workspace / "no") == {"such/file": b"text"}
    for made in ("no", "no/such"):
        assert owner_and_mode(workspace / made) == (OVNADM.uid, OVNADM.gid, 0o755)


def test_files_are_readable_for_all_and_directories_belong_to_the_panel(tallowick, server, agent):
    agent.offer({"file": b"text", "sub/dir/file": b"other"})
    session = get_content(tallowick, server, agent, preexec_fn=lambda: os.umask(0o022)).session
    for made in ("sub", "sub/dir"):
        assert owner_and_mode(session.file(made)) == (OVNADM.uid, OVNADM.gid, 0o755)
    for fetched in ("file", "sub/dir/file"):
        assert owner_and_mode(session.file(fetched)) == (0, 0, 0o644)


def test_mask_of_the_caller_counts_for_directories_but_not_for_files(tallowick, server, agent):
    agent.offer({"sub/file": b"text"})
    session = get_content(tallowick, server, agent, preexec_fn=lambda: os.umask(0o077)).session
    assert owner_and_mode(session.file("sub")) == (OVNADM.uid, OVNADM.gid, 0o700)
    assert owner_and_mode(session.file("sub/file")) == (0, 0, 0o644)


def test_existing_directories_keep_their_owner_and_mode(tallowick, server, agent):
    agent.offer({"sub/file": b"text"})
    session = tallowick.new_session()
    os.chown(make_dir(make_dir(session.path) / "sub", 0o711), 12, 13)
    assert get_content(tallowick, server, agent, session=session).status == 0
    assert owner_and_mode(session.file("sub")) == (12, 13, 0o711)


def test_remote_file_that_cannot_be_removed_stops_nothing(tallowick, server, agent):
    contents = {"locked/file": b"text", "file": b"other"}
    agent.offer(contents)
    os.chown(agent.directory / "locked", 0, 0)
    run = get_content(tallowick, server, agent)
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.succeeded(RESULT) == "success"
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {"locked/file": b"text"}
    remote = f"{agent.directory}/locked/file"
    entry, = log_entries(run.session, "UnableToRemoveRemoteFile")
    assert re.match(r"UnableToRemoveRemoteFile\[[0-9a-f-]{36}\0\]: "
                    rf"Unable to remove remote file '{remote}' from '127\.0\.0\.1': "
                    rf"rm: cannot remove '{remote}': Permission denied\n \[\./actions:\d+\]\n", entry)


def test_remote_file_that_is_missing_ends_the_run_and_keeps_what_came_before(tallowick, server, agent):
    agent.add("before", b"one")
    agent.add("after", b"two")
    agent.answer(list=content_list([content_file("before", b"one"), content_file("sub/gone", b"lost"),
                                    content_file("after", b"two")]))
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    assert run.err == "Error during dump retrieval"
    error = run.session.error(RESULT)
    assert (error.code, error.description) == ("CantRetrieveDump", "Error during dump retrieval")
    assert error.inner.code == "CantRetrieveContentFile"
    assert error.inner.description == (
        f"Failed to retrieve file 'sub/gone' from '127.0.0.1' to '{run.session.path}/sub/gone': "
        f"cat: {agent.directory}/sub/gone: No such file or directory\n")
    assert error.inner.inner is None
    assert fetched_files(run.session) == {"before": b"one"}
    assert remote_files(agent) == {"after": b"two"}
    assert "dump-name" not in run.session.names()
    assert shape(run.session.status) == ("migration-status", {}, "", [("idle", {}, "", [])])


def test_remote_file_that_cannot_be_read_keeps_the_local_one(tallowick, server, agent):
    agent.offer({"file": b"new"})
    os.chmod(agent.directory / "file", 0)
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"old")
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 2
    assert run.session.error(RESULT).inner.description.endswith(f"/file': cat: {agent.directory}/file: "
                                                               "Permission denied\n")
    assert fetched_files(session) == {"file": b"old"}
    assert remote_files(agent) == {"file": b"new"}


def test_remote_cat_that_is_killed_midway_leaves_the_file_where_it_was(tallowick, start_sshd, agent, workspace):
    agent.offer({"file": bytes_of(3 * MIB)})
    tools = make_dir(workspace / "bin")
    write(tools / "cat", '#!/bin/sh\nhead -c 1000000 "$1"\nkill -9 $$\n', 0o755)
    server = start_sshd(path=f"{tools}:/usr/bin:/bin")
    session = tallowick.new_session()
    write(make_dir(session.path) / "file", b"old")
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 2
    assert run.session.error(RESULT).inner.code == "CantRetrieveContentFile"
    assert fetched_files(session) == {"file": b"old"}
    assert list(remote_files(agent)) == ["file"]


def test_noise_of_the_login_shell_in_a_file_is_noticed(tallowick, start_sshd, agent):
    contents = {"summed": b"text", "counted": b"text"}
    summed, _ = agent.offer(contents)
    agent.answer(list=content_list([summed, ContentFile("counted", 4)]))
    run = get_content(tallowick, start_sshd(shell_lines='case $command in cat*) echo Welcome ;; esac'), agent)
    assert run.status == 0
    assert remote_files(agent) == contents
    assert len(log_entries(run.session, "WrongMd5Sum")) == 2


@pytest.mark.parametrize("kind", [FIN, RST])
def test_run_after_a_cut_connection_completes_the_content(tallowick, server, agent, start_relay, kind):
    contents = {"one": bytes_of(300_000), "two": bytes_of(300_001), "three": bytes_of(300_002)}
    agent.offer(contents)
    relay = start_relay(server, Fault(kind, 450_000, connection=0))
    session = tallowick.new_session()
    write(make_dir(session.path) / "two", b"old")
    run = get_content(tallowick, relay, agent, session=session)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert (error.code, error.inner.code) == ("CantRetrieveDump", "SshConnectionFault")
    assert fetched_files(session) == {"one": contents["one"], "two": b"old"}
    assert sorted(remote_files(agent)) == ["three", "two"]

    run = get_content(tallowick, relay, agent, session=session)
    assert run.status == 0
    assert fetched_files(session) == contents
    assert remote_files(agent) == {}


def test_content_cut_short_without_a_status_is_not_taken_for_whole(tallowick, start_scripted, agent):
    def answer(run):
        if b"--get-content-list" in run.command:
            run.out(content_list([content_file("file", b"x" * 1000)]).encode())
            run.exit(0)
        else:
            run.out(b"x" * 500)
            run.eof()
            run.close()

    server = start_scripted(run=answer)
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert len(log_entries(run.session, "WrongMd5Sum")) == 1
    assert [command.split()[0] for command in server.commands()] == [b"sh", b"cat"]


def test_refused_download_is_an_error(tallowick, start_scripted, agent):
    def answer(run):
        run.out(content_list([content_file("file", b"")]).encode())
        run.exit(0)

    server = start_scripted(run=answer, accepts_exec=lambda command: not command.startswith(b"cat"))
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    assert run.session.error(RESULT).inner.code == "CantRetrieveContentFile"
    assert fetched_files(run.session) == {}


def states_of(versions):
    """Each version of the status document as (state, attributes, attributes of the current file)."""
    for version in versions:
        root = ElementTree.fromstring(version)
        assert root.find("pid") is None
        state, = root
        files = state.find("files")
        if files is None:
            yield (state.tag if state.find("dumpfile") is None else "dumpfile", {}, {})
        else:
            current = files.find("current-file")
            yield ("files", {**state.attrib, **files.attrib}, {} if current is None else
                   {**current.attrib, "name": current.text})


def numbers(attributes):
    return {name: int(value) for name, value in attributes.items() if name != "name"}


@pytest.mark.parametrize("told", [1, 3], ids=["true sizes", "sizes that are too small"])
def test_status_document_is_whole_and_plausible_whenever_it_is_read(tallowick, server, agent, start_relay, told):
    size = 400_000
    contents = {name: bytes_of(size) for name in ("one", "sub/two", "three")}
    entries = agent.offer(contents)
    agent.answer(list=content_list([ContentFile(entry.path, size // told) for entry in entries]))
    relay = start_relay(server, drip=(16384, 0.004))
    session = tallowick.new_session()
    with Poller(session.file("migration.status")) as poller:
        assert get_content(tallowick, relay, agent, session=session).status == 0
    states = list(states_of(poller.versions))
    kinds = [kind for kind, _, _ in states]
    assert [kind for kind in dict.fromkeys(kinds[:-1]) if kind != "idle"] == ["dumpfile", "files"]
    assert kinds[-1] == "idle"
    seen = [(numbers(files), numbers(current), current) for kind, files, current in states if kind == "files"]
    assert len(seen) > 10
    for files, current, _ in seen:
        assert files["total"] == 3 and files["size-total"] == 3 * (size // told)
        assert 0 <= files["left"] <= files["total"]
        assert 0 <= files["size-left"] <= files["size-total"]
        assert files.get("speed", 0) >= 0
        assert 0 <= current.get("size-left", 0) <= current.get("size", 0)
    for name in ("left", "size-left"):
        assert sorted((files[name] for files, _, _ in seen), reverse=True) == [files[name] for files, _, _ in seen]
    listed = list(dict.fromkeys(current["name"] for _, _, current in seen if current))
    assert listed == ["one", "sub/two", "three"]
    assert any(0 < current["size-left"] < current["size"] for _, current, _ in seen if current)


def test_status_document_tells_the_state_before_the_list_is_there(tallowick, server, agent, workspace):
    gate = workspace / "gate"
    os.mkfifo(gate)
    os.chmod(gate, 0o666)
    agent.on("list", f"open my $gate, '<', q({gate}) or die $!; <$gate>;")
    running = tallowick.start("--get-content", "--host=127.0.0.1", f"--port={server.port}", "--login=mover",
                              *agent.options)
    wait_until(server.commands, "the command line")
    assert shape(running.session.status) == ("migration-status", {}, "", [
        ("transfer", {}, "", [("host", {}, "127.0.0.1", []), ("dumpfile", {}, "", [])])])
    gate.write_bytes(b"go on\n")
    assert running.wait().status == 0


# Prints the peak of the memory that the command behind it had, in KiB, into the file that is its first argument.
MEASURE = ["/usr/bin/python3", "-c", """
import resource, subprocess, sys
status = subprocess.call(sys.argv[2:])
with open(sys.argv[1], "w", encoding="ascii") as file:
    file.write(str(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss))
sys.exit(status)
"""]

# A directory with room for 4 GiB: makes the test below larger.
BIG = os.environ.get("TALLOWICK_BIG_CONTENT")


def test_many_files_arrive_in_little_memory(tallowick_release, start_sshd, agent, workspace):
    contents = {f"dir-{number % 7}/file-{number}": f"{number:04}".encode() * 1024
                for number in range(2000 if BIG else 300)}
    agent.offer(contents)
    peak = workspace / "peak"
    session = tallowick_release.new_session()
    with Poller(session.file("migration.status")) as poller:
        run = get_content(tallowick_release, start_sshd(record=False), agent, session=session,
                          prefix=[*MEASURE, str(peak)], timeout=600)
    assert run.status == 0
    assert {kind for kind, _, _ in states_of(poller.versions)} == {"idle", "dumpfile", "files"}
    assert fetched_files(run.session) == contents
    assert remote_files(agent) == {}
    assert log_entries(run.session, "WrongMd5Sum") == []
    assert 0 < int(peak.read_text()) < 32 * 1024


def test_large_file_arrives_in_little_memory(tallowick_release, server, agent, workspace):
    size = 4 * 1024 * MIB if BIG else 64 * MIB
    zeros, digest = bytes(MIB), hashlib.md5()
    for _ in range(size // MIB):
        digest.update(zeros)
    agent.add("file", b"")
    os.truncate(agent.directory / "file", size)
    agent.answer(list=content_list([ContentFile("file", size, digest.hexdigest())]))
    target = make_dir(pathlib.Path(BIG or workspace) / "target")
    peak = workspace / "peak"
    run = get_content(tallowick_release, server, agent, f"--dumps-dir={target}", prefix=[*MEASURE, str(peak)],
                      timeout=1200)
    try:
        assert run.status == 0
        assert (target / "file").stat().st_size == size
        assert log_entries(run.session, "WrongMd5Sum") == []
        assert not (agent.directory / "file").exists()
        assert 0 < int(peak.read_text()) < 32 * 1024
    finally:
        (target / "file").unlink(missing_ok=True)
