# SPDX-License-Identifier: Apache-2.0
"""What scripts/bench makes of its measurements: a wrong ratio or a target that nobody looks at would not show."""

import json
import os
import pathlib
import re
import subprocess
import sys
from xml.etree import ElementTree

import pytest

_TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(_TOP / "bench"), str(_TOP / "tests" / "e2e")]

# pylint: disable=wrong-import-position
import bench
import command_lines
import counting
import figures
import plot
import report
from figures import GIB, MIB, Peer, Result, Sample
from rows import Bench, Row, processor_times, stolen_share
from targets import Targets


def peer(*seconds, units=1.0, cpu=0.0, peak_kib=0, list_bytes=0):
    return Peer([Sample(each, units, cpu, peak_kib) for each in seconds], list_bytes)


def results(**rows):
    """Rows by their names, "_" for "-", each a dictionary of peers."""
    return {name.replace("_", "-"): Result(peers) for name, peers in rows.items()}


def check(measured, work, what):
    found = [each for each in Targets(measured).checks() if each.work == work and each.what == what]
    assert len(found) == 1
    return found[0]


# ---- Figures ----

def test_cost_is_the_median_of_what_a_unit_takes():
    assert peer(9.0, 1.0, 2.0, units=2).cost() == 1.0
    assert peer(9.0, 1.0, 2.0, units=2).seconds() == 2.0


def test_peak_is_that_of_the_worst_run():
    assert Peer([Sample(1, peak_kib=5), Sample(1, peak_kib=7)]).peak_bytes() == 7 * 1024


def test_results_survive_being_written():
    measured = results(one_file={"tallowick": peer(1.5, 2.5, units=3, cpu=0.25, peak_kib=9, list_bytes=11)})
    measured["one-file"].taken = "at noon"
    assert figures.from_json(figures.to_json(measured)) == measured


@pytest.mark.parametrize("value, text", [
    (0, "0"), (1234.5, "1234"), (123456.0, "123456"), (12.345, "12.3"), (0.012345, "0.0123"), (1e-5, "0.00001"),
    (1000.0, "1000"), (99999.6, "100000")])
def test_numbers_have_no_exponent(value, text):
    assert figures.rounded(value) == text


def test_table_has_a_cell_for_each_column():
    assert figures.table(["a", "b"], [["1", "2"]]) == "| a | b |\n|---|---:|\n| 1 | 2 |\n"


# ---- Judging ----

@pytest.mark.parametrize("ours, holds", [(1.0, True), (1.10, True), (1.11, False)])
def test_time_may_exceed_the_floor_by_a_tenth(ours, holds):
    measured = results(commands={"tallowick": peer(ours), "floor": peer(1.0)})
    found = check(measured, "one remote `true` on an open connection, 0 ms", "time / floor")
    assert (found.ratio, found.holds()) == (ours, holds)


@pytest.mark.parametrize("ours, holds", [(2.0, True), (1.0, True), (5.0, False)])
def test_rate_is_compared_with_the_best_of_the_others(ours, holds):
    measured = results(one_file_50={"tallowick": peer(ours), "ssh cat": peer(4.0), "scp": peer(2.0), "sftp": peer(3.0),
                                    "rsync": peer(9.0), "ssh cat, aes128-gcm": peer(0.1)})
    found = check(measured, "one file, 50 ms", "rate / best of OpenSSH and rsync")
    assert (found.ratio, found.holds()) == (2.0 / ours, holds)


def test_different_numbers_of_files_are_compared_by_the_file():
    measured = results(small_files={"tallowick": peer(10.0, units=1000), "ssh, multiplexed": peer(3.0, units=100)})
    assert check(measured, "small files fetched and removed, 0 ms", "rate / ssh, multiplexed").ratio == pytest.approx(3)


def test_sums_are_compared_with_the_floor_that_sums():
    measured = results(one_file={"tallowick": peer(9.0), "tallowick, MD5 sums": peer(4.0), "floor, saves": peer(3.0),
                                 "floor, saves, MD5": peer(4.0)})
    assert check(measured, "one file with MD5 sums, 0 ms, tmpfs", "time / floor, saves, MD5").holds()
    assert not check(measured, "one file, 0 ms, tmpfs", "time / floor, saves").holds()


def test_processor_time_is_judged_by_itself():
    measured = results(one_file={"tallowick": peer(1.0, cpu=3.0), "floor, saves": peer(9.0, cpu=2.0)})
    assert check(measured, "client CPU per GiB, tmpfs", "CPU / floor, saves").ratio == 1.5


def test_long_content_list_widens_the_limit_on_memory():
    for list_bytes, ratio in ((0, 2.0), (32 * MIB // 12, 1.0)):
        measured = results(small_files={"tallowick": peer(1.0, peak_kib=64 * 1024, list_bytes=list_bytes)})
        (found,) = [each for each in Targets(measured).checks() if each.work.startswith("peak RSS")]
        assert found.ratio == pytest.approx(ratio, rel=1e-5)


def test_memory_of_the_worst_row_counts_and_that_of_others_does_not():
    measured = results(one_file={"tallowick, MD5 sums": peer(1.0, peak_kib=48 * 1024), "rsync": peer(1.0, peak_kib=1 << 20)},
                       start={"tallowick --help": peer(1.0, peak_kib=7)}, small_files={"tallowick": peer(1.0, peak_kib=9)})
    (found,) = [each for each in Targets(measured).checks() if each.work.startswith("peak RSS")]
    assert found.ratio == 1.5


def test_growth_compares_what_a_further_file_costs():
    measured = {f"growth-files-{count}": Result({"tallowick": peer(seconds)})
                for count, seconds in ((10, 1.0), (1000, 1.0 + 990 * 0.01), (20000, 10.9 + 19000 * 0.02))}
    (found,) = [each for each in Targets(measured).checks() if each.work.startswith("cost of a further file")]
    assert found.ratio == pytest.approx(2.0)
    assert not found.holds()


def test_what_was_not_measured_neither_holds_nor_fails():
    checks = Targets({}).checks()
    assert {each.holds() for each in checks} == {None}
    assert report.targets_table(checks).count("not measured") == len(checks)


def test_every_row_that_is_judged_is_one_that_is_measured():
    """A row by a wrong name would be "not measured" for ever."""
    names = set(re.findall(r'"((?:commands|connect|one-file|small-files|deploy|start|growth-files|growth-bytes)[-\w]*)"',
                           (_TOP / "bench" / "targets.py").read_text(encoding="utf-8")))
    listed = subprocess.run([_TOP / "scripts/sandbox", "/usr/bin/python3", "-B", _TOP / "bench/bench.py", "--list"],
                            capture_output=True, text=True, check=True, stdin=subprocess.DEVNULL).stdout
    rows = {line.split()[0] for line in listed.splitlines()}
    assert len(names) > 10
    assert {name for name in names if name not in rows} == {"growth-files", "growth-bytes"}
    for size in (10, 1000, 20000):
        assert f"growth-files-{size}" in rows
    for size in (1, 1024, 8192):
        assert f"growth-bytes-{size * MIB}" in rows


# ---- The plan of the floor ----

_STAMP = "2026-01-01 10:00:00,123 DEBUG k.Ssh: "


def test_floor_sends_what_the_log_tells_and_moves_the_same_files():
    agent = command_lines.AGENT_DIR
    log = "\n".join(_STAMP + text for text in (
        "Executing sh -c cd\\ x\\;\\ sh\\ run.sh on the remote host",
        f"remote stdout -> <contentlist>\nExecuting nothing on the remote host\n{_STAMP}Execution finished with return code 0",
        f"Reading data from the remote file {agent}/content/1", "Executing cat 1 on the remote host",
        "Executing rm 1 on the remote host", "Writing file /here/a b to the remote host",
        "Writing data to the remote file /there", "Executing cat > /there on the remote host"))
    log += "\n" + _STAMP.replace("k.Ssh", "k.Other") + "Executing it on the remote host\n"
    assert command_lines.plan_of(log, "/target").splitlines() == [
        "exec\tsh -c cd\\ x\\;\\ sh\\ run.sh", "get\tcat 1\t/target/content/1", "exec\trm 1", "put\tcat > /there\t/here/a b"]


def test_log_without_commands_is_no_plan():
    with pytest.raises(AssertionError):
        command_lines.plan_of(_STAMP + "Connecting\n", "/target")


# ---- Counts ----

def test_counts_survive_being_kept():
    counts = {"save": 47454.18, "quote": 51.14}
    assert counting.read(counting.written(counts)) == counts


@pytest.mark.parametrize("now, told", [(1000, False), (1029, False), (971, False), (1031, True), (969, True)])
def test_count_that_differs_by_more_than_three_percent_is_told(now, told):
    assert bool(counting.changes({"save": 1000.0}, {"save": now})) == told


def test_work_without_a_kept_count_is_told():
    assert counting.changes({}, {"save": 1.0})


def test_kept_counts_are_of_all_works():
    assert set(counting.read(counting.KEPT.read_text(encoding="utf-8"))) == set(counting.WORKS) == set(counting.MEANING)


def test_instructions_are_the_total_of_what_callgrind_writes():
    assert counting.total_of("events: Ir\nfn=(1) main\n16 5\nsummary: 1234\ntotals: 99\n") == 1234
    with pytest.raises(ValueError):
        counting.total_of("events: Ir\n")


# ---- Circumstances ----

def test_stolen_share_is_of_all_the_time_that_has_passed():
    assert stolen_share([1, 1, 1, 1, 1, 1, 1, 1], [11, 11, 11, 31, 11, 11, 11, 11]) == 0.1


def test_kernel_tells_what_the_processors_have_done():
    assert len(processor_times()) == 8


def test_rows_measured_again_take_the_place_of_the_kept_ones(tmp_path, monkeypatch):
    monkeypatch.setattr(bench, "_HERE", tmp_path)
    monkeypatch.setattr(bench, "_TOP", tmp_path.parent)
    table = [_row("one-file"), _row("deploy")]
    first = results(one_file={"scp": peer(7.0)}, deploy={"scp": peer(5.0)})
    first["deploy"].taken = "first"
    again = results(one_file={"scp": peer(3.0)}, deploy={"scp": peer(9.0)})
    again["one-file"].taken = "at noon"  # the other one was broken off
    bench._write(tmp_path, table, first, {"save": 1.0}, "Setting.")
    bench._put_into_kept(table, again, {"save": 2.0})
    text = (tmp_path / "RESULTS.md").read_text(encoding="utf-8")
    assert "Setting." in text and "Taken at noon." in text and "Taken first." in text
    kept = figures.from_json(json.loads((tmp_path / "results.json").read_text(encoding="utf-8"))["rows"])
    assert {name: result.cost("scp") for name, result in kept.items()} == {"one-file": 3.0, "deploy": 5.0}


def test_rows_are_not_measured_for_results_that_are_not_there(tmp_path, monkeypatch, capsys):
    monkeypatch.setattr(bench, "_HERE", tmp_path)
    monkeypatch.setattr(bench, "Bench", lambda *_: _Rows())
    monkeypatch.setattr(bench, "BASE", tmp_path / "base")
    assert bench.main(["one-file", "--keep"]) == 2
    assert "nothing to put rows into" in capsys.readouterr().err


def test_quick_measurements_are_not_kept(capsys):
    with pytest.raises(SystemExit):
        bench._parse(["quick", "one-file", "--keep"])
    assert "not kept" in capsys.readouterr().err


def test_row_that_there_is_too_little_memory_for_has_no_result():
    measuring = Bench.__new__(Bench)
    measuring.results = {}
    measuring.measure(Row("growth-bytes-1", "Too large", lambda name: None, 1))
    assert not measuring.results
    measuring.measure(Row("start", "Start", lambda name: measuring.results.update({name: Result()}), 1))
    assert "stolen" in measuring.results["start"].taken


def test_interruption_does_not_cost_what_was_measured_before_it(tmp_path, monkeypatch):
    measuring = _Interrupted()
    monkeypatch.setattr(bench, "_OUT", tmp_path)
    monkeypatch.setattr(bench, "BASE", tmp_path / "base")
    monkeypatch.setattr(bench, "Bench", lambda *_: measuring)
    monkeypatch.setattr(bench, "Hosts", lambda *_: measuring)
    with pytest.raises(KeyboardInterrupt):
        bench.main(["one-file", "deploy"])
    assert measuring.is_stopped
    kept = figures.from_json(json.loads((tmp_path / "results.json").read_text(encoding="utf-8"))["rows"])
    assert kept["one-file"].cost("scp") == 7.0


# ---- The picture ----

def test_picture_has_each_point_in_its_place():
    chart = plot.Chart("A & B", "x", "y")
    for x, y in ((10, 1.0), (1000, 100.0)):
        chart.add("<ours>", x, y)
        chart.add("flat", x, 10.0)
    root = ElementTree.fromstring(plot.svg([chart]))
    circles = [(float(each.get("cx")), float(each.get("cy"))) for each in root.iter("{http://www.w3.org/2000/svg}circle")]
    (_, middle), (_, other), (left, low), (right, high) = circles
    assert left < right and low > high
    assert middle == other == pytest.approx((low + high) / 2, abs=0.1)
    texts = {each.text for each in root.iter("{http://www.w3.org/2000/svg}text")}
    assert {"A & B", "<ours>", "flat", "10", "100", "1000"} <= texts


def test_round_trips_are_at_even_distances_from_zero_on():
    chart = plot.Chart("", "", "", logarithmic=False)
    for x in (0, 10, 50):
        chart.add("ours", x, 2.0)
    root = ElementTree.fromstring(plot.svg([chart]))
    first, second, third = [float(each.get("cx")) for each in root.iter("{http://www.w3.org/2000/svg}circle")]
    assert (third - first) / (second - first) == pytest.approx(5, abs=0.01)


def test_labels_do_not_touch_and_keep_their_order():
    assert plot.spread([10.0, 50.0], 15) == [10.0, 50.0]
    places = plot.spread([12.0, 10.0, 11.0, 100.0], 15)
    assert [places[1], places[2], places[0]] == [pytest.approx(-4.0), pytest.approx(11.0), pytest.approx(26.0)]
    assert places[3] == 100.0
    places = sorted(plot.spread([0.0, 1.0, 16.0, 17.0, 18.0], 15))
    assert min(after - before for before, after in zip(places, places[1:])) >= 15 - 1e-9


# ---- The document ----

def _row(name):
    return Row(name, f"Title of {name}", None, 1)


class _Rows:
    """Rows that nobody measures."""

    @staticmethod
    def rows():
        return [_row("one-file")]


class _Interrupted:
    """Measures one row; the next one is interrupted. Stands for the hosts too."""

    def __init__(self):
        self.results = {}
        self.is_stopped = False

    @staticmethod
    def rows():
        return [_row(name) for name in ("one-file", "deploy")]

    @staticmethod
    def congestion_control():
        return "none"

    def measure(self, row):
        if self.results:
            raise KeyboardInterrupt
        self.results[row.name] = Result({"scp": peer(7.0)})

    def stop(self):
        self.is_stopped = True


def test_document_has_all_that_was_measured():
    measured = results(one_file={"tallowick": peer(2.0, units=0.5, cpu=1.0, peak_kib=2048), "scp": peer(1.0, units=0.5)},
                       small_files={"tallowick": peer(4.0, units=100), "floor": peer(4.0, units=100)})
    text = report.document([_row("one-file"), _row("small-files"), _row("deploy")], measured, {"save": 47454.0}, "Setting.")
    assert "| tallowick | 1 | 512 | 2 | 268 | 1.00 | 2 | 2.0 |" in text
    assert "| scp | 1 | 512 | 1 | 537 | 0.50 |  |  |" in text
    assert "| tallowick | 1 | 100 | 4 | 40 | 1.00 |  |  |" in text
    assert "| one save of the status document | 47454 |" in text
    assert "Title of deploy" not in text
    assert GIB / 1e6 / 4 == pytest.approx(268, abs=1)


def test_picture_is_of_what_has_more_than_one_point():
    one = results(one_file={"tallowick": peer(1.0)})
    assert report.picture(one) is None
    both = {**one, **results(one_file_50={"tallowick": peer(9.0), "scp": peer(1.0)})}
    assert report.picture(both).count("<g ") == 1


# ---- Where it cannot be measured ----

def test_machine_that_permits_no_tun_devices_is_told_and_nothing_is_measured():
    text = ('mkdir -p /run/bare && mount -t tmpfs none /run/bare && mkdir /run/bare/net && '
            'mount --bind /run/bare/net /dev/net && exec /usr/bin/python3 -B "$1/bench/bench.py" commands')
    ended = subprocess.run([_TOP / "scripts/sandbox", "sh", "-c", text, "sh", str(_TOP)], capture_output=True, text=True,
                           check=False, stdin=subprocess.DEVNULL)
    assert ended.returncode == 2, ended.stderr
    assert "does not permit what the measurement needs" in ended.stderr
    assert os.sep + "dev" in ended.stderr
