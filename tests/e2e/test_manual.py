# SPDX-License-Identifier: Apache-2.0
"""What the man page shows can be typed as it stands, and what the completion offers is not refused."""

import os
import pathlib
import shutil
import subprocess

import pytest

from harness import sshd
from harness.accounts import MOVER, NOPASS
from harness.agents import AgentCatalogue
from harness.manual import Page, displays
from harness.places import BASE, SOURCE_ROOT, make_dir, remove_tree, write
from harness.program import HANGS_AFTER_S, check_sanitizers, environment
from harness.relay import Fault
from harness.session import Session

PAGE = Page("tallowick.8")
PREAMBLE, *_ = displays(PAGE.section("OPTIONS").partition("\n.Bl ")[0])
OF_OPTIONS = {item.names[0]: displays(item.body)[0] for item in PAGE.options()}
EXAMPLES = displays(PAGE.section("EXAMPLES"))

AGENTS = SOURCE_ROOT / "examples" / "agents"
ADDRESS = "192.0.2.7"


@pytest.fixture(scope="module")
def source_host():
    """The host of the examples: at its name and at an address of the documentation, at two ports."""
    subprocess.run(["ip", "address", "add", f"{ADDRESS}/32", "dev", "lo"], check=True)
    server = sshd.SshServer(BASE / "manual-server", (*sshd.PASSWORD, "Port 2222"), address="0.0.0.0", port=22,
                            record=False)
    hosting = BASE / "manual-hosting"
    subprocess.run([SOURCE_ROOT / "tests/sandbox/make-source", hosting, "--mib=1"], check=True,
                   stdout=subprocess.DEVNULL)
    configuration = pathlib.Path("/etc/sample-hosting.conf")
    configuration.symlink_to(hosting / "hosting.conf")
    yield server
    server.stop()
    configuration.unlink()
    remove_tree(hosting)
    subprocess.run(["ip", "address", "del", f"{ADDRESS}/32", "dev", "lo"], check=True)


@pytest.fixture(scope="module")
def finished_dump(source_host):
    """An agent directory with a whole dump in it."""
    directory = make_dir(BASE / "manual-agent")
    for tree in ("shared/lib", "SampleHosting/lib", "SampleHosting/bin"):
        shutil.copytree(AGENTS / tree, directory / tree.partition("/")[2], dirs_exist_ok=True)
    _give(directory)
    subprocess.run(["setpriv", f"--reuid={MOVER.uid}", f"--regid={MOVER.gid}", "--clear-groups", "perl",
                    directory / "bin/agent.pl", "--migration-mode", "--dump-domains=shop.example"], check=True)
    yield directory
    remove_tree(directory)


def _give(directory, owner=MOVER):
    for each in [directory, *directory.rglob("*")]:
        os.chown(each, owner.uid, owner.gid)


class Shell:
    """Types examples: a shell with the variables of the page, where the directories are those of the test."""

    def __init__(self, program, workspace, finished_dump):
        home = make_dir(workspace / "home")
        os.chown(home, MOVER.uid, MOVER.gid)
        self.agent, self.session = home / "agent", Session(workspace / "session")
        self.content = make_dir(workspace / "content")
        self._places = {"/home/mover/agent": self.agent, "/var/lib/migrations/7": self.session.path,
                        "/var/lib/content": self.content}
        self._directory = make_dir(workspace / "here")
        write(self._directory / "selected-objects.xml",
              (SOURCE_ROOT / "examples" / "selected-objects.xml").read_bytes())
        os.symlink(program, make_dir(workspace / "bin") / "tallowick")
        self.tools = workspace / "bin"
        shutil.copytree(finished_dump, self.agent)
        _give(self.agent)

    def type(self, text, login=MOVER, given="", sudo_password=MOVER.sudo_password):
        """Runs a text of the page to its end."""
        script = f"set -e\n{PREAMBLE}\n{text}"
        for place, here in self._places.items():
            script = script.replace(place, str(here))
        if login is not MOVER:
            script = script.replace(f"--login={MOVER.login}", f"--login={login.login}")
        variables = environment(OVN_PASSWORD=login.password, OVN_SUDO_PASSWORD=sudo_password)
        variables["PATH"] = f"{self.tools}:{variables['PATH']}"
        ended = subprocess.run(["bash", "-c", script], input=given.encode(), capture_output=True, check=False,
                               env=variables, cwd=self._directory, timeout=HANGS_AFTER_S)
        check_sanitizers(ended.stderr)
        return ended


@pytest.fixture
def shell(tallowick_release, workspace, product, finished_dump):
    make_dir(AgentCatalogue(product).directory)
    for name in ("shared", "SampleHosting"):
        shutil.copytree(AGENTS / name, product.dvx / "agents" / name, dirs_exist_ok=True)
    yield Shell(tallowick_release.binary, workspace, finished_dump)
    remove_tree(product.dvx / "agents")


def assert_done(shell, ended, name="migration.result"):
    assert (ended.returncode, ended.stderr) == (0, b"")
    assert shell.session.succeeded(name) == "success"


@pytest.mark.parametrize("option", sorted({*OF_OPTIONS} - {"help", "verbose"}))
def test_example_of_the_option_works(shell, option):
    text = OF_OPTIONS[option]
    assert_done(shell, shell.type(text), "transfer.result" if "--get-content" in text else "migration.result")


def test_example_of_verbose_works_and_shows_the_log(shell):
    ended = shell.type(OF_OPTIONS["verbose"])
    assert ended.returncode == 0
    assert ended.stderr.startswith(b"INFO k.log: Tallowick started")


def test_example_of_help_works_and_needs_no_session(shell):
    ended = shell.type(OF_OPTIONS["help"])
    assert (ended.returncode, ended.stdout[:7], ended.stderr) == (0, b"Usage: ", b"")
    assert shell.session.names() == []


def test_example_of_a_whole_migration_works(shell):
    remove_tree(shell.agent)
    assert_done(shell, shell.type(EXAMPLES[0]))
    assert not shell.agent.exists()
    dump = shell.session.file("dump-name").read_text(encoding="utf-8")
    assert dump == f"{shell.session.path}/dump.xml"
    # One of each action but the fetch, which has a document of its own.
    assert [name for name in shell.session.names() if name.startswith("migration.result.")] == [
        f"migration.result.{number}" for number in range(1, 5)]


def test_example_of_a_password_from_the_keyboard_works(shell):
    assert_done(shell, shell.type(f"unset OVN_PASSWORD\n{EXAMPLES[1]}", given=f"{MOVER.password}\n"))


def test_example_of_a_sudo_that_asks_for_nothing_works(shell):
    _give(shell.agent, NOPASS)
    assert_done(shell, shell.type(EXAMPLES[2], NOPASS, sudo_password=None))


def test_example_of_going_on_after_a_lost_connection_works(shell, source_host, start_relay):
    relay = start_relay(source_host, Fault("cut", 20_000, connection=0))
    write(shell.tools / "sleep", "#!/bin/sh\n", 0o755)
    ended = shell.type(EXAMPLES[3].replace("$SOURCE", f"$SOURCE --port={relay.port}"))
    assert (ended.returncode, ended.stderr) == (0, b"Error during dump retrieval")
    assert shell.session.error("transfer.result.1").inner.code == "SshConnectionFault"
    assert shell.session.succeeded("transfer.result") == "success"


def test_there_is_no_example_that_is_not_tried():
    assert len(EXAMPLES) == 4


def test_example_of_trying_an_agent_by_hand_works(source_host, workspace, outbox):
    text, = displays(Page("tallowick-agent.7").section("EXAMPLES"))
    ended = subprocess.run(["setpriv", f"--reuid={MOVER.uid}", f"--regid={MOVER.gid}", "--clear-groups", "bash", "-e", "-c",
                            text.replace("/tmp/agent", str(outbox / "agent"))], cwd=AGENTS, capture_output=True,
                           text=True, check=False, env=environment())
    assert (ended.returncode, ended.stderr) == (0, "")
    status, content = ended.stdout.split("<?xml")[1:]
    assert "<agentstatus>" in status
    assert ">dump.xml</file>" in content


# ---- Completion ----

_OFFERED = """
    . "$1"
    COMP_WORDS=(tallowick "$2" '') COMP_CWORD=2
    _tallowick
    printf '%s\\n' "${COMPREPLY[@]}"
"""
_VALUES = {"--host=": "127.0.0.1", "--ip=": "127.0.0.1", "--port=": "1", "--login=": MOVER.login, "--agent-dir=": "/agent",
           "--agent-name=": "SomeAgent", "--content-transport=": "rsync", "--dumps-dir=": "/"}


def _given(option):
    return option + _VALUES.get(option, "x") if option.endswith("=") else option


@pytest.mark.parametrize("action", ["--send-scout", "--deploy-agent", "--get-dumping-status", "--dump-selected", "--dump-all",
                                    "--get-content", "--remove-agent", "--remove-dumping-status"])
def test_no_option_that_is_offered_for_the_action_is_refused(tallowick_release, action):
    ended = subprocess.run(["bash", "--norc", "-c", _OFFERED, "bash", SOURCE_ROOT / "completion/tallowick", action],
                           capture_output=True, text=True, check=True)
    offered = [_given(option) for option in ended.stdout.split() if option != "--session-path="]
    # Nobody listens at the port, so a command line that is accepted goes no further.
    run = tallowick_release.run(action, *offered, sudo_password=MOVER.sudo_password,
                                password=None if action == "--remove-dumping-status" else MOVER.password)
    assert "Unable to parse command line" not in run.err
    assert run.status != 1
