# SPDX-License-Identifier: Apache-2.0
"""Running tallowick-watch, and session directories for it to look at."""

import os
import subprocess

from harness.places import SOURCE_ROOT, make_dir, write
from harness.program import HANGS_AFTER_S, check_sanitizers, environment
from harness.screen import Terminal

GOLDEN = SOURCE_ROOT / "tests" / "data" / "xml"


class Watch:
    """Starts the program; what it says on its terminals is judged at the end of a test."""

    def __init__(self, binary):
        self._binary = binary
        self._terminals = []

    def on_terminal(self, directory, columns=80, rows=24, *, term="xterm-256color", stdin=None, **variables):
        """Watches on a terminal of its own; `stdin` is a file in place of its keyboard."""
        terminal = Terminal([self._binary, str(directory)], environment(**variables), columns, rows, term=term, stdin=stdin)
        self._terminals.append(terminal)
        return terminal

    def start(self, *arguments, stdout=subprocess.PIPE, **variables):
        """Starts it without a terminal."""
        return subprocess.Popen([self._binary, *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=stdout,
                                stderr=subprocess.PIPE, env=environment(**variables))

    def run(self, *arguments, **options):
        """Runs it without a terminal to its end: status, standard output and standard error as texts."""
        with self.start(*arguments, **options) as process:
            return finished(process)

    def close(self):
        for each in self._terminals:
            each.close()
            check_sanitizers(bytes(each.raw))


def finished(process):
    """The status of a process at its end, and the texts that it has written."""
    out, err = process.communicate(timeout=HANGS_AFTER_S)
    check_sanitizers(err)
    return process.returncode, (out or b"").decode(), err.decode()


class RecordedSession:
    """A session directory whose files a test writes; what is written later is newer."""

    def __init__(self, path):
        self.path = make_dir(path)

    def put(self, name, text, age=0.0):
        """Replaces a document as a whole, as if that had happened `age` seconds ago."""
        unfinished = write(self.path / f".{name}", text)
        if age:
            then = unfinished.stat().st_mtime - age
            os.utime(unfinished, (then, then))
        unfinished.rename(self.path / name)

    def golden(self, name, document, age=0.0):
        """The same with one of the documents of tests/data/xml."""
        self.put(name, (GOLDEN / f"{document}.xml").read_bytes(), age)

    def state(self):
        """Everything that could be changed in it."""
        paths = [self.path, *sorted(self.path.rglob("*"))]
        return [(str(path), status.st_ino, status.st_mode, status.st_size, status.st_mtime_ns, status.st_ctime_ns)
                for path in paths for status in [path.lstat()]]
