# SPDX-License-Identifier: Apache-2.0
"""Where the tests keep their files: below /run, which is private to the sandbox and readable by every login."""

import os
import pathlib
import shutil

SOURCE_ROOT = pathlib.Path(__file__).resolve().parents[3]
BASE = pathlib.Path("/run/tallowick-e2e")


def make_dir(path, mode=0o755):
    """Makes `path` with its parents; the mode is exact whatever the umask is. Returns `path`."""
    path.mkdir(parents=True, exist_ok=True)
    os.chmod(path, mode)
    return path


def write(path, content, mode=0o644):
    """Writes text or bytes to `path` with an exact mode and returns `path`."""
    if isinstance(content, str):
        content = content.encode("utf-8")
    path.write_bytes(content)
    os.chmod(path, mode)
    return path


def remove_tree(path):
    """Removes a directory with everything in it; what is missing already is fine."""
    shutil.rmtree(path, ignore_errors=True)
