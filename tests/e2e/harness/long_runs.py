# SPDX-License-Identifier: Apache-2.0
"""Runs that take minutes by design: started first, asked last."""

import concurrent.futures
import contextlib
import socket
import subprocess
import threading

from harness.places import make_dir
from harness.probe import Probe, execute
from harness.processes import kill_tree
from harness.product import Product
from harness.program import Program, source
from harness.relay import STALL, Fault, Relay
from harness.scripted import Script, ScriptedServer
from harness.sshd import SshServer
from harness.waiting import wait_until

# An address that can be taken away while a connection to it is open.
_FLEETING = "192.0.2.77"

# Two starts of two minutes each, and some time on a busy machine.
_HANGS_AFTER_S = 400


class LongRuns:
    """Futures: of runs of the program (`silent_server`, `silent_key_exchange`, `silent_login`) and of one of the
    probe (`vanished_peer`)."""

    def __init__(self, programs, directory):
        make_dir(directory)
        Product().install()
        self._program = Program(programs["TALLOWICK_BIN"], directory)
        self._running = []
        self._ends = contextlib.ExitStack()
        self.silent_server = self._against(self._silent_listener())
        self.silent_key_exchange = self._against(self._relay_that_stalls(directory))
        self.silent_login = self._against(self._server_that_never_decides())
        self.vanished_peer = self._lose_the_peer(Probe(programs["TALLOWICK_PROBE_BIN"], directory), directory)

    def _silent_listener(self):
        return self._ends.enter_context(socket.create_server(("127.0.0.1", 0))).getsockname()[1]

    def _relay_that_stalls(self, directory):
        server = SshServer(directory / "sshd-behind-relay")
        self._ends.callback(server.stop)
        # The greeting passes, the key exchange does not.
        return self._ends.enter_context(Relay(server.port, Fault(STALL, 300))).port

    def _server_that_never_decides(self):
        never = threading.Event()
        self._ends.callback(never.set)
        return self._ends.enter_context(ScriptedServer(Script(password=lambda password: never.wait()))).port

    def _against(self, port):
        running = self._program.start("--send-scout", *source(port))
        self._running.append(running)
        # From here on the run needs no file of the product, which other tests change.
        wait_until(lambda: "Trying to start SSH session" in running.session.log, "the TCP connection")
        return _in_background(running.wait, timeout=_HANGS_AFTER_S)

    def _lose_the_peer(self, probe, directory):
        _ip_address("add")
        server = SshServer(directory / "sshd", address=_FLEETING)
        self._ends.callback(server.stop)
        run = _in_background(probe.run, server, execute("sleep 1000"), host=_FLEETING, timeout=_HANGS_AFTER_S)
        wait_until(server.commands, "the command line")
        _ip_address("del")
        return run

    def stop(self):
        """Ends what has not ended by itself; what waits for the end of the tests ends with them."""
        for running in self._running:
            if running.popen.poll() is None:
                kill_tree(running.pid)
        self._ends.close()


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
