# SPDX-License-Identifier: Apache-2.0
"""Finding the source host and connecting to it: each way to fail has its own status and text."""

import socket
import threading

import pytest

from harness import network
from harness.product import SMALL_REPORT
from harness.program import source
from harness.relay import FIN, HALF_CLOSE, RST, Fault
from harness.sshd import free_port


def assert_failed(run, status, code, text):
    """The run ended with one tagged error, told everywhere."""
    assert run.status == status
    assert run.err == text
    error = run.session.error()
    assert (error.code, error.description) == (code, text)
    assert run.session.succeeded() == "error"


def log_of(run, category):
    return [(record.level, record.text) for record in run.session.records if record.category == category]


def test_refused_connection_is_status_11(tallowick):
    port = free_port()
    run = tallowick.run("--send-scout", *source(port))
    assert_failed(run, 11, "ConnectionRefused", "No one listening on the remote address at host 127.0.0.1")
    assert log_of(run, "k.libssh2pp.Socket") == [
        ("DEBUG", f"Connecting to 127.0.0.1:{port}\n"),
        ("ERROR", "Resolving 127.0.0.1"),
        ("ERROR", f"Unable to open socket to 127.0.0.1:{port}: Connection refused\n")]


def test_connection_that_nobody_answers_is_status_12(tallowick):
    with network.sysctl("net.ipv4.tcp_syn_retries", 1), network.port_that_never_answers() as port:
        run = tallowick.run("--send-scout", *source(port))
    assert_failed(run, 12, "ConnectionTimedOut", "Timeout while attempting connection to host 127.0.0.1")
    assert ("ERROR", f"Unable to open socket to 127.0.0.1:{port}: Connection timed out\n") in \
        log_of(run, "k.libssh2pp.Socket")


def test_network_without_route_is_status_13(tallowick):
    run = tallowick.run("--send-scout", *source(22, host=network.NO_ROUTE))
    assert_failed(run, 13, "NetworkUnreachable", f"Specified network host {network.NO_ROUTE} is unreachable")


def test_host_without_route_is_status_14(tallowick):
    with network.route("unreachable", network.UNREACHABLE_HOST) as host:
        run = tallowick.run("--send-scout", *source(22, host=host))
    assert_failed(run, 14, "HostUnreachable", f"No route to host {host}")


def test_any_other_connect_failure_is_status_15(tallowick):
    with network.route("prohibit", network.PROHIBITED) as host:
        run = tallowick.run("--send-scout", *source(22, host=host))
    assert_failed(run, 15, "ConnectionFault", f"Unable to connect to host {host}: Permission denied")
    assert ("ERROR", f"Unable to open socket to {host}:22: Permission denied\n") in log_of(run, "k.libssh2pp.Socket")


def test_host_name_that_does_not_resolve_is_status_16(tallowick):
    with pytest.raises(socket.gaierror) as resolver:
        socket.getaddrinfo("nowhere.invalid", "22")
    text = resolver.value.strerror
    run = tallowick.run("--send-scout", *source(22, host="nowhere.invalid"))
    assert_failed(run, 16, "HostNotFound", f"Unable to resolve hostname nowhere.invalid: {text}")
    assert log_of(run, "k.libssh2pp.Socket") == [
        ("DEBUG", "Connecting to nowhere.invalid:22\n"),
        ("ERROR", "Resolving nowhere.invalid"),
        ("ERROR", f"Unable to resolve nowhere.invalid: {text}")]


def test_resolving_is_logged_at_error_level_even_on_success(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert log_of(run, "k.libssh2pp.Socket") == [
        ("DEBUG", f"Connecting to 127.0.0.1:{server.port}\n"),
        ("ERROR", "Resolving 127.0.0.1"),
        ("DEBUG", "Connected")]


def test_port_22_is_used_when_none_is_given(tallowick, start_sshd):
    server = start_sshd(address="127.0.0.22", port=22)
    run = tallowick.run("--send-scout", "--host=127.0.0.22", "--login=mover")
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT
    assert server.commands()


def addresses(name):
    return [entry[4][0] for entry in socket.getaddrinfo(name, "22", type=socket.SOCK_STREAM)]


def test_only_the_first_address_of_a_host_is_tried(tallowick, start_sshd):
    with network.hosts("127.0.0.31 twice.example", "127.0.0.32 twice.example"):
        first, second = addresses("twice.example")
        server = start_sshd(address=second)
        run = tallowick.run("--send-scout", *source(server, host="twice.example"))
        assert_failed(run, 11, "ConnectionRefused", "No one listening on the remote address at host twice.example")
        assert server.commands() == []

        server = start_sshd(address=first)
        assert tallowick.run("--send-scout", *source(server, host="twice.example")).status == 0


def test_host_may_be_an_ipv6_address(tallowick, start_sshd):
    server = start_sshd(address="::1")
    assert tallowick.run("--send-scout", *source(server, host="::1")).status == 0


def test_host_may_be_a_name(tallowick, server):
    with network.hosts("127.0.0.1 src.example"):
        assert tallowick.run("--send-scout", *source(server, host="src.example")).status == 0


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_server_that_hangs_up_before_its_greeting_fails_both_starts(tallowick, server, start_relay, kind):
    relay = start_relay(server, Fault(kind, 0))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"
    assert run.err.startswith("Unable to start SSH session: ")
    assert len(relay.connections) == 2
    assert run.seconds < 20


def test_server_that_does_not_speak_ssh_fails_both_starts(tallowick):
    greetings = []
    listener = socket.create_server(("127.0.0.1", 0))

    def answer():
        for _ in range(2):
            client, _ = listener.accept()
            client.sendall(b"HTTP/1.0 400 Bad Request\r\n\r\n")
            client.close()
            greetings.append(client)

    threading.Thread(target=answer, daemon=True).start()
    run = tallowick.run("--send-scout", *source(listener.getsockname()[1]))
    listener.close()
    assert run.status == 2
    assert run.session.error().code == "UnableToStartSshSession"
    assert len(greetings) == 2


def test_slow_line_with_small_pieces_changes_nothing(tallowick, server, start_relay):
    relay = start_relay(server, delay=0.02, drip=(100, 0.001))
    run = tallowick.run("--send-scout", *source(relay))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT


def test_connection_is_made_only_once(tallowick, server, start_relay):
    relay = start_relay(server)
    assert tallowick.run("--send-scout", *source(relay)).status == 0
    assert len(relay.connections) == 1


def test_no_delay_that_the_network_does_not_cause(probe, server, workspace):
    # Each command tells when it ran. Waiting for acknowledgements costs 40 ms and more in every single one.
    moments = workspace / "moments"
    operations = []
    for number in range(30):
        operations.append(["--out", f"{moments}-{number}", "exec", "date +%s%N"])
    run = probe.run(server, *operations)
    assert run.statuses == [0] * 30
    times = [int((moments.parent / f"moments-{number}").read_text()) for number in range(30)]
    gaps = [(later - earlier) / 1e6 for earlier, later in zip(times, times[1:])]
    assert min(gaps) < 25, gaps
