# SPDX-License-Identifier: Apache-2.0
"""What scripts/bench runs in the sandbox. Ends with 1 when a target is missed or a count has changed, with 2 when it
cannot measure."""

import argparse
import json
import pathlib
import shutil
import subprocess
import sys
import time

_HERE = pathlib.Path(__file__).resolve().parent
_TOP = _HERE.parent
sys.path[:0] = [str(_HERE), str(_TOP / "tests" / "e2e")]

# pylint: disable=wrong-import-position
import counting
import figures
import report
from hosts import BASE, Hosts, NotPermitted
from rows import Bench
from targets import Targets

_RELEASE = _TOP / "build" / "release"
_OUT = _TOP / "build" / "bench"
_COUNTS = "counts"
_PLAIN = "results.json"


def _tell(text):
    print(text, flush=True)


def _parse(arguments):
    parser = argparse.ArgumentParser(prog="scripts/bench", usage="scripts/bench [quick] [ROW...] [--keep]")
    parser.add_argument("words", nargs="*")
    parser.add_argument("--keep", action="store_true",
                        help="keep the counts of instructions for later runs to compare with, and put rows in the place of "
                             "those in bench/RESULTS.md")
    parser.add_argument("--list", action="store_true", help="print the names of the rows")
    options = parser.parse_args(arguments)
    options.quick = "quick" in options.words
    options.names = [word for word in options.words if word != "quick"]
    if options.quick and options.keep:
        parser.error("what is measured quickly is not kept")
    return options


def _wanted(options, rows):
    known = [row.name for row in rows] + [_COUNTS]
    unknown = [name for name in options.names if name not in known]
    if unknown:
        raise SystemExit(f"bench: no such row: {' '.join(unknown)}\nrows: {' '.join(known)}")
    return [row for row in rows if (row.name in options.names if options.names else True)
            and (not options.quick or row.quick_minutes is not None or row.name in options.names)]


def _measure(bench, rows, quick):
    """Measures the rows and returns what went wrong; one that cannot be measured does not cost the others."""
    minutes = sum(row.quick_minutes or row.minutes if quick else row.minutes for row in rows)
    _tell(f"{len(rows)} rows, about {max(1, round(minutes))} minutes")
    failures = []
    for row in rows:
        _tell(f"{row.title} ({row.name})")
        try:
            bench.measure(row)
        except (AssertionError, OSError, subprocess.SubprocessError) as error:
            failures.append(f"failed: {row.name}: {error}")
            _tell(f"    {error}")
    return failures


def _count(options):
    """The counts, and what has changed."""
    _tell("Instructions (counts)")
    counts = counting.count(_RELEASE / "bench" / "counts")
    for work, value in counts.items():
        _tell(f"    {counting.MEANING[work]}: {value:.2f}")
    kept = counting.kept()
    if options.keep:
        counting.KEPT.write_text(counting.written(counts), encoding="utf-8")
        return counts, []
    return counts, [f"changed: {change}" for change in counting.changes(kept, counts)]


def _write(directory, rows, results, counts, setting):
    """All that `results` have, as a document, a picture and plain numbers."""
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "RESULTS.md").write_text(report.document(rows, results, counts, setting), encoding="utf-8")
    if picture := report.picture(results):
        (directory / report.PICTURE).write_text(picture, encoding="utf-8")
    _write_plain(directory, results, setting)
    _tell(f"written: {directory.relative_to(_TOP)}/RESULTS.md")


def _write_plain(directory, results, setting):
    """All single measurements."""
    plain = {"setting": setting, "rows": figures.to_json(results)}
    (directory / _PLAIN).write_text(json.dumps(plain) + "\n", encoding="utf-8")


def _put_into_kept(rows, results, counts):
    """Puts rows that were measured to their end in the place of the kept ones."""
    kept = json.loads((_HERE / _PLAIN).read_text(encoding="utf-8"))
    measured = {name: result for name, result in results.items() if result.taken}
    _write(_HERE, rows, {**figures.from_json(kept["rows"]), **measured}, counts, kept["setting"])


def _judge(results, whole):
    """Prints what was measured of the targets and returns what does not hold; after a whole run nothing may be missing."""
    checks = [check for check in Targets(results).checks() if whole or check.ratio is not None]
    if checks:
        _tell(report.targets_table(checks))
    return [f"not measured: {check.work}: {check.what}" if check.ratio is None else
            f"missed: {check.work}: {check.what} {check.ratio:.2f}, {check.sense} {check.bound:.2f}"
            for check in checks if not check.holds()]


def main(arguments):
    """Measures what the arguments ask for."""
    options = _parse(arguments)
    began = time.monotonic()
    _OUT.mkdir(parents=True, exist_ok=True)
    disk = _OUT / "disk"
    BASE.mkdir(exist_ok=True)
    bench = Bench(_RELEASE / "tallowick", _RELEASE / "bench", disk, options.quick, _tell)
    if options.list:
        for row in bench.rows():
            _tell(f"{row.name:24} {row.title}")
        return 0
    rows = _wanted(options, bench.rows())
    whole = not options.quick and not options.names
    is_put = options.keep and bool(rows) and not whole
    if is_put and not (_HERE / _PLAIN).exists():
        print(f"bench: --keep has nothing to put rows into: bench/{_PLAIN} is left by a whole run", file=sys.stderr)
        return 2
    counts, facts, findings = {}, [], []
    if not options.names or _COUNTS in options.names:
        counts, findings = _count(options)
    if rows:
        try:
            hosts = Hosts(_RELEASE / "bench")
        except NotPermitted as error:
            print(f"bench: this machine does not permit what the measurement needs: {error}", file=sys.stderr)
            return 2
        try:
            facts.append(f"TCP with {hosts.congestion_control()}")
            findings += _measure(bench, rows, options.quick)
        except BaseException:  # not even an interruption costs what was measured before it
            _write_plain(_OUT, bench.results, "broken off")
            raise
        finally:
            hosts.stop()
            shutil.rmtree(disk, ignore_errors=True)
    form = "whole run" if whole else "quick run" if options.quick else "single rows"
    if bench.known_read_size:
        facts.append(f"downloads with {bench.known_read_size} bytes under way at the most")
    setting = report.setting_of(time.monotonic() - began, form, facts)
    if is_put:
        _put_into_kept(bench.rows(), bench.results, counts or counting.kept())
    else:
        _write(_HERE if whole else _OUT, bench.rows(), bench.results, counts, setting)
    findings += _judge(bench.results, whole)
    for finding in findings:
        _tell(finding)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
