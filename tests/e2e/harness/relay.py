# SPDX-License-Identifier: Apache-2.0
"""A TCP relay that delays, cuts, resets, half-closes, stalls, pauses or drips a connection at an exact byte."""

import collections
import socket
import threading
import time
from dataclasses import dataclass

from harness import tcp

FIN = "cut"  # both connections are closed in good order
RST = "reset"  # the client's connection is reset
HALF_CLOSE = "half-close"  # the client reads an end of file, what it writes still gets through
STALL = "stall"  # not a byte more, but the connection stays
PAUSE = "pause"  # not a byte for a while, then everything
DRIP = "drip"  # everything, a byte at a time

PAUSE_S = 2.0
DRIP_PIECE = (1, 0.001)  # bytes, seconds


@dataclass(frozen=True)
class Fault:
    """What happens after `at` bytes of one side's stream, on connection number `connection` (all when None)."""

    kind: str
    at: int
    stream: str = "server"
    connection: int | None = None


class RelayedConnection:
    """Both halves of one client's connection, and what passed through them."""

    def __init__(self, relay, number, client, server):
        self._relay = relay
        self.number = number
        self.client = client
        self.server = server
        self.streams = {"server": bytearray(), "client": bytearray()}
        self.counts = {"server": 0, "client": 0}
        self.cut = threading.Event()
        self._discard = set()

    def start(self):
        """Begins to relay."""
        client, server = self.client, self.server
        for source, sink, name in ((server, client, "server"), (client, server, "client")):
            threading.Thread(target=self._pump, args=(source, sink, name), daemon=True).start()

    def _pump(self, source, sink, name):
        fault = self._relay.fault_for(self, name)
        chunks = _DelayedSink(sink, self._relay.delay, self._relay.drip)
        try:
            while True:
                data = source.recv(65536)
                if name in self._discard:
                    if not data:
                        return
                    continue
                if fault is not None and self.counts[name] + len(data) >= fault.at and not self.cut.is_set():
                    head = data[:fault.at - self.counts[name]]
                    self._pass(chunks, name, head)
                    chunks.drain()
                    if fault.kind in (PAUSE, DRIP):
                        self._slow_down(fault, chunks)
                        fault, data = None, data[len(head):]
                    elif self.act(fault.kind, name):
                        return
                    else:
                        continue
                if not data:
                    chunks.drain()
                    sink.shutdown(socket.SHUT_WR)
                    return
                self._pass(chunks, name, data)
        except OSError:
            pass  # one of the two ends is gone, so is this direction
        finally:
            chunks.close()

    def _pass(self, chunks, name, data):
        self.counts[name] += len(data)
        if self._relay.record:
            self.streams[name] += data
        chunks.send(data)

    def _slow_down(self, fault, chunks):
        self._tell(fault.kind, fault.stream)
        if fault.kind == DRIP:
            chunks.drip = DRIP_PIECE
        else:
            time.sleep(PAUSE_S)

    def _tell(self, kind, name):
        self._relay.note("fault", f"{kind} at byte {self.counts[name]} of the {name}'s stream")

    def act(self, kind, name):
        """Carries a fault out on one side's stream, now; true when that direction ends with it."""
        self.cut.set()
        self._tell(kind, name)
        if kind == FIN:
            self.close()
            return True
        if kind == RST:
            tcp.reset(self.client)
            self.server.close()
            return True
        if kind == HALF_CLOSE:
            self.client.shutdown(socket.SHUT_WR)
        # Half-closed or stalled: the source is drained, so that it does not notice anything.
        self._discard.add(name)
        return False

    def close(self):
        """Closes both connections in good order."""
        for end in (self.client, self.server):
            tcp.hang_up(end)


class _DelayedSink:
    """Sends chunks in order, each `delay` seconds after it came, at once when the delay is 0."""

    def __init__(self, sink, delay, drip):
        self.drip = drip
        self._sink = sink
        self._delay = delay
        self._queue = collections.deque()
        self._changed = threading.Condition()
        self._closed = False
        if delay:
            threading.Thread(target=self._run, daemon=True).start()

    def send(self, data):
        if not self._delay:
            self._send_now(data)
            return
        with self._changed:
            self._queue.append((time.monotonic() + self._delay, data))
            self._changed.notify_all()

    def _send_now(self, data):
        if not self.drip:
            self._sink.sendall(data)
            return
        size, pause = self.drip
        for start in range(0, len(data), size):
            self._sink.sendall(data[start:start + size])
            time.sleep(pause)

    def _run(self):
        try:
            while True:
                with self._changed:
                    self._changed.wait_for(lambda: self._queue or self._closed)
                    if not self._queue:
                        return
                    due, data = self._queue[0]
                time.sleep(max(0.0, due - time.monotonic()))
                self._send_now(data)
                with self._changed:
                    self._queue.popleft()
                    self._changed.notify_all()
        except OSError:
            with self._changed:
                self._closed = True
                self._queue.clear()
                self._changed.notify_all()

    def drain(self):
        """Waits until everything has been sent."""
        if self._delay:
            with self._changed:
                self._changed.wait_for(lambda: not self._queue)

    def close(self):
        with self._changed:
            self._closed = True
            self._changed.notify_all()


class Relay(tcp.TcpServer):
    """Listens on a port of its own and relays each connection to `target_port` of `target_host`.

    `delay` seconds in each direction; `drip` is (bytes, seconds) per piece; `faults` as above, one for each stream of
    a connection. With `record` the bytes of both streams are kept in `connections`. `listen` as for `TcpServer`.
    """

    def __init__(self, target_port, *faults, delay=0.0, drip=None, record=False, target_host="127.0.0.1", **listen):
        self._target = (target_host, target_port)
        self._faults = faults
        self.delay = delay
        self.drip = drip
        self.record = record
        self.connections = []
        super().__init__(**listen)

    def fault_for(self, connection, name):
        """The fault that is planned for one stream of one connection, if any."""
        for fault in self._faults:
            if fault.stream == name and fault.connection in (None, connection.number):
                return fault
        return None

    def _serve(self, client):
        self.note("connection", len(self.connections))
        try:
            server = socket.create_connection(self._target)
        except OSError as error:
            self.note("not connected", str(error))
            client.close()
            return
        server.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection = RelayedConnection(self, len(self.connections), client, server)
        self.connections.append(connection)
        connection.start()

    def _end_connections(self):
        for connection in self.connections:
            connection.close()
