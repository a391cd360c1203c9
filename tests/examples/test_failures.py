# SPDX-License-Identifier: Apache-2.0
"""A dump is complete, or it fails with a message; what changes while it is made is told."""

import os
import re
import resource
import signal
import subprocess
import tarfile

import pytest

from sample import AGENTS, LOGIN

LOGIN_USER = {"user": LOGIN, "group": LOGIN, "extra_groups": []}


def failure(agent, *words, **options):
    """The message with which a dump fails; nothing of a dump is left then."""
    ended = agent.run("--migration-mode", *words, **options)
    assert (ended.returncode, ended.stdout) == (1, "")
    assert not {"dump.xml", "content.list", "migration.result", *agent.archives()} & set(agent.names())
    assert [name for name in agent.names() if name.endswith(".new")] == []
    return ended.stderr.removeprefix("SampleHosting: ").removesuffix("\n")


def test_directory_that_cannot_be_written(root, agent):
    os.chown(agent.directory, 0, 0)
    assert failure(agent, "--dump-all", **LOGIN_USER) == (
        f"cannot create {agent.directory}/dumping-status.xml.new: Permission denied")


@pytest.mark.parametrize("kind", ["file", "directory"])
def test_unreadable_content_fails_and_is_never_left_out(root, small_agent, place, kind):
    entry = place / "server/site/private"
    entry.mkdir() if kind == "directory" else entry.write_text("private")
    entry.chmod(0o700 if kind == "directory" else 0o600)
    message = failure(small_agent, "--dump-all", **LOGIN_USER)
    assert message == "cannot read ./private: Permission denied"
    assert small_agent.document("dumping-status.xml")[0].attrib == {"message": message}


def test_missing_site(small_agent, place):
    (place / "server/site").rmdir()
    try:
        assert failure(small_agent, "--dump-all") == f"cannot enter {place}/server/site: No such file or directory"
    finally:
        (place / "server/site").mkdir()


def test_no_room_for_the_archive(small_agent, place):
    def restrict():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000))

    (place / "server/site/large").write_bytes(os.urandom(1_000_000))
    assert failure(small_agent, "--dump-all", preexec_fn=restrict) == (
        f"cannot write {small_agent.directory}/domain-1-site.tar.gz.new: File too large")


@pytest.mark.parametrize("text, message", [
    ("[domain one.example]\nid 1\n[domain two.example]\nid 1\n", r"domain \S+ has no id of its own"),
    ("[domain one.example]\nid 1\n[domain two.example]\nid 01\n", r"domain \S+ has no id of its own"),
    ("[domain one.example]\n", "domain one.example has no id of its own"),
    ("[domain one.example]\nid ../1\n", "domain one.example has no id of its own"),
    ("[domain]\nid 1\n", "hosting.conf:1: cannot be understood"),
    ("[planet earth]\nid 1\n", "hosting.conf:1: cannot be understood"),
    ("id 1\n", "hosting.conf:1: cannot be understood"),
    ("[server]\n\n# remark\nrubbish\n", "hosting.conf:4: cannot be understood"),
], ids=repr)
def test_configuration_that_makes_no_sense(small_agent, place, text, message):
    (place / "server/hosting.conf").write_text(text)
    assert small_agent.run("--get-status").returncode == 1
    assert re.search(message, failure(small_agent, "--dump-all"))


def test_configuration_that_is_a_link(small_agent, place):
    link = place / "sample-hosting.conf"
    link.symlink_to(place / "server/hosting.conf")
    small_agent.environment["SAMPLE_HOSTING_CONF"] = str(link)
    small_agent.dump("--dump-all")


def archive(place, change, *files):
    """Archives place/tree and runs `change`, some perl, when the header of "a" was written; the notes, the archive."""
    (place / "tree").mkdir()
    for name, size in files:
        (place / "tree" / name).write_bytes(b"x" * size)
    script = r"""
        use Agent::Tar;
        open my $out, '>:raw', "$ARGV[0]/tree.tar" or die;
        my $tar = Agent::Tar->new(note => sub { print "$_[0]\n" }, write => sub {
            print $out $_[0];
            if ($_[0] =~ m{^\./a\0}) { CHANGE }
        });
        $tar->add_tree("$ARGV[0]/tree");
        $tar->finish;
        close $out or die;
    """.replace("CHANGE", change)
    ended = subprocess.run(["perl", f"-I{AGENTS}/shared/lib", "-Mstrict", "-we", script, place], check=False,
                           capture_output=True, text=True)
    assert ended.stderr == ""
    return ended.stdout, tarfile.open(place / "tree.tar")


def test_a_file_that_is_deleted_meanwhile_is_left_out_and_told(place):
    notes, tar = archive(place, "unlink 'b'", ("a", 1), ("b", 1), ("c", 1))
    with tar:
        assert tar.getnames() == [".", "./a", "./c"]
    assert notes == "./b was deleted while the dump was made\n"


def test_a_file_that_shrinks_meanwhile_ends_in_zeros_and_is_told(place):
    size = 600_001
    notes, tar = archive(place, "truncate 'a', 300_000", ("a", size), ("b", 3))
    with tar:
        assert tar.getnames() == [".", "./a", "./b"]
        content = tar.extractfile("./a").read()
    assert content == b"x" * 300_000 + b"\0" * 300_001
    assert notes == "./a became shorter while it was read; its last 300001 bytes are zeros\n"


def test_a_file_that_grows_meanwhile_is_cut(place):
    notes, tar = archive(place, "if (open my $a, '>>', 'a') { print $a 'yyy' }", ("a", 5), ("b", 3))
    with tar:
        assert tar.extractfile("./a").read() == b"xxxxx"
        assert tar.extractfile("./b").read() == b"xxx"
    assert notes == ""


@pytest.mark.parametrize("size, changed", [(0, 0), (8**11 - 1, 1), (8**11, 1_700_000_000), (1 << 44, -1), (5, -10**10)])
def test_headers_hold_any_size_and_time(size, changed):
    script = "use Agent::Tar; print Agent::Tar::header('name', 0, @ARGV[0], '', 0100644, 4711, 3_000_000, $ARGV[1])"
    ended = subprocess.run(["perl", f"-I{AGENTS}/shared/lib", "-e", script, str(size), str(changed)], check=True,
                           capture_output=True)
    member = tarfile.TarInfo.frombuf(ended.stdout, "utf-8", "strict")
    assert (member.size, member.mtime, member.uid, member.gid, member.mode) == (size, changed, 4711, 3_000_000, 0o644)
