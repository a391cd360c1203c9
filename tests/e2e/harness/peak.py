# SPDX-License-Identifier: Apache-2.0
"""How much memory and time a run has taken, from the kernel's account of the ended process."""

import json
from dataclasses import dataclass

# Runs the command behind its first argument, a file, and writes the command's account there.
_MEASURE = """
import json, os, subprocess, sys
process = subprocess.Popen(sys.argv[2:])
_, status, usage = os.wait4(process.pid, 0)
with open(sys.argv[1], "w", encoding="ascii") as file:
    json.dump({"peak_kib": usage.ru_maxrss, "cpu_seconds": usage.ru_utime + usage.ru_stime}, file)
process.returncode = os.waitstatus_to_exitcode(status)
sys.exit(process.returncode)
"""


@dataclass(frozen=True)
class Account:
    """What a command has used: peak of resident memory, and processor time."""

    peak_kib: int
    cpu_seconds: float


class Measured:
    """A measured command: `prefix` goes in front of it; `account()` is for after its end."""

    def __init__(self, file):
        self._file = file
        self.prefix = ["/usr/bin/python3", "-c", _MEASURE, str(file)]

    def account(self):
        """The account of the ended command."""
        return Account(**json.loads(self._file.read_text(encoding="ascii")))
