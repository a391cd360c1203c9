# SPDX-License-Identifier: Apache-2.0
"""A program on a terminal of its own, and what a user sees there."""

import contextlib
import errno
import fcntl
import os
import pty
import struct
import termios
import threading
import time

import pyte

from harness.processes import kill_tree
from harness.program import HANGS_AFTER_S
from harness.waiting import wait_until


class _Screen(pyte.Screen):
    """Knows faint text, which pyte does not: as that of the colour "brightblack"."""

    def select_graphic_rendition(self, *attributes, **options):
        super().select_graphic_rendition(*attributes, **options)
        if 2 in attributes and not {38, 48} & set(attributes):
            self.cursor.attrs = self.cursor.attrs._replace(fg="brightblack")


class Terminal:
    """Runs a command on a terminal of `columns` x `rows` until it ends; what it writes is shown on a screen that
    a test can read. `raw` is everything that it has written; `stdin` is a file in place of the keyboard."""

    def __init__(self, command, environment, columns=80, rows=24, cwd="/", term="xterm-256color", stdin=None):
        self.raw = bytearray()
        self._lock = threading.Lock()
        self._screen = _Screen(columns, rows)
        self._stream = pyte.ByteStream(self._screen)
        self._status = None
        self.pid, self._fd = pty.fork()
        if self.pid == 0:
            try:
                fcntl.ioctl(0, termios.TIOCSWINSZ, _size(columns, rows))
                os.chdir(cwd)
                if stdin is not None:
                    os.dup2(os.open(stdin, os.O_RDONLY), 0)
                os.execve(command[0], command, {**environment, "TERM": term})
            finally:
                os._exit(127)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while True:
            try:
                data = os.read(self._fd, 65536)
            except OSError as error:
                if error.errno == errno.EIO:  # nobody has the other end any more
                    return
                raise
            with self._lock:
                self.raw += data
                self._stream.feed(data)

    @property
    def lines(self):
        """The rows of the screen without the blanks at their ends."""
        with self._lock:
            return [line.rstrip() for line in self._screen.display]

    @property
    def text(self):
        """All rows."""
        return "\n".join(self.lines)

    def cells(self):
        """The characters of the screen with their colours, row by row, as pyte knows them."""
        with self._lock:
            return [[self._screen.buffer[y][x] for x in range(self._screen.columns)] for y in range(self._screen.lines)]

    def resize(self, columns, rows):
        """Changes the size as the user's terminal would do."""
        with self._lock:
            self._screen.resize(rows, columns)
            fcntl.ioctl(self._fd, termios.TIOCSWINSZ, _size(columns, rows))

    def press(self, keys):
        os.write(self._fd, keys)

    def signal(self, number):
        os.kill(self.pid, number)

    def modes(self):
        """What the terminal does with what is typed and written."""
        return termios.tcgetattr(self._fd)

    def shows(self, *texts, limit=HANGS_AFTER_S):
        """Waits until all of these stand on the screen; returns its text."""
        def found():
            text = self.text
            return text if all(each in text for each in texts) else None

        try:
            return wait_until(found, texts, limit)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.text}") from None

    def wait(self, limit=HANGS_AFTER_S):
        """Waits for the end, and until all that was written is on the screen: the exit status, or the negative number
        of the signal."""
        end = time.monotonic() + limit
        while self._status is None:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid != 0:
                self._status = os.waitstatus_to_exitcode(status)
            elif time.monotonic() > end:
                kill_tree(self.pid)
                raise AssertionError(f"still running after {limit} s\n{self.text}")
            else:
                time.sleep(0.01)
        self._reader.join(limit)
        assert not self._reader.is_alive(), "something else still has the terminal"
        return self._status

    def close(self):
        """Ends the program if need be, and takes the terminal away."""
        if self._status is None:
            with contextlib.suppress(ProcessLookupError):
                kill_tree(self.pid)
            self.wait()
        self._reader.join()
        os.close(self._fd)


def _size(columns, rows):
    return struct.pack("HHHH", rows, columns, 0, 0)
