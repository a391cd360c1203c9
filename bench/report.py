# SPDX-License-Identifier: Apache-2.0
"""Results as a document and a picture."""

import os
import platform
import subprocess
import time

import counting
from figures import GIB, MIB, rounded, table
from plot import Chart, svg
from targets import CURL, FLOOR, FLOOR_SAVES, MULTIPLEXED, OURS, Targets

PICTURE = "results.svg"
_ANSWERS = {True: "yes", False: "**no**", None: "not measured"}
_PACKAGES = ("curl", "libssh2-1", "openssh-client", "openssh-server", "openssl", "rsync", "sshpass", "g++", "libc6")
_OF_BYTES = ("one-file", "growth-bytes")
_OF_FILES = ("small-files", "growth-files")


def document(rows, results, counts, setting):
    """The whole of RESULTS.md; `setting` is a text about the run."""
    parts = ["<!-- SPDX-License-Identifier: Apache-2.0 -->", "# Measured", "", setting, "",
             "Ratios hold within a table; absolute figures depend on what else the machine did. README.md says how all",
             "of this is taken.", "", "## Targets", "", targets_table(Targets(results).checks()),
             f"![Cost against the number of files and against the round trip]({PICTURE})", ""]
    if counts:
        parts += ["## Instructions", "", counts_table(counts), ""]
    for row in rows:
        if row.name in results:
            result = results[row.name]
            parts += [f"## {row.title} (`{row.name}`)", "", *([f"Taken {result.taken}.", ""] if result.taken else []),
                      row_table(row.name, result)]
    return "\n".join(parts).rstrip("\n") + "\n"


def setting_of(seconds, form, facts):
    """When, where and with what it was measured; `facts` are what else is known of it."""
    versions = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}; ", *_PACKAGES], capture_output=True,
                              text=True, check=False).stdout.strip("; ")
    return (f"Taken {time.strftime('%Y-%m-%d %H:%M', time.gmtime())} UTC, {form}, {seconds / 60:.0f} minutes, load "
            f"{os.getloadavg()[0]:.2f} at the end; {_processor()}, {os.cpu_count()} cores that both hosts share, Linux "
            f"{', '.join([platform.release(), *facts])}.\n\n{versions}.")


def _processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        names = [line.partition(":")[2].strip() for line in file if line.startswith("model name")]
    return names[0] if names else platform.machine()


def targets_table(checks):
    """Every target with what was reached."""
    return table(["work", "what", "reached", "target", "holds"], [
        [check.work, check.what, "" if check.ratio is None else f"{check.ratio:.2f}",
         f"{check.sense} {check.bound:.2f}", _ANSWERS[check.holds()]] for check in checks])


def counts_table(counts):
    """What one piece of each work takes."""
    return table(["work", "instructions"], [[counting.MEANING[work], rounded(value, 5)] for work, value in counts.items()])


def row_table(name, result):
    """All peers of a row, the cheapest first."""
    per_file, per_byte = name.startswith(_OF_FILES), name.startswith(_OF_BYTES)
    ours = result.cost(OURS)
    head = ["peer", "runs", *(["files"] if per_file else ["MiB"] if per_byte else []), "median s",
            "MB/s" if per_byte else "ms per file" if per_file else "ms",
            *(["time / ours"] if ours else []), f"client CPU{' s per GiB' if per_byte else ' ms'}", "peak RSS MiB"]
    rows = []
    for peer_name, peer in sorted(result.peers.items(), key=lambda item: item[1].cost()):
        size = [f"{peer.units() * GIB / MIB:.0f}"] if per_byte else [f"{peer.units():.0f}"] if per_file else []
        rows.append([
            peer_name, str(len(peer.samples)), *size, rounded(peer.seconds()),
            rounded(GIB / 1e6 / peer.cost() if per_byte else 1000 * peer.cost()),
            *([f"{peer.cost() / ours:.2f}"] if ours else []),
            "" if not peer.cpu_cost() else rounded(peer.cpu_cost() * (1 if per_byte else 1000)),
            "" if not peer.peak_bytes() else f"{peer.peak_bytes() / MIB:.1f}"])
    return table(head, rows)


def picture(results):
    """The charts of what was measured, as SVG; None when there is nothing to draw."""
    charts = [_by_number(results), _files_by_round_trip(results), _rate_by_round_trip(results)]
    drawn = [chart for chart in charts if any(len(line) > 1 for line in chart.lines.values())]
    return svg(drawn) if drawn else None


def _by_number(results):
    chart = Chart("Cost of a file of 4 KiB, fetched and removed, round trip 0 ms", "number of files", "ms per file")
    for name, result in results.items():
        if name.startswith("growth-files-"):
            _add(chart, result, int(name.rsplit("-", 1)[1]), lambda peer: 1000 * peer.cost(),
                 (OURS, FLOOR, "sftp", "rsync", "tar over ssh", MULTIPLEXED))
    return chart


def _files_by_round_trip(results):
    chart = Chart("Cost of a file of 4 KiB, fetched and removed", "round trip, ms", "ms per file", logarithmic=False)
    for name, rtt in (("small-files", 0), ("small-files-10", 10), ("small-files-50", 50)):
        if name in results:
            _add(chart, results[name], rtt, lambda peer: 1000 * peer.cost(),
                 (OURS, FLOOR, "sftp", "rsync", "tar over ssh", MULTIPLEXED, "scp -r, ssh rm"))
    return chart


def _rate_by_round_trip(results):
    chart = Chart("One file", "round trip, ms", "seconds per GiB", logarithmic=False)
    for name, rtt in (("one-file", 0), ("one-file-10", 10), ("one-file-50", 50)):
        if name in results:
            _add(chart, results[name], rtt, lambda peer: peer.cost(),
                 (OURS, FLOOR, FLOOR_SAVES, "ssh cat", "scp", "sftp", "rsync", CURL))
    return chart


def _add(chart, result, x, y_of, names):
    for name in names:
        if name in result.peers:
            chart.add(name, x, y_of(result.peers[name]))
