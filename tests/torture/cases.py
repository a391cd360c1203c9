# SPDX-License-Identifier: Apache-2.0
"""The actions whose calls are made to fail: how each is run, and what must be true afterwards."""

import hashlib
import os
import pathlib
from xml.etree import ElementTree

from harness.accounts import MOVER, OWNER
from harness.agents import AgentCatalogue
from harness.content import tree
from harness.places import make_dir, remove_tree, write
from harness.product import Product
from harness.program import source
from harness.session import Session

AGENT = "SomeAgent"
REPORT = b"r" * 70_000
SCOUT = f"print q(r) x {len(REPORT)};"
AGENT_STATUS = b"<agentstatus/>\n"
SHARED_TREE = {"lib/large": b"l" * 70_000, "lib/small": b"s"}
AGENT_TREE = {"bin/own": b"o" * 100}
DUMP = b"<dump>" + b"d" * 70_000 + b"</dump>"
DUMPING_STATUS = b"<dumping-status>" + b"s" * 5000 + b"</dumping-status>"
CONTENT = {"flat": b"f" * 3000, "empty": b"", "in/a/directory": b"i" * 70_000, "of an earlier run": b"new" * 100}
NEIGHBOURS = {"neighbour": b"not the agent's", "agen": b"nearly the agent's name", "other/file": b"elsewhere"}

OLD_STATUS = b'<?xml version="1.0"?>\n<migration-status><idle/></migration-status>\n'
OLD_RESULT = b'<?xml version="1.0"?>\n<execution-result status="error"/>\n'
OLD_DUMP = b"<dump>of an earlier run</dump>"
OLD_CONTENT = b"of an earlier run"

# Lists what is still there, as an agent has to; replaces its status and its dump as a whole.
_ENTRY_POINT = """\
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
    catalogue.install(AGENT, {"run.sh": _ENTRY_POINT, **AGENT_TREE}, EntryPoint="run.sh", Interpreter="sh")


class Case:
    """One action in directories of its own. What it removes or replaces it finds again before each run."""

    action = ""
    account = MOVER
    sudo = False
    result = "migration.result"
    tick_ms = None
    old_session = False  # whether an earlier run has left its documents

    def __init__(self, name, directory, server):
        self.name = name
        self.source = make_dir(directory / "source")
        self.agent = self.source / "agent"
        self.session = Session(directory / "session")
        self._server = server

    @property
    def arguments(self):
        return [f"--{self.action}", *self.options(), f"--session-path={self.session.path}"]

    def options(self):
        return [*self.host_options(), f"--agent-dir={self.agent}", f"--agent-name={AGENT}"]

    def host_options(self):
        """The options that name the source host and how to get there."""
        return [*source(self._server, self.account), *(["--sudo-password"] if self.sudo else [])]

    @property
    def passwords(self):
        """The variables that hold them."""
        own = {"OVN_PASSWORD": self.account.password}
        return {**own, "OVN_SUDO_PASSWORD": self.account.sudo_password} if self.sudo else own

    def prepare(self):
        """Before each run in which a call fails."""
        remove_tree(self.source)
        remove_tree(self.session.path)
        self._put(self.source, NEIGHBOURS)
        self._put(self.agent, {"run.sh": _ENTRY_POINT, **self.remote_files()})
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

    def lost(self):
        """What was on the source host and is neither there nor here."""
        there = tree(self.source)
        return [path for path, content in NEIGHBOURS.items() if there.get(path) != content]

    def torn(self):
        """What is neither absent nor old nor whole in the session directory, besides the documents."""
        return []

    def undone(self, run):
        """What a run that tells of success has not done."""
        return []


def _differing(directory, expected):
    return [f"{path} is not as it must be" for path, content in expected.items()
            if not (directory / path).is_file() or (directory / path).read_bytes() != content]


class Scout(Case):
    action = "send-scout"

    def options(self):
        return self.host_options()

    def undone(self, run):
        return _differing(self.session.path, {"scout-result.xml": REPORT})


class Deployment(Case):
    action = "deploy-agent"
    old_session = True

    def undone(self, run):
        return [*_differing(self.agent, {**SHARED_TREE, **AGENT_TREE}),
                *_differing(self.session.path, {"agent-deployment.status": AGENT_STATUS})]


class DumpingStatus(Case):
    action = "get-dumping-status"
    old_session = True

    def remote_files(self):
        return {"dumping-status.xml": DUMPING_STATUS}

    def undone(self, run):
        return [] if run.stdout == DUMPING_STATUS else [f"standard output has {len(run.stdout)} bytes"]


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


class Content(Case):
    action = "get-content"
    result = "transfer.result"

    def remote_files(self):
        entries = {f".entries/{number}": f"{len(content)} {hashlib.md5(content).hexdigest()} {path}\n".encode()
                   for number, (path, content) in enumerate(CONTENT.items())}
        return {**CONTENT, **entries}

    def lost(self):
        here, there = tree(self.session.path), tree(self.agent)
        return [*super().lost(), *(path for path, content in CONTENT.items()
                                   if content not in (here.get(path), there.get(path)))]

    def torn(self):
        return [path for path, content in CONTENT.items()
                if (self.session.path / path).exists() and
                (self.session.path / path).read_bytes() not in (content, self.old_files().get(path))]

    def undone(self, run):
        records = {"dump-name": "dump.xml", "migration-result-name": "migration.result"}
        names = {name: os.fsencode(self.session.file(file)) for name, file in records.items()}
        return [*_differing(self.session.path, {**CONTENT, **names}),
                *(f"{path} is still on the source host" for path in CONTENT if (self.agent / path).exists()),
                *(f"{path} is left over" for path in tree(self.session.path) if ".incoming-" in path)]


class ContentAgain(Content):
    old_session = True

    def old_files(self):
        return {"of an earlier run": OLD_CONTENT}


class Removal(Case):
    action = "remove-agent"

    def remote_files(self):
        return {"lib/file": b"file", "bin/file": b"file"}

    def undone(self, run):
        return ["the agent directory is still there"] if self.agent.exists() else []


class LocalRemoval(Case):
    """Its file lies in the root directory: it is given no agent directory."""

    action = "remove-dumping-status"
    passwords = {}

    def options(self):
        return []


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
    "get-dumping-status, sudo": _through_sudo(DumpingStatus),
    "dump-all, sudo": _through_sudo(Dump),
    "get-content, sudo": _through_sudo(Content),
}


def make_case(name, directory, server):
    """The case of that name; each maker's `directory` is its own."""
    return CASES[name](name, pathlib.Path(directory), server)
