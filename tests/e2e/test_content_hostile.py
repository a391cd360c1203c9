# SPDX-License-Identifier: Apache-2.0
"""What lists of a hostile source, and what stands in the target directory, do to the fetching of content."""

import os
import resource
import stat
import uuid

import pytest

from harness.accounts import MOVER, NOPASS
from harness.agents import ContentFile, content_file, content_list
from harness.content import (RESULT, Commands, fetched_files, get_content, log_entries, remote_files, small_disk,
                             tree)
from harness.disks import full_disk_at
from harness.places import make_dir, write

PRECIOUS = b"not to be touched"


@pytest.fixture
def session(tallowick):
    """A session directory that is there already."""
    session = tallowick.new_session()
    make_dir(session.path)
    return session


@pytest.fixture
def outside(workspace):
    """A directory that has nothing to do with the run, with one file in it."""
    directory = make_dir(workspace / "outside")
    write(directory / "precious", PRECIOUS)
    yield directory
    assert tree(directory) == {"precious": PRECIOUS}


def refusal(run, path, target=None):
    """What the run says of the one content file that it did not fetch, without what names the file."""
    assert run.status == 2
    assert run.err == "Error during dump retrieval"
    error = run.session.error(RESULT)
    assert error.code == "CantRetrieveDump"
    assert error.inner.code == "CantRetrieveContentFile"
    place = f"Failed to retrieve file '{path}' from '127.0.0.1' to '{target or run.session.path}/{path}': "
    assert error.inner.description.startswith(place)
    assert error.inner.inner is None
    return error.inner.description.removeprefix(place)


def assert_nothing_unfinished(directory):
    assert not [path for path in tree(directory) if ".incoming-" in path]


GOOD_LIST = content_list([ContentFile("file", 4)])
FOREIGN_LISTS = {
    "nothing": ("", "AssertionFailed"),
    "blanks": (" \n\n", "tError_ParseFile"),
    "no XML": ("file 4\n", "tError_ParseFile"),
    "half a list": (GOOD_LIST[:-10], "tError_ParseFile"),
    "two lists": (GOOD_LIST + GOOD_LIST, "tError_ParseFile"),
    "noise before the list": ("Last login: today\n" + GOOD_LIST, "tError_ParseFile"),
    "another root": ("<files size='4'><file size='4'>file</file></files>", "tError_WrongDoc"),
    "an external entity": ('<!DOCTYPE contentlist [<!ENTITY e SYSTEM "file:///etc/passwd">]>'
                           "<contentlist size='4'><file>&e;</file></contentlist>", "tError_ParseFile"),
    "an entity that grows": ('<!DOCTYPE contentlist [<!ENTITY a "aaaaaaaaaa">' + "".join(
        f'<!ENTITY {name} "{f"&{before};" * 10}">' for before, name in zip("abcdefghi", "bcdefghij"))
        + "]><contentlist size='4'><file>&j;</file></contentlist>", "tError_ParseFile"),
    "a default attribute": ('<!DOCTYPE contentlist [<!ATTLIST file size CDATA "4">]>'
                            "<contentlist size='4'><file>file</file></contentlist>", "tError_ParseFile"),
}


@pytest.mark.parametrize("text, code", FOREIGN_LISTS.values(), ids=FOREIGN_LISTS)
def test_what_is_no_content_list_is_refused(tallowick, server, agent, text, code):
    agent.add("file", b"text")
    agent.answer(list=text)
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert (error.code, error.inner) == (code, None)
    assert "root:" not in run.session.log + error.description
    assert server.commands() == [Commands(agent).list()]
    assert remote_files(agent) == {"file": b"text"}
    assert fetched_files(run.session) == {}
    assert "dump-name" not in run.session.names()


@pytest.mark.parametrize("secret", ["login", "sudo"])
def test_password_in_what_is_no_list_reaches_no_message(tallowick, server, agent, secret):
    options = {"account": NOPASS, "sudo_password": "some-Sudo-secret-1"}
    agent.answer(list=f"<oops>{NOPASS.password if secret == 'login' else options['sudo_password']}</oop>\n")
    run = get_content(tallowick, server, agent, "--sudo-password", **options)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "tError_ParseFile"
    assert "<oops>********</oop>" in error.description


@pytest.mark.parametrize("secret", ["login", "sudo"])
def test_password_as_the_name_of_a_listed_file_reaches_no_log_and_no_message(tallowick, server, agent, secret):
    options = {"account": NOPASS, "sudo_password": "some-Sudo-secret-1"}
    name = NOPASS.password if secret == "login" else options["sudo_password"]
    agent.answer(list=content_list([agent.add(name, b"text"), content_file(f"gone/{name}", b"other")]))
    # The run itself is searched for passwords.
    run = get_content(tallowick, server, agent, "--sudo-password", **options)
    assert run.status == 2
    assert run.session.file(name).read_bytes() == b"text"
    assert "'gone/********'" in run.session.error(RESULT).inner.description


@pytest.mark.parametrize("number", ["-1", "9223372036854775808", "18446744073709551620", "twelve", "", "4.0"])
def test_total_that_is_no_number_of_bytes_is_refused(tallowick, server, agent, number):
    agent.add("file", b"text")
    agent.answer(list=content_list([content_file("file", b"text")], size=number))
    # Without the check of space it would be easy to overlook.
    run = get_content(tallowick, server, agent, "--no-check-space")
    assert run.status == 2
    error = run.session.error(RESULT)
    assert (error.code, error.inner) == ("CantRetrieveContentList", None)
    assert error.description.startswith("Error during content list retrieval: the total size ")
    assert server.commands() == [Commands(agent).list()]
    assert remote_files(agent) == {"file": b"text"}


@pytest.mark.parametrize("number", ["-1", "9223372036854775808", "twelve", ""])
def test_file_size_that_is_no_number_of_bytes_is_refused_before_any_transfer(tallowick, server, agent, number):
    agent.add("before", b"text")
    agent.add("file", b"text")
    truth = content_list([content_file("before", b"text"), ContentFile("file", 4321)])
    agent.answer(list=truth.replace('<file size="4321">', f'<file size="{number}">'))
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert (error.code, error.inner) == ("CantRetrieveContentList", None)
    assert server.commands() == [Commands(agent).list()]
    assert sorted(remote_files(agent)) == ["before", "file"]


def test_largest_total_is_compared_without_tricks(tallowick, server, agent):
    agent.add("file", b"text")
    agent.answer(list=content_list([content_file("file", b"text")], size=2**63 - 1))
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "NotEnoughSpace"
    assert error.description.endswith(f" free space, but {2**63 - 1} is needed for operation")


def test_list_without_a_total_is_refused(tallowick, server, agent):
    agent.add("file", b"text")
    agent.answer(list="<contentlist unpacked='4'><file size='4'>file</file></contentlist>")
    run = get_content(tallowick, server, agent)
    assert run.status == 2
    assert run.session.error(RESULT).code == "NoSuchAttribute"
    assert server.commands() == [Commands(agent).list()]


def test_what_else_stands_in_the_list_is_ignored(tallowick, server, agent):
    agent.add("file", b"text")
    agent.answer(list="<contentlist size='4' more='x'>text<!-- a --><?b c?><dir>d</dir>"
                      "<file size='4' more='x'><![CDATA[file]]></file></contentlist>")
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert fetched_files(run.session) == {"file": b"text"}


def check_refused(tallowick, server, agent, path, *options, target=None, **run):
    """`path` stands between two good ones in the list: the first is fetched, nothing is done for it or the last."""
    agent.add("before", b"one")
    agent.add("after", b"two")
    remote = agent.directory / path.strip("/")
    if path and ".." not in path.split("/") and not remote.exists():
        agent.add(path.strip("/"), b"hostile")
    there = remote_files(agent)
    agent.answer(list=content_list([content_file("before", b"one"), content_file(path, b"hostile"),
                                    content_file("after", b"two")]))
    finished = get_content(tallowick, server, agent, *options, **run)
    reason = refusal(finished, path, target)
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("before")]
    assert remote_files(agent) == {name: content for name, content in there.items() if name != "before"}
    return finished, reason


@pytest.mark.parametrize("path", ["", "/", "x/", "new/.", "..", "new/..", "new/../file", "../file", "/../file",
                                  "a{b,c}d", "new/{1..3}", "{a}{b,c}", "x{a..c}/file", "{,}"])
def test_path_that_leads_astray_is_refused_before_anything_is_made(tallowick, server, agent, workspace, path):
    before = set(os.listdir(workspace))
    run, reason = check_refused(tallowick, server, agent, path)
    assert reason.startswith("the path ")
    assert tree(run.session.path).keys() - {"before"} <= {"migration.log", "migration.status", RESULT}
    # No directory either.
    assert set(run.session.names()) == {"archives", "before", "migration.log", "migration.status", RESULT}
    assert set(os.listdir(workspace)) - before == {run.session.path.name}


@pytest.mark.parametrize("path", ["a..b", "...", "{a}", "{", "a,b}", "}{,", "{a..b"])
def test_path_that_only_looks_as_if_it_led_astray_is_fetched(tallowick, server, agent, path):
    agent.offer({path: b"text"})
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert fetched_files(run.session) == {path: b"text"}
    assert remote_files(agent) == {}


OWN_FILES = ["migration.status", "migration.log", RESULT, f"{RESULT}.1", f"{RESULT}.12", "dump-name",
             "migration-result-name"]


@pytest.mark.parametrize("path", [*OWN_FILES, "./migration.log", ".//dump-name", "/migration.status", "dump-name/file",
                                  f".incoming-123-{uuid.UUID(int=5)}", f"new/.incoming-1-{uuid.UUID(int=5)}"])
def test_path_of_a_file_of_this_very_run_is_refused(tallowick, server, agent, path):
    run, reason = check_refused(tallowick, server, agent, path)
    assert reason == "the path is that of a file of this run"
    assert fetched_files(run.session) == {"before": b"one"}
    assert not run.session.file("new").exists()
    assert run.session.log.endswith("Tallowick finished. Exit code: 2\n")


@pytest.mark.parametrize("dumps_dir, path", [("{session}", "migration.log"), ("{session}/", "./migration.log"),
                                             ("link", "migration.log"), (".", "{name}/migration.log"),
                                             ("{session}/archives/..", "dump-name")])
def test_path_of_a_file_of_this_run_is_refused_however_the_dumps_directory_names_it(
        tallowick, server, agent, workspace, session, dumps_dir, path):
    (workspace / "link").symlink_to(session.path)
    dumps_dir = dumps_dir.format(session=session.path)
    path = path.format(name=session.path.name)
    _, reason = check_refused(tallowick, server, agent, path, f"--dumps-dir={dumps_dir}", target=dumps_dir,
                              session=session, cwd=workspace)
    assert reason == "the path is that of a file of this run"


def test_path_of_a_file_of_this_run_is_refused_in_a_dumps_directory_that_is_still_to_be_made(tallowick, server, agent,
                                                                                            session):
    agent.offer({"dump-name": b"hostile"})
    dumps = f"{session.path}/new/.."
    run = get_content(tallowick, server, agent, f"--dumps-dir={dumps}", "--no-check-space", session=session)
    assert refusal(run, "dump-name", dumps) == "the path is that of a file of this run"
    assert set(session.names()) == {"archives", "migration.log", "migration.status", RESULT}
    assert remote_files(agent) == {"dump-name": b"hostile"}


def test_files_that_are_only_named_like_those_of_this_run_are_fetched(tallowick, server, agent):
    contents = {path: path.encode() for path in (
        "dump.xml", "migration.result", "sub/migration.log", f"sub/{RESULT}", f"{RESULT}s", f"{RESULT}.1a",
        "migration.status2", ".incoming-file", "scout-result.xml")}
    agent.offer(contents)
    session = get_content(tallowick, server, agent).session
    assert session.succeeded(RESULT) == "success"
    assert {path: content for path, content in tree(session.path).items() if path in contents} == contents
    assert remote_files(agent) == {}


def test_files_named_like_those_of_this_run_are_fetched_into_another_directory(tallowick, server, agent, workspace):
    contents = {path: path.encode() for path in OWN_FILES}
    agent.offer(contents)
    dumps = make_dir(workspace / "dumps")
    assert get_content(tallowick, server, agent, f"--dumps-dir={dumps}").status == 0
    assert tree(dumps) == contents


def test_absolute_path_stays_below_the_target(tallowick, server, agent):
    passwd = open("/etc/passwd", "rb").read()
    agent.add("etc/passwd", b"hostile")
    agent.answer(list=content_list([content_file("/etc/passwd", b"hostile")]))
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    assert fetched_files(run.session) == {"etc/passwd": b"hostile"}
    assert open("/etc/passwd", "rb").read() == passwd
    assert server.commands()[1] == f"cat {agent.directory}//etc/passwd".encode()
    assert remote_files(agent) == {}


def test_path_listed_twice_is_fetched_once(tallowick, server, agent):
    entry, = agent.offer({"file": b"text"})
    agent.answer(list=content_list([entry, entry]))
    run = get_content(tallowick, server, agent)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("file"), commands.rm("file")]
    assert fetched_files(run.session) == {"file": b"text"}
    assert len(log_entries(run.session, "UnableToRemoveRemoteFile")) == 1


def test_name_longer_than_names_can_be_is_refused(tallowick, server, agent):
    path = "sub/" + "n" * 256
    agent.answer(list=content_list([ContentFile(path)]))
    run = get_content(tallowick, server, agent)
    assert refusal(run, path).endswith("File name too long")


# What may stand under the listed name.
def link_to_file(path, outside):
    path.symlink_to(outside / "precious")


def link_to_directory(path, outside):
    path.symlink_to(outside)


def link_to_nothing(path, outside):
    path.symlink_to(outside / "new")


def fifo(path, outside):
    os.mkfifo(path)


def directory(path, outside):
    make_dir(path)


IN_THE_WAY = [link_to_file, link_to_directory, link_to_nothing, fifo, directory]


@pytest.mark.parametrize("stands", IN_THE_WAY, ids=lambda stands: stands.__name__)
def test_what_is_no_file_under_the_listed_name_is_refused_and_left_alone(tallowick, server, agent, session, outside,
                                                                        stands):
    check_left_alone(tallowick, server, agent, stands, outside, session.path, session=session)


@pytest.mark.parametrize("stands", [link_to_file, fifo], ids=lambda stands: stands.__name__)
def test_what_is_no_file_is_left_alone_in_a_dumps_directory_too(tallowick, server, agent, workspace, outside, stands):
    dumps = make_dir(workspace / "dumps")
    check_left_alone(tallowick, server, agent, stands, outside, dumps, f"--dumps-dir={dumps}")


def check_left_alone(tallowick, server, agent, stands, outside, target, *options, **run):
    contents = {"file": b"hostile"}
    agent.offer(contents)
    stands(target / "file", outside)
    before = (target / "file").lstat()
    refusal(get_content(tallowick, server, agent, *options, **run), "file", target)
    after = (target / "file").lstat()
    assert (after.st_ino, stat.S_IFMT(after.st_mode)) == (before.st_ino, stat.S_IFMT(before.st_mode))
    assert remote_files(agent) == contents
    assert server.commands() == [Commands(agent).list()]
    assert_nothing_unfinished(target)


@pytest.mark.parametrize("stands", IN_THE_WAY, ids=lambda stands: stands.__name__)
def test_what_is_no_file_is_no_match_for_a_listed_sum(tallowick, server, agent, session, outside, stands):
    agent.offer({"sub/file": PRECIOUS})
    stands(session.path / "file", outside)
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 0
    commands = Commands(agent)
    assert server.commands() == [commands.list(), *commands.fetched("sub/file")]
    assert session.file("sub/file").read_bytes() == PRECIOUS
    assert remote_files(agent) == {}


@pytest.mark.parametrize("path", ["sub/file", "sub/new/file"])
def test_link_as_a_directory_of_the_listed_path_is_refused(tallowick, server, agent, session, outside, path):
    agent.offer({path: b"hostile"})
    session.file("sub").symlink_to(outside)
    run = get_content(tallowick, server, agent, session=session)
    refusal(run, path)
    assert os.readlink(session.file("sub")) == str(outside)
    assert remote_files(agent) == {path: b"hostile"}
    assert server.commands() == [Commands(agent).list()]


def test_link_to_the_machines_configuration_is_refused(tallowick, server, agent, session):
    agent.offer({"sub/tallowick-was-here": b"hostile"})
    session.file("sub").symlink_to("/etc")
    refusal(get_content(tallowick, server, agent, session=session), "sub/tallowick-was-here")
    assert not os.path.lexists("/etc/tallowick-was-here")


@pytest.mark.parametrize("stands", [fifo, lambda path, outside: write(path, PRECIOUS)], ids=["fifo", "file"])
def test_what_is_no_directory_where_one_is_needed_is_refused(tallowick, server, agent, session, outside, stands):
    agent.offer({"sub/dir/file": b"text"})
    stands(session.file("sub"), outside)
    before = session.file("sub").lstat()
    run = get_content(tallowick, server, agent, session=session)
    assert refusal(run, "sub/dir/file").endswith("Not a directory")
    assert session.file("sub").lstat().st_ino == before.st_ino
    assert remote_files(agent) == {"sub/dir/file": b"text"}


def test_dumps_directory_that_is_a_file_is_refused(tallowick, server, agent, workspace):
    agent.offer({"file": b"text"})
    dumps = write(workspace / "dumps", PRECIOUS)
    run = get_content(tallowick, server, agent, f"--dumps-dir={dumps}")
    assert refusal(run, "file", dumps).endswith("Not a directory")
    assert dumps.read_bytes() == PRECIOUS


def test_dumps_directory_may_be_a_link(tallowick, server, agent, workspace):
    agent.offer({"file": b"text"})
    dumps = make_dir(workspace / "dumps")
    (workspace / "link").symlink_to(dumps)
    assert get_content(tallowick, server, agent, f"--dumps-dir={workspace}/link").status == 0
    assert tree(dumps) == {"file": b"text"}


def test_other_names_of_the_file_that_is_replaced_keep_its_bytes(tallowick, server, agent, session, outside):
    agent.offer({"file": b"new"})
    os.link(outside / "precious", session.file("file"))
    assert get_content(tallowick, server, agent, session=session).status == 0
    assert fetched_files(session) == {"file": b"new"}


def inner_code(run):
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "CantRetrieveDump"
    return error.inner.code


@pytest.fixture
def disk(workspace):
    """A disk of 256 KiB with an old version of "file"."""
    with small_disk(workspace / "disk", "size=256k") as path:
        write(path / "file", b"old")
        yield path


def fill_up(disk):
    """Leaves not a byte."""
    with open(disk / "filler", "wb", buffering=0) as filler:
        try:
            while True:
                filler.write(bytes(4096))
        except OSError:
            pass  # as intended


@pytest.mark.parametrize("size, full", [(1024 * 1024, False), (100, True), (1, True)])
def test_full_disk_keeps_the_old_file_and_the_remote_one(tallowick, server, agent, disk, size, full):
    contents = {"file": b"x" * size}
    agent.offer(contents)
    if full:
        fill_up(disk)
    run = get_content(tallowick, server, agent, f"--dumps-dir={disk}", "--no-check-space")
    assert inner_code(run) == "StreamWrite"
    assert (disk / "file").read_bytes() == b"old"
    assert_nothing_unfinished(disk)
    assert remote_files(agent) == contents
    commands = Commands(agent)
    assert server.commands() == [commands.list(), commands.cat("file")]


def test_session_directory_that_fills_up_with_content_loses_nothing(tallowick, server, agent):
    contents = {"file": b"x" * 1024 * 1024}
    agent.offer(contents)
    session = tallowick.new_session()
    with small_disk(session.path, "size=256k"):
        write(session.file("file"), b"old")
        inner_code(get_content(tallowick, server, agent, "--no-check-space", session=session))
        assert fetched_files(session) == {"file": b"old"}
        assert [element.tag for element in session.status] == ["idle"]
    assert remote_files(agent) == contents


@pytest.mark.parametrize("content", [b"", b"text"], ids=["empty file", "file"])
def test_disk_without_room_for_another_name_keeps_the_remote_file(tallowick, server, agent, workspace, content):
    agent.offer({"file": content})
    with small_disk(workspace / "disk", "nr_inodes=2") as disk:
        write(disk / "other", PRECIOUS)
        run = get_content(tallowick, server, agent, f"--dumps-dir={disk}")
        assert inner_code(run) == "StreamWrite"
        assert tree(disk) == {"other": PRECIOUS}
    assert remote_files(agent) == {"file": content}


def test_match_that_does_not_fit_onto_the_disk_keeps_the_remote_file(tallowick, server, agent, session, disk):
    contents = {"sub/file": b"x" * 1024 * 1024}
    agent.offer(contents)
    write(session.file("file"), contents["sub/file"])
    run = get_content(tallowick, server, agent, f"--dumps-dir={disk}", "--no-check-space", session=session)
    assert inner_code(run) == "StreamWrite"
    assert tree(disk) == {"file": b"old"}
    assert remote_files(agent) == contents
    assert server.commands() == [Commands(agent).list()]


def test_limit_on_file_sizes_is_an_error_not_a_signal(tallowick, server, agent, session):
    agent.offer({"file": b"x" * 1024 * 1024})
    write(session.file("file"), b"old")
    run = get_content(tallowick, server, agent, session=session,
                      preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (500_000, 500_000)))
    assert inner_code(run) == "StreamWrite"
    assert fetched_files(session) == {"file": b"old"}
    assert list(remote_files(agent)) == ["file"]


@pytest.mark.parametrize("record, stands", [*(("dump-name", stands) for stands in IN_THE_WAY),
                                            ("migration-result-name", link_to_file),
                                            ("migration-result-name", directory)])
def test_name_record_that_cannot_be_written_is_told(tallowick, server, agent, session, outside, record, stands):
    agent.offer({"file": b"text"})
    stands(session.file(record), outside)
    before = session.file(record).lstat()
    run = get_content(tallowick, server, agent, session=session)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert (error.code, error.inner) == ("FileWrite", None)
    assert error.description.startswith(f"Error during {session.path}/{record} write: ")
    assert run.err == error.description
    assert session.file(record).lstat().st_ino == before.st_ino
    assert session.file("file").read_bytes() == b"text"
    assert remote_files(agent) == {}


@pytest.mark.parametrize("record", ["dump-name", "migration-result-name"])
def test_name_record_on_a_full_disk_is_told(tallowick, server, agent, session, workspace, record):
    with full_disk_at(session.file(record), workspace / "disk"):
        run = get_content(tallowick, server, agent, session=session)
    assert run.status == 2
    error = run.session.error(RESULT)
    assert error.code == "FileWrite"
    assert error.description.startswith(f"Error during {session.path}/{record} write: ")


def test_result_document_of_an_earlier_run_is_not_replaced_by_a_listed_one(tallowick, server, agent, session):
    get_content(tallowick, server, agent, session=session)
    before = session.file(RESULT).read_bytes()
    server.forget()
    check_refused(tallowick, server, agent, f"{RESULT}.1", session=session)
    assert session.file(f"{RESULT}.1").read_bytes() == before


@pytest.mark.parametrize("account", [MOVER, NOPASS], ids=["without sudo", "with sudo"])
def test_listed_path_that_is_remotely_a_directory_is_kept_there(tallowick, server, agent, account):
    agent.add("dir/file", b"text")
    agent.answer(list=content_list([ContentFile("dir")]))
    sudo = {} if account is MOVER else {"account": account, "sudo_password": ""}
    run = get_content(tallowick, server, agent, *(["--sudo-password"] if sudo else []), **sudo)
    assert refusal(run, "dir") == f"cat: {agent.directory}/dir: Is a directory\n"
    assert fetched_files(run.session) == {}
    assert remote_files(agent) == {"dir/file": b"text"}
