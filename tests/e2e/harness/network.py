# SPDX-License-Identifier: Apache-2.0
"""Changes to the sandbox's own network, each undone at the end of its scope."""

import contextlib
import pathlib
import socket
import subprocess

# From the ranges for documentation; no packet to them leaves the sandbox.
NO_ROUTE = "198.51.100.1"
UNREACHABLE_HOST = "192.0.2.1"
PROHIBITED = "192.0.2.2"


def _ip(*words):
    subprocess.run(["ip", *words], check=True, stdin=subprocess.DEVNULL)


@contextlib.contextmanager
def route(kind, address):
    """A route of `kind` ("unreachable", "prohibit", …) to one address."""
    _ip("route", "add", kind, f"{address}/32")
    try:
        yield address
    finally:
        _ip("route", "del", kind, f"{address}/32")


@contextlib.contextmanager
def sysctl(name, value):
    """A kernel setting of this network, "net.ipv4.tcp_syn_retries" for one."""
    file = pathlib.Path("/proc/sys") / name.replace(".", "/")
    before = file.read_text(encoding="ascii")
    file.write_text(str(value), encoding="ascii")
    try:
        yield
    finally:
        file.write_text(before, encoding="ascii")


@contextlib.contextmanager
def hosts(*lines):
    """Further lines of /etc/hosts."""
    file = pathlib.Path("/etc/hosts")
    before = file.read_text(encoding="ascii")
    file.write_text(before.rstrip("\n") + "\n" + "\n".join(lines) + "\n", encoding="ascii")
    try:
        yield
    finally:
        file.write_text(before, encoding="ascii")


@contextlib.contextmanager
def port_that_never_answers():
    """A port whose queue of connections is full, so that the kernel drops every further request to connect."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(0)
    port = listener.getsockname()[1]
    waiting = []
    try:
        while True:
            client = socket.socket()
            client.settimeout(0.5)
            waiting.append(client)
            client.connect(("127.0.0.1", port))
    except TimeoutError:
        yield port
    finally:
        for each in [*waiting, listener]:
            each.close()
