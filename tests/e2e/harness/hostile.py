# SPDX-License-Identifier: Apache-2.0
"""What may stand where the program wants to read or write a file, and libraries that act inside of the program."""

import os
import pathlib
import shutil
import socket
import stat
import subprocess

from harness.places import make_dir, write

_NULL = os.makedev(1, 3)
_NO_SUCH_DISK = os.makedev(259, 4095)


class Outside:
    """Files outside of the session directory that no run may touch."""

    def __init__(self, directory):
        self.directory = make_dir(directory)
        self.precious = write(self.directory / "precious", "precious", 0o640)
        write(make_dir(self.directory / "tree") / "inside", "inside")
        self._before = self._state()

    def check(self):
        """Fails when anything of it has been touched."""
        assert self._state() == self._before

    def _state(self):
        return {path: (_identity(path), path.read_bytes() if path.is_file() else sorted(os.listdir(path)))
                for path in (self.directory, *self.directory.rglob("*"))}


def _link_to_file(path, outside):
    path.symlink_to(outside.precious)


def _link_to_directory(path, outside):
    path.symlink_to(outside.directory / "tree")


def _link_to_nothing(path, outside):
    path.symlink_to(outside.directory / "nothing")


def _fifo(path, _):
    os.mkfifo(path)


def _directory(path, _):
    write(make_dir(path) / "inside", "inside")


def _character_device(path, _):
    os.mknod(path, stat.S_IFCHR | 0o600, _NULL)


def _block_device(path, _):
    os.mknod(path, stat.S_IFBLK | 0o600, _NO_SUCH_DISK)


def _socket(path, _):
    with socket.socket(socket.AF_UNIX) as listener:
        # The name of a socket has to be short.
        directory = os.open(path.parent, os.O_RDONLY | os.O_DIRECTORY)
        try:
            listener.bind(f"/proc/self/fd/{directory}/{path.name}")
        finally:
            os.close(directory)


# Each makes something at a path; the second argument is an `Outside`.
PLANTS = {"link to a file": _link_to_file, "link to a directory": _link_to_directory,
          "link to nothing": _link_to_nothing, "fifo": _fifo, "directory": _directory,
          "character device": _character_device, "block device": _block_device, "socket": _socket}


def _identity(path):
    entry = path.lstat()
    return (entry.st_ino, entry.st_mode, entry.st_uid, entry.st_gid, entry.st_rdev,
            os.readlink(path) if stat.S_ISLNK(entry.st_mode) else None)


class Planted:
    """Something in the way at `path`."""

    def __init__(self, kind, path, outside):
        self.kind = kind
        self.path = path
        PLANTS[kind](path, outside)
        self._identity = _identity(path)

    def is_at(self, path):
        """Whether it stands, untouched, at `path`."""
        return os.path.lexists(path) and _identity(path) == self._identity and \
            (self.kind != "directory" or (path / "inside").read_text() == "inside")


def compile_preload(source, directory):
    """Makes a library of the C text `source`."""
    code = write(make_dir(pathlib.Path(directory)) / "preload.c", source)
    library = code.with_suffix(".so")
    subprocess.run([shutil.which("cc"), "-shared", "-fPIC", "-O1", "-o", library, code], check=True)
    return library


def preloaded(library, **variables):
    """A command to put in front of the (release) program that loads a library into it."""
    return ["env", f"LD_PRELOAD={library}", *(f"{name}={value}" for name, value in variables.items())]
