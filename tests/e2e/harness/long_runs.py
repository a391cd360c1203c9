# SPDX-License-Identifier: Apache-2.0
"""Runs that take minutes by design: started first, asked last."""

import concurrent.futures
import socket
import subprocess

from harness.places import make_dir
from harness.probe import Probe, execute
from harness.product import Product
from harness.program import Program, source
from harness.sshd import SshServer
from harness.waiting import wait_until

# An address that can be taken away while a connection to it is open.
_FLEETING = "192.0.2.77"


class LongRuns:
    """`silent_server` is a run of the program, `vanished_peer` the future of a run of the probe."""

    def __init__(self, programs, directory):
        make_dir(directory)
        Product().install()
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.silent_server = Program(programs["TALLOWICK_BIN"], directory).start(
            "--send-scout", *source(self._listener.getsockname()[1]))
        wait_until(lambda: "Trying to start SSH session" in self.silent_server.session.log, "the TCP connection")
        self._sshd = None
        self._workers = concurrent.futures.ThreadPoolExecutor(max_workers=1)
        self.vanished_peer = self._vanish(Probe(programs["TALLOWICK_PROBE_BIN"], directory), directory)

    def _vanish(self, probe, directory):
        subprocess.run(["ip", "address", "add", f"{_FLEETING}/32", "dev", "lo"], check=True)
        self._sshd = SshServer(directory / "sshd", address=_FLEETING)
        run = self._workers.submit(probe.run, self._sshd, execute("sleep 1000"), host=_FLEETING, timeout=330)
        wait_until(self._sshd.commands, "the command line")
        subprocess.run(["ip", "address", "del", f"{_FLEETING}/32", "dev", "lo"], check=True)
        return run

    def stop(self):
        """Ends what has not ended by itself."""
        self._listener.close()
        if self.silent_server.popen.poll() is None:
            self.silent_server.popen.kill()
        self._sshd.stop()
        self._workers.shutdown(wait=False, cancel_futures=True)
