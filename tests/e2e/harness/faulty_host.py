# SPDX-License-Identifier: Apache-2.0
"""Runs tests/faulty-host as those do who try their manager with it."""

import os
import subprocess

from harness.accounts import MOVER
from harness.places import SOURCE_ROOT, write
from harness.waiting import wait_until

TOOL = SOURCE_ROOT / "tests" / "faulty-host"


class FaultyHost:
    """The tool, started with `arguments` for the login of most tests; listens as soon as it is constructed. It gets
    the login's password from a file, that for sudo from its environment."""

    def __init__(self, directory, *arguments, sudo_password=None):
        self._output = directory / "faulty-host.log"
        options = [f"--login={MOVER.login}",
                   f"--password-file={write(directory / 'password', MOVER.password + chr(10))}"]
        environment = {"PATH": os.environ["PATH"]}
        if sudo_password is not None:
            environment["OVN_SUDO_PASSWORD"] = sudo_password
        self._secrets = [secret for secret in (MOVER.password, sudo_password) if secret]
        with open(self._output, "wb") as output:
            self._process = subprocess.Popen([TOOL, *options, *arguments], stdin=subprocess.DEVNULL, stdout=output,
                                             stderr=subprocess.STDOUT, env=environment)
        try:
            self.port = int(self.wait_for("listening on 127.0.0.1, port ").rpartition(" ")[2])
        except AssertionError:
            self._process.kill()
            self._process.wait()
            raise

    @property
    def lines(self):
        """What it has said so far, line by line."""
        return self._output.read_text(encoding="utf-8").split("\n")[:-1]

    def wait_for(self, beginning):
        """The first line that begins so, once it is there."""
        def find():
            assert self._process.poll() is None, f"the tool has ended: {self.lines}"
            return next((line for line in self.lines if line.startswith(beginning)), None)

        return wait_until(find, f'a line "{beginning}..."')

    def told(self, what):
        """The details of the lines of one kind, "command" or "removed"."""
        return [line.removeprefix(f"{what}: ") for line in self.lines if line.startswith(f"{what}: ")]

    def stop(self):
        """Ends the tool, which goes well and has told no password."""
        self._process.terminate()
        try:
            status = self._process.wait(timeout=60)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            raise
        assert status == 0, self.lines
        for secret in self._secrets:
            assert not any(secret in line for line in self.lines)
