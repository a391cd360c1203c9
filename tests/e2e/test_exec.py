# SPDX-License-Identifier: Apache-2.0
"""Remote commands: their status, their streams, and nothing that hangs, spins or passes for success."""

import hashlib
import re
import threading
import time

import pytest

from harness import network
from harness.places import write
from harness.probe import execute, get
from harness.program import source
from harness.relay import FIN, HALF_CLOSE, RST, STALL, Fault
from harness.sshd import PASSWORD
from harness.waiting import wait_until

CHUNK = 65536
MIB = 1024 * 1024


def counts_in(file):
    """The sizes that the counter was called with."""
    return [int(line) for line in file.read_text().split()]


@pytest.fixture
def files(workspace):
    """Files of this test by name."""
    return lambda name: workspace / name


def test_silent_command_returns_its_status(probe, server):
    assert probe.run(server, execute("true"), execute("exit 7"), execute("exit 255")).statuses == [0, 7, 255]


def test_silent_command_returns_at_once(probe, server):
    run = probe.run(server, *[execute("true")] * 10)
    assert run.statuses == [0] * 10
    assert run.waits_in_vain == 0


def test_both_streams_arrive_complete_and_apart(probe, server, files):
    run = probe.run(server, execute("printf out; printf err >&2; exit 3", out=files("out"), err=files("err")))
    assert run.statuses == [3]
    assert files("out").read_bytes() == b"out"
    assert files("err").read_bytes() == b"err"


@pytest.mark.parametrize("size", [1, CHUNK - 1, CHUNK, CHUNK + 1, 5 * MIB + 1])
def test_output_arrives_in_chunks_that_the_counter_sees(probe, server, files, size):
    content = write(files("content"), (bytes(range(256)) * (size // 256 + 1))[:size])
    run = probe.run(server, execute(f"cat {content}; cat {content} >&2", out=files("out"), err=files("err"),
                                    counts=files("counts")))
    assert run.statuses == [0]
    assert files("out").read_bytes() == content.read_bytes()
    assert files("err").read_bytes() == content.read_bytes()
    counts = counts_in(files("counts"))
    assert sum(counts) == size
    assert 0 < min(counts) and max(counts) <= CHUNK
    assert size <= CHUNK or len(counts) > 1


def test_counter_is_never_called_for_standard_error(probe, server, files):
    run = probe.run(server, execute("head -c 100000 /dev/zero >&2", err=files("err"), counts=files("counts")))
    assert run.statuses == [0]
    assert files("err").stat().st_size == 100000
    assert counts_in(files("counts")) == []


def test_standard_error_alone_does_not_stall(probe, server, files):
    run = probe.run(server, execute("head -c 200000 /dev/zero >&2", err=files("err")))
    assert files("err").stat().st_size == 200000
    assert run.waits_in_vain == 0


def test_much_standard_error_beside_much_standard_output_is_complete_without_stall(probe, server, files):
    command = f"head -c {5 * MIB} /dev/zero & head -c {5 * MIB} /dev/zero >&2; wait"
    run = probe.run(server, execute(command, out=files("out"), err=files("err")))
    assert run.statuses == [0]
    assert files("out").stat().st_size == files("err").stat().st_size == 5 * MIB
    assert run.waits_in_vain == 0


def test_alternating_small_writes_do_not_stall(probe, server, files):
    command = "for i in 1 2 3 4 5 6 7 8 9 10; do echo $i; echo $i >&2; sleep 0.1; done"
    run = probe.run(server, execute(command, out=files("out"), err=files("err")))
    assert files("out").read_text().split() == files("err").read_text().split() == [str(i) for i in range(1, 11)]
    assert run.waits_in_vain == 0


@pytest.mark.parametrize("size", [0, 1, CHUNK - 1, CHUNK, CHUNK + 1, 3 * MIB])
def test_input_arrives_whole(probe, server, files, size):
    content = write(files("content"), (bytes(range(251)) * (size // 251 + 1))[:size])
    run = probe.run(server, execute("md5sum", stdin=content, out=files("out")))
    assert run.statuses == [0]
    assert files("out").read_text().split()[0] == hashlib.md5(content.read_bytes()).hexdigest()


@pytest.mark.parametrize("command, stream", [("cat", "out"), ("cat >&2", "err")])
def test_large_input_that_comes_back_as_output_does_not_deadlock(probe, server, files, command, stream):
    content = write(files("content"), bytes(range(256)) * (10 * MIB // 256))
    run = probe.run(server, execute(command, stdin=content, out=files("out"), err=files("err")))
    assert run.statuses == [0]
    assert files(stream).read_bytes() == content.read_bytes()


def test_large_input_to_a_command_that_does_not_read_it_ends_with_its_status(probe, server, files):
    content = write(files("content"), b"\0" * (30 * MIB))
    run = probe.run(server, execute("exit 9", stdin=content), execute("exit 4"))
    assert run.statuses == [9, 4]


def test_large_input_to_a_command_that_reads_late_arrives_whole(probe, server, files):
    content = write(files("content"), b"\1" * (6 * MIB))
    run = probe.run(server, execute("sleep 2; wc -c", stdin=content, out=files("out")))
    assert run.statuses == [0]
    assert int(files("out").read_text()) == 6 * MIB


def test_input_left_unsent_in_small_socket_buffers_disturbs_no_later_command(probe, server, files):
    content = write(files("content"), b"\2" * (8 * MIB))
    with network.sysctl("net.ipv4.tcp_wmem", "4096 4096 8192"):
        run = probe.run(server, *[operation for status in range(1, 9) for operation in
                                  (execute(f"exit {status}", stdin=content), execute(f"exit {100 + status}"))])
    assert run.statuses == [status for number in range(1, 9) for status in (number, 100 + number)]


def test_command_that_closes_its_output_and_still_reads_gets_all_input(probe, server, files, outbox):
    content = write(files("content"), b"\3" * (5 * MIB))
    run = probe.run(server, execute(f"exec >&- 2>&-; wc -c >{outbox}/count; exit 6", stdin=content))
    assert run.statuses == [6]
    assert int((outbox / "count").read_text()) == 5 * MIB


def test_command_killed_by_a_signal_has_128_plus_its_number(probe, server):
    run = probe.run(server, execute("kill -KILL $$"), execute("kill -TERM $$"), execute("true"))
    assert run.statuses == [137, 143, 0]


@pytest.mark.parametrize("name, status", [("HUP", 129), ("ABRT", 134), ("FPE", 136), ("KILL", 137), ("SEGV", 139),
                                          ("PIPE", 141), ("ALRM", 142), ("TERM", 143), ("STRANGE", 255), ("", 255)])
def test_signal_that_the_server_names_decides_the_status(probe, start_scripted, name, status):
    def run(command):
        command.signal(name)
        command.close()

    assert probe.run(start_scripted(run=run), execute("whatever")).statuses == [status]


def test_status_that_comes_beside_a_signal_counts(probe, start_scripted):
    def run(command):
        command.status(5)
        command.signal("KILL")
        command.close()

    assert probe.run(start_scripted(run=run), execute("whatever")).statuses == [5]


def test_orderly_close_without_status_counts_as_zero(probe, start_scripted):
    def run(command):
        command.out(b"done")
        command.eof()
        command.close()

    assert probe.run(start_scripted(run=run), execute("whatever")).statuses == [0]


def test_refused_command_has_status_255_though_the_channel_stays_open(probe, start_scripted):
    run = probe.run(start_scripted(accepts_exec=lambda command: False), execute("whatever"), execute("again"))
    assert run.statuses == [255, 255]


def test_refused_command_never_counts_as_success(tallowick, start_scripted):
    run = tallowick.run("--send-scout", *source(start_scripted(accepts_exec=lambda command: False)))
    assert run.status == 2
    assert run.session.error().code == "FailedToExecuteScout"
    assert "The return code is 255\n" in run.err


def test_command_longer_than_a_packet_is_refused_not_awaited(probe, server):
    run = probe.run(server, execute("true " + "x" * 40000), execute("exit 3"))
    assert run.statuses == [255, 3]


def test_command_close_to_the_limit_of_a_packet_runs(probe, server, files):
    run = probe.run(server, execute("printf %s " + "y" * 34000, out=files("out")))
    assert run.statuses == [0]
    assert files("out").stat().st_size == 34000


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_connection_lost_while_the_command_is_silent_is_noticed_without_spinning(probe, server, start_relay, kind):
    relay = start_relay(server)

    def hang_up():
        wait_until(server.commands, "the command line")
        time.sleep(0.5)
        relay.connections[0].act(kind, "server")

    threading.Thread(target=hang_up, daemon=True).start()
    run = probe.run(relay, execute("sleep 50"))
    assert run.statuses == ["SshConnectionFault"]
    assert run.results[0].text.strip() == "Lost connection with the remote host"
    assert run.seconds < 30
    assert run.cpu_seconds < 5


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_connection_lost_amid_output_is_an_error(probe, server, start_relay, files, kind):
    relay = start_relay(server, Fault(kind, 2 * MIB))
    run = probe.run(relay, execute("head -c 8000000 /dev/zero", out=files("out")))
    assert run.statuses == ["SshConnectionFault"]
    assert files("out").stat().st_size < 8000000


@pytest.mark.parametrize("kind", [FIN, RST])
def test_connection_lost_amid_input_is_an_error(probe, server, start_relay, files, kind):
    content = write(files("content"), b"\4" * (8 * MIB))
    relay = start_relay(server, Fault(kind, 4 * MIB, stream="client"))
    run = probe.run(relay, execute("cat >/dev/null", stdin=content))
    assert run.statuses[0] in ("StreamWrite", "SshConnectionFault")
    assert run.cpu_seconds < 5


def test_connection_lost_between_output_and_status_is_an_error(probe, start_scripted):
    def run(command):
        command.out(b"all of it")
        command.eof()
        time.sleep(0.3)
        command.drop()

    assert probe.run(start_scripted(run=run), execute("whatever")).statuses == ["SshConnectionFault"]


def test_farewell_of_the_server_amid_a_command_is_a_lost_connection(probe, start_scripted, files):
    def run(command):
        command.out(b"half")
        command.disconnect()

    result = probe.run(start_scripted(run=run), execute("whatever", out=files("out"), counts=files("counts")))
    assert result.statuses == ["SshConnectionFault"]
    assert all(count > 0 for count in counts_in(files("counts")))


def test_counter_never_sees_a_failed_read(probe, start_scripted, files):
    def run(command):
        with command.burst():
            command.out(b"z" * 60000)
            command.drop()

    result = probe.run(start_scripted(run=run), execute("whatever", out=files("out"), counts=files("counts")))
    assert result.statuses == ["SshConnectionFault"]
    counts = counts_in(files("counts"))
    assert all(count > 0 for count in counts)
    assert sum(counts) == files("out").stat().st_size


def test_output_status_close_and_hang_up_in_one_burst_is_whole_or_an_error(probe, start_scripted, files):
    def run(command):
        with command.burst():
            command.out(b"z" * 60000)
            command.eof()
            command.status(0)
            command.close()
            command.drop()

    for _ in range(5):
        result = probe.run(start_scripted(run=run), execute("whatever", out=files("out")))
        assert result.statuses[0] in (0, "SshConnectionFault")
        assert result.statuses[0] != 0 or files("out").read_bytes() == b"z" * 60000


def test_data_that_waits_in_the_library_is_taken_at_once(probe, start_scripted, files):
    # Standard error first: reading it fetches everything else from the socket, which then stays silent.
    def run(command):
        with command.burst():
            for _ in range(8):
                command.err(b"e" * 1000)
                command.out(b"o" * 1000)
        wait_until(lambda: files("counts").exists() and sum(counts_in(files("counts"))) == 8000, "all output")
        command.exit(0)

    result = probe.run(start_scripted(run=run), execute("whatever", out=files("out"), err=files("err"),
                                                        counts=files("counts")))
    assert result.statuses == [0]
    assert files("out").read_bytes() == b"o" * 8000
    assert files("err").read_bytes() == b"e" * 8000
    assert result.waits_in_vain == 0


@pytest.mark.parametrize("stream", [0, 2, 2**31])
def test_data_on_a_third_stream_neither_keeps_a_command_from_its_end_nor_costs_any_of_the_others(
        probe, start_scripted, files, stream):
    def run(command):
        for _ in range(20):
            command.out(b"o" * 5000)
            command.other(stream, b"?" * 50)
            command.err(b"e" * 5000)
        command.other(stream, b"")
        command.eof()
        command.other(stream, b"?")
        command.exit(5)

    result = probe.run(start_scripted(run=run), execute("whatever", out=files("out"), err=files("err")),
                       execute("again"))
    assert result.statuses == [5, 5]
    assert files("out").read_bytes() == b"o" * 100_000
    assert files("err").read_bytes() == b"e" * 100_000
    assert result.waits_in_vain == 0


def test_stalled_line_is_waited_for_without_spinning(probe, server, start_relay):
    # A peer that says nothing may just be busy: the program waits, and waiting costs no processor time.
    relay = start_relay(server, Fault(STALL, 100000))
    with pytest.raises(AssertionError, match="still running"):
        probe.run(relay, execute("head -c 1000000 /dev/zero"), timeout=8)
    assert probe.runs[-1].cpu_seconds < 4


def test_local_sink_that_fails_ends_the_command_without_waiting_for_it(probe, server):
    began = time.monotonic()
    run = probe.run(server, execute("head -c 1000000 /dev/zero; sleep 50", out="/dev/full"), execute("exit 3"))
    assert run.statuses[0] == "StreamWrite"
    assert run.results[0].text.strip() == "Cannot write data to the stream"
    assert time.monotonic() - began < 30


def test_termination_stops_before_the_next_chunk(probe, server, files):
    run = probe.run(server, execute("while head -c 100000 /dev/zero; do :; done", out=files("out"),
                                    counts=files("counts")), options=["--terminate-after-chunks", "3"])
    assert run.results[0].status is None
    assert "Migration has been terminated" in run.stdout.decode()
    assert len(counts_in(files("counts"))) == 3
    assert files("out").stat().st_size == sum(counts_in(files("counts"))[:2])


def test_own_timer_of_ten_milliseconds_changes_no_result(probe, server, files):
    content = write(files("content"), bytes(range(256)) * (3 * MIB // 256))
    operations = [execute("exit 3"), execute("cat", stdin=content, out=files("echo")),
                  get(files("local"), content), execute("sleep 1; exit 4"),
                  execute(f"cat {content} >&2", err=files("err")), execute("exit 9", stdin=content)]
    run = probe.run(server, *operations, options=["--timer-ms", "10"])
    assert run.statuses == [3, 0, 0, 4, 0, 9]
    for name in ("echo", "local", "err"):
        assert files(name).read_bytes() == content.read_bytes()


def test_own_timer_disturbs_neither_a_slow_start_nor_a_second_connection(probe, old_server, start_relay):
    relay = start_relay(old_server, Fault(FIN, 0, connection=0), delay=0.03)
    run = probe.run(relay, execute("exit 3"), execute("exit 4"), options=["--timer-ms", "3"])
    assert run.statuses == [3, 4]


def test_silent_command_calls_the_alarm_at_least_every_five_seconds(probe, server, files):
    run = probe.run(server, execute("sleep 16"), options=["--alarm", str(files("alarms"))])
    assert run.statuses == [0]
    assert 3 <= len(files("alarms").read_text().splitlines()) <= 40
    assert run.cpu_seconds < 5


def test_download_inside_of_the_alarm_works(probe, server, files):
    content = write(files("content"), b"<dumping/>" * 30000)
    run = probe.run(server, execute("for i in 1 2 3; do echo $i; sleep 1; done; exit 6", out=files("out")),
                    options=["--alarm", files("alarms"), "--alarm-get", str(files("fetched")), str(content)])
    assert run.statuses == [6]
    assert files("fetched").read_bytes() == content.read_bytes()
    assert files("out").read_text().split() == ["1", "2", "3"]


def test_loud_command_logs_its_streams_raw(probe, server, files):
    raw = bytes(range(1, 256)) + b"\0 100% %s %1%"
    content = write(files("content"), raw)
    stdin = write(files("stdin"), b"in: " + raw)
    run = probe.run(server, execute(f"cat; cat {content} >&2; cat >/dev/null", stdin=stdin, loud=True))
    assert run.statuses == [0]
    assert b"remote stdin <- in: " + raw in run.log
    assert b"remote stdout -> in: " + raw in run.log
    assert b"remote stderr -> " + raw in run.log


def test_quiet_command_logs_no_byte_of_its_streams(probe, server, files):
    stdin = write(files("stdin"), b"quiet-Input")
    run = probe.run(server, execute("cat; cat /etc/hostname >&2; printf quiet-%s Output", stdin=stdin))
    assert run.statuses == [0]
    for text in (b"quiet-Input", b"quiet-Output", b"remote stdin", b"remote stdout", b"remote stderr"):
        assert text not in run.log


def test_each_command_has_a_channel_of_its_own(probe, server):
    run = probe.run(server, execute("exit 1"), execute("exit 2"))
    log = run.log.decode()
    steps = re.findall(r"Opening SSH channel for command '([^']*)'|(Closed)|return code (\d+)|Executing (.*) on", log)
    assert [next(filter(None, step)) for step in steps] == [
        "exit 1", "exit 1", "1", "Closed", "exit 2", "exit 2", "2", "Closed"]


def test_output_over_a_line_of_fifty_milliseconds_arrives(probe, server, start_relay, files):
    relay = start_relay(server, delay=0.025)
    content = write(files("content"), bytes(range(256)) * (2 * MIB // 256))
    run = probe.run(relay, get(files("local"), content), execute("md5sum", stdin=content, out=files("sum")))
    assert run.statuses == [0, 0]
    assert files("local").read_bytes() == content.read_bytes()
    assert files("sum").read_text().split()[0] == hashlib.md5(content.read_bytes()).hexdigest()


def test_noise_of_the_login_shell_is_passed_on_as_it_is(probe, start_sshd, files):
    server = start_sshd(PASSWORD, shell_lines="echo noise; echo more >&2")
    run = probe.run(server, execute("echo text; exit 3", out=files("out"), err=files("err")))
    assert run.statuses == [3]
    assert files("out").read_text() == "noise\ntext\n"
    assert files("err").read_text() == "more\n"
