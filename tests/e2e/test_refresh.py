# SPDX-License-Identifier: Apache-2.0
"""The dumping status that is refreshed while the dumper runs: each SIGALRM fetches it, and nothing else suffers."""

import contextlib
import datetime
import os
import pathlib
import signal
import subprocess
import threading

import pytest

from harness.accounts import MOVER, OWNER
from harness.agents import DeployedAgent
from harness.content import small_disk
from harness.dumps import FAILED, assert_dumped
from harness.hostile import Planted
from harness.places import make_dir, remove_tree, write
from harness.program import source
from harness.relay import FIN
from harness.session import Session, shape
from harness.waiting import open_for_reader, wait_until

# Repeats each line that it is told, and ends when nobody is there to tell more.
HELD = """
$| = 1;
open my $held, '<', "$FindBin::Bin/held" or die $!;
while (my $line = <$held>) { print $line; }
"""


def stands(pid):
    """Whether the process is prepared for SIGALRM, which otherwise ends it."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    caught = next(line.split()[1] for line in status.splitlines() if line.startswith("SigCgt:"))
    return int(caught, 16) & 1 << (signal.SIGALRM - 1)


def tick(running):
    wait_until(lambda: stands(running.pid), "the handler of SIGALRM")
    os.kill(running.pid, signal.SIGALRM)


@contextlib.contextmanager
def ticking(running):
    """SIGALRM every ten milliseconds, from the moment that the handler stands to the end of the process; yields the
    number of ticks so far as a list of one."""
    ticks, over = [0], threading.Event()
    pidfd = os.pidfd_open(running.pid)

    def send():
        with contextlib.suppress(ProcessLookupError, FileNotFoundError, StopIteration):
            while not over.is_set() and not stands(running.pid):
                over.wait(0.001)
            while not over.wait(0.01):
                signal.pidfd_send_signal(pidfd, signal.SIGALRM)
                ticks[0] += 1

    sender = threading.Thread(target=send)
    sender.start()
    try:
        yield ticks
    finally:
        over.set()
        sender.join()
        os.close(pidfd)


def status_document(text, padding=0):
    return f"<dumping-status>{text}<!--{'x' * padding}--></dumping-status>\n".encode()


class HeldDump:
    """A dump whose dumper runs until `end()`."""

    def __init__(self, tallowick, server, agent, *options, port=None, **more):
        self.agent = agent
        self.server = server
        os.mkfifo(agent.directory / "held")
        os.chmod(agent.directory / "held", 0o644)
        agent.on("dump", HELD)
        self.running = tallowick.start("--dump-all", *source(port or server), *agent.options, *options, **more)
        self.session = self.running.session
        self._line = open_for_reader(agent.directory / "held")
        self._said = 0

    @property
    def local_status(self):
        return self.session.file("dumping-status.xml")

    def set_status(self, content, mode=0o644):
        """Replaces the dumping status on the source host as a whole."""
        file = self.agent.directory / "dumping-status.xml"
        os.replace(write(file.with_suffix(".new"), content, mode), file)

    def reads(self):
        """How often the dumping status has been asked for."""
        return self.server.commands().count(f"cat {self.agent.directory}/dumping-status.xml".encode())

    def tick(self):
        """One SIGALRM, served when this returns: between two signs of life of the dumper the program has looked
        after its alarm."""
        tick(self.running)
        for _ in range(2):
            self._said += 1
            line = f"sign of life {self._said}"
            self._line.write(f"{line}\n".encode())
            wait_until(lambda said=line: f"remote stdout -> {said}\n" in self.session.log, line)

    def end(self):
        """Lets the dumper end and waits for the end of the run."""
        self._line.close()
        return self.running.wait()


@pytest.fixture
def held_dump(tallowick, server, agent):
    held = []

    def start(*options, agent=agent, **more):
        held.append(HeldDump(tallowick, server, agent, *options, **more))
        return held[-1]

    yield start
    for each in held:
        each.running.popen.kill()


def test_tick_fetches_the_status_while_the_dumper_runs(held_dump):
    dump = held_dump()
    dump.set_status(status_document("one"))
    dump.tick()
    assert dump.local_status.read_bytes() == status_document("one")
    assert_dumped(dump.end())
    assert dump.session.names() == ["archives", "dump-name", "dump.xml", "dumping-status.xml", "migration.log",
                                    "migration.result", "migration.status"]


def test_each_tick_replaces_the_local_status_as_a_whole(held_dump):
    dump = held_dump()
    dump.set_status(status_document("one"))
    dump.tick()
    with dump.local_status.open("rb") as before:
        dump.set_status(status_document("two"))
        dump.tick()
        assert before.read() == status_document("one")
    assert dump.local_status.read_bytes() == status_document("two")
    assert_dumped(dump.end())
    assert dump.local_status.read_bytes() == status_document("two")


def test_status_of_any_size_arrives_byte_for_byte(held_dump):
    dump = held_dump()
    for size in (0, 1, 65535, 65536, 65537, 3_000_000):
        content = (bytes(range(256)) * (size // 256 + 1))[:size]
        dump.set_status(content)
        dump.tick()
        assert dump.local_status.read_bytes() == content
    assert_dumped(dump.end())


def test_status_is_readable_for_all_and_never_logged(held_dump):
    dump = held_dump(umask=0o077)
    dump.set_status(status_document("a word of its own"))
    dump.tick()
    assert dump.local_status.stat().st_mode & 0o777 == 0o644
    assert "a word of its own" not in dump.end().session.log


def test_status_that_the_dumper_has_not_written_yet_is_no_failure(held_dump):
    dump = held_dump()
    for count in (1, 2, 3):
        dump.tick()
        assert dump.reads() >= count
        assert not [name for name in dump.session.names() if name.startswith("dumping-status.xml")]
    dump.set_status(status_document("at last"))
    dump.tick()
    assert dump.local_status.read_bytes() == status_document("at last")
    assert_dumped(dump.end())


def test_status_that_is_gone_for_a_moment_keeps_the_local_one(held_dump):
    dump = held_dump()
    dump.set_status(status_document("one"))
    dump.tick()
    (dump.agent.directory / "dumping-status.xml").unlink()
    dump.tick()
    assert dump.local_status.read_bytes() == status_document("one")
    assert_dumped(dump.end())


def test_status_that_only_root_can_read_is_no_failure(held_dump):
    dump = held_dump("--sudo-password", sudo_password=MOVER.sudo_password)
    dump.set_status(status_document("secret"), 0o600)
    dump.tick()
    assert not dump.local_status.exists()
    os.chmod(dump.agent.directory / "dumping-status.xml", 0o644)
    dump.tick()
    assert dump.local_status.read_bytes() == status_document("secret")
    assert_dumped(dump.end())


def test_local_status_that_cannot_be_replaced_is_no_failure(held_dump):
    dump = held_dump()
    dump.set_status(status_document("one"))
    write(make_dir(dump.local_status) / "in it", "text")
    dump.tick()
    dump.tick()
    assert dump.reads() >= 2
    assert_dumped(dump.end())
    assert os.listdir(dump.local_status) == ["in it"]


def test_link_in_the_place_of_the_local_status_is_replaced_and_not_followed(held_dump, workspace):
    dump = held_dump()
    target = write(workspace / "target", "precious")
    dump.set_status(status_document("one"))
    os.symlink(target, dump.local_status)
    dump.tick()
    assert not dump.local_status.is_symlink()
    assert dump.local_status.read_bytes() == status_document("one")
    assert target.read_text() == "precious"
    assert_dumped(dump.end())


@pytest.mark.parametrize("kind", ["link to a file", "fifo", "directory"])
def test_failed_refresh_ends_refreshing_and_nothing_else(tallowick, held_dump, outside, kind):
    session = tallowick.new_session()
    make_dir(session.path)
    planted = Planted(kind, session.file("dumping-status.xml.tmp"), outside)
    dump = held_dump(session=session)
    dump.set_status(status_document("one"))
    # Before there is a status to fetch, a refresh of the program's own may come and go on.
    dump.tick()
    reads = dump.reads()
    for _ in range(4):
        dump.tick()
    assert_dumped(dump.end())
    assert dump.reads() == reads
    assert not dump.local_status.exists()
    assert planted.is_at(session.file("dumping-status.xml.tmp"))


def test_dangling_link_in_the_way_of_a_refresh_is_not_followed(tallowick, held_dump, outside):
    session = tallowick.new_session()
    make_dir(session.path)
    Planted("link to nothing", session.file("dumping-status.xml.tmp"), outside)
    dump = held_dump(session=session)
    dump.set_status(status_document("one"))
    dump.tick()
    assert_dumped(dump.end())
    outside.check()


def test_refresh_that_fills_the_disk_leaves_room_for_the_dump(held_dump, workspace):
    with small_disk(workspace / "disk", "size=512k") as disk:
        dump = held_dump(session=Session(disk / "session"))
        dump.set_status(status_document("one"))
        dump.tick()
        dump.set_status(status_document("two", padding=2_000_000))
        dump.tick()
        reads = dump.reads()
        dump.tick()
        assert dump.reads() == reads
        assert dump.local_status.read_bytes() == status_document("one")
        assert_dumped(dump.end())
        assert not dump.session.file("dumping-status.xml.tmp").exists()


def test_runs_in_one_session_leave_the_status_to_the_one_that_refreshes_it(tallowick, product, held_dump, agent,
                                                                           workspace):
    one = held_dump()
    os.mkfifo(agent.directory / "dumping-status.xml")
    os.chmod(agent.directory / "dumping-status.xml", 0o644)
    two = held_dump(agent=DeployedAgent(product, workspace / "other", "OtherAgent"), session=one.session)
    two.set_status(status_document("two"))
    tick(one.running)
    unfinished = one.session.file("dumping-status.xml.tmp")
    with open_for_reader(agent.directory / "dumping-status.xml") as half:
        half.write(status_document("one")[:10])
        wait_until(lambda: unfinished.exists() and unfinished.read_bytes(), "half of the status")
        two.tick()
        assert unfinished.read_bytes() == status_document("one")[:10]
        assert (two.reads(), two.local_status.exists()) == (0, False)
        half.write(status_document("one")[10:])
    wait_until(one.local_status.exists, "the status")
    assert one.local_status.read_bytes() == status_document("one")
    two.tick()
    assert two.local_status.read_bytes() == status_document("two")
    for dump in (one, two):
        assert dump.end().status == 0
    assert not unfinished.exists()


def test_dumper_that_never_stops_talking_does_not_keep_the_status_from_being_refreshed(tallowick, server, agent):
    write(agent.directory / "dumping-status.xml", status_document("one"))
    agent.on("dump", "while (!-e qq($FindBin::Bin/enough)) { print qq(words words words\\n) x 4000 or die; }")
    running = tallowick.start("--dump-all", *source(server), *agent.options)
    wait_until(lambda: "words words" in running.session.log, "words")
    tick(running)
    wait_until(running.session.file("dumping-status.xml").exists, "the status")
    write(agent.directory / "enough", "")
    assert_dumped(running.wait())


def test_connection_lost_amid_a_refresh_ends_the_dump(held_dump, server, start_relay):
    relay = start_relay(server)
    dump = held_dump(port=relay.port)
    status = dump.agent.directory / "dumping-status.xml"
    os.mkfifo(status)
    os.chmod(status, 0o644)
    tick(dump.running)
    with open_for_reader(status) as half:
        half.write(b"<dumping-")
        wait_until(lambda: dump.session.file("dumping-status.xml.tmp").exists(), "half of the status")
        relay.connections[0].act(FIN, "server")
        run = dump.running.wait()
    assert (run.status, run.err) == (2, FAILED)
    assert run.session.error().inner.code == "SshConnectionFault"
    assert not dump.local_status.exists()


# Long enough for many ticks, loud enough to be disturbed.
BUSY = """
for my $step (1 .. 25) {
    open my $status, '>', "$FindBin::Bin/new" or die $!;
    print {$status} "<dumping-status>$step</dumping-status>";
    close $status or die $!;
    chmod 0644, "$FindBin::Bin/new";
    rename "$FindBin::Bin/new", "$FindBin::Bin/dumping-status.xml" or die $!;
    printf "%s\\n", "out $step " x 2000;
    printf STDERR "%s\\n", "err $step " x 2000;
    select undef, undef, undef, 0.02;
}
"""


def logged(run, label):
    prefix = f"remote {label} "
    return "".join(record.text.removeprefix(prefix) for record in run.session.records
                   if record.text.startswith(prefix))


def outcome(run, agent, server):
    """All that a dump leaves behind, here and there, apart from the refreshed status."""
    read = f"cat {agent.directory}/dumping-status.xml".encode()
    session = run.session
    return {"run": (run.status, run.stdout, run.stderr), "result": shape(session.result()),
            "status": shape(session.status), "dump": session.file("dump.xml").read_bytes(),
            "name": session.file("dump-name").read_text() == f"{session.path}/dump.xml",
            "calls": [(call.arguments, call.stdin, call.cwd, call.uid) for call in agent.calls()],
            "commands": [command for command in server.commands() if command != read],
            "logged": [logged(run, label) for label in ("stdin <-", "stdout ->", "stderr ->")],
            "names": [name for name in session.names() if name != "dumping-status.xml"]}


@pytest.mark.parametrize("action, sudo", [("--dump-all", False), ("--dump-selected", True)],
                         ids=["all without sudo", "selected with sudo"])
def test_outside_ticks_change_nothing_but_the_local_status(tallowick, product, server, workspace, action, sudo):
    outcomes = []
    for ticks in (False, True):
        server.forget()
        directory = make_dir(workspace / "agents")
        os.chown(directory, OWNER.uid, OWNER.gid)
        agent = DeployedAgent(product, directory / "agent", owner=OWNER)
        agent.answer(dump=b"0123456789abcdef" * 150_000)
        agent.on("dump", BUSY)
        running = tallowick.start(
            action, *source(server, OWNER), *agent.options, "--domains=-", *(["--sudo-password"] if sudo else []),
            password=OWNER.password, sudo_password=OWNER.password, stdin=subprocess.PIPE)
        with ticking(running) if ticks else contextlib.nullcontext([0]) as count:
            run = running.wait(stdin=b"a-domain.example," * 20_000 + b"\n")
        assert count[0] > 20 or not ticks
        assert run.session.file("dumping-status.xml").exists() == ticks
        outcomes.append(outcome(run, agent, server))
        remove_tree(directory)
    quiet, disturbed = outcomes
    assert quiet["run"] == (0, b"", b"")
    assert disturbed == quiet


def test_failure_of_the_dumper_is_the_same_under_outside_ticks(tallowick, server, agent):
    agent.on("dump", BUSY + "exit 7;")
    running = tallowick.start("--dump-all", *source(server), *agent.options)
    with ticking(running):
        run = running.wait()
    assert (run.status, run.err) == (2, FAILED)
    errors = "".join(f"{f'err {step} ' * 2000}\n" for step in range(1, 26))
    # Of so much both ends are told.
    told = run.session.error().inner.description
    assert f" stderr messages: {errors[:65536]}\n[{len(errors) - 131072} bytes left out]\n" in told
    assert told.endswith(errors[-65536:])


def test_ticks_after_the_dumper_has_ended_do_nothing(tallowick, server, agent):
    agent.answer(dump=None)
    dump = agent.directory / "dump.xml"
    os.mkfifo(dump)
    os.chmod(dump, 0o644)
    write(agent.directory / "dumping-status.xml", status_document("too late"))
    running = tallowick.start("--dump-all", *source(server), *agent.options)
    with open_for_reader(dump) as fetched:
        reads = len(server.commands())
        with ticking(running) as count:
            for number in range(20):
                wait_until(lambda least=number: count[0] > 3 * least, "some ticks")
                fetched.write(f"<part>{number}</part>".encode())
    run = running.wait()
    assert_dumped(run, "".join(f"<part>{number}</part>" for number in range(20)).encode())
    assert server.commands()[reads:] == []
    assert not run.session.file("dumping-status.xml").exists()


def commands_of(server, agent_name):
    """The commands of one agent, shortened to what they do."""
    kinds = {f"/{agent_name}/dumping-status.xml": "status", f"/{agent_name}/dump.xml": "dump"}
    return [next((kind for end, kind in kinds.items() if command.endswith(end)), "dumper")
            for command in map(os.fsdecode, server.commands()) if f"/{agent_name}" in command]


@pytest.mark.background
def test_status_of_a_dumper_that_runs_long_changes_at_least_five_times_and_is_never_half_written(long_runs):
    run, seen = long_runs.slow_dump.result()
    assert_dumped(run)
    assert seen["torn"] == []
    assert len(seen["versions"]) >= 5
    steps = [int(version) for version in seen["versions"]]
    assert steps == sorted(set(steps))
    # A look each millisecond or so, from the first status on.
    assert seen["looks"] > 1000
    said = [line for line in logged(run, "stdout ->").splitlines() if line]
    assert said == [f"step {number}" for number in range(1, len(said) + 1)]
    assert steps[-1] <= len(said)
    commands = commands_of(long_runs.dump_server, "slow-agent")
    assert commands == ["dumper", *["status"] * (len(commands) - 2), "dump"]


@pytest.mark.background
def test_tick_before_there_is_a_connection_only_arms_the_next_one(long_runs):
    run = long_runs.dump_over_slow_connection.result()
    assert_dumped(run)
    times = [datetime.datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S,%f") for line in run.session.log.splitlines()
             if line.endswith(("Trying to start SSH session", "Authenticated succesfully"))]
    assert len(times) == 2
    assert (times[1] - times[0]).total_seconds() > 5
    assert run.session.file("dumping-status.xml").exists()
    commands = commands_of(long_runs.dump_server, "distant-agent")
    assert commands[0] == "dumper"
    assert commands.count("status") >= 1


@pytest.mark.background
def test_alarm_that_is_pending_when_the_dumper_ends_does_no_harm(long_runs):
    run = long_runs.slow_fetch_of_dump.result()
    assert_dumped(run)
    assert commands_of(long_runs.dump_server, "late-agent")[-1] == "dump"
