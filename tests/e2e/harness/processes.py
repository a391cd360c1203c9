# SPDX-License-Identifier: Apache-2.0
"""Looking at and ending processes that the tests started."""

import os
import pathlib
import signal
import subprocess


def _parents():
    """pid -> parent's pid for every process of the sandbox."""
    parents = {}
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                stat = (entry / "stat").read_text(encoding="utf-8", errors="replace")
            except OSError:
                continue  # ended meanwhile
            parents[int(entry.name)] = int(stat.rpartition(")")[2].split()[1])
    return parents


def descendants(pid):
    """The processes below `pid`, itself not included."""
    parents = _parents()
    found, border = [], {pid}
    while border:
        border = {child for child, parent in parents.items() if parent in border}
        found.extend(border)
    return found


def kill_tree(pid):
    """Ends `pid` and everything below it."""
    for each in [pid, *descendants(pid)]:
        try:
            os.kill(each, signal.SIGKILL)
        except ProcessLookupError:
            pass  # ended meanwhile


def proc_bytes(pid, name):
    """One file of /proc/PID, or nothing when the process has ended."""
    try:
        return pathlib.Path(f"/proc/{pid}/{name}").read_bytes()
    except OSError:
        return b""


def peak_resident_kib(pid):
    """The process's own peak of resident memory so far; 0 when it has ended."""
    for line in proc_bytes(pid, "status").splitlines():
        if line.startswith(b"VmHWM:"):
            return int(line.split()[1])
    return 0


def finish(process, timeout, stdin=None):
    """Waits for the end of `process` and of its output, giving it `stdin`: what it wrote to standard output and to
    standard error, and whether it had to be ended after `timeout` seconds."""
    try:
        return *process.communicate(stdin, timeout), False
    except subprocess.TimeoutExpired:
        kill_tree(process.pid)
        return *process.communicate(), True
