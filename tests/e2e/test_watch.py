# SPDX-License-Identifier: Apache-2.0
"""What tallowick-watch shows of a session: recorded ones, and real runs while they go on."""

import os
import pty
import re
import signal
import termios

import pytest

from harness.accounts import MOVER
from harness.content import RESULT, get_content
from harness.manual import Page
from harness.program import source
from harness.relay import STALL, Fault
from harness.waiting import wait_until
from harness.watch import RecordedSession, finished

MIB = 1024 * 1024
IDLE = "migration-status-idle"


@pytest.fixture
def recorded(workspace):
    return RecordedSession(workspace / "recorded")


def dumping(**attributes):
    return "<dumping-status><dumping" + "".join(f' {k}="{v}"' for k, v in attributes.items()) + "/></dumping-status>"


def failure(*messages):
    """A result document with a chain of (code, id, description), the outermost first."""
    text = ""
    for code, identifier, description in reversed(messages):
        text = (f'<message code="{code}" id="{identifier}" severity="error">'
                f"<description>{description}</description>{text}</message>")
    return f'<execution-result status="error">{text}</execution-result>'


# ---- States ----

@pytest.mark.parametrize("document, texts", [
    (IDLE, ["A run has begun"]),
    ("migration-status-agent-deploy", ["sending to src.example"]),
    ("migration-status-agent-wait", ["waiting for the agent on src.example"]),
    ("migration-status-transfer-dump", ["asking what there is to fetch from src.example"]),
    ("migration-status-transfer-files", ["fetching content from src.example", "51 %  1.0 of 2.0 KiB", "30 %  3 of 10",
                                         "512 B/s on average", "clients/a & b.tgz", "85 %  256 of 300 B"]),
    ("migration-status-translate", ["translating the dump"]),
    ("migration-status-deploy", ["deploying accounts and domains at example.com", "33 %  1 of 3", "41 %  5 of 12"]),
])
def test_each_state_is_shown(watch, recorded, document, texts):
    recorded.golden("migration.status", document)
    watch.on_terminal(recorded.path).shows(*texts, "Update")


def test_dump_is_shown_with_the_status_of_the_dumper(watch, recorded):
    recorded.golden("migration.status", "migration-status-agent-wait", age=60)
    recorded.put("dumping-status.xml", dumping(total=28, left=8, current="shop.example", files=812, bytes=7340032))
    screen = watch.on_terminal(recorded.path)
    screen.shows("waiting for the agent", "71 %  20 of 28", "dumping shop.example, 812 files, 7.0 MiB")
    recorded.put("dumping-status.xml", dumping(total=28, left=7, current="blog.example"))
    screen.shows("75 %  21 of 28", "blog.example")


def test_run_that_says_nothing_any_more_is_told_from_one_that_goes_on(watch, recorded):
    recorded.golden("migration.status", "migration-status-transfer-files", age=95)
    screen = watch.on_terminal(recorded.path)
    wait_until(lambda: re.search(r"no update for (9[5-9]|1\d\d) s", screen.text), "the time without an update")


@pytest.mark.parametrize("result", ["migration.result", "transfer.result"])
def test_run_that_connects_is_told_from_the_earlier_one(watch, recorded, result):
    recorded.golden(result, "result-success", age=500)
    recorded.golden("migration.status", IDLE)
    status, out, _ = watch.run("--once", recorded.path)
    assert (status, "A run has begun" in out, "SUCCESS" in out) == (3, True, False)


def test_run_after_a_killed_transfer_is_told(watch, recorded):
    recorded.golden("migration.status", "migration-status-transfer-files", age=4000)
    recorded.golden("migration.result", "result-success")
    status, out, _ = watch.run("--once", recorded.path)
    assert (status, "SUCCESS" in out, "fetching" in out) == (0, True, False)


def test_success_is_shown(watch, recorded):
    recorded.golden("migration.status", IDLE)
    recorded.golden("transfer.result", "result-success")
    watch.on_terminal(recorded.path).shows("SUCCESS", "transfer.result")


# ---- Failures ----

FAILURES = {
    "wrong password": [("SshInvalidCredentials", "Unable to connect to host h: you have specified incorrect username")],
    "refused": [("ConnectionRefused", "No one listening on the remote address at host h")],
    "unknown host": [("HostNotFound", "Unable to resolve hostname h: Name or service not known")],
    "no space": [("NotEnoughSpace", "Selected filesystem has only 65536 free space, but 4460068 is needed")],
    "unknown agent": [("CantRetrieveDump", "Error during dump retrieval"), ("AgentNotFound", "Agent X was not found")],
    "cut": [("CantRetrieveDump", "Error during dump retrieval"), ("SshConnectionFault", "Lost connection")],
    "deep": [("Outer", "Outer failed"), ("Middle", "Middle failed"), ("Inner", "Inner failed")],
}


@pytest.mark.parametrize("messages", FAILURES.values(), ids=FAILURES)
def test_failure_is_shown_with_its_cause_and_its_id_first(watch, recorded, messages):
    chain = [(code, f"5a2478d9-50c2-46d1-81f9-{number:012}", text) for number, (code, text) in enumerate(messages)]
    recorded.golden("migration.status", IDLE)
    recorded.put("migration.result", failure(*chain))
    wanted = [piece for code, identifier, description in reversed(chain) for piece in (code, identifier, description)]
    text = watch.on_terminal(recorded.path).shows("FAILED", *wanted)
    places = [text.find(piece) for piece in wanted]
    assert places == sorted(places), text


def test_failure_without_a_message_is_shown(watch, recorded):
    recorded.put("migration.result", '<execution-result status="error"/>')
    watch.on_terminal(recorded.path).shows("FAILED", "No reason is given")


def test_messages_about_objects_of_a_report_are_shown(watch, recorded):
    recorded.golden("migration.result", "result-nested-objects")
    watch.on_terminal(recorded.path).shows("FAILED", "Cannot read dump.xml", "and 1 more message in migration.result")


# ---- What is hostile, half or missing ----

HOSTILE = "\u009b31m\u202eevil\u2066\u200b\u0090"


def test_nothing_in_a_file_does_anything_to_the_terminal(watch, recorded):
    screen = watch.on_terminal(recorded.path, 80, 24)
    transfer = ('<migration-status><transfer><host>{0}</host><files total="2" left="1" size-total="9" size-left="4">'
                '<current-file size="3" size-left="1">{0}{1}</current-file></files></transfer></migration-status>')
    recorded.put("migration.status", transfer.format(HOSTILE, "x" * 100_000))
    recorded.put("dumping-status.xml", dumping(total=2, left=1, current=HOSTILE))
    screen.shows("\ufffd31m\ufffdevil", "\u2026xxx", "Dumper")
    recorded.put("migration.result", failure((HOSTILE, HOSTILE, HOSTILE + "y" * 100_000)))
    recorded.golden("migration.status", IDLE, age=5)
    screen.shows("FAILED", "yyyyy")
    for each in HOSTILE:
        assert ord(each) < 128 or each.encode() not in screen.raw, f"U+{ord(each):04X}"


def test_name_of_the_directory_does_nothing_to_the_terminal(watch, workspace):
    session = RecordedSession(workspace / "dir\x1b]0;title\x07\x1b[2J")
    screen = watch.on_terminal(session.path)
    screen.shows("No run has told anything", "\ufffd]0;title")
    assert b"\x1b]0;" not in screen.raw


def test_missing_directory_is_waited_for(watch, workspace):
    screen = watch.on_terminal(workspace / "later")
    screen.shows("The directory does not exist.")
    session = RecordedSession(workspace / "later")
    screen.shows("No run has told anything")
    session.golden("migration.status", "migration-status-agent-wait")
    screen.shows("waiting for the agent")
    (session.path / "migration.status").unlink()
    screen.shows("No run has told anything")


def test_half_documents_are_noted_and_the_last_whole_one_stays(watch, recorded):
    recorded.golden("migration.status", "migration-status-transfer-files")
    whole = (recorded.path / "migration.status").read_text("utf-8")
    screen = watch.on_terminal(recorded.path)
    screen.shows("51 %")
    for size in (0, 1, 30, 60, len(whole) // 2, len(whole) - 5):
        (recorded.path / "migration.status").write_text(whole[:size], "utf-8")
        screen.shows("migration.status is " + ("not a whole document" if size else "empty"), "51 %")
    (recorded.path / "migration.status").write_text(whole.replace('left="7"', 'left="2"'), "utf-8")
    screen.shows("80 %  8 of 10")
    wait_until(lambda: "Note" not in screen.text, "no note")  # the rows of a screen come one by one


@pytest.mark.parametrize("text", [
    "<migration-status/>", "<migration-status><new/></migration-status>", "<other/>", "\0\xff",
    '<migration-status><transfer speed="-3"><files total="x" left="99999999999999999999"/></transfer></migration-status>',
    '<migration-status><transfer><files total="1" left="7" size-total="0" size-left="5"/></transfer></migration-status>',
    "<!DOCTYPE a [<!ENTITY b 'c'>]><migration-status>&b;</migration-status>",
    "<migration-status>" + "<a>" * 5000 + "</a>" * 5000 + "</migration-status>",
], ids=range(8))
def test_half_legal_documents_are_survived(watch, recorded, text):
    for name in ("migration.status", "dumping-status.xml", "migration.result", "transfer.result"):
        recorded.put(name, text)
    screen = watch.on_terminal(recorded.path)
    screen.shows("State", "q quits")
    assert watch.run("--once", recorded.path)[0] in (1, 3)
    screen.press(b"q")
    assert screen.wait() == 0


def test_only_regular_files_are_opened(watch, recorded, workspace):
    os.mkfifo(recorded.path / "migration.status")
    outside = RecordedSession(workspace / "outside")
    outside.golden("migration.result", "result-success")
    (recorded.path / "migration.result").symlink_to(outside.path / "migration.result")
    (recorded.path / "transfer.result").symlink_to("/dev/zero")
    (recorded.path / "dumping-status.xml").mkdir()
    text = watch.on_terminal(recorded.path).shows("q quits")
    for name in ("migration.status", "migration.result", "transfer.result", "dumping-status.xml"):
        assert f"{name} is no regular file" in text
    assert "SUCCESS" not in text


def test_nothing_is_changed_in_the_session_directory(watch, recorded):
    recorded.golden("migration.status", "migration-status-agent-wait")
    recorded.golden("migration.result", "result-success", age=9)
    recorded.put("dumping-status.xml", dumping(total=2, left=1))
    before = recorded.state()
    screen = watch.on_terminal(recorded.path)
    screen.shows("50 %")
    watch.run("--once", recorded.path)
    screen.press(b"q")
    assert screen.wait() == 0
    assert recorded.state() == before


# ---- Terminals ----

def test_small_terminal_has_the_chief_things(watch, recorded):
    recorded.golden("migration.status", "migration-status-transfer-files")
    text = watch.on_terminal(recorded.path, 40, 10).shows("fetching content", "51 %  1.0 of 2.0 KiB", "30 %  3 of 10")
    assert max(map(len, text.splitlines())) <= 40
    recorded.golden("migration.status", IDLE)
    recorded.golden("transfer.result", "result-chain-of-errors")
    watch.on_terminal(recorded.path, 40, 10).shows("FAILED", "ExampleInner", "Cannot read dump.xml")


def test_screen_follows_the_size_of_the_terminal(watch, recorded):
    recorded.golden("migration.status", "migration-status-transfer-files")
    screen = watch.on_terminal(recorded.path, 80, 24)
    assert screen.shows("q quits").splitlines()[-1] == " q quits"
    for columns, rows in ((40, 10), (1, 1), (120, 40), (80, 24)):
        screen.resize(columns, rows)
        if columns > 1:
            screen.shows("51 %", "30 %")
    screen.shows("q quits")
    assert screen.lines[-1] == " q quits"


def test_ascii_is_enough(watch, recorded):
    recorded.put("migration.status", "<migration-status><agent action='wait'><host>h\u00fc</host></agent></migration-status>")
    recorded.put("dumping-status.xml", dumping(total=2, left=1))
    # A type without a way to repeat a character, which the emulator does not know.
    screen = watch.on_terminal(recorded.path, term="linux", LC_ALL="C")
    screen.shows("waiting for the agent on h?", "####--")
    assert max(screen.raw) < 128


def restored(screen):
    """Whether the terminal is as a new one is, and shows what was there before."""
    master, slave = pty.openpty()
    try:
        fresh = termios.tcgetattr(slave)
    finally:
        os.close(master)
        os.close(slave)
    raw = bytes(screen.raw)
    return (screen.modes() == fresh and raw.rfind(b"\x1b[?1049l") > raw.rfind(b"\x1b[?1049h") > -1 and
            raw.rfind(b"\x1b[?25h") > raw.rfind(b"\x1b[?25l"))


def test_redirected_input_is_not_taken_for_keys(watch, recorded, workspace):
    typed = workspace / "input"
    typed.write_bytes(b"qqq")
    screen = watch.on_terminal(recorded.path, stdin=typed)
    screen.shows("No run has told anything")
    recorded.golden("migration.status", "migration-status-agent-wait")
    screen.shows("waiting for the agent")
    screen.signal(signal.SIGTERM)
    assert screen.wait() == -signal.SIGTERM
    assert restored(screen)


@pytest.mark.parametrize("end, status", [
    (lambda screen: screen.press(b"q"), 0),
    (lambda screen: screen.press(b"\x03"), -signal.SIGINT),
    (lambda screen: screen.signal(signal.SIGINT), -signal.SIGINT),
    (lambda screen: screen.signal(signal.SIGTERM), -signal.SIGTERM),
    (lambda screen: screen.signal(signal.SIGHUP), -signal.SIGHUP),
    (lambda screen: screen.signal(signal.SIGQUIT), -signal.SIGQUIT),
], ids=["q", "Ctrl-C", "SIGINT", "SIGTERM", "SIGHUP", "SIGQUIT"])
def test_terminal_is_restored_however_it_ends(watch, recorded, end, status):
    screen = watch.on_terminal(recorded.path)
    screen.shows("q quits")
    assert not restored(screen)
    end(screen)
    assert screen.wait() == status
    assert restored(screen)


def test_terminal_of_a_type_that_cannot_show_a_screen_gets_lines(watch, recorded):
    recorded.golden("migration.status", "migration-status-agent-wait")
    for term in ("dumb", "no-such-terminal"):
        screen = watch.on_terminal(recorded.path, term=term)
        screen.shows("waiting for the agent on src.example")
        assert b"\x1b[?1049h" not in screen.raw
        screen.press(b"\x03")
        assert screen.wait() == -signal.SIGINT


# ---- Without a terminal ----

def test_lines_are_printed_for_changes_until_the_run_ends(watch, recorded):
    recorded.golden("migration.result", "result-success", age=9)
    recorded.golden("migration.status", "migration-status-agent-wait", age=5)
    with watch.start(recorded.path) as process:
        lines = [process.stdout.readline().decode()]
        recorded.golden("migration.status", "migration-status-transfer-files")
        lines.append(process.stdout.readline().decode())
        recorded.golden("migration.status", IDLE)
        recorded.golden("transfer.result", "result-chain-of-errors")
        status, rest, err = finished(process)
    lines += rest.splitlines(keepends=True)
    stamp = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d ")
    assert all(stamp.match(line) for line in lines)
    assert [stamp.sub("", line).rstrip("\n") for line in lines] == [
        "waiting for the agent on src.example",
        "fetching content from src.example, 51 %, 1.0 of 2.0 KiB, 3 of 10 files, 512 B/s, 2 s left, clients/a & b.tgz",
        "failed (transfer.result)",
        "  cause: ExampleInner [76931fac-9dab-42b3-86c2-48b87d6ae33f]: Cannot read dump.xml: No such file or directory",
        "  led to: ExampleOuter [9a62d718-3a5d-4578-89e4-b2d6b441e241]: Error during dump retrieval",
        "  led to: ExampleOuter [1dc709e1-11c7-4e1e-87ac-b6f8cac0bb2f]: Error during migration",
    ]
    assert (status, err) == (1, "")


@pytest.mark.parametrize("result, status", [("result-success", 0), ("result-error", 1), ("result-warning", 0)])
def test_status_of_once_is_that_of_the_outcome(watch, recorded, result, status):
    recorded.golden("migration.status", IDLE)
    assert watch.run("--once", recorded.path)[0] == 3
    recorded.golden("migration.result", result)
    ended, out, err = watch.run("--once", recorded.path)
    assert (ended, err) == (status, "")
    assert "\x1b" not in out and ("SUCCESS" in out) == (status == 0)


def test_once_leaves_nothing_out(watch, recorded):
    long = "word " * 1000
    recorded.put("migration.result", failure(("Outer", "1", "x"), ("Inner", "2", long)))
    assert long.strip() in watch.run("--once", recorded.path)[1]


def test_run_that_goes_on_has_no_outcome(watch, recorded):
    recorded.golden("migration.status", "migration-status-agent-wait")
    assert watch.run("--once", recorded.path)[0] == 3
    assert watch.run("--once", recorded.path / "missing")[0] == 3


@pytest.mark.parametrize("arguments", [[], ["one", "two"], [""], ["--unknown", "one"]])
def test_wrong_usage_is_told(watch, arguments):
    status, out, err = watch.run(*arguments)
    assert (status, out) == (2, "")
    assert "--help" in err


def test_output_that_nobody_gets_is_an_error(watch, recorded):
    with open("/dev/full", "wb") as full:
        for arguments in (["--help"], ["--once", recorded.path], [recorded.path]):
            assert watch.run(*arguments, stdout=full)[0] == 2


def test_man_page_knows_the_options_of_the_help_text(watch):
    status, out, _ = watch.run("--help")
    assert status == 0
    options = set(re.findall(r"--([a-z]+)", out))
    page = Page("tallowick-watch.1")
    assert options == {"once", "help"}
    assert set(re.findall(r"Fl -(\w+)", page.section("SYNOPSIS"))) == options
    assert max(map(len, out.splitlines())) <= 80


# ---- Real runs ----

def test_real_transfer_is_followed_until_its_connection_is_lost(watch, tallowick, server, agent, start_relay):
    agent.offer({"first.tar": bytes(MIB), "second.tar": bytes(4 * MIB)})
    relay = start_relay(server, Fault(STALL, 3 * MIB))
    session = tallowick.new_session()
    screen = watch.on_terminal(session.path)
    running = tallowick.start("--get-content", *source(relay), *agent.options, session=session)
    text = screen.shows("fetching content from 127.0.0.1", "50 %  1 of 2", "second.tar", "of 5.0 MiB")
    assert 20 < int(re.search(r"Bytes.* (\d+) %", text)[1]) < 100
    relay.connections[-1].close()
    run = running.wait()
    assert run.status == 2
    error = session.error(RESULT)
    text = screen.shows("FAILED", error.inner.code, error.inner.identifier, error.code, error.identifier)
    assert text.index(error.inner.identifier) < text.index(error.code)


def test_real_transfer_is_told_in_lines(watch, tallowick, server, agent, start_relay):
    agent.offer({"first.tar": bytes(MIB), "second.tar": bytes(2 * MIB)})
    session = tallowick.new_session()
    with watch.start(session.path) as process:
        assert process.stdout.readline().endswith(b" the directory does not exist\n")
        run = get_content(tallowick, start_relay(server, drip=(65536, 0.02)), agent, session=session)
        status, out, err = finished(process)
    assert (run.status, status, err) == (0, 0, "")
    assert "fetching content from 127.0.0.1" in out
    assert out.endswith(" success (transfer.result)\n")


def test_real_failure_has_its_cause_first(watch, tallowick, server):
    run = tallowick.run("--send-scout", *source(server), password=MOVER.password + "x")
    assert run.status == 17
    status, out, _ = watch.run("--once", run.session.path)
    assert status == 1
    assert re.search(rf"Cause +SshInvalidCredentials\n +id {run.session.error().identifier}\n", out)
