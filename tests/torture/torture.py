# SPDX-License-Identifier: Apache-2.0
"""Lets every call of every action fail, one in each run; see README.md. Started by scripts/torture."""

import argparse
import collections
import concurrent.futures
import contextlib
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import textwrap
import threading
import time
from dataclasses import dataclass, field

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

# pylint: disable=wrong-import-position
from cases import CASES, install_product, make_case, start_servers
from harness import accounts, sshd
from harness.places import BASE, make_dir, remove_tree
from harness.processes import finish
from harness.product import configure
from harness.program import environment
from harness.session import Session
from judging import KINDS, complaints, findings, recovery_findings

BUILD = ROOT / "build"
# Copies, which no build replaces meanwhile.
PROGRAM = BASE / "tallowick"  # the one in which a call fails: the sanitizers watch it
RECOVERING_PROGRAM = BASE / "tallowick-release"
LIBRARY = BASE / "failing_calls.so"
DELIBERATE_FAULTS = BASE / "deliberate_faults"
# Of the sanitizers, AddressSanitizer would have its library first, but what is to fail has to stand before it. The
# status for leaks is that for everything else that it finds; it would hide the run's own, so reports are read off
# standard error.
SANITIZERS = {"ASAN_OPTIONS": f"{os.environ.get('ASAN_OPTIONS', '')}:exitcode=99:verify_asan_link_order=0:"
                                "fast_unwind_on_malloc=0",
              "UBSAN_OPTIONS": "exitcode=99:halt_on_error=1:print_stacktrace=1",
              "LSAN_OPTIONS": f"exitcode=0:print_suppressions=0:suppressions={ROOT / 'tests/torture/lsan.supp'}"}
# Above the limits at which the program itself gives up a silent server.
HANGS_AFTER_S = 200
# A whole run has many more; fewer mean that calls are no longer counted.
LEAST_FAULTS = 5000
SAMPLE_SECONDS = 60
TELLS_EVERY = 1000  # runs


@dataclass
class Run:
    """One finished run."""

    status: int
    stdout: bytes
    stderr: bytes
    seconds: float
    hung: bool
    session: Session


@dataclass(frozen=True)
class Fault:
    """One call of one case, and the way in which it fails."""

    case: str
    name: str
    ordinal: int
    way: int
    stack: str  # what tells its call stack from others

    @property
    def call(self):
        return f"{self.name}:{self.ordinal}:{self.way}"

    def __str__(self):
        return f"{self.case}/{self.call}"


@dataclass
class Finding:
    """Something that is wrong, and the call that had failed."""

    fault: Fault
    kind: str
    text: str
    run: Run
    stack: list = field(default_factory=list)


def start(case, *program, **variables):
    """Runs a case to its end; `program` is the command that runs the program."""
    case.begin()
    began = time.monotonic()
    process = subprocess.Popen([*program, *case.arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, cwd="/", env=environment(**case.passwords, **variables))
    out, err, hung = finish(process, HANGS_AFTER_S, case.stdin)
    return Run(process.returncode, out, err, time.monotonic() - began, hung, case.session)


def start_with_library(case, list_file, program=PROGRAM, **variables):
    """The same under the sanitizers and with the library that counts and fails calls."""
    list_file.unlink(missing_ok=True)
    ticks = {} if case.tick_ms is None else {"FAILING_CALLS_TICK_MS": str(case.tick_ms)}
    run = start(case, program, LD_PRELOAD=str(LIBRARY), FAILING_CALLS_LIST=str(list_file), **SANITIZERS, **ticks,
                **variables)
    lines = list_file.read_text(encoding="utf-8", errors="replace").splitlines() if list_file.exists() else []
    return run, lines


class Worker:
    """Works on one fault after the other, in directories of its own."""

    def __init__(self, directory, servers):
        self._list = make_dir(directory) / "calls"
        self._cases = {name: make_case(name, directory / str(number), servers)
                       for number, name in enumerate(CASES)}

    def faults(self, name):
        """All that can fail in a case."""
        case = self._cases[name]
        case.prepare()
        run, lines = start_with_library(case, self._list)
        wrong = [text for _, text in recovery_findings(case, run)]
        if wrong:
            sys.exit(f"{name} fails by itself: {wrong}\n{run.stderr.decode('utf-8', 'replace')}\n{case.session.log}")
        return [Fault(name, call, int(ordinal), way, stack) for call, ordinal, ways, stack in map(str.split, lines)
                for way in range(int(ways))]

    def inject(self, fault):
        """One run in which a call fails and one in which none does: whether the call came, and the findings."""
        case = self._cases[fault.case]
        case.prepare()
        run, lines = start_with_library(case, self._list, FAILING_CALLS_FAIL=fault.call)
        wrong = [Finding(fault, kind, text, run, lines[1:]) for kind, text in findings(case, run)]
        if run.hung:
            return bool(lines), wrong
        after = start(case, RECOVERING_PROGRAM)
        wrong += [Finding(fault, kind, text, after, lines[1:]) for kind, text in recovery_findings(case, after)]
        return bool(lines), wrong


class Tally:
    """What has been seen so far."""

    def __init__(self):
        self.runs = 0
        self.injected = 0
        self.by_call = collections.Counter()
        self.findings = []
        self._lock = threading.Lock()

    def add(self, fault, reached, wrong):
        with self._lock:
            self.runs += 1
            self.injected += reached
            self.by_call[fault.name] += reached
            self.findings += wrong
            for finding in wrong:
                print(f"{finding.kind}: {finding.fault}: {finding.text}", flush=True)
            if self.runs % TELLS_EVERY == 0:
                print(f"{self.runs} runs, {len(self.findings)} findings", flush=True)

    def count(self, kind):
        return len({finding.fault for finding in self.findings if finding.kind == kind})


def work(faults, workers, tally, deadline):
    """Shares the faults out among the workers, until the deadline if there is one."""
    left = iter(faults)
    lock = threading.Lock()

    def go_on(worker):
        while deadline is None or time.monotonic() < deadline:
            with lock:
                fault = next(left, None)
            if fault is None:
                return
            tally.add(fault, *worker.inject(fault))

    with concurrent.futures.ThreadPoolExecutor(len(workers)) as pool:
        for done in [pool.submit(go_on, worker) for worker in workers]:
            done.result()


_FRAME = re.compile(r"^  (\S+) (0x[0-9a-f]+) (.*)$")


def readable(stack):
    """The functions of the program in a call stack, or those of libraries, innermost first."""
    frames = [match.groups() for match in map(_FRAME.match, stack) if match]
    places = [place for file, place, _ in frames if pathlib.Path(file).name == PROGRAM.name]
    if not places:
        return [f"{symbol} of {file}" for file, _, symbol in frames]
    names = subprocess.run(["addr2line", "-Cfe", PROGRAM, *places], check=True, capture_output=True, text=True).stdout
    return names.splitlines()[::2]


def show(tally, examples):
    """Prints the findings, those of one place together."""
    places = collections.defaultdict(list)
    stacks = {}
    for finding in tally.findings:
        key = tuple(finding.stack)
        if key not in stacks:
            stacks[key] = readable(finding.stack)
        places[finding.kind, finding.fault.name, tuple(stacks[key][:6])].append(finding)
    for (kind, name, frames), found in sorted(places.items(), key=lambda item: -len(item[1]))[:examples]:
        first = found[0]
        print(f"\n{kind}, {len(found)} times, such as {str(first.fault)!r}: {first.text}")
        print(f"  status {first.run.status}, standard error:")
        print(textwrap.indent(first.run.stderr[-3000:].decode("utf-8", "replace"), "    "))
        for frame in frames:
            print(f"  in {frame[:200]}")


def summary(tally, seconds):
    plural = {kind: f"{kind}s" for kind in KINDS} | {
        "crash": "crashes", "false success": "false successes", "failed recovery": "failed recoveries"}
    print(f"\n{tally.injected} faults injected in {tally.runs} runs, {seconds:.0f} s")
    for kind in KINDS:
        print(f"{plural[kind]}: {tally.count(kind)}")


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/torture", description=__doc__)
    parser.add_argument("--sample", action="store_true", help=f"the same as --seconds {SAMPLE_SECONDS}")
    parser.add_argument("--seconds", type=int, default=None, help="as many random faults as this time allows")
    parser.add_argument("--seed", type=int, default=None, help="order of the faults (random by default; it is printed)")
    parser.add_argument("--only", action="append", metavar="CASE[/NAME[:ORDINAL[:WAY]]]",
                        help="only the faults whose names begin so; * is any case")
    parser.add_argument("--jobs", type=int, default=4, help="runs at a time (4: a run waits more than it works)")
    parser.add_argument("--examples", type=int, default=40, help="places of findings to print (40)")
    parser.add_argument("--list", action="store_true", help="print how many calls can fail, and end")
    return parser.parse_args()


def all_faults(worker, only):
    """The faults of all cases, or of those that are wanted."""
    faults = []
    for name in CASES:
        if not only or any(each.split("/")[0] in ("*", name) for each in only):
            faults += worker.faults(name)
    if only:
        return [fault for fault in faults
                if any(f"{fault}:".startswith((f"{each}:", f"{each}/")) or each == f"*/{fault.name}" for each in only)]
    return distinct(faults)


def distinct(faults):
    """Without those that differ from earlier ones in nothing but the case: of each action, all the calls of its first
    case and what others do from places of their own; of the allocations, one for each call stack."""
    first_cases = {}
    for name, kind in CASES.items():
        first_cases.setdefault(kind.action, name)
    seen = set()
    kept = []
    for fault in faults:
        place = (fault.name, fault.way, fault.stack)
        is_of_first_case = fault.name != "new" and fault.case in first_cases.values()
        if is_of_first_case or place not in seen:
            kept.append(fault)
            seen.add(place)
    return kept


# What the library stands in for and no run lets fail, with the reason.
UNREACHED = {
    "__libc_start_main": "counting begins there",
    "alarm": "cannot fail; is only to ring earlier",
    "libssh2_session_last_error": "cannot fail; tells of other calls that have",
    "getsockopt": "asked only why an interrupted connect() has failed: connect() is what fails then",
    "xmlFindCharEncodingHandler": "no document that the program writes names an encoding",
    "xmlNewCDataBlock": "no document that the program writes has such a block",
    "xmlNewDocText": "no document that the program writes has text beside elements",
}
# What the program calls through libraries alone.
IN_LIBRARIES = {"new", "getc", "realpath", "send", "recv"}


def symbols(kind, file):
    """The dynamic symbols of a file, without versions; `kind` is "defined" or "undefined"."""
    lines = subprocess.run(["nm", "-D", f"--{kind}-only", file], check=True, capture_output=True, text=True).stdout
    names = {line.split()[-1].partition("@")[0] for line in lines.splitlines()}
    return {name for name in names if not name.startswith("_Z")}  # operator new is counted under a name of its own


def never_failed(calls, stand_ins, imports):
    """What is wrong with a whole run in which `calls` have failed: stand-ins that might as well not be there."""
    expected = (stand_ins & imports) | IN_LIBRARIES
    return [*(f"{name} has never failed" for name in sorted(expected - calls - UNREACHED.keys())),
            *(f"{name} has failed, but is named as one that never does" for name in sorted(calls & UNREACHED.keys()))]


@dataclass
class DeliberateFault:
    """A program of the tests that does something wrong, to be run as if it were a case."""

    arguments: list
    passwords: dict = field(default_factory=dict)
    stdin: bytes = b""
    tick_ms: "int | None" = None
    session: "Session | None" = None

    def begin(self):
        """Nothing to be done."""


def blind_spots(list_file):
    """What the sanitizers do not find, or find where there is nothing, when they run as they do in every run."""
    crashes = dict.fromkeys(("use-after-free", "null", "overflow"), {"crash"})
    expected = {"nothing": set(), "leak": {"leak"}, **crashes}
    wrong = []
    for fault, kinds in expected.items():
        run, _ = start_with_library(DeliberateFault([fault]), list_file, program=DELIBERATE_FAULTS)
        if {kind for kind, _ in complaints(run.stderr)} != kinds:
            wrong.append(f"{fault}: status {run.status}, {run.stderr.decode('utf-8', 'replace')}")
        if fault in ("nothing", "leak") and run.status != 0:
            wrong.append(f"{fault}: status {run.status} in the place of the program's own")
    return wrong


@contextlib.contextmanager
def source_host():
    """Servers to run the cases against, and beside them all that they need on this host."""
    remove_tree(BASE)
    make_dir(BASE)
    sshd.prepare_machine()
    configure("# nothing but defaults\n")
    install_product()
    servers = start_servers(BASE)
    try:
        yield servers
    finally:
        servers.stop()


def main():
    options = parse_options()
    seconds = SAMPLE_SECONDS if options.sample else options.seconds
    reason = accounts.why_not_in_sandbox()
    if reason:
        sys.exit(f"only inside the sandbox: {reason}")
    began = time.monotonic()
    with source_host() as servers:
        shutil.copy(BUILD / "asan" / "tallowick", PROGRAM)
        shutil.copy(BUILD / "release" / "tallowick", RECOVERING_PROGRAM)
        shutil.copy(BUILD / "release" / "tests" / "failing_calls.so", LIBRARY)
        shutil.copy(BUILD / "asan" / "tests" / "deliberate_faults", DELIBERATE_FAULTS)
        if unseen := blind_spots(BASE / "calls"):
            sys.exit("the sanitizers do not see what they have to:\n" + "\n".join(unseen))
        stand_ins, imports = symbols("defined", LIBRARY), symbols("undefined", PROGRAM)
        workers = [Worker(BASE / f"worker-{number}", servers) for number in range(options.jobs)]
        faults = all_faults(workers[0], options.only)
        counts = collections.Counter(fault.case for fault in faults)
        print(f"{len(faults)} faults: " + ", ".join(f"{name} {count}" for name, count in counts.items()))
        if options.list:
            return 0
        seed = random.randrange(2 ** 32) if options.seed is None else options.seed
        print(f"seed {seed}", flush=True)
        random.Random(seed).shuffle(faults)
        tally = Tally()
        work(faults, workers, tally, time.monotonic() + seconds if seconds else None)
    show(tally, options.examples)
    summary(tally, time.monotonic() - began)
    is_whole = not seconds and not options.only
    if is_whole and tally.injected < LEAST_FAULTS:
        print(f"fewer than {LEAST_FAULTS} faults were injected")
        return 1
    if is_whole and (unused := never_failed(set(+tally.by_call), stand_ins, imports)):
        print("\n".join(unused))
        return 1
    return 1 if tally.findings or tally.injected == 0 else 0


if __name__ == "__main__":
    os.umask(0o022)
    sys.exit(main())
