# SPDX-License-Identifier: Apache-2.0
"""What is measured: each row is a piece of work, done by several peers in turn."""

import contextlib
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import time
from dataclasses import dataclass

import command_lines
from command_lines import ENVIRONMENT
from figures import GIB, MIB, Peer, Result, Sample
from harness.places import make_dir, write
from harness.waiting import wait_until
from hosts import BASE, give_to_login
from source import AGENT_DIR, Content, install_product
from targets import FLOOR, FLOOR_SAVES, FLOOR_SUMS, MULTIPLEXED, OURS, OURS_SUMS

_TMPFS = BASE / "destination"
_HANGS_AFTER_S = 1800  # far more than anything here takes
_READ_SIZES = {"64 KiB": 65536, "512 KiB": 512 << 10, "2 MiB": 2 * MIB, "4 MiB": 4 * MIB}


@dataclass(frozen=True)
class Row:
    """A piece of work. `minutes` is about how long it takes in full and in the quick form, None without one."""

    name: str
    title: str
    measure: object
    minutes: float
    quick_minutes: "float | None" = None


class Bench:
    """Measures rows. `binaries` are the programs of this directory, `program` is the one that is measured."""

    def __init__(self, program, binaries, disk, quick, tell):
        self._program = program
        self._binaries = binaries
        self._disk = disk
        self._quick = quick
        self._tell = tell
        self._random = random.Random(1)
        self._tree = install_product()
        self._read_size = None
        make_dir(AGENT_DIR.parent)
        give_to_login(AGENT_DIR.parent)
        self.results = {}

    # ---- The rows ----

    def rows(self):
        """All rows in their order."""
        far = [Row(f"one-file-{rtt}", f"One file, round trip {rtt} ms, destination on tmpfs",
                   lambda row, rtt=rtt: self._far_file(row, rtt), minutes, quick)
               for rtt, minutes, quick in ((10, 6, 0.7), (50, 4, 0.8))]
        small = [Row(f"small-files-{rtt}" if rtt else "small-files",
                     f"Files of 4 KiB fetched and removed, round trip {rtt} ms",
                     lambda row, rtt=rtt: self._small_files(row, rtt), minutes, quick)
                 for rtt, minutes, quick in ((0, 4, 0.3), (10, 5, 0.7), (50, 2, None))]
        growth = [Row(f"growth-files-{count}", f"{count} files of 4 KiB fetched and removed, round trip 0 ms",
                      self._growing_files, minutes)
                  for count, minutes in ((10, 0.3), (100, 0.5), (1000, 2), (20000, 8))]
        growth += [Row(f"growth-bytes-{size * MIB}", f"One file of {size} MiB (a hole), round trip 0 ms",
                       self._growing_bytes, minutes)
                   for size, minutes in ((1, 0.1), (64, 0.2), (1024, 0.5), (8192, 2.5))]
        both = ((0, ""), (10, "-10"))
        return [
            *(Row(f"commands{end}", f"One remote `true` on an open connection, round trip {rtt} ms",
                  lambda row, rtt=rtt: self._commands(row, rtt), 0.3, 0.1) for rtt, end in both),
            *(Row(f"connect{end}", f"Connect, log in, one command, round trip {rtt} ms",
                  lambda row, rtt=rtt: self._connect(row, rtt), 0.6, 0.2) for rtt, end in both),
            Row("one-file", "One file, round trip 0 ms, destination on tmpfs", self._one_file, 4, 0.4),
            Row("one-file-disk", "One file, round trip 0 ms, destination on disk", self._one_file, 4, 0.3),
            *far, *small,
            *(Row(f"deploy{end}", f"An agent of 200 files in 20 directories, round trip {rtt} ms",
                  lambda row, rtt=rtt: self._deploy(row, rtt), *minutes)
              for (rtt, end), minutes in zip(both, ((0.6, 0.2), (3, 0.5)))),
            Row("start", "Start of a program", self._start, 0.1, 0.1),
            *growth,
        ]

    def _commands(self, row, rtt):
        """Times are those of single commands, taken inside of the process."""
        count = (60 if self._quick else 300) // (1 if rtt == 0 else 4)
        plan = write(BASE / "plan", "exec\ttrue\n")
        ours = [self._binaries / "commands", command_lines.address(rtt), str(command_lines.PORT),
                command_lines.MOVER.login, str(count), "true"]
        floor = command_lines.floor(self._binaries / "floor", rtt, plan, f"--repeat={count}", "--times")
        with self._shared_connection(rtt):
            shared = command_lines.ssh(rtt, "true", log_in=False)
            self._go_through(row, self._passes(5, 3), {
                OURS: lambda: self._inner_times(ours), FLOOR: lambda: self._inner_times(floor),
                MULTIPLEXED: lambda: Sample(statistics.median(self._run(shared).seconds for _ in range(10)))})

    @contextlib.contextmanager
    def _shared_connection(self, rtt):
        master = subprocess.Popen(command_lines.master(rtt), env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        try:
            wait_until(pathlib.Path(command_lines.SOCKET).is_socket, "the shared connection")
            yield
        finally:
            master.terminate()
            master.wait()

    def _inner_times(self, command):
        """The first line that such a command prints is about its set-up."""
        output = BASE / "times"
        with open(output, "wb") as file:
            sample = self._run(command, stdout=file, LOG_FILE_NAME=str(BASE / "commands.log"))
        times = [float(line) for line in output.read_text().split()[1:]]
        return Sample(statistics.median(times) / 1000, cpu_seconds=sample.cpu_seconds / len(times),
                      peak_kib=sample.peak_kib)

    def _connect(self, row, rtt):
        session = _TMPFS / "session"
        make_dir(AGENT_DIR)
        status = write(AGENT_DIR / "dumping-status.xml", "<dumping-status/>\n")
        ours = command_lines.tallowick(self._program, "get-dumping-status", rtt, session)
        self._run_in_new(session, ours)
        plan = self._plan(session)
        floor = command_lines.floor(self._binaries / "floor", rtt, plan)
        ssh = command_lines.ssh(rtt, f"cat {status}")
        self._go_through(row, self._passes(25, 9), {
            OURS: lambda: self._run_in_new(session, ours), FLOOR: lambda: self._run(floor), "ssh": lambda: self._run(ssh)})

    def _one_file(self, row):
        on_disk = row.endswith("-disk")
        content = Content(1, (256 if self._quick else 1024) * MIB)
        fetch = _Fetch(self, content, 0, self._disk if on_disk else _TMPFS)
        others = fetch.others_for_one_file()
        if self._quick and on_disk:
            others = {}
        self._go_through(row, self._passes(5, 2), {
            OURS: fetch.ours, OURS_SUMS: lambda: fetch.ours(sums=True), FLOOR: fetch.floor,
            FLOOR_SAVES: lambda: fetch.floor(saves=True), FLOOR_SUMS: lambda: fetch.floor(saves=True, options=["--md5"]),
            **others}, list_bytes=fetch.list_bytes)
        content.remove()

    def _far_file(self, row, rtt):
        size = (96 if rtt == 10 else 24) if self._quick else (512 if rtt == 10 else 128)
        content = Content(1, size * MIB)
        fetch = _Fetch(self, content, rtt, _TMPFS)
        peers = {OURS: fetch.ours, FLOOR: fetch.floor, **fetch.others_for_one_file()}
        self._go_through(row, self._passes(3, 1 if rtt == 50 else 2), peers, list_bytes=fetch.list_bytes)
        if not self._quick:
            sizes = {f"floor, reads of {text}": lambda read_size=read_size: fetch.floor(read_size=read_size)
                     for text, read_size in _READ_SIZES.items() if read_size != self.read_size()}
            self._go_through(row, 2, sizes)
        content.remove()

    def _small_files(self, row, rtt):
        count = ({0: 200, 10: 40} if self._quick else {0: 2000, 10: 500, 50: 60})[rtt]
        content, fewer = Content(count, 4096), Content(max(count // 5, 20), 4096)
        fetch, less = _Fetch(self, content, rtt, _TMPFS), _Fetch(self, fewer, rtt, _TMPFS)
        others = fetch.others_for_many_files()
        # What waits for so much longer is content with fewer.
        others[MULTIPLEXED] = less.others_for_many_files()[MULTIPLEXED]
        self._go_through(row, self._passes(3, 2), {
            OURS: fetch.ours, FLOOR: fetch.floor, FLOOR_SAVES: lambda: fetch.floor(saves=True), **others},
            list_bytes=fetch.list_bytes)
        content.remove()
        fewer.remove()

    def _deploy(self, row, rtt):
        session = _TMPFS / "session"

        def removed():
            shutil.rmtree(AGENT_DIR, ignore_errors=True)

        def arrived():
            wanted = {path.relative_to(self._tree): path.stat().st_size for path in self._tree.rglob("*")
                      if path.is_file() and path.parts[-2] != "control"}
            missing = [str(path) for path, size in wanted.items()
                       if not (AGENT_DIR / path).is_file() or (AGENT_DIR / path).stat().st_size != size]
            assert len(wanted) == 200 and not missing, f"not as sent: {missing}"

        def deployed(command, run=self._run):
            removed()
            sample = run(command)
            arrived()
            return sample

        ours = command_lines.tallowick(self._program, "deploy-agent", rtt, session)
        in_new = lambda command: self._run_in_new(session, command)
        deployed(ours, in_new)
        floor = command_lines.floor(self._binaries / "floor", rtt, self._plan(session))
        others = command_lines.deploy(rtt, self._tree)
        if self._quick:
            others = {}
        self._go_through(row, self._passes(7 if rtt == 0 else 3, 3 if rtt == 0 else 1), {
            OURS: lambda: deployed(ours, in_new), FLOOR: lambda: deployed(floor),
            **{name: lambda command=command: deployed(command) for name, command in others.items()}})
        removed()

    def _start(self, row):
        session = _TMPFS / "session"
        remove = [self._program, "--remove-dumping-status", f"--session-path={session}"]
        self._go_through(row, self._passes(60, 25), {
            f"{OURS} --help": lambda: self._run([self._program, "--help"], OVN_PASSWORD=None),
            f"{OURS} --remove-dumping-status": lambda: self._run_in_new(session, remove, OVN_PASSWORD=None),
            "curl --version": lambda: self._run(["curl", "--version"]),
            "ssh -V": lambda: self._run(["ssh", "-V"], stderr=subprocess.DEVNULL),
            "floor, usage": lambda: self._run([self._binaries / "floor"], statuses=[1], stderr=subprocess.DEVNULL),
            "true": lambda: self._run(["/bin/true"])})

    def _growing_files(self, row):
        count = int(row.rsplit("-", 1)[1])
        content = Content(count, 4096)
        fetch = _Fetch(self, content, 0, _TMPFS)
        others = fetch.others_for_many_files()
        if count > 100:
            del others[MULTIPLEXED]
        self._go_through(row, {10: 7, 100: 5, 1000: 3}.get(count, 1), {OURS: fetch.ours, FLOOR: fetch.floor, **others},
                         list_bytes=fetch.list_bytes)
        content.remove()

    def _growing_bytes(self, row):
        size = int(row.rsplit("-", 1)[1])
        room = os.statvfs(BASE)
        if size + GIB > min(room.f_bavail * room.f_frsize, _available_memory()):
            self._tell("    there is not enough memory for this row")
            return
        content = Content(1, size, sparse=True)
        fetch = _Fetch(self, content, 0, _TMPFS)
        self._go_through(row, 9 if size < 64 * MIB else 3 if size <= GIB else 1,
                         {OURS: fetch.ours, FLOOR_SAVES: lambda: fetch.floor(saves=True)}, list_bytes=fetch.list_bytes)
        content.remove()

    # ---- How they are measured ----

    def measure(self, row):
        """Measures a row; its result is then in `results`."""
        began = processor_times()
        row.measure(row.name)
        if row.name in self.results:  # not there when the machine has too little memory for it
            stolen = stolen_share(began, processor_times())
            self.results[row.name].taken = (f"{time.strftime('%Y-%m-%d %H:%M', time.gmtime())} UTC, with {stolen:.1%} of "
                                            "the processors' time stolen")

    @property
    def known_read_size(self):
        """What `read_size` has found out, None before."""
        return self._read_size

    def read_size(self):
        """How much the floor has to ask libssh2 for at once to let the server send as far ahead as the program does."""
        if self._read_size is None:
            file = BASE / "read-size"
            content = Content(1, 32 * MIB)
            _Fetch(self, content, 0, _TMPFS, LD_PRELOAD=str(self._binaries / "read_size.so"), READ_SIZE_FILE=str(file))
            content.remove()
            self._read_size = int(file.read_text())
            self._tell(f"floor: reads of {self._read_size} bytes")
        return self._read_size

    def _passes(self, full, quick):
        return quick if self._quick else full

    def _go_through(self, row, passes, peers, list_bytes=0):
        """Each pass runs every peer once, in an order of its own, so that what else the machine does meets all."""
        result = self.results.setdefault(row, Result())
        for _ in range(passes):
            names = list(peers)
            self._random.shuffle(names)
            for name in names:
                result.peers.setdefault(name, Peer()).samples.append(peers[name]())
        for name in peers:
            peer = result.peers[name]
            peer.list_bytes = list_bytes if name in (OURS, OURS_SUMS) else 0
            self._tell(f"    {name}: {peer.seconds():.4f} s")

    def _run_in_new(self, session, command, **options):
        """A run with a session directory that is not there yet."""
        shutil.rmtree(session, ignore_errors=True)
        make_dir(session.parent)
        return self._run(command, **options)

    def _run(self, command, units=1, statuses=(0,), stdout=subprocess.DEVNULL, stderr=None, **environment):
        """Further variables of the environment are added; those that are None are taken away."""
        file = BASE / "measured"
        variables = {name: value for name, value in {**ENVIRONMENT, **environment}.items() if value is not None}
        with open(BASE / "stderr", "w+b") as errors:
            subprocess.run([self._binaries / "measure", file, *command], env=variables,
                           stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr or errors, cwd="/", check=True,
                           timeout=_HANGS_AFTER_S)
            nanoseconds, microseconds, peak_kib, status = map(int, file.read_text().split())
            errors.seek(0)
            text = errors.read().decode("utf-8", "replace")
        assert status in statuses, f"status {status} of {' '.join(map(str, command))}\n{text}"
        return Sample(nanoseconds / 1e9, units, microseconds / 1e6, peak_kib)

    def _plan(self, session):
        """A file with the commands that the run of that session has sent."""
        log = (session / "migration.log").read_bytes().decode("utf-8", "surrogateescape")
        return write(BASE / f"plan-{abs(hash(log))}", command_lines.plan_of(log, session))

    # ---- For _Fetch ----

    def run(self, command, **options):
        """See `_run`."""
        return self._run(command, **options)

    def plan(self, session):
        """See `_plan`."""
        return self._plan(session)

    def program_line(self, rtt, session):
        """A run that fetches content."""
        return command_lines.tallowick(self._program, "get-content", rtt, session)

    def floor_line(self, rtt, plan, *options):
        """A run of the floor."""
        return command_lines.floor(self._binaries / "floor", rtt, plan, *options)


class _Fetch:
    """Fetches one content over and over again, to below `base`. A first run of the program, which is not measured,
    gives the commands for the floor; `environment` is that run's."""

    def __init__(self, bench, content, rtt, base, **environment):
        self._bench = bench
        self._content = content
        self._rtt = rtt
        self._target = make_dir(pathlib.Path(base)) / "session"
        self._units = content.size / GIB if content.count == 1 else content.count
        self.list_bytes = content.offer()
        if not environment:
            bench.read_size()
        self.ours(**environment)
        self._plan = bench.plan(self._target)

    def ours(self, sums=False, **environment):
        """The program."""
        command = self._bench.program_line(self._rtt, self._target)
        return self._fetch(lambda: command, sums=sums, removed=True, **environment)

    def floor(self, saves=False, options=(), read_size=None):
        """The floor."""
        command = self._bench.floor_line(
            self._rtt, self._plan, f"--read-size={read_size or self._bench.read_size()}", *options,
            *(command_lines.saves(self._target) if saves else []))
        return self._fetch(lambda: make_dir(self._target) and command, removed=True)

    def others_for_one_file(self):
        """What a user would pick instead, by name; the file stays on the source host."""
        remote = AGENT_DIR / self._content.names[0]
        return {name: lambda command=command: self._fetch(lambda: make_dir(self._target) and command)
                for name, command in command_lines.fetch_one(self._rtt, self._target, remote).items()}

    def others_for_many_files(self):
        """The same for files that are removed once they are here."""
        def lines():
            return command_lines.fetch_many(self._rtt, self._target, self._content.names)

        return {name: lambda name=name: self._fetch(lambda: make_dir(self._target) and lines()[name])
                for name in lines()}

    def _fetch(self, command, sums=False, removed=False, **environment):
        shutil.rmtree(self._target, ignore_errors=True)
        self._content.offer(sums)
        line = command()
        os.sync()  # what an earlier run has left to write is not to disturb this one
        sample = self._bench.run(line, units=self._units, **environment)
        self._content.check_arrived(self._target)
        if removed:
            self._content.check_removed()
        return sample


def processor_times():
    """What the processors have done since the machine was started: the first line of /proc/stat, see proc(5)."""
    with open("/proc/stat", encoding="ascii") as file:
        return [int(each) for each in file.readline().split()[1:9]]


def stolen_share(before, after):
    """The share of a time that the machines beside this one had of its processors, from two `processor_times`."""
    spent = [late - early for early, late in zip(before, after)]
    return spent[7] / max(1, sum(spent))


def _available_memory():
    with open("/proc/meminfo", encoding="ascii") as file:
        return next(1024 * int(line.split()[1]) for line in file if line.startswith("MemAvailable:"))


