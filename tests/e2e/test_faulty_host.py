# SPDX-License-Identifier: Apache-2.0
"""The tool tests/faulty-host: what the program does for each of its faults, as faulty-host.md tells it."""

import re
import subprocess
from dataclasses import dataclass

import pytest

from harness.accounts import MOVER, OWNER
from harness.agents import AGENT_STATUS, DUMP, NAME, AgentCatalogue
from harness.content import RESULT, fetched_files, log_entries
from harness.faulty_host import TOOL, FaultyHost
from harness.named_faults import FAULTS
from harness.places import make_dir
from harness.product import SMALL_REPORT
from harness.program import source
from harness.source_host import CONTENT, STATUS_DOCUMENT

DOCUMENT = TOOL.with_name("faulty-host.md")
SUDO_PASSWORD = "some-Sudo-secret-2"

SCOUT = "--send-scout"
SUDO_SCOUT = "--send-scout --sudo-password"
FETCH = "--get-content"
DUMP_ALL = "--dump-all"

# Amid the first file of the content, and amid the key exchange.
AMID_CONTENT = 200000
AMID_KEY_EXCHANGE = 300


@dataclass(frozen=True)
class Case:
    """One fault, and what a run of the program makes of it. With status 0, what `tags` name is in the log only; else
    they are the errors of the result document, outermost first."""

    fault: str
    action: str
    status: int
    tags: tuple = ()

    @property
    def name(self):
        return self.fault.partition("@")[0]


UNFETCHED = ("CantRetrieveDump", "CantRetrieveContentFile")
NO_LIST = ("CantRetrieveContentList",)
NO_XML = ("tError_ParseFile",)
NOT_STARTED = ("UnableToStartSshSession",)
LOST_AMID_CONTENT = ("CantRetrieveDump", "SshConnectionFault")
WRONG_CREDENTIALS = ("SshInvalidCredentials",)
NO_HANDLE = ("InvalidHandle",)
SCOUT_FAILED = ("FailedToExecuteScout",)
SUDO_NOT_ALLOWED = ("SudoNotAllowed",)

CASES = [
    Case(f"cut@{AMID_CONTENT}", FETCH, 2, LOST_AMID_CONTENT),
    Case(f"cut@client:{AMID_KEY_EXCHANGE}", SCOUT, 2, NOT_STARTED),
    Case(f"reset@{AMID_CONTENT}", FETCH, 2, LOST_AMID_CONTENT),
    Case(f"reset@{AMID_KEY_EXCHANGE}", SCOUT, 2, NOT_STARTED),
    Case(f"half-close@{AMID_CONTENT}", FETCH, 2, LOST_AMID_CONTENT),
    Case(f"half-close@{AMID_KEY_EXCHANGE}", SCOUT, 2, NOT_STARTED),
    Case(f"stall@{AMID_CONTENT}", FETCH, 2, LOST_AMID_CONTENT),
    Case(f"pause@{AMID_CONTENT}", FETCH, 0),
    Case("drip@1500", SCOUT, 0),
    Case("drip@client:1500", SCOUT, 0),

    Case("greeting", SCOUT, 0),
    Case("rsa-only", SCOUT, 2, NOT_STARTED),
    Case("banner", SCOUT, 0),
    Case("password-refused", SCOUT, 17, WRONG_CREDENTIALS),
    Case("public-key-only", SCOUT, 17, WRONG_CREDENTIALS),
    Case("no-authentication", SCOUT, 2, NO_HANDLE),
    Case("keyboard-interactive", SCOUT, 0),

    Case("channel-refused", SCOUT, 2, NO_HANDLE),
    Case("exec-refused", SCOUT, 2, SCOUT_FAILED),
    Case("exit-signal", SCOUT, 2, SCOUT_FAILED),
    Case("exit-signal", FETCH, 2, NO_LIST),
    Case("exit-signal", DUMP_ALL, 2, ("CantRetrieveDump", "CantRetrieveDumpFile")),
    Case("no-exit-status", SCOUT, 0),
    Case("lost-before-status", SCOUT, 18, ("SshConnectionFault",)),
    Case("lost-before-status", FETCH, 18, ("SshConnectionFault",)),
    Case("lost-before-status", DUMP_ALL, 2, ("CantRetrieveDump", "SshConnectionFault")),

    Case("login-noise", SCOUT, 0),
    Case("login-noise", FETCH, 2, NO_XML),
    Case("error-noise", FETCH, 0),
    Case("third-stream", FETCH, 0),
    Case("stderr-escapes", SCOUT, 2, SCOUT_FAILED),
    Case("stderr-escapes", DUMP_ALL, 2, ("CantRetrieveDump", "CantRetrieveDumpFile")),
    Case("stderr-nul", SCOUT, 2, SCOUT_FAILED),
    Case("stderr-latin1", FETCH, 2, NO_LIST),
    Case("stderr-flood@5000000", SCOUT, 2, SCOUT_FAILED),

    Case("sudo-missing", SUDO_SCOUT, 2, ("SudoNotFound",)),
    Case("sudo-refusing", SUDO_SCOUT, 2, SUDO_NOT_ALLOWED),
    Case("sudo-not-asking", SUDO_SCOUT, 2, SCOUT_FAILED),
    Case("sudo-tty", SUDO_SCOUT, 2, SUDO_NOT_ALLOWED),

    Case("wrong-sum", FETCH, 0, ("WrongMd5Sum",)),
    Case("wrong-size", FETCH, 0, ("WrongMd5Sum",)),
    Case("missing-file", FETCH, 2, UNFETCHED),
    Case("name-parent", FETCH, 2, UNFETCHED),
    Case("name-absolute", FETCH, 0),
    Case("name-own", FETCH, 2, UNFETCHED),
    Case("name-empty", FETCH, 2, UNFETCHED),
    Case("name-long", FETCH, 2, UNFETCHED),
    Case("name-braces", FETCH, 2, UNFETCHED),
    Case("name-shell", FETCH, 0),

    Case("total-negative", FETCH, 2, NO_LIST),
    Case("total-malformed", FETCH, 2, NO_LIST),
    Case("total-gigantic", FETCH, 2, NO_LIST),
    Case("total-largest", FETCH, 2, ("NotEnoughSpace",)),
    Case("size-negative", FETCH, 2, NO_LIST),
    Case("size-malformed", FETCH, 2, NO_LIST),
    Case("size-gigantic", FETCH, 2, NO_LIST),

    Case("list-half", FETCH, 2, NO_XML),
    Case("list-empty", FETCH, 2, ("AssertionFailed",)),
    Case("list-other", FETCH, 2, ("tError_WrongDoc",)),
    Case("list-latin1", FETCH, 2, NO_XML),
    Case("list-flood@17000000", FETCH, 2, NO_LIST),
    Case("xml-bomb", FETCH, 2, NO_XML),
    Case("external-entity", FETCH, 2, NO_XML),
]


@pytest.fixture
def start_host(workspace, product):
    """Starts the tool; it ends with the test. The agent is in the product's catalogue, and runs nowhere."""
    AgentCatalogue(product).install_shared({"lib/Common.pm": "1;\n"})
    AgentCatalogue(product).install(NAME, {"run.pl": "die;\n"}, EntryPoint="run.pl")
    hosts = []

    def start(*arguments, **options):
        hosts.append(FaultyHost(make_dir(workspace / f"host-{len(hosts)}"), *arguments, **options))
        return hosts[-1]

    yield start
    for host in hosts:
        host.stop()


def command_line(action, host):
    agent = [] if action.startswith(SCOUT) else ["--agent-dir=/srv/agent", f"--agent-name={NAME}"]
    return [*action.split(), *source(host), *agent]


def error_of(run):
    """The error of the result document of a run."""
    return run.session.error(next(name for name in (RESULT, "migration.result") if run.session.file(name).exists()))


def errors_of(error):
    return [] if error is None else [error, *errors_of(error.inner)]


# What is to be seen besides status and tags; each is called with the run and the host.
def says(text):
    """A message has `text` where the host said something odd."""
    def check(run, host):
        assert text in "".join(error.description for error in errors_of(error_of(run)))

    return check


def report_is(report):
    """If it is the scout that was sent, its report is that."""
    def check(run, host):
        assert not run.session.file("scout-result.xml").exists() or run.session.scout_result == report

    return check


def removes(*names):
    """These files are here, and on the source host no more; all others are still there."""
    def check(run, host):
        assert sorted(host.told("removed")) == sorted(names)
        assert fetched_files(run.session).keys() >= set(names)

    return check


def fetches_to(path):
    """All is fetched, and the file with the odd name is there, below the session directory."""
    def check(run, host):
        assert fetched_files(run.session) == {**CONTENT, path: b"hostile\n"}
        assert len(host.told("removed")) == len(CONTENT) + 1

    return check


def logs(text):
    def check(run, host):
        assert text in run.session.log

    return check


def hides_the_password(run, host):
    assert 'syntax error at - line 1, near "********"' in run.err


def keeps_head_and_tail(run, host):
    assert 128 * 1024 < len(run.stderr) < 140 * 1024


def shows_nothing_of_this_host(run, host):
    assert "root:" not in run.session.log + run.err


FIRST, *OTHERS = CONTENT
FURTHER = {
    "pause": removes(*CONTENT),
    "drip": report_is(SMALL_REPORT),
    "greeting": report_is(SMALL_REPORT),
    "rsa-only": logs(" method in common. A server that has an RSA host key only is such a case: "),
    "banner": report_is(SMALL_REPORT),
    "keyboard-interactive": logs("Filling 2 responses with the password"),
    "exec-refused": says("The return code is 255\n"),
    "no-exit-status": report_is(SMALL_REPORT),
    "login-noise": report_is(b"Last login: today\nYou have new mail.\n" + SMALL_REPORT),
    "error-noise": removes(*CONTENT),
    "third-stream": removes(*CONTENT),
    "stderr-escapes": says("\ufffd[31moh \ufffd]0;title\ufffd\ufffd[2Jdear"),
    "stderr-nul": says("oh\ufffddear\ufffd\n"),
    "stderr-latin1": says("fichier supprim\ufffd \ufffd l'instant\n"),
    "stderr-flood": keeps_head_and_tail,
    "sudo-not-asking": hides_the_password,
    "wrong-sum": removes(*OTHERS),
    "wrong-size": removes(*OTHERS),
    "missing-file": removes(FIRST),
    "name-parent": removes(FIRST),
    "name-absolute": fetches_to("etc/cron.d/hostile"),
    "name-own": removes(FIRST),
    "name-empty": removes(FIRST),
    "name-long": removes(FIRST),
    "name-braces": removes(FIRST),
    "name-shell": fetches_to("it's \"$(touch /tmp/hostile)\"; * `id`\n& two"),
    "list-flood": says("the list is larger than 16 MiB"),
    "external-entity": shows_nothing_of_this_host,
}


@pytest.mark.parametrize("case", CASES, ids=lambda case: f"{case.fault} {case.action}")
def test_run_ends_as_the_document_says(tallowick, tallowick_release, start_host, case):
    # Every byte is logged, which takes the build with sanitizers a while.
    program = tallowick_release if case.name.endswith("-flood") else tallowick
    secret = SUDO_PASSWORD if case.action == SUDO_SCOUT else None
    host = start_host(case.fault, sudo_password=secret)
    # libssh2 itself forgets a key when the connection ends amid the key exchange.
    running = program.start(*command_line(case.action, host), sudo_password=secret, leaks=case.tags != NOT_STARTED)
    if case.name == "stall":
        host.wait_for("fault: stall")
        assert running.popen.poll() is None
        host.stop()
    run = running.wait()
    assert run.status == case.status
    for name in CONTENT.keys() & set(host.told("removed")):
        assert run.session.file(name).read_bytes() == CONTENT[name]
    if case.status == 0:
        assert run.session.succeeded(RESULT if case.action == FETCH else "migration.result") == "success"
        assert [tag for tag in case.tags if not log_entries(run.session, tag)] == []
    else:
        assert tuple(error.code for error in errors_of(error_of(run))) == case.tags
    if case.name in FURTHER:
        FURTHER[case.name](run, host)


def documented_cases():
    """The rows of the document's tables: fault, action, status and tags."""
    for line in DOCUMENT.read_text(encoding="utf-8").splitlines():
        if line.startswith("| `"):
            fault, _, action, status, tags = [cell.strip() for cell in line.strip("|").split("|")]
            yield fault.strip("`"), action.strip("`"), int(status), tuple(re.findall(r"`(\w+)`", tags))


def test_every_fault_is_documented_as_it_is_tested():
    tested = {(FAULTS[case.name].usage, case.action, case.status, case.tags) for case in CASES}
    assert sorted(set(documented_cases())) == sorted(tested)
    assert {case.name for case in CASES} == FAULTS.keys()


def run_tool(*arguments):
    return subprocess.run([TOOL, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                          check=False)


def test_list_has_a_line_for_each_fault():
    ended = run_tool("--list")
    assert (ended.returncode, ended.stderr) == (0, "")
    assert [re.split("  +", line)[0] for line in ended.stdout.splitlines()] == [
        fault.usage for fault in FAULTS.values()]


@pytest.mark.parametrize("arguments, complaint", [
    (["cute@1"], "no such fault: cute"), (["cut"], "a number of bytes is missing: cut"),
    (["cut@-1"], "a number of bytes is missing: cut@-1"), (["xml-bomb@1"], "takes no number: xml-bomb"),
    (["cut@peer:1"], 'a stream is that of the "client" or of the "server": cut@peer:1'),
    (["cut@1", "reset@2"], "more than one fault for the server's stream"),
    (["--in-front-of=localhost:22", "xml-bomb"], "--in-front-of is for faults of the connection alone")])
def test_wrong_command_line_is_told(arguments, complaint):
    ended = run_tool(*arguments)
    assert (ended.returncode, ended.stdout) == (2, "")
    assert f"faulty-host: error: {complaint}" in ended.stderr


def test_host_without_faults_is_a_source_host_like_any_other(tallowick, start_host):
    host = start_host(sudo_password=SUDO_PASSWORD)
    session = tallowick.new_session()
    for action in ("--send-scout", "--deploy-agent", "--get-dumping-status", "--dump-all", "--get-content",
                   "--remove-agent"):
        for sudo in ([], ["--sudo-password"]):
            run = tallowick.run(*command_line(action, host), *sudo, session=session, sudo_password=SUDO_PASSWORD)
            assert (run.status, run.stderr) == (0, b""), action
            assert run.stdout == (STATUS_DOCUMENT if action == "--get-dumping-status" else b"")
    assert session.scout_result == SMALL_REPORT
    assert session.file("agent-deployment.status").read_bytes() == AGENT_STATUS
    assert session.file("dump.xml").read_bytes() == DUMP
    assert {name: session.file(name).read_bytes() for name in CONTENT} == CONTENT
    assert sorted(host.told("removed")) == sorted(CONTENT)


@pytest.mark.parametrize("account, options, status, tag", [
    (OWNER, {}, 17, "SshInvalidCredentials"),
    (MOVER, {"password": "wrong-Password-9"}, 17, "SshInvalidCredentials"),
    (MOVER, {"sudo_password": "wrong-Sudo-9"}, 2, "SudoNotAllowed")], ids=["login", "password", "sudo password"])
def test_host_knows_one_login_and_its_passwords(tallowick, start_host, account, options, status, tag):
    host = start_host(sudo_password=SUDO_PASSWORD)
    run = tallowick.run(*SUDO_SCOUT.split(), *source(host, account), **{"sudo_password": SUDO_PASSWORD, **options})
    assert (run.status, error_of(run).code) == (status, tag)


def test_only_the_first_connections_have_the_fault(tallowick, start_host):
    host = start_host("--connections=1", f"cut@{AMID_CONTENT}", "wrong-sum")
    session = tallowick.new_session()
    run = tallowick.run(*command_line(FETCH, host), session=session)
    assert (run.status, host.told("removed")) == (2, [])
    run = tallowick.run(*command_line(FETCH, host), session=session)
    assert run.status == 0
    assert fetched_files(session) == CONTENT
    assert sorted(host.told("removed")) == sorted(CONTENT)


def test_compatibility_mode_finds_a_host_whose_first_connection_is_cut(tallowick, start_host):
    host = start_host("--connections=1", "cut@0")
    assert tallowick.run(*command_line(SCOUT, host)).status == 0
    assert host.told("command")[0] == "cat"


def test_faults_of_the_connection_go_in_front_of_any_server(tallowick, server, start_host):
    host = start_host(f"--in-front-of=127.0.0.1:{server.port}", "--connections=1", "reset@300")
    run = tallowick.run(*command_line(SCOUT, host), leaks=False)
    # The first start is disturbed, and this server does without what the second one offers.
    assert run.status == 2
    run = tallowick.run(*command_line(SCOUT, host))
    assert run.status == 0
    assert len(server.commands()) == 1
