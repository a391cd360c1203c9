# SPDX-License-Identifier: Apache-2.0
"""Reads a file again and again, as the panel does: `python3 watch_file.py FILE` looks every millisecond until its
standard input ends, then prints as JSON how often the file changed and what was seen that is no whole XML document.
A process of its own, so that the tests do not disturb it."""

import json
import select
import subprocess
import sys
from xml.etree import ElementTree


class Watcher:
    """Watches `file` from another process."""

    def __init__(self, file):
        self._process = subprocess.Popen([sys.executable, __file__, str(file)], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE)
        # It says when it has begun.
        self._process.stdout.readline()

    def stop(self):
        """What was seen: `versions` is the root's text of each new content in its order, `torn` what was no whole
        document, `looks` the number of times that the file was there."""
        return json.loads(self._process.communicate()[0])


def watch(path):
    """Looks until standard input ends."""
    seen, last = {"versions": [], "torn": [], "looks": 0}, None
    print(flush=True)
    while not select.select([sys.stdin], [], [], 0.001)[0]:
        try:
            with open(path, "rb") as file:
                content = file.read()
        except FileNotFoundError:
            continue
        seen["looks"] += 1
        if content != last:
            last = content
            try:
                seen["versions"].append(ElementTree.fromstring(content).text)
            except ElementTree.ParseError:
                seen["torn"].append(repr(content[:100]))
    print(json.dumps(seen))


if __name__ == "__main__":
    watch(sys.argv[1])
