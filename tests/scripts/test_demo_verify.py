# SPDX-License-Identifier: Apache-2.0
"""scripts/lib/demo-verify finds whatever is not on this side as it is on the other."""

import hashlib
import os
import shutil
import subprocess
from xml.sax.saxutils import quoteattr

import pytest


class Fetched:
    """A source of one site, and what was fetched of it: an archive and the dump that names it."""

    def __init__(self, top, place):
        self.program = top / "scripts/lib/demo-verify"
        self.source, self.content, self.agent = place / "source", place / "content", place / "agent"
        self.list = place / "content-list.xml"
        self.site = self.source / "sites/one"
        for directory in (self.site / "sub", self.content, self.agent):
            directory.mkdir(parents=True)
        (self.source / "hosting.conf").write_text("[domain one.example]\nid 1\nsite sites/one\n")
        (self.site / "sub/new\nline").write_text("some bytes")
        (self.site / "empty").touch()
        os.symlink("nowhere", self.site / "link")
        self.archive()

    def archive(self):
        """Fetches everything as it is now on the source."""
        archive = self.content / "domain-1-site.tar.gz"
        subprocess.run(["tar", "-c", "-z", "-f", archive, "-C", self.site, "."], check=True)
        self.describe()

    def describe(self, kind="site"):
        size, md5sum = size_and_sum(self.content / "domain-1-site.tar.gz")
        (self.content / "dump.xml").write_text(
            f'<migration-dump><domain name="one.example"><{kind}><archive name="domain-1-site.tar.gz" size="{size}"'
            f' md5sum="{md5sum}"/></{kind}></domain></migration-dump>')
        self.write_list()

    def write_list(self):
        files = [(path.name, *size_and_sum(path)) for path in sorted(self.content.iterdir())]
        self.list.write_text(f'<contentlist size="{sum(size for _, size, _ in files)}" unpacked="0">' + "".join(
            f'<file size="{size}" md5sum={quoteattr(md5sum)}>{name}</file>' for name, size, md5sum in files)
            + "</contentlist>")

    def verify(self, mode="all"):
        other = self.source if mode == "all" else self.agent
        return subprocess.run([self.program, mode, self.list, self.content, other], capture_output=True, text=True,
                              check=False)


def size_and_sum(path):
    data = path.read_bytes()
    return len(data), hashlib.md5(data).hexdigest()


@pytest.fixture
def fetched(top, tmp_path):
    return Fetched(top, tmp_path)


def assert_found(ended, fault):
    assert (ended.returncode, ended.stderr) == (1, "")
    assert fault in ended.stdout.splitlines()


def test_what_is_the_same_on_both_sides_is_told(fetched):
    ended = fetched.verify()
    assert (ended.returncode, ended.stderr) == (0, "")
    assert ended.stdout.splitlines()[1:] == [
        "dump.xml names 1 archives, one for each directory of the source's configuration",
        "unpacked they are 5 files, directories and links, the same as on the source"]


@pytest.mark.parametrize("change, fault", [
    (lambda site: (site / "empty").unlink(), "b'empty' is not on the source"),
    (lambda site: (site / "more").touch(), "b'more' is missing"),
    (lambda site: (site / "sub/new\nline").write_text("same bytes"), "b'sub/new\\nline' differs"),
    (lambda site: (site / "empty").chmod(0o600), "b'empty' differs"),
    (lambda site: os.utime(site / "empty", (1, 1)), "b'empty' differs"),
    (lambda site: os.chown(site / "empty", 4711, 4711), "b'empty' differs"),
    (lambda site: ((site / "link").unlink(), os.symlink("elsewhere", site / "link")), "b'link' differs"),
    (lambda site: ((site / "empty").unlink(), (site / "empty").mkdir()), "b'empty' differs"),
], ids=["less", "more", "bytes", "mode", "time", "owner", "target", "kind"])
def test_a_source_that_differs_from_the_archive_is_found(fetched, change, fault):
    change(fetched.site)
    assert_found(fetched.verify(), f"domain one.example site: {fault}")


@pytest.mark.parametrize("name", ["domain-1-site.tar.gz", "dump.xml"])
@pytest.mark.parametrize("change", [
    lambda path: path.unlink(),
    lambda path: path.write_bytes(b"x" + path.read_bytes()[1:]),
], ids=["missing", "changed"])
def test_a_listed_file_that_is_missing_or_changed_is_found(fetched, name, change):
    change(fetched.content / name)
    assert_found(fetched.verify(), f"{name!r} is missing or not what was listed")


def test_a_file_that_was_not_listed_is_found(fetched):
    (fetched.content / ".dump.xml.part").touch()
    assert_found(fetched.verify(), "'.dump.xml.part' is here and was not listed")


def test_a_directory_of_the_source_that_the_dump_leaves_out_is_found(fetched):
    with open(fetched.source / "hosting.conf", "a", encoding="utf-8") as out:
        out.write("mail mail/one\n")
    assert_found(fetched.verify(), "domain one.example mail is not in the dump")


def test_content_that_the_source_does_not_have_is_found(fetched):
    fetched.describe("mail")
    assert_found(fetched.verify(), "domain one.example mail is in the dump alone")


def test_an_archive_that_no_object_names_is_found(fetched):
    shutil.copy(fetched.content / "domain-1-site.tar.gz", fetched.content / "domain-2-site.tar.gz")
    fetched.write_list()
    assert_found(fetched.verify(), "'domain-2-site.tar.gz' is listed but not in the dump")


def test_sides_are_good_when_each_file_is_whole_on_one_of_them(fetched):
    shutil.move(fetched.content / "dump.xml", fetched.agent)
    ended = fetched.verify("sides")
    assert (ended.returncode, ended.stdout) == (
        0, "1 of 2 files are here, 1 on the source host, each of them whole\n")


def test_a_file_that_is_whole_on_neither_side_is_found(fetched):
    (fetched.agent / "dump.xml").write_bytes((fetched.content / "dump.xml").read_bytes()[:-1])
    (fetched.content / "dump.xml").unlink()
    assert_found(fetched.verify("sides"), "'dump.xml' is whole on neither side")


def test_a_part_of_a_file_under_another_name_is_found(fetched):
    shutil.move(fetched.content / "dump.xml", fetched.agent)
    (fetched.content / "dump.xml.part").touch()
    assert_found(fetched.verify("sides"), "'dump.xml.part' is here and should not be")


def test_sides_are_no_sides_when_everything_is_on_one(fetched):
    assert_found(fetched.verify("sides"), "all of it is on one side")
