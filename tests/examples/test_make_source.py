# SPDX-License-Identifier: Apache-2.0
"""The sample hosting server: the same every time, with all that makes a migration hard."""

import os
import stat
import subprocess

from sample import TOP, tree

MAKE = TOP / "tests/sandbox/make-source"


def make(directory, *words):
    subprocess.run([MAKE, directory, *words], check=True)
    return directory


def test_the_same_arguments_make_the_same_server(place):
    one, two = (make(place / name, "--domains=3", "--mib=1") for name in ("one", "two"))
    assert tree(one) == tree(two)
    assert (one / "hosting.conf").read_bytes() == (two / "hosting.conf").read_bytes()


def test_twenty_domains_are_about_two_thousand_files_of_the_size_asked_for(servers):
    server = servers(20, 8)
    files = [path for path in server.rglob("*") if path.is_file() and not path.is_symlink()]
    assert 1800 < len(files) < 2200
    assert abs(sum(path.stat().st_size for path in files) - (8 << 20)) < 1 << 20
    conf = (server / "hosting.conf").read_text()
    assert [conf.count(f"\n[{kind} ") for kind in ("domain", "client", "reseller", "application")] == [20, 5, 2, 1]


def test_names_hold_what_programs_get_wrong(servers):
    names = b"\0".join(os.path.basename(name) for name in tree(servers(3)))
    for odd in (b" ", b"  ", b"\t", b"\n", b"\r", b"'", b'"', b"$", b"`", b"\\", b"{", b"*", b"\0-rf\0", b"&", b"<",
                "ü".encode(), "日".encode(), b"caf\xe9", b"n" * 255):
        assert odd in names, odd


def test_everybody_can_read_it(servers):
    for mode, _, _ in tree(servers(3)).values():
        wanted = 0o005 if stat.S_ISDIR(mode) else 0o004
        assert mode & wanted == wanted


def test_a_directory_that_holds_something_is_refused(place):
    (place / "mine").write_text("mine")
    ended = subprocess.run([MAKE, place], capture_output=True, text=True, check=False)
    assert ended.returncode == 1
    assert ended.stderr == f"make-source: {place} is not empty\n"
    assert os.listdir(place) == ["mine"]
