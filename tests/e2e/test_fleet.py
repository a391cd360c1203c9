# SPDX-License-Identifier: Apache-2.0
"""examples/fleet: twenty source hosts at once, what comes of each, and what another round repeats."""

import csv
import json
import os
import re
import subprocess
from dataclasses import dataclass

import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OWNER
from harness.network import UNREACHABLE_HOST, hosts, route
from harness.places import SOURCE_ROOT, make_dir, write
from harness.product import SMALL_REPORT
from harness.program import environment
from harness.scripted import Script, ScriptedServer
from harness.session import Session
from harness.sshd import PASSWORD, SshServer
from harness.tcp import TcpServer, hang_up

FLEET = SOURCE_ROOT / "examples" / "fleet"
DOCUMENT = SOURCE_ROOT / "doc" / "fleet.md"
CONTRACT = SOURCE_ROOT / "doc" / "contract.json"
ROOT = ACCOUNTS["root"]
HANGS_AFTER_S = 120

WELL = [f"127.0.0.{number}" for number in range(2, 14)]
CLOSED, WRONG_PASSWORD, NO_SESSIONS, HANGS_UP, LOSES, OPEN_FILE = (f"127.0.0.{number}" for number in range(14, 20))
NO_SUCH_NAME = "nowhere.example"
HOSTS = [*WELL, CLOSED, WRONG_PASSWORD, NO_SESSIONS, HANGS_UP, LOSES, OPEN_FILE, NO_SUCH_NAME, UNREACHABLE_HOST]

WRONG = "wrong-Password-77"
PASSWORDS = {MOVER.password, OWNER.password, NOPASS.password, ROOT.password, WRONG}


class HangsUp(TcpServer):
    """Closes each connection as soon as it is there."""

    def _serve(self, client):
        self.note("connection", None)
        hang_up(client)
        client.close()

    def _end_connections(self):
        pass


@dataclass
class Round:
    """One run of the script."""

    status: int
    out: str
    err: str

    def of(self, host):
        """What is said of a host."""
        return re.search(rf"^{re.escape(host)}: (.*)$", self.out, re.MULTILINE).group(1)


class Fleet:
    """A list of hosts, their passwords, and what is recorded of one action."""

    def __init__(self, program, directory):
        self.directory = make_dir(directory)
        self.record = directory / "record"
        self.passwords = make_dir(directory / "passwords", 0o700)
        self.list = directory / "hosts"
        self.calls = make_dir(directory / "calls")
        # Stands in front of the program and notes the command lines of every process there is, its own included.
        self.program = write(directory / "program", (
            f"#!/bin/sh\nfor each in /proc/[0-9]*/cmdline; do cat \"$each\"; echo; done >{self.calls}/$$ 2>/dev/null\n"
            f"exec {program} \"$@\"\n"), 0o755)

    def session(self, host):
        return Session(self.directory / "sessions" / f"of {host}")

    def write_list(self, names, login=MOVER.login):
        write(self.list, "# the source hosts\n\n" + "".join(
            f"{name} {login}\t{self.session(name).path}\n" for name in names))

    def set_password(self, name, password, mode=0o400):
        write(self.passwords / name, f"{password}\n", mode)

    def run(self, *action, listed=None, record=None, **variables):
        ended = subprocess.run(
            [FLEET, listed or self.list, record or self.record, *action], stdin=subprocess.DEVNULL, capture_output=True,
            text=True, check=False, timeout=HANGS_AFTER_S, cwd=self.directory,
            env=environment(TALLOWICK=str(self.program), FLEET_PASSWORDS=str(self.passwords), HOME=str(self.directory),
                            **variables))
        assert ended.stderr == "", ended.stderr
        return Round(ended.returncode, ended.stdout, ended.stderr)

    def hosts_of(self, number):
        return [line.split("\t")[0] for line in (self.record / f"round-{number}/hosts").read_text().splitlines()]

    def job_log(self, number):
        """The statuses of a round's job log by host."""
        names = self.hosts_of(number)
        with open(self.record / f"round-{number}/log", encoding="utf-8", newline="") as log:
            rows = list(csv.DictReader(log, delimiter="\t", quoting=csv.QUOTE_NONE))
        return {names[int(row["Seq"]) - 1]: (int(row["Exitval"]), int(row["Signal"])) for row in rows}

    def argument_lists(self):
        """Every command line that was seen during the runs."""
        return [file.read_bytes() for file in self.calls.iterdir()]


@pytest.fixture
def fleet(programs, product, workspace):
    """A fleet that runs the release build."""
    return Fleet(programs["TALLOWICK_RELEASE_BIN"], workspace / "fleet")


@pytest.fixture
def start_host(workspace):
    """Starts an sshd at an address, on the usual port."""
    servers = []

    def start(address, config=PASSWORD):
        servers.append(SshServer(workspace / f"host-{address}-{len(servers)}", config, address=address, port=22,
                                 record=False, host_keys=("ed25519",)))
        return servers[-1]

    yield start
    for each in servers:
        each.stop()


def test_twenty_hosts_and_only_what_can_go_better_is_repeated(fleet, start_host):
    for address in [*WELL, OPEN_FILE]:
        start_host(address)
    suspicious = start_host(WRONG_PASSWORD)
    start_host(NO_SESSIONS, ("MaxSessions 0", *PASSWORD))
    hanging_up = HangsUp(HANGS_UP, 22)
    losing = ScriptedServer(Script(run=lambda run: (run.read_input(), run.drop())), address=LOSES, port=22)
    assert len(HOSTS) == 20
    fleet.write_list(HOSTS)
    fleet.set_password(WRONG_PASSWORD, WRONG)
    fleet.set_password(OPEN_FILE, MOVER.password, 0o440)

    with route("unreachable", UNREACHABLE_HOST):
        with hanging_up, losing:
            first = fleet.run("--send-scout", OVN_PASSWORD=MOVER.password)
        expected = {**dict.fromkeys(WELL, 0), CLOSED: 11, WRONG_PASSWORD: 17, NO_SESSIONS: 2, HANGS_UP: 2, LOSES: 18,
                    OPEN_FILE: 3, NO_SUCH_NAME: 16, UNREACHABLE_HOST: 14}
        assert fleet.job_log(1) == {host: (status, 0) for host, status in expected.items()}
        assert first.status == 1
        again = [CLOSED, HANGS_UP, LOSES, UNREACHABLE_HOST]
        assert [host for host in HOSTS if first.of(host).endswith(" (again)")] == again

        late = [start_host(address) for address in (CLOSED, HANGS_UP, LOSES)]
        second = fleet.run("--send-scout", OVN_PASSWORD=MOVER.password)
        assert fleet.hosts_of(2) == again
        assert fleet.job_log(2) == {**{host: (0, 0) for host in again[:3]}, UNREACHABLE_HOST: (14, 0)}
        assert second.status == 1

    # What is done and what needs a hand was left alone: a session each, one try with the wrong password.
    for host in [*WELL, CLOSED, HANGS_UP, LOSES]:
        assert second.of(host) == "done"
        assert fleet.session(host).scout_result == SMALL_REPORT
        assert fleet.session(host).succeeded() == "success"
        assert fleet.session(host).file("migration.result.1").exists() == (host in (HANGS_UP, LOSES, CLOSED))
    assert suspicious.log().count("Failed password") == 1
    assert len(late) == 3
    assert [line.split()[0] for line in (fleet.record / "mend").read_text().splitlines()] == [
        WRONG_PASSWORD, NO_SESSIONS, OPEN_FILE, NO_SUCH_NAME]
    assert "failed with InvalidHandle: see " in second.of(NO_SESSIONS)
    assert fleet.session(NO_SESSIONS).error().code == "InvalidHandle"

    # Mended, these are a fleet of their own.
    fleet.set_password(WRONG_PASSWORD, MOVER.password)
    fleet.set_password(OPEN_FILE, MOVER.password)
    with hosts("127.0.0.2 nowhere.example"):
        third = fleet.run("--send-scout", listed=fleet.record / "mend", record=fleet.directory / "mended",
                          OVN_PASSWORD=MOVER.password)
    assert third.status == 2
    assert [third.of(host) for host in (WRONG_PASSWORD, OPEN_FILE, NO_SUCH_NAME)] == ["done"] * 3

    seen = fleet.argument_lists()
    assert len(seen) == 19 + 4 + 4
    assert all(b"parallel" in each and b"--send-scout" in each for each in seen)
    recorded = [file.read_bytes() for file in fleet.directory.rglob("*")
                if file.is_file() and fleet.passwords not in file.parents]
    for secret in PASSWORDS:
        assert not any(secret.encode() in each for each in seen + recorded)


def test_each_host_has_its_own_passwords_also_for_sudo(fleet, product, start_host):
    product.set_scout("print scalar(getpwuid($<));\n")
    logins = {"127.0.0.2": OWNER, "127.0.0.3": MOVER, "127.0.0.4": NOPASS, "127.0.0.5": MOVER}
    for address, account in logins.items():
        start_host(address)
        fleet.set_password(address, account.password)
    fleet.set_password("127.0.0.2.sudo", OWNER.sudo_password)
    fleet.set_password("127.0.0.3.sudo", MOVER.sudo_password)
    fleet.set_password("127.0.0.4.sudo", "")
    write(fleet.list, "".join(f"{address} {account.login} {fleet.session(address).path}\n"
                              for address, account in logins.items()))
    ended = fleet.run("--send-scout")
    assert (ended.status, fleet.job_log(1)) == (0, dict.fromkeys(logins, (0, 0)))
    assert [fleet.session(address).scout_result for address in logins] == [b"root", b"root", b"root", b"mover"]


def test_killed_run_and_host_that_did_not_have_its_turn_are_repeated(fleet, start_host):
    for address in WELL[:3]:
        start_host(address)
    fleet.write_list(WELL[:2])
    program = fleet.program.read_text()
    write(fleet.program, program.replace("exec ", f"case \"$*\" in *{WELL[1]}*) kill -KILL $$ ;; esac\nexec "), 0o755)
    first = fleet.run("--send-scout", OVN_PASSWORD=MOVER.password)
    assert (first.status, fleet.job_log(1)) == (1, {WELL[0]: (0, 0), WELL[1]: (0, 9)})
    assert first.of(WELL[1]) == "was ended by signal 9 (again)"
    write(fleet.program, program, 0o755)
    fleet.write_list(WELL[:3])
    second = fleet.run("--send-scout", OVN_PASSWORD=MOVER.password)
    assert (second.status, fleet.job_log(2)) == (0, dict.fromkeys(WELL[1:3], (0, 0)))
    third = fleet.run("--send-scout", OVN_PASSWORD=MOVER.password)
    assert (third.status, third.out) == (0, second.out)
    assert not (fleet.record / "round-3").exists()


@pytest.mark.parametrize("action, document", [("--dump-all", "migration.result"), ("--get-content", "transfer.result")])
@pytest.mark.parametrize("tag, again", [("SshConnectionFault", True), ("CantRetrieveDumpFile", False)])
def test_cause_of_a_failed_step_decides(fleet, action, document, tag, again):
    session = fleet.session("127.0.0.2").path
    write(fleet.program, (
        f"#!/bin/sh\nmkdir -p '{session}'\ncat >'{session}/{document}' <<END\n"
        f"<message code=\"CantRetrieveDump\"><description/>\n<message code=\"{tag}\"/></message>\nEND\n"
        "exit 2\n"), 0o755)
    fleet.write_list(["127.0.0.2"])
    ended = fleet.run(action, "--agent-dir=/a", "--agent-name=a b $c", OVN_PASSWORD=MOVER.password)
    assert ended.status == (1 if again else 2)
    assert ended.of("127.0.0.2") == f"failed with {tag}: see {session}/{document}" + again * " (again)"


def test_causes_are_repeated_for_which_the_contract_table_has_hope(fleet):
    advice = {}
    for row in json.loads(CONTRACT.read_text(encoding="utf-8"))["rows"]:
        if row["status"] == 2:
            advice.setdefault(row["innermost"], set()).add(row["retry"])
    write(fleet.program, (
        "#!/bin/sh\nfor each; do\n  case $each in\n    --host=*) tag=${each#*=} ;;\n"
        "    --session-path=*) session=${each#*=} ;;\n  esac\ndone\n"
        "mkdir -p \"$session\"\necho \"<message code=\\\"$tag\\\"/>\" >\"$session/migration.result\"\nexit 2\n"), 0o755)
    fleet.write_list(advice)
    ended = fleet.run("--dump-all", OVN_PASSWORD=MOVER.password)
    hopeful = {tag for tag, retries in advice.items() if retries <= {"now", "later"}}
    assert {"ConnectionRefused", "SshConnectionFault"} <= hopeful < set(advice)
    assert {tag for tag in advice if ended.of(tag).endswith(" (again)")} == hopeful


def test_options_of_the_action_are_read_by_no_shell(fleet):
    write(fleet.program, "#!/bin/sh\nfor each; do echo \"[$each]\"; done\n", 0o755)
    fleet.write_list(["127.0.0.2"])
    fleet.run("--dump-selected", "--domains=a b,$(id)'\"", "--agent-name={1}", OVN_PASSWORD="x")
    printed = (fleet.record / "round-1/1.out").read_text().splitlines()
    assert printed[:2] == ["[--dump-selected]", "[--domains=a b,$(id)'\"]"]


@pytest.mark.parametrize("lines, complaint", [
    ("127.0.0.2 mover\n", "line 1: host, login and session directory are needed"),
    ("127.0.0.2 mover /s\n127.0.0.3 mover /s\n", "line 2: the session directory is that of line 1"),
    ("../x mover /s\n", "line 1: no such name can be used")])
def test_list_that_cannot_be_used_starts_nothing(fleet, lines, complaint):
    write(fleet.list, lines)
    ended = subprocess.run([FLEET, fleet.list, fleet.record, "--send-scout"], capture_output=True, text=True,
                           check=False)
    assert (ended.returncode, ended.stdout) == (3, "")
    assert complaint in ended.stderr
    assert not (fleet.record / "round-1").exists()


def test_two_fleets_do_not_share_a_record(fleet):
    fleet.write_list(["127.0.0.2"])
    make_dir(fleet.record)
    with open(fleet.record / "lock", "w", encoding="ascii") as lock:
        subprocess.run(["flock", "-n", str(lock.fileno())], check=True, pass_fds=[lock.fileno()])
        ended = subprocess.run([FLEET, fleet.list, fleet.record, "--send-scout"], capture_output=True, text=True,
                               check=False)
    assert (ended.returncode, ended.stdout) == (3, "")
    assert "is in use by another fleet" in ended.stderr


def test_wrong_words_are_answered_with_the_usage():
    ended = subprocess.run([FLEET, "--help"], capture_output=True, text=True, check=False)
    assert (ended.returncode, ended.stdout) == (3, "")
    assert ended.stderr.startswith("fleet HOSTS RECORD ACTION [OPTION...]\n")


def test_document_tells_of_every_status():
    told = re.findall(r"^\| ([\d, ]+) \|", DOCUMENT.read_text(encoding="utf-8"), re.MULTILINE)
    assert sorted(int(each) for cell in told for each in cell.split(",")) == [0, 1, 2, 3, *range(11, 19)]
