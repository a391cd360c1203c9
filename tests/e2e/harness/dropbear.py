# SPDX-License-Identifier: Apache-2.0
"""A real Dropbear server with one host key."""

import pathlib
import subprocess

from harness.places import make_dir
from harness.processes import kill_tree
from harness.sshd import free_port
from harness.tcp import greets
from harness.waiting import wait_until


class Dropbear:
    """Listens as soon as it is constructed, ends with `stop()`; `host_key` as for dropbearkey ("rsa", …)."""

    def __init__(self, directory, host_key):
        directory = make_dir(pathlib.Path(directory))
        self.port = free_port()
        key = directory / f"host_{host_key}"
        subprocess.run(["dropbearkey", "-t", host_key, "-f", str(key)], check=True, stdin=subprocess.DEVNULL,
                       capture_output=True)
        with open(directory / "dropbear.log", "wb") as log:
            self._process = subprocess.Popen(
                ["/usr/sbin/dropbear", "-F", "-E", "-r", str(key), "-p", f"127.0.0.1:{self.port}",
                 "-P", str(directory / "pid")], stdin=subprocess.DEVNULL, stderr=log, start_new_session=True)
        try:
            wait_until(lambda: greets("127.0.0.1", self.port), f"dropbear on port {self.port}")
        except AssertionError:
            self.stop()
            raise

    def stop(self):
        """Ends the server and its connections."""
        kill_tree(self._process.pid)
        self._process.wait()
