# SPDX-License-Identifier: Apache-2.0
"""The connection ends at any byte: every run ends soon, with a documented status, and neither lies nor loses a byte.

By default a sample of bytes; `--sweep full` for a whole sweep, which takes some ten minutes.
"""

import concurrent.futures
import itertools
import os
import pathlib
import random
import subprocess

import pytest

from harness.accounts import MOVER, OWNER
from harness.agents import AgentCatalogue, DeployedAgent
from harness.places import make_dir, write
from harness.product import SMALL_REPORT
from harness.program import source
from harness.relay import FIN, HALF_CLOSE, RST, Fault, Relay

KINDS = (FIN, RST, HALF_CLOSE)
ENDS_WITHIN_S = 10
# Long enough that cuts fall amid it, also where the server sends large packets.
REPORT_SIZE = 40000
STATUS = b"<dumping-status>" + b"s" * 20000 + b"</dumping-status>"
DUMP = b"<dump>" + b"d" * 20000 + b"</dump>"
CONTENT = {"flat": b"f" * 10000, "in/a/directory": b"i" * 5000, "empty": b""}
TREE = {"lib/large": b"l" * 10000, "lib/small": b"s", "bin/entry": b"e"}


class Action:
    """One action of the sweep: how to run it, whether a run that says 0 has done all, and whether after any run all
    is still somewhere."""

    def __init__(self, name, arguments, done, *, kept=lambda run: True, result="migration.result",
                 may_always_succeed=False, **options):
        self.name = name
        self.arguments = arguments
        self.done = done
        self.kept = kept
        self.result = result
        self.may_always_succeed = may_always_succeed
        self.options = options


def agent_dir(run):
    """The agent directory that a run was told."""
    return next(pathlib.Path(word.partition("=")[2]) for word in run.command if word.startswith("--agent-dir="))


def files_are(directory, expected):
    """Whether all of `expected` (path -> bytes) is in `directory`."""
    return all((directory / path).is_file() and (directory / path).read_bytes() == content
               for path, content in expected.items())


@pytest.fixture
def agent_actions(workspace, outbox, product):
    """The actions that work with an agent; each run has an agent directory of its own."""
    template = DeployedAgent(product, workspace / "template")
    template.offer(CONTENT)
    template.answer(dump=DUMP)
    AgentCatalogue(product).install_shared(TREE)
    numbers = itertools.count()

    def new_directory():
        return outbox / str(next(numbers))

    def deployed():
        directory = new_directory()
        subprocess.run(["cp", "-a", template.directory, directory], check=True)
        return directory

    def options(action, make_directory, account=MOVER):
        return lambda port: [f"--{action}", *source(port, account), f"--agent-dir={make_directory()}",
                             f"--agent-name={template.name}"]

    def fetched(run):
        return files_are(run.session.path, CONTENT)

    def kept(run):
        return all(files_are(run.session.path, {path: content}) or files_are(agent_dir(run), {path: content})
                   for path, content in CONTENT.items())

    def dumped(run):
        return run.session.file("dump.xml").read_bytes() == DUMP

    def sent(run):
        return files_are(agent_dir(run), TREE)

    # The entry point that is asked for the status afterwards.
    AgentCatalogue(product).install(template.name, {"run.pl": template.entry_point.read_bytes(),
                                                    ".agent/status": b"<agentstatus/>", ".agent/calls/none": b""},
                                    EntryPoint="run.pl")
    return (Action("deploy-agent", options("deploy-agent", new_directory), sent),
            Action("dump-all", options("dump-all", deployed), dumped),
            Action("get-content", options("get-content", deployed), fetched, kept=kept, result="transfer.result"),
            Action("get-content with sudo",
                   lambda port: [*options("get-content", deployed, OWNER)(port), "--sudo-password"], fetched, kept=kept,
                   result="transfer.result", sudo_password=OWNER.password, password=OWNER.password))


@pytest.fixture
def actions(workspace, product, agent_actions):
    """The actions that need a connection, with and without sudo."""
    product.set_scout(f"print q(r) x {REPORT_SIZE};")
    agent = make_dir(workspace / "agent", 0o777)
    write(agent / "dumping-status.xml", STATUS, 0o644)
    os.chown(agent / "dumping-status.xml", MOVER.uid, MOVER.gid)
    options = [f"--agent-dir={agent}", "--agent-name=a"]
    sudo = {"sudo_password": OWNER.password, "password": OWNER.password}

    def report(run):
        return run.session.scout_result == b"r" * REPORT_SIZE

    def printed(run):
        return run.stdout == STATUS

    return {action.name: action for action in (
        Action("send-scout", lambda port: ["--send-scout", *source(port)], report),
        Action("send-scout with sudo", lambda port: ["--send-scout", "--sudo-password", *source(port, OWNER)], report,
               **sudo),
        Action("get-dumping-status", lambda port: ["--get-dumping-status", *source(port), *options], printed),
        Action("get-dumping-status with sudo",
               lambda port: ["--get-dumping-status", "--sudo-password", *source(port, OWNER), *options], printed,
               **sudo),
        Action("remove-agent", lambda port: ["--remove-agent", *source(port), f"--agent-dir={workspace}/gone",
                                             "--agent-name=a"], lambda run: True, may_always_succeed=True),
        *agent_actions,
    )}


def points_of(stream, full, dense, seed):
    """Where to cut: every eighth byte of the first 4 KB and `dense` random later ones, or a sample of that."""
    numbers = random.Random(seed)
    later = range(4096, stream)
    if full:
        return [*range(0, 4096, 8), *sorted(numbers.sample(later, min(dense, len(later))))]
    return sorted({0, 1, 21, stream - 1, *numbers.sample(range(0, 4096), 24),
                   *numbers.sample(later, min(dense, len(later)))})


def server_stream(tallowick, server, action):
    """What the server sends in a run that nobody disturbs."""
    with Relay(server.port, record=True) as relay:
        run = tallowick.run(*action.arguments(relay.port), **action.options)
        assert run.status == 0
        assert action.done(run)
        return bytes(relay.connections[0].streams["server"])


def end_of_key_exchange(stream):
    """Where the server's stream begins to be encrypted."""
    new_keys = 21
    offset = stream.index(b"\n") + 1
    while True:
        kind = stream[offset + 5]
        offset += 4 + int.from_bytes(stream[offset:offset + 4], "big")
        if kind == new_keys:
            return offset


def cut(tallowick, server, action, exchanged, kind, at):
    """One run whose connection is cut; the complaint about it, if any."""
    with Relay(server.port, Fault(kind, at)) as relay:
        # libssh2 itself forgets a key when the connection ends amid the key exchange.
        run = tallowick.run(*action.arguments(relay.port), leaks=at > exchanged, **action.options)
    told = f"{action.name}, {kind} at byte {at}: status {run.status} after {run.seconds:.1f} s, {run.err[:200]!r}"
    if run.seconds > ENDS_WITHIN_S:
        return f"{told}: too late"
    success = run.session.succeeded(action.result) == "success"
    if run.status == 0 and not action.may_always_succeed and not action.done(run):
        return f"{told}: success although not all was done"
    if run.status not in ((0,) if action.may_always_succeed else (0, 2, 18)):
        return f"{told}: not a status of a lost connection"
    if success != (run.status == 0):
        return f"{told}: the result document says otherwise"
    if not action.kept(run):
        return f"{told}: something is neither here nor there"
    if run.status != 0 and not run.err:
        return f"{told}: nothing on standard error"
    return None


NAMES = ["send-scout", "send-scout with sudo", "get-dumping-status", "get-dumping-status with sudo", "remove-agent",
         "deploy-agent", "dump-all", "get-content", "get-content with sudo"]


@pytest.mark.parametrize("name", NAMES)
def test_connection_cut_at_any_byte_ends_the_run_with_an_honest_status(request, tallowick, server, actions, name):
    full = request.config.getoption("--sweep") == "full"
    seed = request.config.getoption("--sweep-seed")
    seed = random.randrange(2 ** 32) if seed is None else seed
    print(f"--sweep-seed {seed}")
    action = actions[name]
    recorded = server_stream(tallowick, server, action)
    stream, exchanged = len(recorded), end_of_key_exchange(recorded)
    if full and name == "send-scout":
        points = points_of(stream, full, 200, seed)
        cuts = [(kind, at) for at in points for kind in KINDS]
    elif full:
        numbers = random.Random(seed)
        cuts = [(kind, at) for at in sorted(numbers.sample(range(stream), 100)) for kind in KINDS]
    else:
        cuts = list(zip(KINDS * 100, points_of(stream, full, 12, seed)))
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as workers:
        complaints = list(workers.map(lambda each: cut(tallowick, server, action, exchanged, *each), cuts))
    complaints = [complaint for complaint in complaints if complaint]
    assert not complaints, "\n".join([f"{len(complaints)} of {len(cuts)} runs:", *complaints[:20]])


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("share", [0.1, 0.5, 0.9])
def test_connection_cut_in_the_clients_stream_is_an_error(tallowick, server, product, kind, share):
    product.set_scout("# filler\n" * 50000 + "print 'done';")
    with Relay(server.port) as relay:
        assert tallowick.run("--send-scout", *source(relay)).status == 0
        stream = relay.connections[0].counts["client"]
    with Relay(server.port, Fault(kind, int(stream * share), stream="client")) as relay:
        run = tallowick.run("--send-scout", *source(relay))
    assert run.status in (2, 18)
    assert run.seconds < ENDS_WITHIN_S
    assert run.session.succeeded() == "error"


@pytest.mark.parametrize("delay", [0.001, 0.01, 0.05])
def test_report_survives_every_delay(tallowick, server, delay):
    with Relay(server.port, delay=delay) as relay:
        run = tallowick.run("--send-scout", *source(relay))
    assert (run.status, run.session.scout_result) == (0, SMALL_REPORT)
