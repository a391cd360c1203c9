# SPDX-License-Identifier: Apache-2.0
"""From the start of the process to its exit status."""

import os
import resource
import signal
import subprocess

import pytest

from harness.accounts import MOVER, OWNER
from harness.places import make_dir, write
from harness.product import SMALL_REPORT, configure
from harness.program import source
from harness.session import Session
from harness.sshd import free_port
from harness.waiting import wait_until


def test_success_is_status_0_and_the_word_success(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert run.session.succeeded() == "success"
    assert run.session.result().findall("message") == []


def test_start_line_quotes_the_arguments(tallowick, server):
    run = tallowick.run("--send-scout", *source(server), "--dumps-dir=a b'c", "--content-transport", "")
    first = run.session.records[0]
    assert (first.level, first.category) == ("INFO", "k.log")
    assert first.text == (f"Tallowick started : {tallowick.binary} --send-scout --host=127.0.0.1 "
                          f"--port={server.port} --login=mover --dumps-dir=a\\ b\\'c --content-transport '' "
                          f"--session-path={run.session.path}")


def test_finish_line_is_the_last_one_and_tells_the_exit_code(tallowick, server):
    last = tallowick.run("--send-scout", *source(server)).session.records[-1]
    assert (last.level, last.category, last.text) == ("INFO", "k.log", "Tallowick finished. Exit code: 0")


def test_error_stands_in_log_document_and_standard_error(tallowick):
    port = free_port()
    run = tallowick.run("--send-scout", *source(port))
    text = "No one listening on the remote address at host 127.0.0.1"
    assert run.status == 11
    assert run.err == text
    error = run.session.error()
    assert (error.code, error.severity, error.description, error.inner) == ("ConnectionRefused", "error", text, None)
    logged = [record for record in run.session.records if record.category == "k.log"]
    assert logged[1].level == "INFO"
    assert f"ConnectionRefused[{error.identifier}" in logged[1].text
    assert text in logged[1].text
    assert run.session.succeeded() == "error"


def test_plain_standard_exception_leaves_the_exit_code_unreported(tallowick_release, server):
    # Descriptors run out at socket(), the one failure without a tag. How many are open before that depends on
    # the libraries, so the limit is searched for.
    seen = []
    for limit in range(4, 16):
        run = tallowick_release.run(
            "--send-scout", *source(server),
            preexec_fn=lambda most=limit: resource.setrlimit(resource.RLIMIT_NOFILE, (most, most)))
        seen.append(run)
        if run.err.startswith("Uncaught std::exception: socket: ") and run.session.log:
            break
    run = seen[-1]
    assert run.err == "Uncaught std::exception: socket: Too many open files\n"
    assert run.status == 1
    last = run.session.records[-1]
    assert (last.level, last.category, last.text) == ("INFO", "k.log",
                                                      "Tallowick finished.  (exit code is not reported)")
    assert run.session.succeeded() == "error"


NOT_FOUND = "Agent SomeAgent was not found or does not contain proper spec file"


@pytest.mark.parametrize("action, chain", [
    ("--deploy-agent", [("NoSharedAgentsDirectory", "'shared' agents directory not found")]),
    ("--dump-selected", [("CantRetrieveDump", "Error during dump retrieval"), ("AgentNotFound", NOT_FOUND)]),
    ("--dump-all", [("CantRetrieveDump", "Error during dump retrieval"), ("AgentNotFound", NOT_FOUND)])])
def test_actions_without_any_agents_end_with_status_2_before_they_connect(tallowick, action, chain):
    run = tallowick.run(action, *source(1), "--agent-dir=/agent", "--agent-name=SomeAgent")
    assert (run.status, run.err) == (2, chain[0][1])
    error, told = run.session.error(), []
    while error is not None:
        told.append((error.code, error.description))
        error = error.inner
    assert told == chain


def test_result_of_get_content_has_a_name_of_its_own(tallowick):
    session = tallowick.new_session()
    for count in (0, 1, 2):
        run = tallowick.run("--get-content", *source(1), "--agent-dir=/a", "--agent-name=SomeAgent", session=session)
        assert (run.status, run.err) == (2, NOT_FOUND)
        expected = ["transfer.result", *[f"transfer.result.{number}" for number in range(1, count + 1)]]
        assert [name for name in session.names() if ".result" in name] == expected


def test_earlier_results_are_kept_under_numbers(tallowick):
    # Each run fails on another address, so that its result document can be told from the others.
    session = tallowick.new_session()
    for count in (1, 2, 3):
        assert tallowick.run("--send-scout", *source(1, host=f"127.0.0.{count}"), session=session).status == 11
        names = [name for name in session.names() if name.startswith("migration.result")]
        assert names == ["migration.result", *[f"migration.result.{number}" for number in range(1, count)]]
    texts = [session.result(name).findtext("message/description")
             for name in ("migration.result.1", "migration.result.2", "migration.result")]
    assert [text.rpartition(" ")[2] for text in texts] == ["127.0.0.1", "127.0.0.2", "127.0.0.3"]


@pytest.fixture
def open_input():
    """Both ends of a pipe; the writing one stays open."""
    ends = os.pipe()
    yield ends
    for end in ends:
        os.close(end)


def test_one_list_given_as_a_dash_is_read_from_standard_input(tallowick, server, open_input):
    reader, writer = open_input
    running = tallowick.start("--send-scout", *source(server), "--domains=-", stdin=reader)
    wait_until(lambda: "Tallowick started" in running.session.log, "the start of the run")
    assert server.commands() == []
    os.write(writer, b"one.example,two.example\n")
    assert running.wait().status == 0
    assert server.commands()


def test_of_several_lists_given_as_a_dash_only_one_line_is_read(tallowick, server, open_input):
    reader, writer = open_input
    os.write(writer, b"first\n")
    running = tallowick.start("--send-scout", *source(server), "--resellers=-", "--clients=-", "--domains=-",
                              stdin=reader)
    assert running.wait().status == 0


def test_standard_input_is_left_alone_when_no_list_is_a_dash(tallowick, server, open_input):
    assert tallowick.start("--send-scout", *source(server), "--clients=-,x", stdin=open_input[0]).wait().status == 0


def test_list_given_as_a_dash_without_input_is_empty(tallowick, server):
    assert tallowick.run("--send-scout", *source(server), "--resellers=-", stdin=b"").status == 0


def test_blocked_signals_of_the_caller_are_unblocked(tallowick, product, server):
    product.set_scout("sleep 60;")
    running = tallowick.start(
        "--send-scout", *source(server),
        preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGINT}))
    wait_until(server.commands, "the scout's command line")
    running.popen.send_signal(signal.SIGTERM)
    assert running.wait(statuses={-signal.SIGTERM}).seconds < 30


def test_reader_of_standard_output_that_went_away_does_not_kill_the_run(tallowick, server, workspace):
    agent = make_dir(workspace / "agent")
    write(agent / "dumping-status.xml", b"<status/>\n" * 100000)
    reader, writer = os.pipe()
    os.close(reader)
    run = tallowick.run("--get-dumping-status", *source(server), f"--agent-dir={agent}", "--agent-name=a",
                        stdout=writer)
    os.close(writer)
    assert run.status == 2
    assert "SIGPIPE" not in run.err


def test_missing_log_properties_are_told_through_the_last_resort(tallowick, product):
    product.log_properties.unlink()
    run = tallowick.run("--send-scout", *source(1))
    assert run.status == 1
    assert run.err == f"Uncaught std::exception: File {product.log_properties} does not exist\n"
    assert "migration.result" not in run.session.names()


def test_broken_log_properties_are_told_through_the_last_resort(tallowick, product):
    write(product.log_properties, "nonsense\n")
    run = tallowick.run("--send-scout", *source(1))
    assert run.status == 1
    assert run.err.startswith("Uncaught std::exception: ")


def test_session_path_that_is_a_file_is_told_through_the_last_resort(tallowick, workspace):
    file = write(workspace / "file", "text")
    run = tallowick.run("--send-scout", *source(1), session=Session(file))
    assert run.status == 1
    assert run.err.startswith("Uncaught ExTraceableException: UnableToCreateSession[")
    assert "]: Unable to create session: Unable to create session directory [./session:" in run.err
    assert "SessionFiles" in run.err.splitlines()[1]
    assert run.err.endswith("\n")
    assert file.read_text() == "text"


def test_console_gets_the_log_only_with_verbose(tallowick, server):
    quiet = tallowick.run("--send-scout", *source(server))
    assert (quiet.stdout, quiet.stderr) == (b"", b"")
    loud = tallowick.run("--send-scout", *source(server), "--verbose")
    console = (loud.stdout + loud.stderr).decode()
    assert "Tallowick started : " in console
    assert "Tallowick finished. Exit code: 0" in console
    assert "Tallowick started : " in loud.session.log


def test_password_is_wiped_before_the_connection_is_made(tallowick, product, server):
    product.set_scout("sleep 60;")
    running = tallowick.start("--send-scout", *source(server), sudo_password=OWNER.password)
    wait_until(server.commands, "the scout's command line")
    with open(f"/proc/{running.pid}/environ", "rb") as file:
        environ = file.read()
    running.popen.kill()
    running.wait(statuses={-signal.SIGKILL})
    assert MOVER.password.encode() not in environ


def test_closed_standard_descriptors_do_no_harm(tallowick_release, server):
    def close_all():
        for descriptor in (0, 1, 2):
            os.close(descriptor)

    run = tallowick_release.run("--send-scout", *source(server), preexec_fn=close_all)
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT
    assert run.session.succeeded() == "success"


def test_missing_host_configuration_means_defaults(tallowick, server):
    configure(None)
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT


def test_two_runs_beside_each_other_in_different_sessions(tallowick, server):
    runs = [tallowick.start("--send-scout", *source(server), stdin=subprocess.DEVNULL) for _ in range(4)]
    assert [running.wait().status for running in runs] == [0, 0, 0, 0]
