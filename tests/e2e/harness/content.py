# SPDX-License-Identifier: Apache-2.0
"""Runs of --get-content, and what can be seen of them on both sides."""

import contextlib
import os
import subprocess
import threading

from harness.accounts import MOVER
from harness.places import make_dir
from harness.program import source
from harness.shell import SUDO_CHECK, as_root, in_directory, words

RESULT = "transfer.result"
LIST_CALL = ["--get-content-list"]


def get_content(program, server, agent, *options, account=MOVER, **run):
    """Fetches what the deployed `agent` lists."""
    if account is not MOVER:
        run.setdefault("password", account.password)
    return program.run("--get-content", *source(server, account), *agent.options, *options, **run)


class Commands:
    """The command lines that are to reach the source host for one agent."""

    SUDO = SUDO_CHECK

    def __init__(self, agent, sudo=False, interpreter="perl"):
        self._agent = agent
        self._line = as_root if sudo else in_directory
        self._interpreter = interpreter

    def list(self):
        return self._line(self._agent.directory, words(self._interpreter, self._agent.entry_point, *LIST_CALL))

    def cat(self, path):
        return words("cat", f"{self._agent.directory}/{path}")

    def rm(self, path):
        return self._line(self._agent.directory, words("rm", f"{self._agent.directory}/{path}"))

    def fetched(self, *paths):
        """What fetching and removing each of `paths` takes."""
        return [line for path in paths for line in (self.cat(path), self.rm(path))]


def tree(directory):
    """Every file below `directory` by its relative path; what is no regular file has no content."""
    files = {}
    for path in directory.rglob("*"):
        if path.is_symlink() or not path.is_dir():
            regular = path.is_file() and not path.is_symlink()
            files[str(path.relative_to(directory))] = path.read_bytes() if regular else None
    return files


# What the program itself puts into a session directory.
_OWN_FILES = ("migration.", RESULT, "dump-name", "migration-result-name")


def fetched_files(session):
    """The content in a session directory, unfinished files too."""
    return {path: content for path, content in tree(session.path).items() if not path.startswith(_OWN_FILES)}


def remote_files(agent):
    """The content in the agent directory."""
    return {path: content for path, content in tree(agent.directory).items()
            if path != agent.entry_point.name and not path.startswith(".agent/")}


def missing_on_both_sides(contents, agent, target):
    """The paths of `contents` (path -> bytes) whose bytes are neither on the source host nor below `target`."""
    here, there = tree(target), tree(agent.directory)
    return [path for path, content in contents.items() if content not in (here.get(path), there.get(path))]


def log_entries(session, code):
    """The log records of errors of one kind."""
    return [record.text for record in session.records if record.text.startswith(f"{code}[")]


@contextlib.contextmanager
def small_disk(path, options):
    """A file system of its own at `path`; `options` as for tmpfs ("size=256k")."""
    make_dir(path)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"{options},mode=755", "tmpfs", str(path)], check=True)
    try:
        yield path
    finally:
        subprocess.run(["umount", str(path)], check=True)


def free_bytes(path):
    """What the file system of `path` has room for, for those who are not root."""
    statistics = os.statvfs(path)
    return statistics.f_bavail * statistics.f_bsize


class Poller:
    """Reads a file every millisecond for the time of a scope; `versions` are the contents seen, in their order."""

    def __init__(self, file):
        self.versions = []
        self._file = file
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._poll, daemon=True)

    def _poll(self):
        while not self._stopped.wait(0.001):
            self._read()

    def _read(self):
        try:
            content = self._file.read_bytes()
        except FileNotFoundError:
            return  # not there yet
        if not self.versions or self.versions[-1] != content:
            self.versions.append(content)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stopped.set()
        self._thread.join()
        self._read()
