# SPDX-License-Identifier: Apache-2.0
"""What the program is to reach, in ratios of medians that were taken side by side."""

from dataclasses import dataclass

from figures import MIB

AT_MOST = "at most"
AT_LEAST = "at least"

# The peers that stand for the program itself, and for the least that its work takes.
OURS = "tallowick"
OURS_SUMS = "tallowick, MD5 sums"
FLOOR = "floor"
FLOOR_SAVES = "floor, saves"
FLOOR_SUMS = "floor, saves, MD5"
OPENSSH = ("ssh cat", "scp", "sftp", "rsync")
CURL = "curl sftp"
MULTIPLEXED = "ssh, multiplexed"


@dataclass(frozen=True)
class Check:
    """One figure against its bound; `ratio` is None when it was not measured."""

    work: str
    what: str
    ratio: "float | None"
    sense: str
    bound: float

    def holds(self):
        """None when there is nothing to judge."""
        if self.ratio is None:
            return None
        return self.ratio <= self.bound if self.sense == AT_MOST else self.ratio >= self.bound


def ratio_of(numerator, denominator):
    """None when one of them was not measured, which is what 0 says of a cost."""
    return numerator / denominator if numerator and denominator else None


class Targets:
    """Judges results: a dictionary of `Result` by the names of rows, some of which may be missing."""

    def __init__(self, results):
        self._results = results

    def checks(self):
        """All checks in the order of the table; those without a measurement have no ratio."""
        return [*self._commands(), *self._connects(), *self._one_file(), *self._far_file(), *self._small_files(),
                *self._deployments(), *self._processor(), *self._memory(), *self._starts(), *self._growth()]

    def _cost(self, row, *peers):
        result = self._results.get(row)
        return result and result.cost(*peers)

    def _time(self, work, row, ours, other, bound):
        """Our time as a multiple of another's."""
        return Check(work, f"time / {other}", ratio_of(self._cost(row, ours), self._cost(row, other)), AT_MOST, bound)

    def _rate(self, work, row, others, what, bound):
        """Our rate as a multiple of the best of the others'."""
        return Check(work, f"rate / {what}", ratio_of(self._cost(row, *others), self._cost(row, OURS)), AT_LEAST, bound)

    def _commands(self):
        return [self._time(f"one remote `true` on an open connection, {rtt} ms", row, OURS, FLOOR, 1.10)
                for row, rtt in (("commands", 0), ("commands-10", 10))]

    def _connects(self):
        for row, rtt in (("connect", 0), ("connect-10", 10)):
            work = f"connect, log in, one command, {rtt} ms"
            yield self._time(work, row, OURS, FLOOR, 1.05)
            yield self._time(work, row, OURS, "ssh", 1.00)

    def _one_file(self):
        for row, where in (("one-file", "tmpfs"), ("one-file-disk", "disk")):
            yield self._time(f"one file, 0 ms, {where}", row, OURS, FLOOR_SAVES, 1.10)
            yield self._time(f"one file with MD5 sums, 0 ms, {where}", row, OURS_SUMS, FLOOR_SUMS, 1.10)

    def _far_file(self):
        near, far = "one file, 10 ms", "one file, 50 ms"
        return [self._rate(near, "one-file-10", [FLOOR], FLOOR, 0.90),
                self._rate(near, "one-file-10", [CURL], CURL, 2.5),
                self._rate(near, "one-file-10", OPENSSH, "best of OpenSSH and rsync", 0.75),
                self._rate(far, "one-file-50", OPENSSH, "best of OpenSSH and rsync", 1.0),
                self._rate(far, "one-file-50", [CURL], CURL, 3.0)]

    def _small_files(self):
        work = "small files fetched and removed"
        return [self._time(f"{work}, 0 ms", "small-files", OURS, FLOOR, 1.10),
                self._rate(f"{work}, 0 ms", "small-files", [MULTIPLEXED], MULTIPLEXED, 2.0),
                self._time(f"{work}, 10 ms", "small-files-10", OURS, FLOOR, 1.10),
                self._time(f"{work}, 10 ms", "small-files-10", OURS, "sftp", 1.00)]

    def _deployments(self):
        return [self._time(f"deploying 200 files in 20 directories, {rtt} ms", row, OURS, FLOOR, 1.10)
                for row, rtt in (("deploy", 0), ("deploy-10", 10))]

    def _processor(self):
        for row, where in (("one-file", "tmpfs"), ("one-file-disk", "disk")):
            peers = self._results[row].peers if row in self._results else {}
            ratio = ratio_of(*(peers[name].cpu_cost() if name in peers else None for name in (OURS, FLOOR_SAVES)))
            yield Check(f"client CPU per GiB, {where}", f"CPU / {FLOOR_SAVES}", ratio, AT_MOST, 1.10)

    def _memory(self):
        used = [peer.peak_bytes() / (32 * MIB + 12 * peer.list_bytes)
                for result in self._results.values() for name, peer in result.peers.items()
                if name in (OURS, OURS_SUMS) and peer.peak_bytes()]
        return [Check("peak RSS of any run above or below", "peak / (32 MiB + 12 x content list)",
                      max(used, default=None), AT_MOST, 1.0)]

    def _starts(self):
        return [self._time("`--help`", "start", f"{OURS} --help", "curl --version", 1.0),
                self._time("a whole `--remove-dumping-status` run", "start", f"{OURS} --remove-dumping-status",
                           "curl --version", 2.0)]

    def _growth(self):
        yield Check("cost of a further file, 10 to 1,000 and 1,000 to 20,000 files", "later / earlier",
                    self._slopes("growth-files", 10, 1000, 20000), AT_MOST, 1.10)
        yield Check("cost of a further byte, 1 MiB to 1 GiB and 1 to 8 GiB", "later / earlier",
                    self._slopes("growth-bytes", 1 * MIB, 1024 * MIB, 8192 * MIB), AT_MOST, 1.10)

    def _slopes(self, row, *sizes):
        """What a unit costs beyond the middle size as a multiple of what it costs up to it."""
        results = [self._results.get(f"{row}-{size}") for size in sizes]
        if not all(result and OURS in result.peers for result in results):
            return None
        small, middle, large = (result.peers[OURS].seconds() for result in results)
        return ((large - middle) / (sizes[2] - sizes[1])) / ((middle - small) / (sizes[1] - sizes[0]))
