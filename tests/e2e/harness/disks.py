# SPDX-License-Identifier: Apache-2.0
"""Disks that are full."""

import contextlib
import subprocess

from harness.places import make_dir, write


@contextlib.contextmanager
def full_disk_at(file, directory):
    """`file` is an empty regular file on a full disk of its own, which lies at `directory`."""
    make_dir(directory)
    _run("mount", "-t", "tmpfs", "-o", "size=65536,mode=755", "tmpfs", directory)
    try:
        empty = write(directory / "empty", b"")
        with contextlib.suppress(OSError), open(directory / "filler", "wb", buffering=0) as filler:
            while True:
                filler.write(b"x" * 4096)
        write(file, b"")
        _run("mount", "--bind", empty, file)
        try:
            yield file
        finally:
            _run("umount", file)
    finally:
        _run("umount", directory)


def _run(*words):
    subprocess.run(list(map(str, words)), check=True, stdin=subprocess.DEVNULL)
