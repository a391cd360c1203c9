# SPDX-License-Identifier: Apache-2.0
"""The command line: what is accepted, what is refused, and with which words."""

import re

import pytest

from harness.accounts import MOVER, NOPASS
from harness.program import source
from harness.session import Session

USAGE = (
    "Usage: [OVN_PASSWORD=<password> | OVN_SUDO_PASSWORD = <sudo_password>] tallowick \n"
    "          --host=<hostname or IP address> (obsolete alias is --ip)\n"
    "          [--port=<port>] (defaults to 22)\n"
    "          --login=<username>\n"
    "          [--sudo-password]\n"
    "          --agent-dir=<dir> (relative path on the remote side)\n"
    "          ( --send-scout\n"
    "          | --deploy-agent --session-path <dir> --agent-name <agent>\n"
    "          | --get-dumping-status --session-path <dir>\n"
    "          | ( --dump-selected [--selected-objects-file=<file-path>]\n"
    "                [--resellers=-|<reseller1>[,<reseller2>...]] [--clients=-|<client1>[,<client2>...]]"
    " [--domains=-|<domain1>[,<domain2>...]]\n"
    "             | --dump-all ) \n"
    "                [--server] [--admin-info] [--no-license]\n"
    "                 --session-path <dir> --agent-name <agent>\n"
    "                [--no-content] [--no-compress]\n"
    "                [--only-mail]\n"
    "                [--only-hosting]\n"
    "          | --get-content --session-path <dir> --agent-name <agent>\n"
    "                [--no-check-space] [--no-encryption (not implemented)] [--dumps-dir=<dir-on-destination-host>]\n"
    "          | --remove-agent --session-path <dir> --agent-name <agent>\n"
    "          | --remove-dumping-status --session-path <dir>\n"
    "          | --help | -h)\n").encode()

PREFIX = "Unable to parse command line: "
REQUIRED = PREFIX + "{} is required unless --help or -h requested\n"
NOT_ALLOWED = PREFIX + "{} is not allowed with --help or -h\n"
ONLY_WITH = PREFIX + "'--{}' only may be specified when '--{}' is requested"
PORT_RANGE = PREFIX + "port should be a number in [1, 65535] range"
TWO_ACTIONS = PREFIX + "More than one action is given"

HOST = ["--host=127.0.0.1", "--login=mover"]
AGENT = ["--agent-dir=/agent", "--agent-name=SomeAgent"]
FULL = [*HOST, *AGENT]


def assert_refused(run, text):
    """The run ended with a validation error: status 1, the text once, no result document."""
    assert run.status == 1
    assert run.err == text
    assert run.stdout == b""
    assert not [name for name in run.session.names() if name.startswith(("migration.result", "transfer.result"))]


def assert_accepted(run):
    """The command line passed validation: what failed then, if anything, did so afterwards."""
    assert run.status != 1, run.err
    assert "Unable to parse command line" not in run.err


# Every rule, in the order in which the rules are tried. A line breaks its own rule and, where it can, every
# rule further down, so a rule that is tried too late gives another message.
RULES = [
    (["--send-scout", "--deploy-agent", "--no-check-space", "--no-encryption", "--no-content", "--port=0"],
     TWO_ACTIONS),
    (["--send-scout", "--no-check-space", "--no-encryption", "--no-content", "--port=0"],
     ONLY_WITH.format("no-check-space", "get-content")),
    (["--send-scout", "--no-encryption", "--no-content", "--port=0"],
     ONLY_WITH.format("no-encryption", "get-content")),
    (["--send-scout", "--no-content", "--port=0"], ONLY_WITH.format("no-content", "dump-*")),
    (["--get-content", "--no-content", "--port=0"], ONLY_WITH.format("no-content", "dump-*")),
    (["--remove-dumping-status", "--no-check-space", *FULL], ONLY_WITH.format("no-check-space", "get-content")),
    (["--remove-dumping-status", "--port=1", "--sudo-password", *FULL], NOT_ALLOWED.format("host")),
    (["--remove-dumping-status", "--port=1", "--login=mover", "--sudo-password", *AGENT],
     NOT_ALLOWED.format("port")),
    (["--remove-dumping-status", "--login=mover", "--sudo-password", *AGENT], NOT_ALLOWED.format("login")),
    (["--remove-dumping-status", "--sudo-password", *AGENT], NOT_ALLOWED.format("password")),
    (["--send-scout", "--port=0", "--sudo-password", *AGENT], REQUIRED.format("host")),
    (["--send-scout", "--host=127.0.0.1", "--port=0", "--sudo-password", *AGENT], PORT_RANGE),
    (["--send-scout", "--host=127.0.0.1", "--sudo-password", *AGENT], REQUIRED.format("login")),
    (["--send-scout", "--sudo-password", *FULL],
     PREFIX + "OVN_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"),
    (["--send-scout", *FULL], NOT_ALLOWED.format("agent directory")),
    (["--send-scout", "--agent-name=SomeAgent", *HOST], NOT_ALLOWED.format("agent name")),
    *[([action, *HOST], REQUIRED.format("agent directory"))
      for action in ("--deploy-agent", "--get-dumping-status", "--dump-selected", "--dump-all", "--get-content",
                     "--remove-agent")],
    *[([action, "--agent-dir=/agent", *HOST], REQUIRED.format("agent name"))
      for action in ("--deploy-agent", "--get-dumping-status", "--dump-selected", "--dump-all", "--get-content",
                     "--remove-agent")],
]

# The same where no password is given.
RULES_WITHOUT_PASSWORD = [
    (["--send-scout", "--sudo-password", *FULL], REQUIRED.format("password")),
    (["--remove-dumping-status", "--sudo-password", *AGENT], NOT_ALLOWED.format("agent directory")),
    (["--remove-dumping-status", "--sudo-password", "--agent-name=SomeAgent"], NOT_ALLOWED.format("agent name")),
    (["--remove-dumping-status", "--sudo-password"], NOT_ALLOWED.format("sudo parameters")),
]


@pytest.mark.parametrize("arguments, text", RULES, ids=[" ".join(rule[0]) for rule in RULES])
def test_each_broken_rule_ends_with_its_own_message(tallowick, arguments, text):
    assert_refused(tallowick.run(*arguments), text)


@pytest.mark.parametrize("arguments, text", RULES_WITHOUT_PASSWORD,
                         ids=[" ".join(rule[0]) for rule in RULES_WITHOUT_PASSWORD])
def test_each_broken_rule_without_password_ends_with_its_own_message(tallowick, arguments, text):
    assert_refused(tallowick.run(*arguments, password=None), text)


def test_validation_error_is_logged_between_start_and_finish_line(tallowick):
    run = tallowick.run("--send-scout")
    records = run.session.records
    assert [record.category for record in records] == ["k.log"] * 3
    assert [record.level for record in records] == ["INFO"] * 3
    assert records[0].text.startswith("Tallowick started : ")
    assert re.match(r"OptParsingError\[[0-9a-f-]{36}\0?\]: Unable to parse command line: host is required",
                    records[1].text)
    assert records[2].text == "Tallowick finished. Exit code: 1"


def test_validation_error_leaves_nothing_but_log_and_archives(tallowick):
    assert tallowick.run("--send-scout").session.names() == ["archives", "migration.log"]


def test_repeated_action_is_more_than_one_action(tallowick):
    assert_refused(tallowick.run("--send-scout", "--send-scout"), TWO_ACTIONS)


def test_scout_and_dump_are_more_than_one_action(tallowick):
    assert_refused(tallowick.run("--send-scout", "--dump-all"), TWO_ACTIONS)


def test_help_beside_an_action_is_more_than_one_action(tallowick):
    assert_refused(tallowick.run("-h", "--send-scout"), TWO_ACTIONS)


def test_three_actions_stay_more_than_one_action(tallowick):
    assert_refused(tallowick.run("--send-scout", "--dump-all", "--help"), TWO_ACTIONS)


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_help_prints_the_usage_byte_for_byte(tallowick, option):
    run = tallowick.run(option, session=False, password=None)
    assert run.status == 0
    assert run.stdout == USAGE
    assert run.stderr == b""


def test_help_makes_no_session_directory(tallowick):
    run = tallowick.run("--help")
    assert run.status == 0
    assert run.stdout == USAGE
    assert not run.session.path.exists()


def test_no_action_is_told_before_the_session_path_is_missed(tallowick):
    run = tallowick.run(session=False)
    assert (run.status, run.err, run.stdout) == (1, "Action required. See --help\n", b"")


def test_no_action_makes_no_session_directory(tallowick):
    run = tallowick.run(*HOST)
    assert (run.status, run.err) == (1, "Action required. See --help\n")
    assert not run.session.path.exists()


@pytest.mark.parametrize("arguments", [["--send-scout", *HOST], ["--send-scout", "--dump-all"],
                                       ["--remove-dumping-status"], ["--send-scout", "--session-path="]])
def test_every_action_requires_a_session_path(tallowick, arguments):
    run = tallowick.run(*arguments, session=False)
    assert (run.status, run.err, run.stdout) == (1, "--session-path is required.\n", b"")


@pytest.mark.parametrize("argument", ["--nonsense", "--host", "-x"])
def test_scanner_error_prints_only_the_scanners_own_words(tallowick, argument):
    run = tallowick.run("--send-scout", "--session-path=/run/never", argument, session=False)
    assert run.status == 1
    assert run.stdout == b""
    assert run.err.count("\n") == 1
    assert "tallowick" in run.err
    assert not Session("/run/never").path.exists()


@pytest.mark.parametrize("port", ["0", "65536", "-5", "abc", "", "99999999999999999999", "-1"])
def test_port_outside_of_its_range_is_refused(tallowick, port):
    assert_refused(tallowick.run("--send-scout", f"--port={port}", *HOST), PORT_RANGE)


def test_garbage_after_the_port_is_ignored(tallowick, server):
    options = [*source(server), f"--port={server.port}abc"]
    assert tallowick.run("--send-scout", *options).status == 0


def test_port_22abc_is_22(tallowick):
    run = tallowick.run("--send-scout", "--port=22abc", *HOST)
    assert run.status == 11
    assert "Unable to open socket to 127.0.0.1:22: " in run.session.log


@pytest.mark.parametrize("port", ["1", "65535"])
def test_ports_at_the_ends_of_the_range_are_accepted(tallowick, port):
    run = tallowick.run("--send-scout", f"--port={port}", *HOST)
    assert run.status == 11
    assert f"127.0.0.1:{port}" in run.session.log


def test_port_zero_is_an_error_though_an_absent_port_is_not(tallowick):
    assert_refused(tallowick.run("--send-scout", *HOST, "--port=0"), PORT_RANGE)
    assert_accepted(tallowick.run("--send-scout", *HOST))


def test_ip_is_an_alias_of_host(tallowick, server):
    arguments = ["--ip=127.0.0.1", f"--port={server.port}", "--login", MOVER.login]
    assert tallowick.run("--send-scout", *arguments).status == 0


def test_later_host_overwrites_the_earlier_one(tallowick, server):
    assert tallowick.run("--send-scout", "--host=nowhere.invalid", *source(server)).status == 0
    assert tallowick.run("--send-scout", *source(server), "--ip=nowhere.invalid").status == 16


def test_value_may_follow_as_an_argument_of_its_own(tallowick, server):
    arguments = ["--host", "127.0.0.1", "--port", str(server.port), "--login", MOVER.login]
    assert tallowick.run("--send-scout", *arguments).status == 0


def test_remove_dumping_status_needs_only_a_session_path(tallowick):
    run = tallowick.run("--remove-dumping-status", password=None)
    assert (run.status, run.err) == (0, "")


def test_remove_dumping_status_is_refused_with_a_password_in_the_environment(tallowick):
    assert_refused(tallowick.run("--remove-dumping-status"), NOT_ALLOWED.format("password"))


def test_remove_dumping_status_does_not_mind_a_sudo_password_in_the_environment(tallowick):
    assert tallowick.run("--remove-dumping-status", password=None, sudo_password="some-Sudo-2").status == 0


def test_invalid_port_is_still_a_port_for_remove_dumping_status(tallowick):
    assert_refused(tallowick.run("--remove-dumping-status", "--port=0", password=None), NOT_ALLOWED.format("port"))


def test_scout_with_agent_name_gets_the_message_about_help(tallowick):
    assert_refused(tallowick.run("--send-scout", *HOST, "--agent-name=SomeAgent"), NOT_ALLOWED.format("agent name"))


def test_no_content_is_refused_with_get_content_and_accepted_with_dump_selected(tallowick):
    assert_refused(tallowick.run("--get-content", "--no-content", *FULL), ONLY_WITH.format("no-content", "dump-*"))
    assert_accepted(tallowick.run("--dump-selected", "--no-content", *FULL))
    assert_accepted(tallowick.run("--dump-all", "--no-content", *FULL))


def test_no_check_space_and_no_encryption_are_accepted_with_get_content(tallowick):
    assert_accepted(tallowick.run("--get-content", "--no-check-space", "--no-encryption", *FULL))


def test_options_of_the_dump_are_not_refused_with_other_actions(tallowick, server):
    extra = ["--no-compress", "--only-mail", "--only-hosting", "--content-transport=rsync", "--server",
             "--admin-info", "--no-license", "--dumps-dir=/x", "--selected-objects-file=/x", "--domains=a.example"]
    assert tallowick.run("--send-scout", *extra, *source(server)).status == 0


def test_empty_sudo_password_is_accepted(tallowick, server):
    run = tallowick.run("--send-scout", "--sudo-password", *source(server, NOPASS), password=NOPASS.password,
                        sudo_password="")
    assert run.status == 0


def test_sudo_password_in_the_environment_alone_does_not_ask_for_sudo(tallowick, server):
    run = tallowick.run("--send-scout", *source(server), sudo_password=MOVER.sudo_password)
    assert run.status == 0
    assert server.commands() == [rb"sh -c cd\ \;\ perl"]


def test_first_word_that_is_no_option_does_not_end_the_scan(tallowick, server):
    assert tallowick.run("stray", "--send-scout", *source(server)).status == 0


def test_text_of_any_origin_reaches_message_and_document_as_valid_text(tallowick):
    run = tallowick.run("--send-scout", "--host=no\udcffwhere.invalid\x01", "--login=mover")
    assert run.status == 16
    error = run.session.error()
    assert error.code == "HostNotFound"
    assert "no\ufffdwhere.invalid\ufffd" in error.description
