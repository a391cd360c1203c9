# SPDX-License-Identifier: Apache-2.0
"""Runs that take minutes by design: started first, asked last."""

import concurrent.futures
import socket
import subprocess
import threading

from harness.places import make_dir
from harness.probe import Probe, execute
from harness.processes import kill_tree
from harness.product import Product
from harness.program import Program, source
from harness.sshd import SshServer
from harness.waiting import wait_until

# An address that can be taken away while a connection to it is open.
_FLEETING = "192.0.2.77"

# Two starts of two minutes each, and some time on a busy machine.
_HANGS_AFTER_S = 400


class LongRuns:
    """`silent_server` is the future of a run of the program, `vanished_peer` that of a run of the probe."""

    def __init__(self, programs, directory):
        make_dir(directory)
        Product().install()
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._running = Program(programs["TALLOWICK_BIN"], directory).start(
            "--send-scout", *source(self._listener.getsockname()[1]))
        self.silent_server = _in_background(self._running.wait, timeout=_HANGS_AFTER_S)
        # From here on the run needs no file of the product, which other tests change.
        wait_until(lambda: "Trying to start SSH session" in self._running.session.log, "the TCP connection")

        _ip_address("add")
        self._sshd = SshServer(directory / "sshd", address=_FLEETING)
        self.vanished_peer = _in_background(
            Probe(programs["TALLOWICK_PROBE_BIN"], directory).run, self._sshd, execute("sleep 1000"),
            host=_FLEETING, timeout=_HANGS_AFTER_S)
        wait_until(self._sshd.commands, "the command line")
        _ip_address("del")

    def stop(self):
        """Ends what has not ended by itself; what waits for the end of the tests ends with them."""
        self._listener.close()
        if self._running.popen.poll() is None:
            kill_tree(self._running.pid)
        self._sshd.stop()


def _ip_address(verb):
    subprocess.run(["ip", "address", verb, f"{_FLEETING}/32", "dev", "lo"], check=True, stdin=subprocess.DEVNULL)


def _in_background(function, *arguments, **options):
    """Calls `function` in a thread that does not keep the tests from ending."""
    future = concurrent.futures.Future()

    def call():
        try:
            future.set_result(function(*arguments, **options))
        except BaseException as error:  # handed to whoever asks
            future.set_exception(error)

    threading.Thread(target=call, daemon=True).start()
    return future
