# SPDX-License-Identifier: Apache-2.0
"""Runs that take minutes by design: started first, asked last."""

import concurrent.futures
import contextlib
import os
import resource
import socket
import subprocess
import threading
import time

from harness.agents import DUMP, DeployedAgent
from harness.peak import Measured
from harness.places import make_dir
from harness.probe import Probe, execute
from harness.processes import kill_tree
from harness.product import SMALL_SCOUT, Product
from harness.program import Program, source
from harness.relay import STALL, Fault, Relay
from harness.scripted import Script, ScriptedServer
from harness.sshd import SshServer
from harness.waiting import open_for_reader, wait_until
from harness.watch_file import Watcher

# An address that can be taken away while a connection to it is open.
_FLEETING = "192.0.2.77"

# Two starts of two minutes each, and some time on a busy machine.
_HANGS_AFTER_S = 400

# What a scout says on standard error that says too much.
FLOOD_MIB = 1024
_FLOOD = f"my $piece = q(e) x 65536; print STDERR $piece for 1 .. {FLOOD_MIB * 16}; exit 3;"
_LOG_LIMIT = 16 * 1024 * 1024


# Replaces its status as a whole twice a second; what it says besides must come through.
_DUMP_FOR = """
use Time::HiRes;
my $end = Time::HiRes::time() + %d;
for (my $step = 1; Time::HiRes::time() < $end; ++$step) {
    open my $status, '>', "$FindBin::Bin/new" or die $!;
    print {$status} '<dumping-status>', $step, '<!--', 'x' x 50_000, '--></dumping-status>';
    close $status or die $!;
    rename "$FindBin::Bin/new", "$FindBin::Bin/dumping-status.xml" or die $!;
    print "step $step\\n";
    select undef, undef, undef, 0.5;
}
"""

# One and a half intervals between two refreshes.
_LATE_S = 7.5


class LongRuns:
    """Futures: of runs of the program (`silent_server`, `silent_key_exchange`, `silent_login`; dumps whose status is
    refreshed: `slow_dump` with what a watcher saw of the local status, `dump_over_slow_connection`,
    `slow_fetch_of_dump`; a scout that floods standard error, with what it took: `flood`) and of one of the probe
    (`vanished_peer`). `dump_server` is the one that dumps."""

    def __init__(self, programs, directory):
        make_dir(directory)
        Product().install()
        self._program = Program(programs["TALLOWICK_BIN"], directory)
        self._running = []
        self._ends = contextlib.ExitStack()
        self.silent_server = self._against(self._silent_listener())
        self.silent_key_exchange = self._against(self._relay_that_stalls(directory))
        self.silent_login = self._against(self._server_that_never_decides())
        self.dump_server = SshServer(directory / "sshd-for-dumps")
        self._ends.callback(self.dump_server.stop)
        self.slow_dump = self._watch_dump(directory)
        self.dump_over_slow_connection = self._dump_over_slow_connection(directory)
        self.slow_fetch_of_dump = self._fetch_slowly(directory)
        self.flood = self._flood(Program(programs["TALLOWICK_RELEASE_BIN"], make_dir(directory / "release")), directory)
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
        return _in_background(self._start("--send-scout", *source(port)).wait, timeout=_HANGS_AFTER_S)

    def _start(self, *arguments, program=None, **options):
        running = (program or self._program).start(*arguments, **options)
        self._running.append(running)
        # From here on the run needs no file of the product, which other tests change.
        wait_until(lambda: "Trying to start SSH session" in running.session.log, "the TCP connection")
        return running

    def _watch_dump(self, directory):
        agent = DeployedAgent(Product(), directory / "slow-agent")
        agent.on("dump", _DUMP_FOR % 30)
        running = self._start("--dump-all", *source(self.dump_server), *agent.options)
        watcher = Watcher(running.session.file("dumping-status.xml"))

        def wait():
            try:
                run = running.wait(timeout=_HANGS_AFTER_S)
            finally:
                seen = watcher.stop()
            return run, seen

        return _in_background(wait)

    def _dump_over_slow_connection(self, directory):
        agent = DeployedAgent(Product(), directory / "distant-agent")
        agent.on("dump", _DUMP_FOR % 12)
        relay = self._ends.enter_context(Relay(self.dump_server.port, delay=0.6))
        running = self._start("--dump-all", *source(relay), *agent.options)
        return _in_background(running.wait, timeout=_HANGS_AFTER_S)

    def _fetch_slowly(self, directory):
        agent = DeployedAgent(Product(), directory / "late-agent")
        agent.answer(dump=None)
        dump = agent.directory / "dump.xml"
        os.mkfifo(dump, 0o666)
        running = self._start("--dump-all", *source(self.dump_server), *agent.options)

        def feed():
            with open_for_reader(dump) as fetched:
                time.sleep(_LATE_S)
                fetched.write(DUMP)
            return running.wait(timeout=_HANGS_AFTER_S)

        return _in_background(feed)

    def _flood(self, release, directory):
        measured = Measured(directory / "account")
        Product().set_scout(_FLOOD)
        # Everything is logged; what the log would take is not what is looked at.
        running = self._start("--send-scout", *source(self.dump_server), program=release, prefix=measured.prefix,
                              preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (_LOG_LIMIT, _LOG_LIMIT)))
        # The run has opened this one.
        Product().scout_file.unlink()
        Product().set_scout(SMALL_SCOUT)

        def wait():
            return running.wait(timeout=_HANGS_AFTER_S), measured.account()

        return _in_background(wait)

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
