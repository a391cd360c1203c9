# SPDX-License-Identifier: Apache-2.0
"""The options of the dumper, and the lists that it reads from standard input."""

import subprocess

import pytest

from sample import PATIENCE_S, names_of

SECRET = "s3cret pass,word"
TRANSPORT = f"source.example\nmover\n{SECRET}\n22\n"


@pytest.mark.parametrize("words", [
    [], ["--dump-all"], ["--migration-mode", "--get-status"], ["--get-status", "--get-content-list"],
    ["--migration-mode", "--unknown"], ["--migration-mode", "--dump"], ["--migration-mode", "word"],
    ["--migration-mode", "--only-mail", "--only-hosting"], ["--migration-mode", "--content-transport=pigeon"],
    ["--migration-mode", "--dump-domains"],
], ids=" ".join)
def test_wrong_options_end_with_2_and_a_message(agent, words):
    ended = agent.run(*words)
    assert (ended.returncode, ended.stdout) == (2, "")
    assert ended.stderr.startswith("SampleHosting: ")
    assert "dump.xml" not in agent.names()


def test_lists_come_in_a_fixed_order_whatever_the_order_of_the_options(agent):
    dump = agent.dump("--dump-resellers=-", "--dump-clients=-", "--dump-domains=-", "--no-content",
                      given="club.example\nerika\nhostbrothers\n")
    assert "club.example" in names_of(dump, "domain")
    assert "erika" in names_of(dump, "client")
    assert names_of(dump, "reseller") == ["hostbrothers"]


def test_the_last_list_needs_no_newline(agent):
    dump = agent.dump("--dump-domains=-", "--dump-clients=-", "--no-content", given="shop.example,blog.example\nerika")
    assert {"shop.example", "blog.example"} <= set(names_of(dump, "domain"))
    assert names_of(dump, "client") == ["erika"]


def test_blanks_and_empty_names_in_lists_mean_nothing(agent):
    dump = agent.dump("--dump-domains=-", "--no-content", given=" shop.example , ,blog.example,")
    assert names_of(dump, "domain") == ["shop.example", "blog.example"]


def test_a_list_can_stand_in_the_option_itself(agent):
    dump = agent.dump("--dump-domains=shop.example,blog.example", "--no-content")
    assert names_of(dump, "domain") == ["shop.example", "blog.example"]


@pytest.mark.parametrize("given", ["", "one line"])
def test_missing_lists_are_an_error(agent, given):
    ended = agent.run("--migration-mode", "--dump-domains=-", "--dump-clients=-", given=given)
    assert ended.returncode == 2
    assert "instead of 2" in ended.stderr


def test_lists_follow_the_four_lines_of_the_content_transport(agent):
    dump = agent.dump("--content-transport=rsync", "--dump-domains=-", "--no-content",
                      given=TRANSPORT + "shop.example")
    assert names_of(dump, "domain") == ["shop.example"]


def test_the_content_transport_without_lists_is_accepted(agent):
    assert names_of(agent.dump("--content-transport=rsync", "--dump-all", "--no-content", given=TRANSPORT), "client")


def test_with_a_content_transport_its_last_line_is_never_taken_for_a_list(agent):
    ended = agent.run("--migration-mode", "--content-transport=rsync", "--dump-domains=-", given=TRANSPORT)
    assert ended.returncode == 2
    assert "4 lines instead of 5" in ended.stderr


def test_a_password_that_sudo_did_not_read_is_skipped(agent):
    dump = agent.dump("--dump-domains=-", "--no-content", given=f"{SECRET}\nshop.example")
    assert names_of(dump, "domain") == ["shop.example"]


def test_the_password_of_the_content_transport_is_written_nowhere(agent):
    for listed in ("shop.example", "no.example"):
        ended = agent.run("--migration-mode", "--content-transport=rsync", "--dump-domains=-", "--no-compress",
                          given=TRANSPORT + listed)
        assert SECRET not in ended.stdout + ended.stderr
        for path in agent.directory.rglob("*"):
            assert not path.is_file() or SECRET.encode() not in path.read_bytes()


def test_standard_input_is_not_read_when_no_list_is_wanted(agent):
    started = agent.start("--migration-mode", "--dump-all", "--no-content", stdin=subprocess.PIPE)
    assert started.wait(PATIENCE_S) == 0    # with its input still open
    started.communicate()
