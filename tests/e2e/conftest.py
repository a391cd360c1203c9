# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the end-to-end tests; see README.md."""

import itertools
import os

import pytest

from harness import accounts, sshd
from harness.agents import DeployedAgent
from harness.dumps import dumping
from harness.hostile import Outside
from harness.long_runs import LongRuns
from harness.places import BASE, make_dir, remove_tree
from harness.probe import Probe
from harness.product import Product, configure
from harness.program import Program
from harness.relay import Relay
from harness.scripted import Script, ScriptedServer
from harness.watch import Watch

_PROGRAMS = ("TALLOWICK_BIN", "TALLOWICK_RELEASE_BIN", "TALLOWICK_PROBE_BIN", "TALLOWICK_RELEASE_PROBE_BIN",
             "TALLOWICK_WATCH_BIN")


def pytest_addoption(parser):
    parser.addoption("--sweep", choices=("sample", "full"), default="sample",
                     help="how many bytes of the server's stream the fault tests cut at")
    parser.addoption("--sweep-seed", type=int, default=None,
                     help="seed of the sweep's random points (a random one by default; it is printed)")
    parser.addoption("--part", default="1/1", metavar="NUMBER/COUNT",
                     help="only one of COUNT parts, so that as many sandboxes share the tests")


def pytest_configure(config):
    config.addinivalue_line("markers", "background: takes minutes, runs beside the others and is asked last")


def pytest_sessionstart(session):
    reason = accounts.why_not_in_sandbox()
    if reason:
        pytest.exit(f"These tests make accounts and start servers, so they run only inside the sandbox: "
                    f"scripts/sandbox /usr/bin/python3 -m pytest tests/e2e ({reason})", returncode=4)
    missing = [name for name in _PROGRAMS if not os.access(os.environ.get(name, ""), os.X_OK)]
    if missing:
        pytest.exit(f"not set to an executable program: {', '.join(missing)}", returncode=4)
    remove_tree(BASE)
    make_dir(BASE)
    sshd.prepare_machine()
    # Without a file, the reader of the host configuration complains on every run.
    configure("# nothing but defaults\n")


def pytest_collection_modifyitems(config, items):
    """Keeps the tests of this part. Those that wait for minutes are asked last; their runs are started first (see
    `long_runs`), so all of them are of one part."""
    number, count = map(int, config.getoption("--part").split("/"))
    in_turn = [item for item in items if not _is_background(item)]
    waiting = [item for item in items if _is_background(item)]
    items[:] = in_turn[number - 1::count] + (waiting if number == 1 else [])


def _is_background(item):
    return item.get_closest_marker("background") is not None


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Adds the runs, their logs and the servers' logs to the report of a failed test."""
    outcome = yield
    report = outcome.get_result()
    if report.failed and call.when == "call":
        for title, text in item.stash.get(_EXPLANATIONS, lambda: [])():
            report.sections.append((title, text))


_EXPLANATIONS = pytest.StashKey()
_numbers = itertools.count()


@pytest.fixture(scope="session")
def programs():
    """The programs under test by the name of their variable."""
    return {name: os.path.abspath(os.environ[name]) for name in _PROGRAMS}


@pytest.fixture(scope="session", autouse=True)
def long_runs(request, programs):
    """The runs of the tests marked "background", when there are any."""
    if not any(map(_is_background, request.session.items)):
        yield None
        return
    runs = LongRuns(programs, BASE / "long-runs")
    yield runs
    runs.stop()


@pytest.fixture
def workspace():
    """A directory of this test's own that every login can enter; removed at its end."""
    directory = make_dir(BASE / f"test-{next(_numbers)}")
    yield directory
    remove_tree(directory)


@pytest.fixture
def outbox(workspace):
    """A directory in which the login of most tests may write."""
    directory = make_dir(workspace / "outbox")
    os.chown(directory, accounts.MOVER.uid, accounts.MOVER.gid)
    return directory


@pytest.fixture(scope="session")
def password_server():
    """The server of most tests: passwords, every command line recorded. Use `server`."""
    server = sshd.SshServer(BASE / "password-server")
    yield server
    server.stop()


@pytest.fixture
def server(password_server):
    """An sshd that takes passwords, with an empty record of commands."""
    password_server.forget()
    return password_server


@pytest.fixture(scope="session")
def old_password_server():
    """The same with the key exchange of the compatibility mode on top. Use `old_server`."""
    server = sshd.SshServer(BASE / "old-password-server", sshd.ALSO_OLD_KEY_EXCHANGE)
    yield server
    server.stop()


@pytest.fixture
def old_server(old_password_server):
    """An sshd whose clients may come in compatibility mode, with an empty record of commands."""
    old_password_server.forget()
    return old_password_server


@pytest.fixture
def start_sshd(workspace):
    """Starts an sshd as `SshServer` describes; it ends with the test."""
    servers = []

    def start(config=sshd.PASSWORD, **options):
        servers.append(sshd.SshServer(workspace / f"sshd-{len(servers)}", config, **options))
        return servers[-1]

    start.servers = servers
    yield start
    for each in servers:
        each.stop()


@pytest.fixture
def start_relay():
    """Starts a relay as `Relay` describes; it ends with the test."""
    relays = []

    def start(target, *faults, **options):
        relays.append(Relay(getattr(target, "port", target), *faults, **options))
        return relays[-1]

    yield start
    for each in relays:
        each.stop()


@pytest.fixture
def start_scripted():
    """Starts a scripted server; it ends with the test."""
    servers = []

    def start(**script):
        servers.append(ScriptedServer(Script(**script)))
        return servers[-1]

    yield start
    for each in servers:
        each.stop()


@pytest.fixture
def product():
    """The product as installed under its default root; laid out anew for each test."""
    configure("# nothing but defaults\n")
    yield Product().install()
    configure("# nothing but defaults\n")


@pytest.fixture
def agent(product, workspace):
    """An agent that is deployed on the source host already and belongs to the login of most tests."""
    return DeployedAgent(product, workspace / "agent")


@pytest.fixture
def dump(tallowick, server, agent):
    """Runs a dump, of selected objects unless `action` says otherwise."""
    return dumping(tallowick, server, agent)


@pytest.fixture
def outside(workspace):
    """Files that no run may touch, which is seen to at the end of the test."""
    files = Outside(workspace / "outside")
    yield files
    files.check()


@pytest.fixture
def tallowick(request, programs, workspace, product):
    """Runs the program (the build with sanitizers)."""
    program = Program(programs["TALLOWICK_BIN"], workspace)
    _explain(request, program.runs)
    return program


@pytest.fixture
def tallowick_release(request, programs, workspace, product):
    """Runs the release build, for what a sanitizer's memory or descriptors would blur."""
    program = Program(programs["TALLOWICK_RELEASE_BIN"], workspace)
    _explain(request, program.runs)
    return program


@pytest.fixture
def watch(programs):
    """Starts tallowick-watch as `Watch` describes; it ends with the test."""
    watch = Watch(programs["TALLOWICK_WATCH_BIN"])
    yield watch
    watch.close()


@pytest.fixture
def probe(request, programs, workspace):
    """Runs remote commands and transfers through the program's own SSH layer (build with sanitizers)."""
    probe = Probe(programs["TALLOWICK_PROBE_BIN"], workspace)
    _explain(request, probe.runs)
    return probe


@pytest.fixture
def probe_release(request, programs, workspace):
    """The same as a release build."""
    probe = Probe(programs["TALLOWICK_RELEASE_PROBE_BIN"], workspace)
    _explain(request, probe.runs)
    return probe


def _explain(request, runs):
    """Registers runs, and the servers that the test uses, for the report of a failure."""
    def explanations():
        for run in runs[-5:]:
            yield "a run", run.report()
        for name in ("password_server", "old_password_server"):
            if name in request.fixturenames:
                yield "sshd", request.getfixturevalue(name).log()[-8000:]
        if "start_sshd" in request.fixturenames:
            for server in request.getfixturevalue("start_sshd").servers:
                yield "sshd", server.log()[-8000:]

    previous = request.node.stash.get(_EXPLANATIONS, lambda: [])
    request.node.stash[_EXPLANATIONS] = lambda: [*previous(), *explanations()]
