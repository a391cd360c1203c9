# SPDX-License-Identifier: Apache-2.0
"""Sending the scout: what runs on the source host and what is left in the session directory."""

import os

import pytest

from harness.accounts import MOVER, OVNADM, OWNER
from harness.disks import full_disk_at
from harness.places import make_dir, write
from harness.product import SMALL_REPORT, SMALL_SCOUT
from harness.program import source
from harness.session import shape
from harness.sshd import PASSWORD
from harness.waiting import wait_until

COMMAND = rb"sh -c cd\ \;\ perl"
IDLE = ("migration-status", {}, "", [("idle", {}, "", [])])
FAILED = "Failed to execute scout. \nThe return code is {}\nThe output on STDERR is\n{}"


def agent(action, host="127.0.0.1"):
    return ("migration-status", {}, "", [("agent", {"action": action}, "", [("host", {}, host, [])])])


def test_report_becomes_the_scout_result_byte_for_byte(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT
    assert server.commands() == [COMMAND]


def test_run_leaves_the_documented_files(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert run.session.names() == ["archives", "migration.log", "migration.result", "migration.status",
                                   "scout-result.xml"]


def test_script_is_the_input_of_the_remote_interpreter(tallowick, product, server):
    product.set_scout("print uc while <DATA>;\nprint scalar(getpwuid($<)), qq(\\n);\n__DATA__\nthe rest of the input\n")
    run = tallowick.run("--send-scout", *source(server))
    assert run.session.scout_result == b"THE REST OF THE INPUT\nmover\n"


@pytest.mark.parametrize("size", [0, 1, 65535, 65536, 65537, 3_000_000])
def test_report_of_any_size_arrives_whole(tallowick, product, server, size):
    product.set_scout(f"binmode STDOUT; print substr(join('', map chr, 0..255) x {size // 256 + 1}, 0, {size});")
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == (bytes(range(256)) * (size // 256 + 1))[:size]


def test_script_larger_than_a_chunk_arrives_whole(tallowick, product, server):
    product.set_scout("# filler\n" * 30000 + SMALL_SCOUT)
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT


def test_empty_script_gives_an_empty_report(tallowick, product, server):
    product.set_scout("")
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == b""


def test_failing_scout_is_told_with_status_and_standard_error(tallowick, product, server):
    product.set_scout("print qq(half a report\\n); print STDERR qq(no such thing\\n); exit 3;")
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 2
    assert run.err == FAILED.format(3, "no such thing\n")
    error = run.session.error()
    assert (error.code, error.description) == ("FailedToExecuteScout", FAILED.format(3, "no such thing\n"))
    assert run.session.succeeded() == "error"


def test_failing_scout_keeps_what_it_wrote(tallowick, product, server):
    product.set_scout("print qq(half a report\\n); exit 3;")
    assert tallowick.run("--send-scout", *source(server)).session.scout_result == b"half a report\n"


def test_scout_killed_by_a_signal_is_no_success(tallowick, product, server):
    product.set_scout("$| = 1; print qq(<scout>\\n); kill q(KILL), $$; sleep 60;")
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 2
    # perl is killed below a shell, which reports it as a status of its own, or instead of that shell.
    assert run.err == FAILED.format(137, "") or run.err.startswith(FAILED.format(137, "Killed"))


def test_host_without_perl_is_told(tallowick, start_sshd, workspace):
    tools = make_dir(workspace / "bin")
    for name in ("sh", "cat"):
        os.symlink(f"/bin/{name}", tools / name)
    run = tallowick.run("--send-scout", *source(start_sshd(path=str(tools))))
    assert run.status == 2
    assert run.err.startswith(FAILED.format(127, ""))
    assert "perl" in run.err


def test_bytes_that_are_no_text_reach_message_and_document_as_replacement_characters(tallowick, product, server):
    product.set_scout(r'binmode STDERR; print STDERR "a\xff\xfe\x00\x01\x0bz \xc3\xa4 \xed\xa0\x80\n"; exit 1;')
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 2
    description = run.session.error().description
    assert description.startswith(FAILED.format(1, "a"))
    assert "a\ufffd\ufffd\ufffd\ufffd\ufffdz ä " in description
    assert "\ufffd" in description.rpartition("ä ")[2]
    assert b"a\xff\xfe\x00\x01\x0bz" in run.session.file("migration.log").read_bytes()


def test_standard_error_that_looks_like_a_format_is_taken_literally(tallowick, product, server):
    product.set_scout("print STDERR q(100% %1% %2% %s %|1$|), qq(\\n); exit 1;")
    run = tallowick.run("--send-scout", *source(server))
    assert run.err == FAILED.format(1, "100% %1% %2% %s %|1$|\n")


def test_missing_scout_keeps_the_placeholder_in_its_message(tallowick, product, server):
    product.scout_file.unlink()
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 2
    text = "Unable to open %1% for transferring to the remote host"
    assert run.err == text
    error = run.session.error()
    assert (error.code, error.description) == ("UnableToOpenScoutFile", text)
    assert f": {text} [./actions:" in run.session.log
    assert "scout-result.xml" not in run.session.names()
    assert server.commands() == []


def test_earlier_report_is_truncated(tallowick, product, server):
    session = tallowick.new_session()
    product.set_scout("print q(x) x 100000;")
    tallowick.run("--send-scout", *source(server), session=session)
    product.set_scout(SMALL_SCOUT)
    tallowick.run("--send-scout", *source(server), session=session)
    assert session.scout_result == SMALL_REPORT


def test_status_tells_deploy_while_the_scout_runs_and_idle_afterwards(tallowick, product, server, outbox):
    product.set_scout(f"until (-e '{outbox}/go') {{ select undef, undef, undef, 0.05 }} print 'done';")
    running = tallowick.start("--send-scout", *source(server))
    wait_until(server.commands, "the scout's command line")
    assert shape(running.session.status) == agent("deploy")
    (outbox / "go").touch()
    run = running.wait()
    assert run.status == 0
    assert shape(run.session.status) == IDLE


def test_status_is_idle_after_a_failure(tallowick):
    assert shape(tallowick.run("--send-scout", *source(1)).session.status) == IDLE


def test_status_never_has_a_pid(tallowick, server):
    assert b"pid" not in tallowick.run("--send-scout", *source(server)).session.file("migration.status").read_bytes()


def test_documents_belong_to_the_panel_and_to_nobody_else(tallowick, server):
    session = tallowick.run("--send-scout", *source(server)).session
    for name in ("migration.status", "migration.result"):
        stat = session.file(name).stat()
        assert (stat.st_uid, stat.st_gid, stat.st_mode & 0o777) == (OVNADM.uid, OVNADM.gid, 0o600), name


def test_documents_are_utf8_xml_with_a_declaration(tallowick, server):
    session = tallowick.run("--send-scout", *source(server)).session
    for name in ("migration.status", "migration.result"):
        assert session.file(name).read_bytes().startswith(b'<?xml version="1.0"'), name


def test_no_temporary_file_is_left(tallowick, server):
    session = tallowick.run("--send-scout", *source(server)).session
    assert not [name for name in session.names() if name.startswith(("migration.status", "migration.result"))
                and name not in ("migration.status", "migration.result")]


def test_noise_of_the_login_is_kept_apart_from_the_outcome(tallowick, start_sshd):
    run = tallowick.run("--send-scout", *source(start_sshd(PASSWORD, shell_lines="echo noise; echo more >&2")))
    assert run.status == 0
    assert run.session.scout_result == b"noise\n" + SMALL_REPORT


def test_home_without_permission_does_not_stop_the_scout(tallowick, server):
    home = OWNER.home
    mode = home.stat().st_mode
    home.chmod(0)
    try:
        run = tallowick.run("--send-scout", *source(server, OWNER), password=OWNER.password)
    finally:
        home.chmod(mode)
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT


def test_scout_reads_the_home_of_the_login(tallowick, product, server):
    write(MOVER.home / "mark", "seen", 0o644)
    product.set_scout("open F, q(<mark) or die; print <F>;")
    assert tallowick.run("--send-scout", *source(server)).session.scout_result == b"seen"


@pytest.mark.parametrize("size", [1, 100, 3_000_000])
def test_full_disk_below_the_report_is_an_error(tallowick, product, server, workspace, size):
    product.set_scout(f"print q(x) x {size};")
    session = tallowick.new_session()
    make_dir(session.path)
    with full_disk_at(session.file("scout-result.xml"), workspace / "disk"):
        run = tallowick.run("--send-scout", *source(server), session=session)
    assert run.status == 2
    assert run.err == "Cannot write data to the stream"
    assert session.error().code == "StreamWrite"


@pytest.mark.parametrize("kind", ["link", "dangling link", "FIFO"])
def test_what_is_no_file_in_place_of_the_report_is_refused_and_left_as_it_is(tallowick, server, workspace, kind):
    session = tallowick.new_session()
    make_dir(session.path)
    report, target = session.file("scout-result.xml"), workspace / "target"
    if kind == "FIFO":
        os.mkfifo(report)
    else:
        os.symlink(target, report)
    if kind == "link":
        write(target, "untouched")
    run = tallowick.run("--send-scout", *source(server), session=session)
    assert (run.status, session.error().code) == (2, "StreamWrite")
    if kind == "FIFO":
        assert report.is_fifo()
    else:
        assert os.readlink(report) == str(target)
        assert (target.read_text() == "untouched") if kind == "link" else not target.exists()


def test_report_that_cannot_be_opened_is_an_error(tallowick, server):
    session = tallowick.new_session()
    make_dir(session.file("scout-result.xml"))
    run = tallowick.run("--send-scout", *source(server), session=session)
    assert run.status == 2
    assert session.error().code == "StreamWrite"


def test_large_standard_error_of_the_scout_is_told_whole(tallowick, product, server):
    product.set_scout("print STDERR qq(line $_ of many\\n) for 1..7000; exit 1;")
    run = tallowick.run("--send-scout", *source(server))
    expected = "".join(f"line {number} of many\n" for number in range(1, 7001))
    assert run.err == FAILED.format(1, expected)
    assert run.session.error().description == FAILED.format(1, expected)
