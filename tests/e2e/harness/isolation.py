# SPDX-License-Identifier: Apache-2.0
"""Commands to put in front of the program so that it alone sees a changed machine."""

import pathlib
import textwrap

from harness.places import make_dir, write


def without_account(login, directory):
    """The program sees no account `login`."""
    passwd = pathlib.Path("/etc/passwd").read_text(encoding="utf-8").splitlines(keepends=True)
    group = pathlib.Path("/etc/group").read_text(encoding="utf-8").splitlines(keepends=True)
    passwd = write(directory / "passwd", "".join(line for line in passwd if not line.startswith(f"{login}:")))
    group = write(directory / "group", "".join(line for line in group if not line.startswith(f"{login}:")))
    return _with_mounts(f"mount --bind {passwd} /etc/passwd; mount --bind {group} /etc/group")


def with_writable_root(directory):
    """The program sees a root directory whose own entries it may change; returns the prefix and the directory
    in which the changes appear. What lies on other file systems is the same for both."""
    make_dir(directory)
    lines = f"""
        mount -t tmpfs tmpfs {directory}
        mkdir {directory}/root
        for entry in /* ; do
          if [ -L "$entry" ] ; then cp -a "$entry" {directory}/root/
          elif [ -d "$entry" ] ; then mkdir {directory}/root"$entry" && mount --rbind "$entry" {directory}/root"$entry"
          fi
        done
        [ ! -e {directory}.files ] || cp -a {directory}.files/. {directory}/root/
    """
    return ["unshare", "--mount", "--propagation", "unchanged", "sh", "-e", "-c",
            textwrap.dedent(lines) + f'chroot {directory}/root "$@" || status=$?\n'
            f'ls -1 {directory}/root >{directory}.left\nexit ${{status:-0}}', "sh"]


def _with_mounts(commands):
    return ["unshare", "--mount", "--propagation", "unchanged", "sh", "-e", "-c", commands + '; exec "$@"', "sh"]
