# SPDX-License-Identifier: Apache-2.0
"""examples/migrate leads through a whole migration, whatever a step does."""

import json
import os
import signal
import subprocess
import time
from xml.etree import ElementTree

import pytest

from sample import PATIENCE_S, TOP, names_of, tree, unpack

CONNECTION = ("--host=source.example", "--login=mover")


class Migration:
    def __init__(self, place, server):
        self.server = server
        self.agent_dir, self.session, self.calls_file = place / "agent dir", place / "session", place / "calls"
        self.environment = {
            "PATH": "/usr/bin:/bin", "SAMPLE_HOSTING_CONF": str(server / "hosting.conf"), "MIGRATE_PAUSE_S": "0",
            "TALLOWICK": str(TOP / "tests/examples/stand-in"), "STAND_IN_CALLS": str(self.calls_file),
            "OVN_PASSWORD": "login pass"}

    def words(self, *dump):
        return [TOP / "examples/migrate", *CONNECTION, f"--agent-dir={self.agent_dir}", "--agent-name=SampleHosting",
                f"--session-path={self.session}", *(["--", *dump] if dump else [])]

    def run(self, *dump, given="", **environment):
        return subprocess.run(self.words(*dump), env={**self.environment, **environment}, input=given, text=True,
                              capture_output=True, check=False, timeout=PATIENCE_S)

    def calls(self):
        return [json.loads(line) for line in self.calls_file.read_text().splitlines()]

    def actions(self):
        return [words[0] for words, _ in self.calls()]


@pytest.fixture
def migration(place, servers):
    return Migration(place, servers(3))


def test_everything_arrives_as_it_is_on_the_source(migration, place):
    ended = migration.run()
    assert (ended.returncode, ended.stderr) == (0, "")
    assert migration.actions() == ["--send-scout", "--deploy-agent", "--dump-all", "--get-content", "--remove-agent",
                                   "--remove-dumping-status"]
    dump = ElementTree.parse(migration.session / "dump.xml").getroot()
    for name in names_of(dump, "domain"):
        for content, directory in (("site", "sites"), ("mail", "mail")):
            archive = dump.find(f"domain[@name='{name}']/{content}/archive").get("name")
            unpacked = unpack(migration.session / archive, place / archive.removesuffix(".tar.gz"))
            assert tree(unpacked) == tree(migration.server / directory / name)
    assert not migration.agent_dir.exists()
    assert ended.stdout.endswith(f"== Done: the dump is {migration.session}/dump.xml\n")


def test_options_after_the_dashes_say_what_to_dump_and_a_list_comes_from_standard_input(migration):
    ended = migration.run("--dump-selected", "--domains=-", "--clients=bob", given="shop.example\n")
    assert (ended.returncode, ended.stderr) == (0, "")
    dump = ElementTree.parse(migration.session / "dump.xml").getroot()
    assert names_of(dump, "domain") == ["shop.example", "blog.example"]
    assert names_of(dump, "client") == ["bob"]


def test_a_cut_transfer_goes_on_where_it_was(migration):
    ended = migration.run(STAND_IN_CUT="2")
    assert ended.returncode == 0
    assert migration.actions().count("--get-content") == 2
    assert "failed with status 2: " in ended.stderr
    assert len(list(migration.session.glob("*.tar.gz"))) == 9


def test_passwords_go_to_the_steps_that_connect_and_to_no_other(migration):
    assert migration.run(OVN_SUDO_PASSWORD="").returncode == 0
    *connected, (words, passwords) = migration.calls()
    assert words == ["--remove-dumping-status", f"--session-path={migration.session}"]
    assert passwords == []
    for words, passwords in connected:
        assert passwords == ["OVN_PASSWORD", "OVN_SUDO_PASSWORD"]
        assert "--sudo-password" in words


def test_without_a_sudo_password_nothing_goes_through_sudo(migration):
    assert migration.run().returncode == 0
    assert all("--sudo-password" not in words for words, _ in migration.calls())


@pytest.mark.parametrize("step, status, actions", [
    ("--send-scout", 17, ["--send-scout"]),
    ("--deploy-agent", 2, ["--send-scout", "--deploy-agent", "--remove-agent"]),
    ("--dump-all", 2, ["--send-scout", "--deploy-agent", "--dump-all", "--remove-agent"]),
    ("--get-content", 2, ["--send-scout", "--deploy-agent", "--dump-all", "--get-content", "--remove-agent"]),
])
def test_a_failed_step_ends_the_migration_with_its_status_and_removes_the_agent(migration, step, status, actions):
    ended = migration.run(STAND_IN_FAIL=f"{step} {status}")
    assert ended.returncode == status
    assert f"failed with status {status}: " in ended.stderr
    assert migration.actions() == actions
    assert not migration.agent_dir.exists()


def test_connections_are_not_lost_for_ever(migration):
    ended = migration.run(STAND_IN_FAIL="--get-content 18")
    assert ended.returncode == 18
    assert migration.actions().count("--get-content") == 5


def test_an_unknown_domain_is_told_in_the_words_of_the_agent(migration):
    ended = migration.run("--dump-selected", "--domains=no.example")
    assert ended.returncode == 2
    assert 'this server has no domain "no.example"' in ended.stderr


def test_an_interrupted_migration_ends_its_step_and_removes_the_agent(migration, place):
    waiting = place / "waiting"
    waiting.write_text(f"#!/bin/sh\necho $1 >>{place}/waited\n[ $1 != --dump-all ] || exec sleep {PATIENCE_S}\n")
    waiting.chmod(0o755)
    started = subprocess.Popen(migration.words(), env={**migration.environment, "TALLOWICK": str(waiting)},
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    end = time.monotonic() + PATIENCE_S
    while not (place / "waited").exists() or "--dump-all" not in (place / "waited").read_text():
        assert time.monotonic() < end
        time.sleep(0.01)
    os.kill(started.pid, signal.SIGINT)
    started.communicate(timeout=PATIENCE_S / 2)
    assert started.returncode == 130
    assert (place / "waited").read_text().split() == ["--send-scout", "--deploy-agent", "--dump-all", "--remove-agent"]


def test_wrong_words_are_answered_with_the_usage():
    ended = subprocess.run([TOP / "examples/migrate", "--hosts=x"], capture_output=True, text=True, check=False)
    assert (ended.returncode, ended.stdout) == (1, "")
    assert ended.stderr.startswith("migrate --host=HOST")
