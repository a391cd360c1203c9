# SPDX-License-Identifier: Apache-2.0
"""Runs every case once under valgrind, with no call failing. Started by scripts/valgrind."""

import concurrent.futures
import os
import sys

from torture import BUILD, source_host, start  # first: it tells where the harness is

# pylint: disable=wrong-import-order
from cases import CASES, make_case
from harness import accounts
from harness.places import BASE
from judging import recovery_findings

_COMPLAINT = 99
_VALGRIND = ("valgrind", "--quiet", f"--error-exitcode={_COMPLAINT}", "--leak-check=full",
             "--errors-for-leak-kinds=definite,possible", "--num-callers=40")


def is_clean(number, name, servers):
    """Runs one case; says what valgrind, or the outcome, has against it."""
    case = make_case(name, BASE / f"case-{number}", servers)
    case.prepare()
    run = start(case, *_VALGRIND, BUILD / "release" / "tallowick")
    wrong = [text for _, text in recovery_findings(case, run)]
    told = [f"{name}: status {run.status} after {run.seconds:.1f} s", *wrong]
    print("\n  ".join(told + ([run.stderr.decode("utf-8", "replace")] if wrong else [])), flush=True)
    return not wrong


def main():
    reason = accounts.why_not_in_sandbox()
    if reason:
        sys.exit(f"only inside the sandbox: {reason}")
    with source_host() as servers, concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        clean = sum(pool.map(lambda numbered: is_clean(*numbered, servers), enumerate(CASES)))
    print(f"{clean} of {len(CASES)} cases clean")
    return 0 if clean == len(CASES) else 1


if __name__ == "__main__":
    os.umask(0o022)
    sys.exit(main())
