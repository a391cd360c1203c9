# SPDX-License-Identifier: Apache-2.0
"""The actions whose calls are made to fail: how each is run, and what must be true afterwards."""

import hashlib
import os
import pathlib
from dataclasses import dataclass
from typing import NamedTuple
from xml.etree import ElementTree

from harness import sshd, tcp
from harness.accounts import MOVER, OWNER
from harness.agents import AgentCatalogue
from harness.content import tree
from harness.places import make_dir, remove_tree, write
from harness.product import Product
from harness.program import source
from harness.relay import Relay
from harness.schemas import IllegalDocument
from harness.session import Session

AGENT = "SomeAgent"
REPORT = b"r" * 70_000
SCOUT = f"print q(r) x {len(REPORT)};"
AGENT_STATUS = b"<agentstatus/>\n"
SHARED_TREE = {"lib/large": b"l" * 70_000, "lib/small": b"s"}
AGENT_TREE = {"bin/own": b"o" * 100}
ENTRY_POINT = "run.sh"
ANSWER = "agent-deployment.status"
DUMP = b"<dump>" + b"d" * 70_000 + b"</dump>"
DUMPING_STATUS = b"<dumping-status>" + b"s" * 5000 + b"</dumping-status>"
CONTENT = {"flat": b"f" * 3000, "empty": b"", "in/a/directory": b"i" * 70_000, "of an earlier run": b"new" * 100}
NEIGHBOURS = {"neighbour": b"not the agent's", "agen": b"nearly the agent's name", "other/file": b"elsewhere"}

SELECTED_OBJECTS = """\
<selection><parameters filter="only-mail" compression-level="do-not-compress"/>
<domain><name>one.example</name></domain><domain><name>two.example</name></domain>
<client><name>carl</name></client><client><name>carol</name></client><reseller><name>rose</name></reseller></selection>
"""

OLD_STATUS = b'<?xml version="1.0"?>\n<migration-status><idle/></migration-status>\n'
OLD_RESULT = b'<?xml version="1.0"?>\n<execution-result status="error"/>\n'
OLD_DUMP = b"<dump>of an earlier run</dump>"
OLD_CONTENT = b"of an earlier run"
ABANDONED = ".incoming-1-01234567-89ab-cdef-0123-456789abcdef"

# What can be left undone.
DIFFERS = "is not as it must be"
STAYS = "is still on the source host"
LEFT_OVER = "is left over"
AGENT_STAYS = "the agent directory is still there"
STATUS_STAYS = "the local dumping status is still there"
NOT_PRINTED = "standard output is not the dumping status"

# Lists what is still there, as an agent has to; notes what it is to dump; replaces its status and its dump as a whole.
_SCRIPT = b"""\
own=${0%/*}
case $* in
    --get-status)
        printf '<agentstatus/>\\n' ;;
    --get-content-list)
        total=0 lines=
        for entry in "$own"/.entries/* ; do
            read -r size sum path <"$entry"
            [ -f "$own/$path" ] || continue
            total=$((total + size))
            lines="$lines<file size=\\"$size\\" md5sum=\\"$sum\\">$path</file>"
        done
        printf '<contentlist size="%s" unpacked="0">%s</contentlist>' "$total" "$lines" ;;
    *)
        printf '%s\\n' "$@" >"$own/.arguments"
        cat >"$own/.input"
        for step in 1 2 3 ; do
            printf '<dumping-status>%05000d</dumping-status>' "$step" >"$own/new-status"
            mv "$own/new-status" "$own/dumping-status.xml"
            [ ! -e "$own/.slow" ] || sleep 0.05
        done
        cp "$own/.dump" "$own/new-dump" && mv "$own/new-dump" "$own/dump.xml" ;;
esac
"""


def install_product():
    """What all cases need on the destination host."""
    product = Product().install()
    product.set_scout(SCOUT)
    catalogue = AgentCatalogue(product)
    catalogue.install_shared(SHARED_TREE)
    catalogue.install(AGENT, {ENTRY_POINT: _SCRIPT, **AGENT_TREE}, EntryPoint=ENTRY_POINT, Interpreter="sh")


class Undone(NamedTuple):
    """Something that a run owes its caller: one of the above, and the file that it is about where it is about one."""

    what: str
    path: str = ""

    def __str__(self):
        return f"{self.path} {self.what}".lstrip()


@dataclass
class Servers:
    """The source host's servers, all with the same accounts and files; each has its own way to log in."""

    password: sshd.SshServer
    keyboard_interactive: sshd.SshServer
    old: sshd.SshServer  # knows what the compatibility mode asks for

    def stop(self):
        """Ends them all."""
        for server in (self.password, self.keyboard_interactive, self.old):
            server.stop()


def start_servers(directory):
    """Starts servers that take down nothing."""
    kinds = {"password": sshd.PASSWORD, "keyboard_interactive": sshd.KEYBOARD_INTERACTIVE,
             "old": sshd.ALSO_OLD_KEY_EXCHANGE}
    return Servers(**{name: sshd.SshServer(directory / name, config, record=False) for name, config in kinds.items()})


class FirstConnectionCut(Relay):
    """Ends the first connection of each run; the others get through."""

    def __init__(self, server):
        self._ends_next = False
        super().__init__(server.port)

    def rewind(self):
        """Before each run."""
        self._ends_next = True
        self.connections.clear()

    def _serve(self, client):
        if self._ends_next:
            self._ends_next = False
            tcp.hang_up(client)
            client.close()
        else:
            super()._serve(client)


class Case:
    """One action in directories of its own. What it removes or replaces it finds again before each run."""

    action = ""
    account = MOVER
    sudo = False
    agent_name = AGENT
    result = "migration.result"
    keeps_status = True  # whether the action has a migration.status
    stdin = b""
    tick_ms = None
    old_session = False  # whether an earlier run has left its documents

    def __init__(self, name, directory, servers):
        self.name = name
        self.directory = directory
        self.source = make_dir(directory / "source")
        self.agent = self.source / "agent"
        self.session = Session(directory / "session")
        self.server = self.choose_server(servers)

    def choose_server(self, servers):
        """The server to run against."""
        return servers.password

    @property
    def arguments(self):
        return [f"--{self.action}", *self.options(), f"--session-path={self.session.path}"]

    def options(self):
        return [*self.host_options(), f"--agent-dir={self.agent}", f"--agent-name={AGENT}"]

    def host_options(self):
        """The options that name the source host and how to get there."""
        return [*source(self.server, self.account), *(["--sudo-password"] if self.sudo else [])]

    @property
    def passwords(self):
        """The variables that hold them."""
        own = {"OVN_PASSWORD": self.account.password}
        return {**own, "OVN_SUDO_PASSWORD": self.account.sudo_password} if self.sudo else own

    def begin(self):
        """Before each run."""

    def prepare(self):
        """Before each run in which a call fails."""
        remove_tree(self.source)
        remove_tree(self.session.path)
        self._put(self.source, NEIGHBOURS)
        self._put(self.agent, {ENTRY_POINT: _SCRIPT, **self.remote_files()})
        for path in [self.source, *self.source.rglob("*")]:
            os.chown(path, self.account.uid, self.account.gid)
        if self.old_session:
            self._put(self.session.path, {"migration.status": OLD_STATUS, self.result: OLD_RESULT,
                                          **self.old_files()})

    @staticmethod
    def _put(directory, files):
        make_dir(directory)
        for name, content in files.items():
            make_dir((directory / name).parent)
            write(directory / name, content)

    def remote_files(self):
        """What is in the agent directory."""
        return {}

    def old_files(self):
        """What an earlier run has left besides its documents."""
        return {}

    def local_directories(self):
        """Where the action writes on this host."""
        return [self.session.path]

    def outcome(self):
        """What the result document of this run says, "success" or "error"; None when there is none."""
        file = self.session.file(self.result)
        try:
            return None if file.read_bytes() == OLD_RESULT else self.session.succeeded(self.result)
        except (OSError, ElementTree.ParseError, IllegalDocument):
            return None

    def lost(self):
        """What was on the source host and is neither there nor here."""
        there = tree(self.source)
        return [path for path, content in NEIGHBOURS.items() if there.get(path) != content]

    def torn(self):
        """What is neither absent nor old nor whole in the session directory, besides the documents."""
        return []

    def undone(self, run):
        """What a run that tells of success has not done, as `Undone`."""
        return []


def _differing(directory, expected):
    return [Undone(DIFFERS, path) for path, content in expected.items()
            if not (directory / path).is_file() or (directory / path).read_bytes() != content]


class Scout(Case):
    action = "send-scout"

    def options(self):
        return self.host_options()

    def undone(self, run):
        return _differing(self.session.path, {"scout-result.xml": REPORT})


class ScoutByKeyboardInteractive(Scout):
    def choose_server(self, servers):
        return servers.keyboard_interactive


class ScoutInCompatibilityMode(Scout):
    def choose_server(self, servers):
        return FirstConnectionCut(servers.old)

    def begin(self):
        self.server.rewind()


class Deployment(Case):
    action = "deploy-agent"
    old_session = True

    def undone(self, run):
        return [*_differing(self.agent, {ENTRY_POINT: _SCRIPT, **SHARED_TREE, **AGENT_TREE}),
                *_differing(self.session.path, {ANSWER: AGENT_STATUS})]


class DumpingStatus(Case):
    action = "get-dumping-status"
    old_session = True

    def remote_files(self):
        return {"dumping-status.xml": DUMPING_STATUS}

    def undone(self, run):
        return [] if run.stdout == DUMPING_STATUS else [Undone(NOT_PRINTED)]


class Dump(Case):
    action = "dump-all"

    def remote_files(self):
        return {".dump": DUMP}

    def torn(self):
        dump, status = self.session.file("dump.xml"), self.session.file("dumping-status.xml")
        wrong = []
        if dump.exists() and dump.read_bytes() not in (DUMP, OLD_DUMP):
            wrong.append("dump.xml")
        if status.exists() and not _is_whole_status(status):
            wrong.append("dumping-status.xml")
        return wrong

    def undone(self, run):
        return _differing(self.session.path,
                          {"dump.xml": DUMP, "dump-name": os.fsencode(self.session.file("dump.xml"))})


def _is_whole_status(file):
    try:
        return len(ElementTree.parse(file).getroot().text) == 5000
    except ElementTree.ParseError:
        return False


class DumpWithTicks(Dump):
    action = "dump-selected"
    tick_ms = 12
    old_session = True

    def remote_files(self):
        return {**super().remote_files(), ".slow": b""}

    def old_files(self):
        return {"dump.xml": OLD_DUMP}


class DumpOfSelectedObjects(Dump):
    """Of those that a file and standard input name; the agent is to fetch their content by rsync."""

    action = "dump-selected"
    stdin = b"three.example,four.example\n"

    def options(self):
        return [*super().options(), f"--selected-objects-file={self.directory / 'objects'}", "--domains=-",
                "--content-transport=rsync", "--no-content"]

    def prepare(self):
        super().prepare()
        write(self.directory / "objects", SELECTED_OBJECTS)

    def undone(self, run):
        arguments = ["--content-transport=rsync", "--migration-mode", "--dump-domains=-", "--dump-clients=-",
                     "--dump-resellers=-", "--only-mail", "--no-compress", "--include-app-distrib", "--no-content"]
        lines = ["127.0.0.1", self.account.login, self.account.password, str(self.server.port),
                 "one.example,two.example,three.example,four.example", "carl,carol", "rose"]
        given = {".arguments": "".join(f"{each}\n" for each in arguments).encode(), ".input": "\n".join(lines).encode()}
        return [*super().undone(run), *_differing(self.agent, given)]


class Content(Case):
    action = "get-content"
    result = "transfer.result"
    content = CONTENT

    @property
    def target(self):
        """Where the content goes."""
        return self.session.path

    def local_directories(self):
        return list({self.session.path, self.target})

    def remote_files(self):
        entries = {f".entries/{number}": f"{len(content)} {hashlib.md5(content).hexdigest()} {path}\n".encode()
                   for number, (path, content) in enumerate(self.content.items())}
        return {**self.content, **entries}

    def lost(self):
        here, there = tree(self.target), tree(self.agent)
        return [*super().lost(), *(path for path, content in self.content.items()
                                   if content not in (here.get(path), there.get(path)))]

    def torn(self):
        return [path for path, content in self.content.items()
                if (self.target / path).exists() and
                (self.target / path).read_bytes() not in (content, self.old_files().get(path))]

    def undone(self, run):
        records = {"dump-name": "dump.xml", "migration-result-name": "migration.result"}
        names = {name: os.fsencode(self.target / file) for name, file in records.items()}
        return [*_differing(self.target, self.content), *_differing(self.session.path, names),
                *(Undone(STAYS, path) for path in self.content if (self.agent / path).exists()),
                *(Undone(LEFT_OVER, path) for path in tree(self.target) if ".incoming-" in path)]


class ContentAgain(Content):
    """After a run that was killed while it received a file."""

    old_session = True

    def old_files(self):
        return {"of an earlier run": OLD_CONTENT, ABANDONED: b"half"}

    def undone(self, run):
        return [each for each in super().undone(run) if each != Undone(LEFT_OVER, ABANDONED)]  # it is not this run's


class ContentElsewhere(Content):
    """Into a directory of its own, with a match for one of the files in the session: that is copied."""

    old_session = True
    content = {"flat": CONTENT["flat"], "in/a/flat": b"another", "in/dump-name": b"not of this program"}

    @property
    def target(self):
        return self.directory / "dumps"

    def options(self):
        return [*super().options(), f"--dumps-dir={self.target}", "--no-encryption"]

    def prepare(self):
        remove_tree(self.target)
        super().prepare()
        make_dir(self.target)

    def old_files(self):
        return {"flat": self.content["flat"]}


class Removal(Case):
    action = "remove-agent"
    keeps_status = False

    def remote_files(self):
        return {"lib/file": b"file", "bin/file": b"file"}

    def undone(self, run):
        return [Undone(AGENT_STAYS)] if self.agent.exists() else []


class LocalRemoval(Case):
    """Its file lies in the root directory: it is given no agent directory."""

    action = "remove-dumping-status"
    passwords = {}
    file = pathlib.Path("/dumping-status.xml")

    def options(self):
        return []

    def undone(self, run):
        return [Undone(STATUS_STAYS)] if self.file.exists() else []


def _through_sudo(kind):
    return type(f"{kind.__name__}ThroughSudo", (kind,), {"sudo": True, "account": OWNER})


CASES = {
    "send-scout": Scout,
    "deploy-agent": Deployment,
    "get-dumping-status": DumpingStatus,
    "dump-all": Dump,
    "dump-selected, refreshed": DumpWithTicks,
    "get-content": Content,
    "get-content, again": ContentAgain,
    "remove-agent": Removal,
    "remove-dumping-status": LocalRemoval,
    "send-scout, sudo": _through_sudo(Scout),
    "deploy-agent, sudo": _through_sudo(Deployment),
    "get-dumping-status, sudo": _through_sudo(DumpingStatus),
    "dump-all, sudo": _through_sudo(Dump),
    "dump-selected, refreshed, sudo": _through_sudo(DumpWithTicks),
    "get-content, sudo": _through_sudo(Content),
    "remove-agent, sudo": _through_sudo(Removal),
    "dump-selected, of listed objects": DumpOfSelectedObjects,
    "get-content, elsewhere": ContentElsewhere,
    "send-scout, keyboard-interactive": ScoutByKeyboardInteractive,
    "send-scout, compatibility mode": ScoutInCompatibilityMode,
}


def make_case(name, directory, servers):
    """The case of that name; each maker's `directory` is its own."""
    return CASES[name](name, pathlib.Path(directory), servers)
