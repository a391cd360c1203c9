# SPDX-License-Identifier: Apache-2.0
"""What is made of single measurements: medians, ratios, and how they are written."""

import statistics
from dataclasses import asdict, dataclass, field

MIB = 1 << 20
GIB = 1 << 30


@dataclass(frozen=True)
class Sample:
    """One measured run of one peer: what it took for `units` of work (files, commands, bytes)."""

    seconds: float
    units: float = 1
    cpu_seconds: float = 0
    peak_kib: int = 0


@dataclass
class Peer:
    """All runs of one peer in a row. `list_bytes` is the size of the content list that each of them has read."""

    samples: list = field(default_factory=list)
    list_bytes: int = 0

    def seconds(self):
        """Median of the time of a run."""
        return statistics.median(sample.seconds for sample in self.samples)

    def cost(self):
        """Median of seconds per unit of work."""
        return statistics.median(sample.seconds / sample.units for sample in self.samples)

    def cpu_cost(self):
        """Median of seconds of processor time per unit of work."""
        return statistics.median(sample.cpu_seconds / sample.units for sample in self.samples)

    def peak_bytes(self):
        """The largest peak of resident memory."""
        return 1024 * max(sample.peak_kib for sample in self.samples)

    def units(self):
        """The work of one run."""
        return self.samples[0].units


@dataclass
class Result:
    """What was measured in one row; `peers` by their names. `taken` says when, and what else the machine did."""

    peers: dict = field(default_factory=dict)
    taken: str = ""

    def cost(self, *names):
        """The lowest cost among these peers, None when none of them was measured."""
        costs = [self.peers[name].cost() for name in names if name in self.peers]
        return min(costs, default=None)


def to_json(results):
    """Results, by the names of rows, as plain lists and dictionaries."""
    return {row: asdict(result) for row, result in results.items()}


def from_json(plain):
    """The reverse of `to_json`."""
    return {row: Result({name: Peer([Sample(**sample) for sample in peer["samples"]], peer["list_bytes"])
                         for name, peer in result["peers"].items()}, result["taken"])
            for row, result in plain.items()}


def rounded(value, digits=3):
    """A number of at least 0 with so many significant digits, with all before the point, and without an exponent."""
    if value >= 10 ** (digits - 1):
        return f"{value:.0f}"
    text = f"{value:.{digits}g}"
    return f"{value:.9f}".rstrip("0") if "e" in text else text


def table(head, rows):
    """A table of Markdown; every column but the first is of numbers."""
    lines = [f"| {' | '.join(head)} |", f"|---|{'---:|' * (len(head) - 1)}"]
    lines += [f"| {' | '.join(cells)} |" for cells in rows]
    return "\n".join(lines) + "\n"
