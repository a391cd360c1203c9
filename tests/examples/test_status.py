# SPDX-License-Identifier: Apache-2.0
"""How one follows a dump, and how an agent answers after it was deployed."""

import os
import pathlib
import shutil
import signal
import subprocess
import time
from xml.etree import ElementTree

from sample import AGENTS, PATIENCE_S, md5_of


def wait_for(condition):
    end = time.monotonic() + PATIENCE_S
    while not condition():
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.002)


def test_a_deployed_agent_names_its_status_file(agent):
    ended = agent.run("--get-status")
    assert (ended.returncode, ended.stderr) == (0, "")
    status = ElementTree.fromstring(ended.stdout)
    assert (status.tag, status.findtext("statusfile")) == ("agentstatus", "dumping-status.xml")


def test_an_agent_without_its_server_says_so_when_it_is_deployed(agent):
    agent.environment["SAMPLE_HOSTING_CONF"] = "/nowhere/hosting.conf"
    ended = agent.run("--get-status")
    assert (ended.returncode, ended.stdout) == (1, "")
    assert ended.stderr == ("SampleHosting: cannot read the server's configuration /nowhere/hosting.conf: "
                            "No such file or directory\n")


def test_a_reader_never_sees_a_status_that_is_not_whole(agent):
    path = agent.directory / "dumping-status.xml"
    seen = {}      # by inode; they stay open, so that no number comes twice
    started = agent.start("--migration-mode", "--dump-all")
    ended = False
    while not ended:
        ended = started.poll() is not None    # one look after the end
        try:
            file = open(path, "rb")
        except FileNotFoundError:
            continue
        number = os.fstat(file.fileno()).st_ino
        text = file.read()
        ElementTree.fromstring(text)
        if number in seen:
            file.close()
            assert seen[number][1] == text
        else:
            seen[number] = (file, text)
    states = [ElementTree.fromstring(text)[0] for _, text in seen.values()]
    for file, _ in seen.values():
        file.close()
    assert started.communicate() == (b"", b"")
    assert len(states) >= 3
    assert states[-1].tag == "finished"
    assert {state.get("total") for state in states[1:-1]} == {"15"}
    left = [int(state.get("left")) for state in states[:-1]]
    assert left == sorted(left, reverse=True)


def test_the_end_tells_all_objects_files_and_bytes(agent):
    dump = agent.dump("--dump-all")
    finished = agent.document("dumping-status.xml")[0]
    archives = dump.findall(".//archive")
    assert finished.tag == "finished"
    assert finished.attrib == {"total": "15", "files": str(sum(int(archive.get("files")) for archive in archives)),
                               "bytes": str(sum(int(archive.get("unpacked")) for archive in archives))}


def test_the_status_moves_within_a_large_object(place):
    script = place / "script.pl"    # a file, whose owner owns what it makes
    script.write_text("""
        use Agent::Status;
        my $status = Agent::Status->new("$ARGV[0]/status.xml");
        $status->begin(1);
        $status->begin_object('large.example');
        $status->advance(1, 1000);
        system 'cat', "$ARGV[0]/status.xml";
        select undef, undef, undef, 0.3;
        $status->advance(0, 1000);
        system 'cat', "$ARGV[0]/status.xml";
    """)
    ended = subprocess.run(["perl", f"-I{AGENTS}/shared/lib", script, place], check=True, capture_output=True,
                           text=True)
    first, second = (ElementTree.fromstring("<?xml " + text)[0].attrib for text in ended.stdout.split("<?xml ")[1:])
    assert int(first["bytes"]) < int(second["bytes"]) == 2000
    assert (second["files"], second["left"], second["current"]) == ("1", "1", "large.example")


def test_two_dumps_wait_for_each_other(agent):
    holder = subprocess.Popen(["flock", agent.command[-1], "cat"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    holder.stdin.write(b"x")
    holder.stdin.flush()
    holder.stdout.read(1)
    started = agent.start("--migration-mode", "--dump-domains=shop.example")
    wait_for(lambda: is_blocked(started.pid))
    assert "dumping-status.xml" not in agent.names()
    holder.communicate()
    assert started.communicate() == (b"", b"")
    assert started.returncode == 0
    assert "dump.xml" in agent.names()


def is_blocked(pid):
    with open("/proc/locks", encoding="ascii") as locks:
        return any(line.split()[1] == "->" and line.split()[5] == str(pid) for line in locks)


def test_a_dump_that_is_ended_says_so_and_leaves_nothing_half_made(small_agent, place):
    with open(place / "server/site/large", "wb") as large:
        large.truncate(1 << 36)
    started = small_agent.start("--migration-mode", "--dump-all")
    wait_for(lambda: "domain-1-site.tar.gz.new" in small_agent.names())
    started.send_signal(signal.SIGTERM)
    assert started.communicate() == (b"", b"SampleHosting: ended by SIGTERM\n")
    assert started.returncode == 1
    assert small_agent.names() == ["bin", "dumping-status.xml", "lib"]
    assert small_agent.document("dumping-status.xml")[0].get("message") == "ended by SIGTERM"


def test_a_dump_whose_agent_is_removed_ends_and_touches_nothing_more(small_agent, place):
    with open(place / "server/site/large", "wb") as large:
        large.truncate(1 << 36)
    started = small_agent.start("--migration-mode", "--dump-all")
    wait_for(lambda: "domain-1-site.tar.gz.new" in small_agent.names())
    entry = pathlib.Path(small_agent.command[-1])
    entry.rename(entry.with_suffix(".kept"))
    shutil.copy(entry.with_suffix(".kept"), entry)    # sent anew
    entry.with_suffix(".kept").unlink()
    (small_agent.directory / "dump.xml").write_text("of the next dump")
    assert started.communicate() == (b"", b"SampleHosting: the agent was removed while it worked\n")
    assert started.returncode == 1
    assert (small_agent.directory / "dump.xml").read_text() == "of the next dump"
    assert small_agent.document("dumping-status.xml")[0].tag == "dumping"


def test_a_dump_that_is_killed_does_not_hinder_the_next_one(small_agent, place):
    large = place / "server/site/large"
    with open(large, "wb") as file:
        file.truncate(1 << 36)
    started = small_agent.start("--migration-mode", "--dump-all")
    wait_for(lambda: "domain-1-site.tar.gz.new" in small_agent.names())
    started.kill()
    started.communicate()
    large.unlink()
    small_agent.dump("--dump-all")
    listed = small_agent.content_list()
    assert {file.text: file.get("md5sum") for file in listed} == {
        name: md5_of(small_agent.directory / name) for name in ("domain-1-site.tar.gz", "migration.result", "dump.xml")}
