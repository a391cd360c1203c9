# SPDX-License-Identifier: Apache-2.0
"""Instructions of single pieces of work, which can be repeated where times cannot."""

import pathlib
import shutil
import subprocess

from command_lines import ENVIRONMENT
from harness.places import make_dir
from hosts import BASE

KEPT = pathlib.Path(__file__).resolve().parent / "counts.txt"
TOLERANCE = 0.03

# How often each work is done in the two runs, the difference of which is looked at.
WORKS = {"save": (50, 550), "exec": (50, 550), "list": (500, 5500), "quote": (10000, 1010000)}
MEANING = {"save": "one save of the status document", "exec": "one remote command, without what libssh2 does",
           "list": "one entry of a content list", "quote": "one byte through `sh_quote`"}
_HEAD = """\
# Instructions of the release build (g++ 12 and the libraries of Debian 12, x86-64), counted by callgrind:
# what bench/counts does for one piece of work. scripts/bench compares; "scripts/bench counts --keep" writes anew.
"""


def count(binary):
    """The instructions of each work, by its name."""
    result = {}
    for work, (few, many) in WORKS.items():
        less, more = (_instructions(binary, work, times) for times in (few, many))
        result[work] = (more - less) / (many - few)
    return result


def _instructions(binary, work, times):
    out = BASE / "callgrind"
    session = make_dir(BASE / "counted")
    try:
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", binary, work, str(times), session],
                       env=ENVIRONMENT, check=True, capture_output=True, stdin=subprocess.DEVNULL)
    finally:
        shutil.rmtree(session)
    return total_of(out.read_text(encoding="utf-8"))


def total_of(text):
    """The instructions of a whole run, from what callgrind has written."""
    for line in text.splitlines():
        name, _, value = line.partition(":")
        if name in ("summary", "totals"):
            return int(value.split()[0])
    raise ValueError("callgrind has not told how much it has counted")


def kept():
    """The counts that later runs are compared with, by the names of the works; none where there are none yet."""
    return read(KEPT.read_text(encoding="utf-8")) if KEPT.exists() else {}


def read(text):
    """Kept counts by the names of the works."""
    pairs = (line.split() for line in text.splitlines() if line and not line.startswith("#"))
    return {work: float(value) for work, value in pairs}


def written(counts):
    """The text for `read`."""
    return _HEAD + "".join(f"{work} {value:.2f}\n" for work, value in counts.items())


def changes(before, counts):
    """What differs by more than the tolerance, as sentences; works without a kept count too."""
    told = []
    for work, value in counts.items():
        if work not in before:
            told.append(f"{MEANING.get(work, work)}: {value:.2f} instructions, nothing to compare with")
        elif abs(value / before[work] - 1) > TOLERANCE:
            told.append(f"{MEANING.get(work, work)}: {value:.2f} instructions instead of {before[work]:.2f} "
                        f"({value / before[work] - 1:+.1%})")
    return told
