# SPDX-License-Identifier: Apache-2.0
"""Archives hold what the source has, and the content list says what there is to fetch."""

import os
import socket
import subprocess
import sys
import tarfile

import pytest

from sample import LOGIN, PATIENCE_S, archive_of, md5_of, names_of, tree, unpack

# Runs its arguments and prints the most memory in KiB that they had. A small program has to do this: what a process
# has at most begins with what the one had that started it, which would be the tests themselves.
MEASURE = """import os, sys
child = os.fork() or os.execvp(sys.argv[1], sys.argv[1:])
_, status, usage = os.wait4(child, 0)
print(usage.ru_maxrss)
sys.exit(os.waitstatus_to_exitcode(status))
"""


@pytest.mark.parametrize("words, suffix", [([], ".tar.gz"), (["--no-compress"], ".tar")], ids=["compressed", "plain"])
def test_archives_unpack_to_what_the_source_has(servers, deploy, place, words, suffix):
    server = servers(3)
    agent = deploy(server)
    dump = agent.dump("--dump-all", *words)
    directories = {"site": "sites", "mail": "mail", "skeleton": "skeletons", "distribution": "applications"}
    compared = set()
    for kind in ("reseller", "domain", "application"):
        for name in names_of(dump, kind):
            for content, directory in directories.items():
                archive = archive_of(dump, kind, name, content)
                if archive:
                    assert archive["name"].endswith(suffix)
                    unpacked = unpack(agent.directory / archive["name"], place / archive["name"][:-len(suffix)])
                    assert tree(unpacked) == tree(server / directory / name)
                    compared.add(archive["name"])
    assert compared == set(agent.archives())
    assert len(compared) == 3 * 2 + 2 + 1


def test_plain_archives_are_plain_and_compressed_ones_are_smaller(agent):
    agent.dump("--dump-domains=shop.example", "--no-compress")
    plain = {name: (agent.directory / name).stat().st_size for name in agent.archives()}
    agent.dump("--dump-domains=shop.example")
    for name in agent.archives():
        assert (agent.directory / name).read_bytes()[:2] == b"\x1f\x8b"
        assert (agent.directory / name).stat().st_size < plain[name.removesuffix(".gz")]


def test_two_dumps_of_the_same_are_the_same(agent):
    agent.dump("--dump-all")
    first = {name: md5_of(agent.directory / name) for name in [*agent.archives(), "dump.xml"]}
    agent.dump("--dump-all")
    assert {name: md5_of(agent.directory / name) for name in [*agent.archives(), "dump.xml"]} == first


def test_the_dump_tells_size_sum_and_files_of_each_archive(agent):
    dump = agent.dump("--dump-domains=shop.example,blog.example")
    archives = [archive.attrib for archive in dump.iter("archive")]
    assert len(archives) == 4
    for archive in archives:
        path = agent.directory / archive["name"]
        assert int(archive["size"]) == path.stat().st_size
        assert archive["md5sum"] == md5_of(path)
        with tarfile.open(path) as tar:
            assert int(archive["files"]) == sum(not member.isdir() for member in tar)
        unpacked = subprocess.run(["gzip", "-dc", path], check=True, capture_output=True).stdout
        assert int(archive["unpacked"]) == len(unpacked)


def test_the_content_list_tells_all_files_with_their_sums(agent):
    dump = agent.dump("--dump-all")
    listed = agent.content_list()
    assert [file.text for file in listed][-2:] == ["migration.result", "dump.xml"]
    assert sorted(file.text for file in listed) == sorted([*agent.archives(), "migration.result", "dump.xml"])
    assert {file.tag for file in listed} == {"file"}
    for file in listed:
        assert int(file.get("size")) == (agent.directory / file.text).stat().st_size
        assert file.get("md5sum") == md5_of(agent.directory / file.text)
    assert int(listed.get("size")) == sum(int(file.get("size")) for file in listed)
    described = sum((agent.directory / name).stat().st_size for name in ("migration.result", "dump.xml"))
    archived = sum(int(archive.get("unpacked")) for archive in dump.iter("archive"))
    assert int(listed.get("unpacked")) == archived + described


def test_the_content_list_leaves_out_what_was_fetched(agent):
    agent.dump("--dump-domains=shop.example")
    before = agent.content_list()
    gone = before[0]
    (agent.directory / gone.text).unlink()
    after = agent.content_list()
    assert [file.text for file in after] == [file.text for file in before[1:]]
    assert int(after.get("size")) == int(before.get("size")) - int(gone.get("size"))
    for file in after:
        (agent.directory / file.text).unlink()
    empty = agent.content_list()
    assert (len(empty), empty.attrib) == (0, {"size": "0", "unpacked": "0"})


def test_without_a_dump_there_is_no_content_list(agent):
    ended = agent.run("--get-content-list")
    assert (ended.returncode, ended.stdout) == (1, "")
    assert "there is no dump here" in ended.stderr


def test_a_dump_replaces_an_earlier_one_and_what_a_killed_one_left(agent, place):
    agent.dump("--dump-all")
    mine = place / "mine"
    mine.write_text("mine")
    (agent.directory / "domain-99-site.tar.gz.new").write_text("half")
    (agent.directory / "dumping-status.xml.new").symlink_to(mine)
    (agent.directory / "dump.xml.new").symlink_to(mine)
    (agent.directory / "not-mine.tar.gz").write_text("not made by a dump")
    agent.dump("--dump-domains=shop.example")
    assert agent.names() == sorted(["bin", "lib", "content.list", "dump.xml", "dumping-status.xml", "migration.result",
                                    "domain-1-site.tar.gz", "domain-1-mail.tar.gz", "not-mine.tar.gz"])
    assert mine.read_text() == "mine"


def test_other_than_files_directories_and_links_is_left_out_and_reported(small_agent, place):
    site = place / "server/site"
    (site / "file").write_text("a file")
    os.mkfifo(site / "fifo")
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(os.fsencode(site) + b"/a socket\nof a server")
    ended = small_agent.run("--migration-mode", "--dump-all")
    assert (ended.returncode, ended.stdout) == (0, "")
    assert ended.stderr.splitlines() == [
        r"warning: domain one.example: ./a socket\x0Aof a server is neither file, directory nor link, and is left out",
        "warning: domain one.example: ./fifo is neither file, directory nor link, and is left out"]
    result = small_agent.document("migration.result")
    assert (result.tag, result.get("status")) == ("execution-result", "success")
    assert [entry.attrib for entry in result] == [{"name": "one.example", "type": "domain"}] * 2
    message = result[1].find("message")
    assert (message.get("severity"), len(message.get("id"))) == ("warning", 36)
    assert message.findtext("description") == "./fifo is neither file, directory nor link, and is left out"
    assert set(tree(unpack(small_agent.directory / "domain-1-site.tar.gz", place / "unpacked"))) == {b".", b"file"}


def test_a_link_in_place_of_a_site_is_followed_but_none_inside(small_agent, place):
    server = place / "server"
    (server / "site").rename(server / "elsewhere")
    (server / "site").symlink_to("elsewhere")
    (server / "elsewhere/link").symlink_to("/etc")
    small_agent.dump("--dump-all")
    assert set(tree(unpack(small_agent.directory / "domain-1-site.tar.gz", place / "unpacked"))) == {b".", b"link"}


def test_a_site_of_200_mib_takes_little_memory(small_agent, place):
    with open(place / "server/site/large", "wb") as large:
        large.truncate(200 << 20)
    command = [sys.executable, "-I", "-S", "-c", MEASURE, *small_agent.command, "--migration-mode", "--dump-all"]
    ended = subprocess.run(command, cwd=small_agent.directory, env=small_agent.environment, stdout=subprocess.PIPE,
                           text=True, check=True, timeout=PATIENCE_S)
    assert int(ended.stdout) < 32 << 10    # KiB
    with tarfile.open(small_agent.directory / "domain-1-site.tar.gz") as tar:
        assert {member.name: member.size for member in tar} == {".": 0, "./large": 200 << 20}


def test_what_root_makes_belongs_to_the_login_and_to_nobody_else(root, agent):
    os.chown(agent.directory, 0, 0)    # as "mkdir -p" through sudo leaves it
    agent.dump("--dump-all")
    made = [path for path in agent.directory.iterdir() if path.is_file()]
    assert len(made) > 10
    assert {(path.stat().st_uid, path.stat().st_gid, oct(path.stat().st_mode & 0o777)) for path in made} == {
        (LOGIN, LOGIN, "0o600")}


def test_works_as_the_login_user(root, agent):
    login = {"user": LOGIN, "group": LOGIN, "extra_groups": []}
    agent.dump("--dump-all", **login)
    assert agent.run("--get-content-list", **login).stdout == agent.run("--get-content-list").stdout
