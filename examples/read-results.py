#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""read-results.py SESSION-DIRECTORY: prints what tallowick is doing in a session, and how its last actions have ended.

A start for the developers of a migration manager; it needs nothing but Python 3. A file that is missing or not whole is
no failure: it says nothing yet."""

import pathlib
import sys
from xml.etree import ElementTree


def root_of(file):
    try:  # documents are replaced as a whole, so one that cannot be read now does not get better by reading it again
        return ElementTree.parse(file).getroot()
    except (OSError, ElementTree.ParseError):
        return None


def state(status):
    host, files, agent = status.findtext(".//host"), status.find("transfer/files"), status.find("agent")
    if agent is not None:
        return f"sending to {host}" if agent.get("action") == "deploy" else f"waiting for {host}"
    if files is not None:
        total, left = int(files.get("size-total", 0)), int(files.get("size-left", 0))
        return (f"fetching {files.findtext('current-file', '')!a} from {host}: {total - left} of {total} bytes, "
                f"{files.get('left')} of {files.get('total')} files left, "
                f"{status.find('transfer').get('speed', 0)} bytes/s")
    if status.find("transfer") is not None:
        return f"asking {host} for the list of files"
    return "idle" if status.find("idle") is not None else "working on this host"


def errors(element):
    """Each error as a list that begins with the innermost cause; those of objects come last."""
    for message in element.findall("message"):
        yield reversed(list(message.iter("message")))
    for child in element.findall("object"):
        yield from errors(child)


def line(error):
    text = "".join(each if each.isprintable() else " " for each in error.findtext("description", ""))
    return f"{error.get('severity')} {error.get('code')} [{error.get('id')}]: {' '.join(text.split())}"


def main(directory):
    status = root_of(directory / "migration.status")
    print("state:", "unknown" if status is None else state(status))
    for name in ("migration.result", "transfer.result"):  # of --get-content alone the second, of all others the first
        result = root_of(directory / name)
        if result is not None:
            print(f"{name}: {result.get('status')}")
            for chain in errors(result):
                print("  " + "\n    which led to ".join(map(line, chain)))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__.splitlines()[0])
    main(pathlib.Path(sys.argv[1]))
