# SPDX-License-Identifier: Apache-2.0
"""What all servers of the tests share: a port, a thread that accepts, and two ways to end a connection."""

import ctypes
import socket
import struct
import threading


class TcpServer:
    """Listens on a port of its own and serves each connection, from construction until `stop()`.

    A subclass has `_serve(client)`, called in the thread that accepts, and `_end_connections()`. The first may be
    called before the constructor returns, so a subclass calls that at the end of its own. `events` are pairs of what
    happened and its detail; `on_event`, if any, is called with each as it happens.
    """

    def __init__(self, address="127.0.0.1", port=0, on_event=None):
        self.events = []
        self._on_event = on_event
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self._listener = socket.create_server((address, port), family=family, backlog=100)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def note(self, what, detail):
        """Adds to the events."""
        self.events.append((what, detail))
        if self._on_event:
            self._on_event(what, detail)

    def details(self, what):
        """The details of every event of one kind, in their order."""
        return [detail for name, detail in self.events if name == what]

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return  # closed
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._serve(client)

    def _serve(self, client):
        raise NotImplementedError

    def _end_connections(self):
        raise NotImplementedError

    def stop(self):
        """Ends the server and every connection that is still open."""
        # A blocked accept() is woken by shutdown, not by close.
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._end_connections()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def greets(address, port):
    """Whether an SSH server is there."""
    try:
        with socket.create_connection((address, port), timeout=5) as client:
            return client.recv(4) == b"SSH-"
    except OSError:
        return False


def hang_up(end):
    """Closes a connection in good order."""
    try:
        end.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass  # not connected any more


def reset(end):
    """Ends a connection with RST. A close alone would wait for the thread that sits in recv()."""
    end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    # connect() to AF_UNSPEC sends the RST at once, whoever else still uses the descriptor; Python's own
    # connect cannot express it.
    address = struct.pack("H14x", socket.AF_UNSPEC)
    ctypes.CDLL(None).connect(end.fileno(), address, len(address))
