# SPDX-License-Identifier: Apache-2.0
"""Hostile surroundings: things in the way of the session's files, limits, closed descriptors, odd locales and
clocks, stops and continuations, and many runs in one session directory."""

import contextlib
import os
import re
import resource
import signal
import stat
import subprocess
import threading
from xml.etree import ElementTree

import pytest

from harness.agents import DUMP
from harness.every_action import ACTIONS as EVERY_ACTION
from harness.every_action import CONTENT, DUMPING_STATUS, EveryAction, assert_done, assert_honest, result_name
from harness.hostile import PLANTS, Planted, compile_preload, preloaded
from harness.places import BASE, make_dir, remove_tree, write
from harness.program import DOCUMENTED_STATUSES, source
from harness.waiting import wait_until


# No connection of ours ever gets this port for its own end, and so finds itself.
NOBODY_LISTENS = 1
# Both dumps are one.
ACTIONS = tuple(action for action in EVERY_ACTION if action != "--dump-selected")
# It tells its progress nowhere.
WITHOUT_STATUS = "--remove-agent"


@pytest.fixture
def actions(tallowick_release, product, workspace):
    """Every action of the release build, whose memory and descriptors are the users'."""
    return EveryAction(tallowick_release, product, workspace / "agent")


def plant_everywhere(program, name, outside):
    """One session for each kind of thing, with that thing under `name`."""
    planted = []
    for kind in PLANTS:
        session = program.new_session()
        make_dir(session.path)
        make_dir(session.file(name).parent)
        planted.append((session, Planted(kind, session.file(name), outside)))
    return planted


def run_each(actions, action, server, planted, **options):
    """Runs the action in every session at once."""
    running = [actions.start(action, server, session=session, **options) for session, _ in planted]
    return [(each.wait(), thing) for each, (_, thing) in zip(running, planted)]


@pytest.mark.parametrize("action", ACTIONS)
def test_nothing_in_place_of_the_log_is_followed_or_waited_for(actions, tallowick_release, outside, action):
    for run, thing in run_each(actions, action, 1, plant_everywhere(tallowick_release, "migration.log", outside)):
        assert run.status == 1, thing.kind
        assert run.err.startswith(f"Uncaught std::exception: Cannot write to {thing.path}: "), thing.kind
        assert thing.is_at(thing.path), thing.kind
        assert set(run.session.names()) == {"archives", "migration.log"}, thing.kind
    outside.check()


@pytest.mark.parametrize("action", [action for action in ACTIONS if action != WITHOUT_STATUS])
def test_nothing_in_place_of_the_status_is_followed_or_waited_for(actions, tallowick_release, outside, action):
    expected = actions.run(action, NOBODY_LISTENS)
    for run, thing in run_each(actions, action, NOBODY_LISTENS,
                               plant_everywhere(tallowick_release, "migration.status", outside)):
        if thing.kind == "directory":
            assert (run.status, run.session.error(result_name(action)).code) == (2, "CantRenameFile")
            assert thing.is_at(thing.path)
        else:
            assert run.status == expected.status, thing.kind
            assert run.session.status.find("idle") is not None, thing.kind
    outside.check()


@pytest.mark.parametrize("action", ACTIONS)
def test_what_stands_in_place_of_the_result_is_kept_as_its_predecessor(actions, tallowick_release, outside, action):
    expected = actions.run(action, NOBODY_LISTENS)
    name = result_name(action)
    for run, thing in run_each(actions, action, NOBODY_LISTENS, plant_everywhere(tallowick_release, name, outside)):
        assert run.status == expected.status, thing.kind
        assert run.session.succeeded(name) == expected.session.succeeded(name), thing.kind
        assert thing.is_at(run.session.file(f"{name}.1")), thing.kind
        assert stat.S_ISREG(run.session.file(name).lstat().st_mode), thing.kind
    outside.check()


@pytest.mark.parametrize("action", ACTIONS)
def test_what_stands_in_place_of_the_archives_is_left_alone(actions, tallowick_release, outside, action):
    expected = actions.run(action, NOBODY_LISTENS)
    for run, thing in run_each(actions, action, NOBODY_LISTENS, plant_everywhere(tallowick_release, "archives", outside)):
        assert run.status == expected.status, thing.kind
        assert thing.is_at(thing.path), thing.kind
    outside.check()


def share_source(agent, empty=True):
    """Lets runs beside each other take nothing from one another: dumps find their dump, and contents are `empty`."""
    agent.answer(dump=None)
    agent.add("dump.xml", DUMP)
    if empty:
        agent.answer(list=b'<contentlist size="0" unpacked="0"/>')


# What each action makes besides, and the error of a run that cannot make it.
PRODUCTS = [("--send-scout", "scout-result.xml", ["StreamWrite"]),
            ("--deploy-agent", "agent-deployment.status", ["StreamWrite"]),
            ("--dump-all", "dump.xml", ["CantRetrieveDump", "StreamWrite"]),
            ("--dump-all", "dump-name", ["FileWrite"]),
            ("--get-content", "content", ["CantRetrieveDump", "CantRetrieveContentFile"]),
            ("--get-content", "content/file", ["CantRetrieveDump", "CantRetrieveContentFile"]),
            ("--get-content", "dump-name", ["FileWrite"]),
            ("--get-content", "migration-result-name", ["FileWrite"])]


@pytest.mark.parametrize("action, name, codes", PRODUCTS, ids=lambda value: "" if isinstance(value, list) else value)
def test_nothing_in_place_of_a_product_is_followed_waited_for_or_replaced(actions, tallowick_release, server, outside,
                                                                          action, name, codes):
    planted = plant_everywhere(tallowick_release, name, outside)
    if name == "content":
        planted = [(session, thing) for session, thing in planted if thing.kind != "directory"]
    share_source(actions.agent, empty=not name.startswith("content"))
    for run, thing in run_each(actions, action, server, planted):
        assert run.status == 2, thing.kind
        error = run.session.error(result_name(action))
        assert [error.code, *([error.inner.code] if error.inner else [])] == codes, thing.kind
        assert thing.is_at(thing.path), thing.kind
    outside.check()


# Whoever asks for a tick after some seconds gets it soon.
HURRY = r"""
#include <sys/time.h>
#include <unistd.h>

unsigned alarm(unsigned seconds) {
    const struct itimerval soon = {{0, 0}, {0, seconds ? 200000 : 0}};
    setitimer(ITIMER_REAL, &soon, 0);
    return 0;
}
"""
# The dump goes on until the test has seen what it wants.
DUMP_UNTIL_TOLD = "until (-e q({go})) {{ select undef, undef, undef, 0.05 }}"


def await_refreshes(session, least):
    """Waits until the run has asked for the dumping status so often."""
    wait_until(lambda: session.log.count("Reading data to the file") >= least, f"{least} refreshes")


def test_nothing_in_place_of_the_copied_dumping_status_is_followed_or_waited_for(tallowick_release, actions, server,
                                                                                 outside, workspace):
    actions.agent.on("dump", DUMP_UNTIL_TOLD.format(go=workspace / "go"))
    share_source(actions.agent)
    copies = plant_everywhere(tallowick_release, "dumping-status.xml", outside)
    unfinished = plant_everywhere(tallowick_release, "dumping-status.xml.tmp", outside)
    hurried = preloaded(compile_preload(HURRY, workspace))
    running = [(actions.start("--dump-all", server, session=session, prefix=hurried), thing)
               for session, thing in copies + unfinished]
    for each, thing in running:
        first = "Cannot write to" if thing.path.name.endswith(".tmp") else "Reading data from the remote file"
        wait_until(lambda session=each.session, text=first: text in session.log, "the first refresh")
    (workspace / "go").touch()
    runs = [(each.wait(), thing) for each, thing in running]
    for run, thing in runs:
        assert_done("--dump-all", run)
        if thing.path.name == "dumping-status.xml.tmp":
            assert thing.is_at(thing.path), thing.kind
            assert not run.session.file("dumping-status.xml").exists(), thing.kind
        elif thing.kind == "directory":
            assert thing.is_at(thing.path)
        else:
            assert stat.S_ISREG(thing.path.lstat().st_mode), thing.kind
            assert thing.path.read_bytes() == DUMPING_STATUS, thing.kind
    outside.check()


# Puts a link in the place of each temporary file as soon as it has been made.
SWAP_TEMPORARY_FILES = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

static int swap(const char* name, char* path) {
    int (*real)(char*) = (int (*)(char*))dlsym(RTLD_NEXT, name);
    const int fd = real(path);
    unlink(path);
    if (symlink(getenv("SWAPPED_FOR"), path) != 0) {
        abort();
    }
    return fd;
}

int mkstemp(char* path) { return swap("mkstemp", path); }
int mkstemp64(char* path) { return swap("mkstemp64", path); }
"""


@pytest.mark.parametrize("action", ["--send-scout", "--get-content", "--remove-agent", "--remove-dumping-status"])
@pytest.mark.parametrize("target", ["precious", "nothing"])
def test_temporary_document_that_somebody_swaps_for_a_link_is_not_written_through(actions, outside, workspace, action,
                                                                                  target):
    session = actions.run("--remove-dumping-status", 1).session
    os.chmod(session.path, 0o777)
    swap = preloaded(compile_preload(SWAP_TEMPORARY_FILES, workspace), SWAPPED_FOR=outside.directory / target)
    run = actions.run(action, NOBODY_LISTENS, session=session, prefix=swap)
    assert run.status == (1 if action == WITHOUT_STATUS else 2)
    assert "Can not save the XML document to file" in run.err
    outside.check()


@pytest.mark.parametrize("action", ACTIONS)
def test_session_that_everybody_may_write_to_gets_no_files_that_everybody_may_write_to(actions, tallowick_release,
                                                                                       server, workspace, action):
    session = tallowick_release.new_session()
    dumps = make_dir(workspace / "dumps", 0o777)
    make_dir(session.path, 0o777)
    options = [f"--dumps-dir={dumps}"] if action == "--get-content" else []
    run = actions.run(action, server, *options, session=session)
    assert run.status == 0
    made = [path for top in (session.path, dumps) for path in top.rglob("*")]
    assert [path for path in made if path.lstat().st_mode & 0o002] == []
    assert session.path.stat().st_mode & 0o777 == 0o777
    if action == "--get-content":
        assert (dumps / "content" / "file").read_bytes() == CONTENT["content/file"]


def limited(what, soft):
    """Options that start a run under a limit of its own."""
    return {"preexec_fn": lambda: resource.setrlimit(what, (soft, soft))}


# The loader's own status: it has not found or could not map the libraries.
NOT_LOADED = 127
OR_NOT_LOADED = frozenset({*DOCUMENTED_STATUSES, NOT_LOADED})


@pytest.mark.parametrize("action", ACTIONS)
def test_twenty_descriptors_are_enough(actions, server, action):
    assert_done(action, actions.run(action, server, **limited(resource.RLIMIT_NOFILE, 20)))


@pytest.mark.parametrize("action", ACTIONS)
def test_too_few_descriptors_are_an_error(actions, server, action):
    for most in range(3, 9):
        run = actions.start(action, server, **limited(resource.RLIMIT_NOFILE, most)).wait(statuses=OR_NOT_LOADED)
        if run.status != NOT_LOADED:
            assert_honest(action, run)


@pytest.mark.parametrize("action", ["--send-scout", "--deploy-agent", "--dump-all", "--get-content"])
def test_too_little_memory_is_an_error(actions, server, action):
    statuses = []
    for mib in (*range(8, 32, 4), *range(32, 64, 8), 128):
        actions.restore()
        run = actions.start(action, server, **limited(resource.RLIMIT_AS, mib << 20)).wait(statuses=OR_NOT_LOADED)
        statuses.append(run.status)
        if run.status != NOT_LOADED:
            assert_honest(action, run)
    assert statuses[0] != 0
    assert statuses[-1] == 0


@pytest.mark.parametrize("action", ACTIONS)
def test_file_that_may_not_grow_is_an_error(actions, server, action):
    for size in (0, 1, 40, 200, 4096, 20_000):
        actions.restore()
        run = actions.run(action, server, **limited(resource.RLIMIT_FSIZE, size))
        assert_honest(action, run)
        # A log that is cut short is no failure.
        assert size > 0 or run.status in (1, 2)
        assert all(file.stat().st_size <= size for file in run.session.path.rglob("*") if file.is_file())


def read_only(path):
    """A command in front of the program, for which alone `path` cannot be written to."""
    return ["unshare", "--mount", "--propagation", "unchanged", "sh", "-e", "-c",
            f'mount --bind {path} {path}; mount -o remount,bind,ro {path}; exec "$@"', "sh"]


@pytest.mark.parametrize("action", ACTIONS)
def test_session_on_a_read_only_disk_is_an_error(actions, tallowick_release, server, action):
    session = tallowick_release.new_session()
    make_dir(session.path)
    run = actions.run(action, server, session=session, prefix=read_only(session.path))
    assert run.status == (1 if action == WITHOUT_STATUS else 2)
    assert "Can not create temporary file" in run.err and "Read-only file system" in run.err
    assert session.names() == []
    assert action == WITHOUT_STATUS or server.commands() == []
    server.forget()
    write(session.file("migration.log"), "")
    run = actions.run(action, server, session=session, prefix=read_only(session.path))
    assert (run.status, run.err) == (1, f"Uncaught std::exception: Cannot write to {session.path}/migration.log: "
                                        "Read-only file system\n")
    assert server.commands() == []


def test_session_that_cannot_be_made_on_a_read_only_disk_is_an_error(actions, tallowick_release, workspace):
    run = actions.run("--remove-dumping-status", 1, prefix=read_only(workspace))
    assert run.status == 1
    assert "Unable to create session" in run.err
    assert not run.session.path.exists()


CLOSED = [tuple(fd for fd in (0, 1, 2) if number >> fd & 1) for number in range(1, 8)]
EACH_AND_ALL = [(0,), (1,), (2,), (0, 1, 2)]


def closing(descriptors):
    """Options that start a run without some of the standard descriptors."""
    def close():
        for descriptor in descriptors:
            os.close(descriptor)

    return {"preexec_fn": close}


def told(run):
    """The log without what differs from run to run. In how many pieces remote output comes does."""
    def anonymous(text):
        text = text.replace(str(run.session.path), "SESSION")
        return re.sub(r"\b[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\b", "UUID", text)

    return [(record.level, record.category, anonymous(record.text)) for record in run.session.records
            if not record.text.startswith("remote std")]


@pytest.mark.parametrize("action, closed", [("--send-scout", CLOSED), ("--get-content", CLOSED),
                                            ("--deploy-agent", EACH_AND_ALL), ("--dump-all", EACH_AND_ALL),
                                            ("--remove-agent", EACH_AND_ALL)],
                         ids=lambda value: value if isinstance(value, str) else "")
def test_no_file_and_no_connection_takes_the_number_of_a_closed_descriptor(actions, server, action, closed):
    expected = told(actions.run(action, server, "--verbose"))
    for descriptors in closed:
        actions.restore()
        run = actions.run(action, server, "--verbose", **closing(descriptors))
        assert_done(action, run)
        assert told(run) == expected, descriptors


def test_error_is_written_into_nothing_else_where_standard_error_is_closed(actions, product, server):
    product.set_scout("print STDERR qq(oh dear\\n); exit 3;")
    expected = actions.run("--send-scout", server)
    assert (expected.status, expected.err.count("oh dear")) == (2, 1)
    for descriptors in CLOSED:
        run = actions.run("--send-scout", server, **closing(descriptors))
        assert run.status == 2
        assert told(run) == told(expected), descriptors
        assert run.session.file("scout-result.xml").read_bytes() == b""
        assert (run.err == expected.err) != (2 in descriptors)


def test_dumping_status_for_a_closed_standard_output_is_an_error_and_goes_nowhere_else(actions, server):
    expected = told(actions.run("--get-dumping-status", server))
    for descriptors in CLOSED:
        run = actions.run("--get-dumping-status", server, **closing(descriptors))
        if 1 in descriptors:
            assert (run.status, run.session.error().inner.code) == (2, "StreamWrite"), descriptors
            assert "<dumping-status/>" not in run.session.log
        else:
            assert_done("--get-dumping-status", run)
            assert told(run) == expected, descriptors


def pipe_without_a_reader():
    reader, writer = os.pipe()
    os.close(reader)
    return os.fdopen(writer, "wb")


def test_dumping_status_for_a_reader_that_has_gone_is_an_error(actions, server):
    with pipe_without_a_reader() as broken:
        run = actions.run("--get-dumping-status", server, stdout=broken)
    assert (run.status, run.err) == (2, "Error during getting dumping status")
    assert run.session.error().inner.code == "StreamWrite"
    assert run.session.status.find("idle") is not None


def test_help_for_nobody_does_no_harm(tallowick_release):
    with pipe_without_a_reader() as broken, open("/dev/full", "wb") as full:
        for options in ({"stdout": broken}, {"stdout": full}, *(closing(descriptors) for descriptors in CLOSED)):
            run = tallowick_release.run("--help", session=False, **options)
            assert (run.status, run.err) == (0, "")


def test_usage_errors_for_nobody_keep_their_status(tallowick_release):
    for descriptors in CLOSED:
        for arguments in (["--no-such-option"], [], ["--send-scout"]):
            assert tallowick_release.run(*arguments, session=False, **closing(descriptors)).status == 1


@pytest.fixture(scope="module")
def locales():
    """A directory with an odd locale; where this machine has no sources of it, the name alone has to do."""
    directory = make_dir(BASE / "locales")
    # Other letters in upper case, and a comma before decimals.
    subprocess.run(["localedef", "-i", "tr_TR", "-f", "UTF-8", directory / "tr_TR.UTF-8"], check=False,
                   capture_output=True)
    yield directory
    remove_tree(directory)


@pytest.mark.parametrize("action", ["--dump-all", "--get-content"])
def test_locale_of_the_caller_changes_nothing(actions, server, locales, action):
    def run(locale):
        actions.restore()
        done = actions.run(action, server, prefix=["env", f"LOCPATH={locales}", f"LC_ALL={locale}", f"LANG={locale}",
                                                   "LANGUAGE=de:tr"])
        assert_done(action, done)
        return told(done)

    expected = run("C")
    for locale in ("tr_TR.UTF-8", "de_DE", "no such/locale %1%", "x" * 5000):
        assert run(locale) == expected, locale


def test_messages_stay_the_same_in_every_locale(tallowick_release, locales):
    def run(locale):
        failed = tallowick_release.run("--send-scout", *source(NOBODY_LISTENS, host="127.0.0.1"),
                                       prefix=["env", f"LOCPATH={locales}", f"LC_ALL={locale}", "LANGUAGE=de:tr"])
        assert failed.status == 11
        return failed.err

    assert {run(locale) for locale in ("C", "tr_TR.UTF-8", "de_DE")} == \
        {"No one listening on the remote address at host 127.0.0.1"}


# From one of its calls on, the wall clock differs by some seconds from what it was.
JUMP = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

static long jump(void) {
    static long calls = 0;
    return ++calls >= atol(getenv("JUMP_AT")) ? atol(getenv("JUMP_BY")) : 0;
}

time_t time(time_t* result) {
    struct timespec now;
    ((int (*)(clockid_t, struct timespec*))dlsym(RTLD_NEXT, "clock_gettime"))(CLOCK_REALTIME, &now);
    now.tv_sec += jump();
    if (result) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}

int gettimeofday(struct timeval* result, void* zone) {
    const int status = ((int (*)(struct timeval*, void*))dlsym(RTLD_NEXT, "gettimeofday"))(result, zone);
    result->tv_sec += jump();
    return status;
}
"""


@pytest.mark.parametrize("by", [-86400, 100], ids=lambda seconds: f"{seconds} s")
def test_clock_that_is_set_changes_nothing(actions, server, workspace, by):
    library = compile_preload(JUMP, workspace)
    for at in (1, 4, 8, 16, 32):
        actions.restore()
        clock = preloaded(library, JUMP_AT=at, JUMP_BY=by)
        assert_done("--get-content", actions.run("--get-content", server, prefix=clock))


def test_clock_that_leaps_a_day_ends_no_run_dishonestly(actions, server, workspace):
    library = compile_preload(JUMP, workspace)
    for at in (1, 2, 4, 8, 16, 32, 64):
        actions.restore()
        clock = preloaded(library, JUMP_AT=at, JUMP_BY=86400)
        run = actions.start("--get-content", server, prefix=clock).wait(statuses={0, 2, 18})
        assert_honest("--get-content", run)


def test_clock_that_leaps_changes_nothing_of_a_scout(actions, server, workspace):
    library = compile_preload(JUMP, workspace)
    running = [actions.start("--send-scout", server, prefix=preloaded(library, JUMP_AT=at, JUMP_BY=by))
               for by in (-86400, 100) for at in (1, 4, 16)]
    for each in running:
        assert_done("--send-scout", each.wait())


def test_clock_that_leaps_changes_nothing_of_a_dump_and_its_refreshing(actions, server, workspace):
    actions.agent.on("dump", DUMP_UNTIL_TOLD.format(go=workspace / "go"))
    share_source(actions.agent)
    library = compile_preload(JUMP + HURRY, workspace)
    running = [actions.start("--dump-all", server, prefix=preloaded(library, JUMP_AT=at, JUMP_BY=by))
               for by in (-86400, 100) for at in (1, 4, 16)]
    for each in running:
        await_refreshes(each.session, 3)
    (workspace / "go").touch()
    for each in running:
        run = each.wait()
        assert_done("--dump-all", run)
        assert run.session.file("dumping-status.xml").read_bytes() == DUMPING_STATUS


@pytest.mark.parametrize("action", ["--send-scout", "--deploy-agent", "--dump-all", "--get-content"])
def test_stops_and_continuations_disturb_nothing(actions, server, action):
    running = actions.start(action, server)
    rounds = 0
    while running.popen.poll() is None and rounds < 300:
        running.popen.send_signal(signal.SIGSTOP)
        running.popen.send_signal(signal.SIGCONT)
        rounds += 1
        with contextlib.suppress(subprocess.TimeoutExpired):
            running.popen.wait(0.002)
    assert_done(action, running.wait())
    assert rounds > 3


TOGETHER = 50


class Reader(threading.Thread):
    """Reads all documents and records of a session again and again until it is left, as managers do, and fails there
    when one of them was not whole. `records` are the texts that the records may hold."""

    def __init__(self, session, records=frozenset()):
        super().__init__()
        self.dumping_statuses = set()
        self._session = session
        self._records = records
        self._seen = {}
        self._torn = []
        self._over = threading.Event()

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, kind, *_):
        self._over.set()
        self.join()
        assert kind or self._torn == []

    def run(self):
        while not self._over.wait(0.002):
            for name in self._session.names():
                with contextlib.suppress(FileNotFoundError):  # renamed just now
                    self._look(name)

    def _look(self, name):
        check = self._check_of(name)
        if check is None:
            return
        with open(self._session.file(name), "rb") as file:
            content = file.read()
        if self._seen.get(name) != content:
            self._seen[name] = content
            try:
                whole = check(content)
            except ElementTree.ParseError:
                whole = False
            if not whole:
                self._torn.append((name, content[:100]))

    def _check_of(self, name):
        """What holds for the whole content of a file; None where it is written in place, or on its way."""
        if name == "migration.status":
            return lambda content: ElementTree.fromstring(content).tag == "migration-status"
        if re.fullmatch(r"(migration|transfer)\.result(\.\d+)?", name):
            return lambda content: ElementTree.fromstring(content).tag == "execution-result"
        return {"dumping-status.xml": self._note_dumping_status, "dump.xml": lambda content: content == DUMP,
                "dump-name": lambda content: content.decode() in self._records,
                "migration-result-name": lambda content: content.decode() in self._records}.get(name)

    def _note_dumping_status(self, content):
        self.dumping_statuses.add(ElementTree.fromstring(content).text)
        return True


def results_of(session, name, count=TOGETHER):
    """The result documents of all `count` runs in the session; there has to be one for each run, under its number."""
    names = [name, *(f"{name}.{number}" for number in range(1, count))]
    assert sorted(each for each in session.names() if each.startswith(name)) == sorted(names)
    return [session.result(each) for each in names]


def assert_no_leftovers(session):
    """Whole documents, and nothing else that a run makes on its way."""
    assert session.status.find("idle") is not None
    assert [name for name in session.names() if re.fullmatch(r"(migration|transfer)\.\w+\w{6}", name)] == []
    assert [name for name in session.names() if name.startswith(".incoming-") or name.endswith(".tmp")] == []


def assert_all_succeeded(runs, session, name="migration.result"):
    assert {(run.status, run.err) for run in runs} == {(0, "")}
    assert {result.get("status") for result in results_of(session, name, len(runs))} == {"success"}


@pytest.mark.parametrize("action", ["--send-scout", "--get-content"])
def test_many_failing_runs_in_one_session_keep_every_result(tallowick_release, actions, action):
    session = tallowick_release.new_session()
    with Reader(session):
        running = [actions.start(action, NOBODY_LISTENS, f"--host=127.0.1.{number}", session=session)
                   for number in range(1, TOGETHER + 1)]
        assert [each.wait().status for each in running] == [11] * TOGETHER
    told_hosts = [result.findtext("message/description").rpartition(" ")[2]
                  for result in results_of(session, result_name(action))]
    assert sorted(told_hosts) == sorted(f"127.0.1.{number}" for number in range(1, TOGETHER + 1))
    assert session.log.count("Tallowick finished. Exit code: 11") == TOGETHER
    assert_no_leftovers(session)


def test_many_runs_without_a_connection_in_one_session_keep_every_result(tallowick_release, actions):
    session = tallowick_release.new_session()
    with Reader(session):
        running = [actions.start("--remove-dumping-status", 1, session=session) for _ in range(TOGETHER)]
        runs = [each.wait() for each in running]
    assert_all_succeeded(runs, session)
    assert_no_leftovers(session)


@pytest.mark.parametrize("action", ["--send-scout", "--deploy-agent", "--get-content"])
def test_many_runs_in_one_session_keep_every_result_and_every_document_whole(tallowick_release, actions, product,
                                                                             server, workspace, action):
    share_source(actions.agent)
    session = tallowick_release.new_session()
    records = {"dump-name": f"{session.path}/dump.xml", "migration-result-name": f"{session.path}/migration.result"}
    # Each deploys into a directory of its own.
    sources = [EveryAction(tallowick_release, product, workspace / f"agent-{number}") for number in range(TOGETHER)] \
        if action == "--deploy-agent" else [actions] * TOGETHER
    with Reader(session, set(records.values())):
        running = [each.start(action, server, session=session) for each in sources]
        runs = [each.wait() for each in running]
    assert_all_succeeded(runs, session, result_name(action))
    if action == "--get-content":
        assert {name: session.file(name).read_text() for name in records} == records
    else:
        assert_done(action, runs[-1])
    assert session.log.count("Tallowick finished. Exit code: 0") == TOGETHER
    assert_no_leftovers(session)


def test_many_dumps_in_one_session_keep_every_document_and_the_refreshed_status_whole(tallowick_release, actions,
                                                                                      server, workspace):
    actions.agent.on("dump", DUMP_UNTIL_TOLD.format(go=workspace / "go"))
    share_source(actions.agent)
    session = tallowick_release.new_session()
    hurried = preloaded(compile_preload(HURRY, workspace))
    with Reader(session, {f"{session.path}/dump.xml"}) as reader:
        running = [actions.start("--dump-all", server, session=session, prefix=hurried) for _ in range(TOGETHER)]
        # Long and short ones in turn: where they were written into one another, both would show.
        for step in range(8):
            new = write(workspace / "new", f"<dumping-status>{step}<!--{'x' * (step % 2 * 200_000)}--></dumping-status>")
            os.replace(new, actions.agent.directory / "dumping-status.xml")
            wait_until(lambda step=step: str(step) in reader.dumping_statuses, f"status {step}")
        (workspace / "go").touch()
        runs = [each.wait() for each in running]
    assert_all_succeeded(runs, session)
    assert_done("--dump-all", runs[-1])
    assert ElementTree.parse(session.file("dumping-status.xml")).getroot().text == "7"
    assert_no_leftovers(session)


def test_different_actions_in_one_session_keep_every_document_whole(tallowick_release, actions, product, server,
                                                                    workspace):
    each_action = 6
    dumps = make_dir(workspace / "dumps")
    session = tallowick_release.new_session()
    # What one action changes on the source host, no other reads.
    changed = [EveryAction(tallowick_release, product, workspace / f"changed-{number}")
               for number in range(2 * each_action)]
    share_source(actions.agent)
    options = {"--get-content": [f"--dumps-dir={dumps}"]}
    records = {f"{place}/{name}" for place in (session.path, dumps) for name in ("dump.xml", "migration.result")}
    running = []
    with Reader(session, records):
        for _ in range(each_action):
            for action in EVERY_ACTION:
                own = changed.pop() if action in ("--deploy-agent", "--remove-agent") else actions
                running.append((action, own.start(action, server, *options.get(action, []), session=session)))
        runs = [(action, each.wait()) for action, each in running]
    contents = [run for action, run in runs if action == "--get-content"]
    others = [run for action, run in runs if action != "--get-content"]
    assert_all_succeeded(contents, session, "transfer.result")
    assert_all_succeeded(others, session)
    for action, run in runs:
        if action != "--get-content":
            assert_done(action, run)
    assert session.log.count("Tallowick finished. Exit code: 0") == len(runs)
    assert_no_leftovers(session)
