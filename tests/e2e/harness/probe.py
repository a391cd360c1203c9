# SPDX-License-Identifier: Apache-2.0
"""Running `ssh_probe`, a small program over the class `Ssh`, for what no action of the program shows alone."""

import re
import subprocess
import threading
import time
from dataclasses import dataclass

from harness.accounts import MOVER
from harness.processes import finish, peak_resident_kib
from harness.program import HANGS_AFTER_S, check_sanitizers, environment

_LINE = re.compile(r"^(?:\S+ status=(?P<status>-?\d+)|error=(?P<tag>\S+) ?(?P<text>.*))$")


@dataclass
class OpResult:
    """How one operation ended: with a status or with an error's tag and text."""

    status: int | None
    tag: str | None
    text: str | None


@dataclass
class ProbeRun:
    """One finished run of the probe."""

    command: list
    status: int
    stdout: bytes
    stderr: bytes
    seconds: float
    cpu_seconds: float
    peak_kib: int
    log_file: object

    @property
    def log(self):
        return self.log_file.read_bytes() if self.log_file.exists() else b""

    @property
    def results(self):
        """One entry per operation, up to the first one that ended in an error."""
        lines = self.stdout.decode("utf-8", "surrogateescape").splitlines()
        matches = filter(None, map(_LINE.match, lines))
        return [OpResult(None if match["status"] is None else int(match["status"]), match["tag"], match["text"])
                for match in matches]

    @property
    def statuses(self):
        """The status of each operation, or the tag of the error that it ended in."""
        return [result.tag or result.status for result in self.results]

    @property
    def waits_in_vain(self):
        """How often the probe waited for its connection until the wait's own limit, five seconds, woke it up."""
        return int(re.search(rb"^waits in vain: (\d+)$", self.stdout, re.MULTILINE)[1])

    def report(self):
        log = self.log.decode("utf-8", "backslashreplace")
        return (f"$ {' '.join(self.command)}\nstatus {self.status} after {self.seconds:.2f} s\n"
                f"stdout: {self.stdout[-4000:]!r}\nstderr: {self.stderr.decode('utf-8', 'replace')[-12000:]}\n"
                f"--- log\n{log[-16000:]}")


def execute(command, *, stdin=None, out=None, err=None, counts=None, loud=False):
    """The operation that runs `command`; `stdin`, `out`, `err` and `counts` are files."""
    return [*_options(out, err, counts, loud), *(["exec-in", str(stdin)] if stdin else ["exec"]), command]


def get(local, remote, *, err=None, counts=None):
    """The operation that downloads `remote` into the file `local`."""
    return [*_options(None, err, counts, False), "get", str(local), str(remote)]


def get_stream(remote, *, out=None, err=None, counts=None):
    """The operation that downloads `remote` into a stream."""
    return [*_options(out, err, counts, False), "get-stream", str(remote)]


def put(local, remote):
    """The operation that uploads `local`."""
    return ["put", str(local), str(remote)]


def _options(out, err, counts, loud):
    options = []
    for name, value in (("--out", out), ("--err", err), ("--counts", counts)):
        if value is not None:
            options += [name, str(value)]
    return options + (["--loud"] if loud else [])


class Probe:
    """Starts the probe; `runs` keeps every finished run for the report of a failed test."""

    def __init__(self, binary, directory):
        self.binary = binary
        self.runs = []
        self._directory = directory

    def run(self, server, *operations, account=MOVER, password=None, host="127.0.0.1", options=(),
            timeout=HANGS_AFTER_S, statuses=(0, 3), **popen):
        """Runs `operations` over one connection to `server` (a port or something that has one)."""
        log = self._directory / f"probe-{len(self.runs)}.log"
        command = [self.binary, "--host", host, "--port", str(getattr(server, "port", server)),
                   "--login", account.login, "--log", str(log), *map(str, options), "--",
                   *(word for operation in operations for word in operation)]
        began = time.monotonic()
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, cwd="/",
                                   env=environment(OVN_PASSWORD=password or account.password), **popen)
        watch = _Watch(process.pid)
        out, err, hung = finish(process, timeout)
        watch.stop()
        run = ProbeRun(command, process.returncode, out, err, time.monotonic() - began, watch.cpu_seconds,
                       watch.peak_kib, log)
        self.runs.append(run)
        assert not hung, f"still running after {timeout} s"
        check_sanitizers(err)
        assert run.status in statuses, f"status {run.status}"
        return run


class _Watch:
    """Follows a process's peak memory and processor time, which end with it."""

    def __init__(self, pid):
        self._pid = pid
        self._stopped = threading.Event()
        self.peak_kib = 0
        self.cpu_seconds = 0.0
        self._thread = threading.Thread(target=self._follow, daemon=True)
        self._thread.start()

    def _follow(self):
        while not self._stopped.wait(0.02):
            self.peak_kib = max(self.peak_kib, peak_resident_kib(self._pid))
            self.cpu_seconds = max(self.cpu_seconds, _cpu_seconds(self._pid))

    def stop(self):
        self._stopped.set()
        self._thread.join()


def _cpu_seconds(pid):
    try:
        with open(f"/proc/{pid}/schedstat", encoding="ascii") as file:
            return int(file.read().split()[0]) / 1e9
    except (OSError, IndexError):
        return 0.0
