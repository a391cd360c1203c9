# SPDX-License-Identifier: Apache-2.0
"""The program is killed at any moment: what it replaces as a whole is absent, old or whole, nothing is gone on the
source host that is not here, and the next run succeeds.

By default a few moments of each action; `--sweep full` for hundreds.
"""

import os
import random
import signal
import threading
import time
from xml.etree import ElementTree

import pytest

from harness.accounts import MOVER
from harness.agents import AgentCatalogue, DeployedAgent
from harness.places import write
from harness.product import SMALL_REPORT
from harness.program import source

DOCUMENTS = {"migration.status": "migration-status", "migration.result": "execution-result",
             "transfer.result": "execution-result"}
KILLED = frozenset({-signal.SIGKILL, 0})
DUMP = b"<dump>" + b"d" * 300_000 + b"</dump>"
CONTENT = {f"{place}file-{number}": bytes([number]) * size
           for place in ("", "sub/", "sub/deeper/")
           for number, size in enumerate((0, 1, 4096, 65536, 65537, 700_000), len(place))}

# Lists what is still there, with sums, as an agent has to.
LIST_WHAT_IS_THERE = r"""
use Digest::MD5;
use File::Find;
my (@files, $total);
find({ no_chdir => 1, wanted => sub {
    return unless -f $_ && m{/(?:sub|file-)};
    open my $file, '<:raw', $_ or die "$_: $!";
    push @files, sprintf '<file size="%d" md5sum="%s">%s</file>', -s $_,
        Digest::MD5->new->addfile($file)->hexdigest, substr $_, length("$FindBin::Bin/");
    $total += -s _;
} }, $FindBin::Bin);
printf "<contentlist size=\"%d\" unpacked=\"0\">%s</contentlist>\n", $total // 0, join '', @files;
exit 0;
"""

# Works for a while and tells how far it is, replacing its status as a whole. It goes on when nobody listens any more.
DUMP_FOR_A_WHILE = r"""
for my $step (1 .. 20) {
    open my $status, '>', "$FindBin::Bin/new-$$" or die $!;
    printf {$status} "<dumping-status>%s</dumping-status>", "$step " x 5000;
    close $status;
    rename "$FindBin::Bin/new-$$", "$FindBin::Bin/dumping-status.xml" or die $!;
    select undef, undef, undef, 0.02;
}
"""


class Case:
    """One action: how to run it, what must be true at every moment, and what after a run to its end."""

    ticks = False
    password = MOVER.password

    def __init__(self, agent, server, action):
        self.agent = agent
        self.arguments = [f"--{action}", *source(server), *agent.options]

    def prepare(self):
        """Before each run that is to be killed."""

    def check_any_moment(self, session):
        """Whatever has happened."""

    def check_done(self, run):
        """After a run with status 0."""


class Scout(Case):
    def __init__(self, agent, server, action):
        super().__init__(agent, server, action)
        self.arguments = [f"--{action}", *source(server)]

    def check_done(self, run):
        assert run.session.scout_result == SMALL_REPORT


class Deployment(Case):
    def check_done(self, run):
        assert (self.agent.directory / "lib/large").read_bytes() == b"l" * 500_000
        assert run.session.file("agent-deployment.status").read_bytes()


class Removal(Case):
    def check_done(self, run):
        # The login may not remove the directory itself from its place.
        assert not list(self.agent.directory.iterdir())

    def prepare(self):
        for number in range(50):
            self.agent.add(f"lib/{number}", b"file")


class LocalRemoval(Case):
    password = None

    def __init__(self, agent, server, action):
        super().__init__(agent, server, action)
        self.arguments = [f"--{action}"]


class DumpingStatus(Case):
    def prepare(self):
        write(self.agent.directory / "dumping-status.xml", b"<dumping-status/>")

    def check_done(self, run):
        assert run.stdout == b"<dumping-status/>"


def check_records(session, names):
    """What records are there hold their name whole; `names` are those of the files that they name."""
    for record, name in names.items():
        file = session.file(record)
        assert not file.exists() or file.read_text() == str(session.file(name)), record


class Dump(Case):
    ticks = True

    def __init__(self, agent, server, action):
        super().__init__(agent, server, action)
        agent.on("dump", DUMP_FOR_A_WHILE)
        agent.answer(dump=DUMP)

    def check_any_moment(self, session):
        status = session.file("dumping-status.xml")
        if status.exists():
            numbers = ElementTree.parse(status).getroot().text.split()
            assert len(numbers) == 5000 and len(set(numbers)) == 1
        dump = session.file("dump.xml")
        assert not dump.exists() or dump.read_bytes() == DUMP
        check_records(session, {"dump-name": "dump.xml"})

    def check_done(self, run):
        assert run.session.file("dump.xml").read_bytes() == DUMP
        assert run.session.file("dump-name").read_text() == str(run.session.file("dump.xml"))


class Content(Case):
    RECORDS = {"dump-name": "dump.xml", "migration-result-name": "migration.result"}

    def __init__(self, agent, server, action):
        super().__init__(agent, server, action)
        agent.on("list", LIST_WHAT_IS_THERE)

    def prepare(self):
        for path, content in CONTENT.items():
            self.agent.add(path, content)

    def check_any_moment(self, session):
        for path, content in CONTENT.items():
            here, there = session.file(path), self.agent.directory / path
            assert not here.exists() or here.read_bytes() == content, path
            assert here.exists() or there.read_bytes() == content, path
        check_records(session, self.RECORDS)

    def check_done(self, run):
        for path, content in CONTENT.items():
            assert run.session.file(path).read_bytes() == content, path
            assert not (self.agent.directory / path).exists(), path
        assert all(run.session.file(record).exists() for record in self.RECORDS)
        check_records(run.session, self.RECORDS)
        assert not list(run.session.path.rglob(".incoming-*"))


CASES = {"send-scout": (Scout, 25), "deploy-agent": (Deployment, 25), "get-dumping-status": (DumpingStatus, 25),
         "dump-selected": (Dump, 200), "dump-all": (Dump, 200), "get-content": (Content, 200),
         "remove-agent": (Removal, 25), "remove-dumping-status": (LocalRemoval, 25)}


@pytest.fixture
def agent(product, workspace):
    deployed = DeployedAgent(product, workspace / "agent")
    AgentCatalogue(product).install_shared({"lib/large": b"l" * 500_000, "lib/small": b"s"})
    AgentCatalogue(product).install(deployed.name, {"bin/own": b"o"}, EntryPoint="run.pl")
    return deployed


def tick(pid, until):
    """Refreshes again and again, once the program is prepared for it."""
    caught = 1 << (signal.SIGALRM - 1)
    while not until.is_set():
        try:
            with open(f"/proc/{pid}/status", encoding="ascii") as status:
                if any(line.startswith("SigCgt") and int(line.split()[1], 16) & caught for line in status):
                    os.kill(pid, signal.SIGALRM)
        except OSError:
            return
        until.wait(0.01)


def kill_after(tallowick, case, session, seconds):
    """Starts a run and kills it, or finds it ended already."""
    running = tallowick.start(*case.arguments, session=session, password=case.password)
    over = threading.Event()
    ticker = threading.Thread(target=tick, args=(running.pid, over))
    if case.ticks:
        ticker.start()
    time.sleep(seconds)
    running.popen.kill()
    over.set()
    if case.ticks:
        ticker.join()
    return running.wait(statuses=KILLED)


def check_documents(session):
    for name in session.names():
        root = DOCUMENTS.get(".".join(name.split(".")[:2]))
        # What follows the two parts of the name is a number, or the six characters of a temporary file.
        if root and all(part.isdigit() for part in name.split(".")[2:]) and session.file(name).is_file():
            assert ElementTree.parse(session.file(name)).getroot().tag == root, name


@pytest.mark.parametrize("action", CASES)
def test_run_that_is_killed_leaves_nothing_torn_and_the_next_one_succeeds(request, tallowick_release, server, agent,
                                                                          action):
    kind, kills = CASES[action]
    if request.config.getoption("--sweep") != "full":
        kills = 3 if kills < 100 else 5
    case = kind(agent, server, action)
    case.prepare()
    session = tallowick_release.new_session()
    whole = tallowick_release.run(*case.arguments, session=session, password=case.password)
    assert whole.status == 0
    case.check_done(whole)
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    moments = random.Random(seed)
    for _ in range(kills):
        case.prepare()
        kill_after(tallowick_release, case, session, moments.uniform(0, whole.seconds * 1.1))
        check_documents(session)
        case.check_any_moment(session)
        run = tallowick_release.run(*case.arguments, session=session, password=case.password)
        assert run.status == 0
        check_documents(session)
        case.check_done(run)
        assert MOVER.password not in session.log
