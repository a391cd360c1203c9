# SPDX-License-Identifier: Apache-2.0
"""Neither password is ever written anywhere or seen in a process, whatever the remote side echoes."""

import os
import re
import time

import pytest

from harness.accounts import MOVER, NOPASS, OWNER, PLAIN, SPACEY
from harness.agents import AgentCatalogue, DeployedAgent, fill
from harness.places import make_dir, write
from harness.processes import descendants, proc_bytes
from harness.product import SMALL_SCOUT
from harness.program import source
from harness.waiting import wait_until

MASK = "********"


def assert_nowhere(run, *secrets, except_for=()):
    """No file of the session, and nothing that the run printed, has one of the secrets."""
    written = {"standard output": run.stdout, "standard error": run.stderr}
    for directory, _, names in os.walk(run.session.path):
        for name in names:
            with open(os.path.join(directory, name), "rb") as file:
                written[name] = file.read()
    for where, content in written.items():
        for secret in secrets:
            assert where in except_for or secret.encode() not in content, f"a secret stands in {where}"


def cases():
    """(account, sudo password or None for no sudo, whether that is the right one)"""
    return [pytest.param(MOVER, None, id="no sudo"),
            pytest.param(MOVER, MOVER.sudo_password, id="asked for root's password"),
            pytest.param(OWNER, OWNER.sudo_password, id="asked for its own password"),
            pytest.param(SPACEY, SPACEY.sudo_password, id="password with blanks"),
            pytest.param(NOPASS, NOPASS.sudo_password, id="not asked"),
            pytest.param(OWNER, "wrong-Sudo-Password-1", id="wrong"),
            pytest.param(OWNER, "wrong sudo Password with blanks", id="wrong with blanks"),
            pytest.param(PLAIN, PLAIN.password, id="not in sudoers")]


@pytest.mark.parametrize("account, sudo_password", cases())
@pytest.mark.parametrize("action", ["--send-scout", "--get-dumping-status", "--remove-agent"])
def test_no_action_writes_a_password_anywhere(tallowick, server, workspace, action, account, sudo_password):
    agent = make_dir(workspace / "agent", 0o777)
    write(agent / "dumping-status.xml", "<status/>")
    arguments = [action, *source(server, account), "--verbose"]
    if action != "--send-scout":
        arguments += [f"--agent-dir={agent}", "--agent-name=a"]
    if sudo_password is not None:
        arguments.append("--sudo-password")
    run = tallowick.run(*arguments, password=account.password, sudo_password=sudo_password)
    assert_nowhere(run, account.password, *([sudo_password] if sudo_password else []))


AGENT_ACTIONS = {"--deploy-agent": [],
                 "--dump-selected": ["--domains=one.example,two.example", "--content-transport=rsync"],
                 "--dump-all": ["--content-transport=rsync"],
                 "--get-content": []}


def agent_cases():
    """As `cases()`, with fewer logins."""
    return [pytest.param(MOVER, None, id="no sudo"),
            pytest.param(MOVER, MOVER.sudo_password, id="asked for root's password"),
            pytest.param(SPACEY, SPACEY.sudo_password, id="password with blanks"),
            pytest.param(NOPASS, NOPASS.sudo_password, id="not asked"),
            pytest.param(OWNER, "wrong-Sudo-Password-1", id="wrong")]


@pytest.fixture
def deployed(product, workspace):
    """An agent that an account has deployed, and can deploy anew."""
    def make(account):
        agent = DeployedAgent(product, workspace / "agent", owner=account)
        fill(AgentCatalogue(product).path(agent.name), {"run.pl": agent.entry_point.read_bytes()})
        fill(AgentCatalogue(product).shared, {"lib/Common.pm": "1;"})
        agent.offer({"content/file": b"some content"})
        return agent

    return make


def run_action(tallowick, server, agent, action, account, sudo_password=None, **options):
    sudo = [] if sudo_password is None else ["--sudo-password"]
    return tallowick.run(action, *source(server, account), *agent.options, *AGENT_ACTIONS[action], *sudo, "--verbose",
                         password=account.password, sudo_password=sudo_password, **options)


@pytest.mark.parametrize("account, sudo_password", agent_cases())
@pytest.mark.parametrize("action", AGENT_ACTIONS)
def test_no_action_with_an_agent_writes_a_password_anywhere(tallowick, server, deployed, action, account,
                                                            sudo_password):
    agent = deployed(account)
    run = run_action(tallowick, server, agent, action, account, sudo_password)
    assert run.status == (0 if sudo_password in (None, account.sudo_password) else 2)
    secrets = {account.password, sudo_password} - {None}
    assert_nowhere(run, *secrets)
    seen = [*server.commands(), *[call.environment for call in agent.calls()],
            *[os.fsencode(word) for call in agent.calls() for word in call.arguments]]
    for secret in secrets:
        assert not [each for each in seen if secret.encode() in each]
        assert secret not in server.log()


@pytest.mark.parametrize("account, sudo", [(MOVER, False), (MOVER, True), (SPACEY, True), (NOPASS, True)],
                         ids=["no sudo", "sudo", "sudo with blanks", "sudo not asked"])
def test_login_password_for_rsync_reaches_the_dumper_but_not_the_log(tallowick, server, deployed, account, sudo):
    agent = deployed(account)
    run = run_action(tallowick, server, agent, "--dump-selected", account, account.sudo_password if sudo else None)
    assert run.status == 0
    # A sudo that does not ask leaves its password line to the dumper.
    line = f"{account.sudo_password}\n" if sudo and account.sudo == "free" else ""
    assert agent.dumps()[0].stdin.decode() == (f"{line}127.0.0.1\n{account.login}\n{account.password}\n{server.port}\n"
                                               "one.example,two.example")
    sent = "".join(record.text.removeprefix("remote stdin <- ") for record in run.session.records
                   if record.text.startswith("remote stdin <- "))
    # This login is also a word of its password.
    login = MASK if account is SPACEY else account.login
    assert f"127.0.0.1\n{login}\n{MASK}\n{server.port}\none.example,two.example" in sent
    assert_nowhere(run, account.password, account.sudo_password)


@pytest.mark.parametrize("where", ["STDERR", "STDOUT"])
@pytest.mark.parametrize("account, sudo_password", [(MOVER, None), (NOPASS, "the-Sudo-Password"),
                                                    (NOPASS, "Words-One Words-Two")])
def test_dumper_that_echoes_its_input_is_masked(tallowick, server, deployed, account, sudo_password, where):
    agent = deployed(account)
    agent.on("dump", f"print {where} $input, map {{ qq(near '$_'\n) }} split(' ', $input); exit 3;")
    run = run_action(tallowick, server, agent, "--dump-all", account, sudo_password)
    assert (run.status, run.session.error().inner.code) == (2, "CantRetrieveDumpFile")
    echo = f"127.0.0.1\n{account.login}\n{MASK}\n{server.port}\n"
    assert echo in "".join(record.text.partition(f"remote {where.lower()} -> ")[2] for record in run.session.records)
    assert (echo in run.session.error().inner.description) == (where == "STDERR")
    assert_nowhere(run, account.password, *([sudo_password, *sudo_password.split()] if sudo_password else []))


@pytest.mark.parametrize("asked, action", [("status", "--deploy-agent"), ("list", "--get-content")])
@pytest.mark.parametrize("perl", ["print STDERR $input; exit 1;", "print $input;"], ids=["failing", "answering"])
def test_agent_that_echoes_the_password_line_is_masked(tallowick, server, deployed, asked, action, perl):
    agent = deployed(NOPASS)
    agent.on(asked, perl)
    run = run_action(tallowick, server, agent, action, NOPASS, "the-Sudo-Password")
    assert run.status == (0 if asked == "status" and perl.startswith("print $") else 2)
    result = "transfer.result" if action == "--get-content" else "migration.result"
    assert run.status == 0 or MASK in run.session.error(result).description
    assert re.search(r"remote std(out|err) -> .*\*{8}", run.session.log)
    # The agent's answer is stored as it is.
    assert_nowhere(run, "the-Sudo-Password", except_for=("agent-deployment.status",))


def test_log_is_at_debug_level_when_this_is_checked(tallowick, server):
    assert "DEBUG k.Ssh: " in tallowick.run("--send-scout", *source(server)).session.log


def test_refused_login_password_is_written_nowhere(tallowick, server):
    run = tallowick.run("--send-scout", *source(server), "--verbose", password="wrong Login Password")
    assert run.status == 17
    assert_nowhere(run, "wrong Login Password", "Login Password")


def test_validation_errors_tell_no_password(tallowick):
    run = tallowick.run("--send-scout", "--sudo-password", password="some-Login-1", sudo_password="some-Sudo-1")
    assert run.status == 1
    assert_nowhere(run, "some-Login-1", "some-Sudo-1")


def test_password_typed_on_the_command_line_by_mistake_stays_out_of_the_log(tallowick, server):
    run = tallowick.run("--send-scout", *source(server), f"--dumps-dir={MOVER.password}", "--content-transport",
                        MOVER.password)
    assert run.status == 0
    assert_nowhere(run, MOVER.password)


def test_parts_of_a_password_in_the_options_of_a_run_are_not_masked(tallowick, server):
    run = tallowick.run("--send-scout", "--sudo-password", *source(server, OWNER), password=OWNER.password,
                        sudo_password="scout sudo password host login")
    assert f"--send-scout --sudo-password --host=127.0.0.1 --port={server.port} --login=owner" in \
        run.session.records[0].text


def test_password_line_that_perl_quotes_in_its_error_is_masked(tallowick, server):
    run = tallowick.run("--send-scout", "--sudo-password", *source(server, NOPASS), password=NOPASS.password,
                        sudo_password=NOPASS.password)
    assert run.status == 2
    assert "syntax error" in run.err
    assert_nowhere(run, NOPASS.password, "nopass-Pass")


@pytest.mark.parametrize("password", ["open sesame Sudo-Word", "print sudoWord:Sesame;", "a  two--blanks--Word  x"])
def test_parts_of_a_password_with_blanks_are_masked_too(tallowick, server, password):
    run = tallowick.run("--send-scout", "--sudo-password", *source(server, NOPASS), password=NOPASS.password,
                        sudo_password=password)
    parts = [part for part in password.split() if len(part) >= 4]
    assert_nowhere(run, password, *[part for part in parts if part not in ("open", "print")],
                   except_for=("scout-result.xml",))


@pytest.fixture
def echo_sudo(workspace, start_sshd):
    """A server whose sudo permits everything and leaves all input to a command of the test's choice."""
    def make(command):
        tools = make_dir(workspace / "bin")
        write(tools / "sudo", f'#!/bin/sh\ncase "$*" in *perl) {command} ;; esac\n', 0o755)
        return start_sshd(path=f"{tools}:/usr/bin:/bin")

    return make


def send(tallowick, server, sudo_password, account=OWNER):
    return tallowick.run("--send-scout", "--sudo-password", *source(server, account),
                         password=account.password, sudo_password=sudo_password)


def test_echo_of_the_whole_input_is_masked_in_message_and_log(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("cat >&2; exit 1"), "the-Sudo-Password")
    assert run.status == 2
    assert f"{MASK}\n{SMALL_SCOUT}" in run.err
    assert f"remote stderr -> {MASK}\n" in run.session.log
    assert_nowhere(run, "the-Sudo-Password", OWNER.password)


def test_echo_of_the_login_password_is_masked_as_well(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo(f"echo {OWNER.password} >&2; exit 1"), "the-Sudo-Password")
    assert run.err.endswith(f"The output on STDERR is\n{MASK}\n")
    assert_nowhere(run, OWNER.password, "the-Sudo-Password")


def test_echo_in_an_included_error_is_masked(tallowick, workspace, start_sshd):
    tools = make_dir(workspace / "bin")
    write(tools / "sudo", '#!/bin/sh\ncase "$*" in *chown*) echo "chown: $(cat)" >&2; exit 1 ;; esac\n', 0o755)
    server = start_sshd(path=f"{tools}:/usr/bin:/bin")
    run = tallowick.run("--get-dumping-status", "--sudo-password", *source(server, OWNER), "--agent-dir=/tmp",
                        "--agent-name=a", password=OWNER.password, sudo_password="the-Sudo-Password")
    assert run.session.error().inner.description == \
        f"Cannot take ownership of /tmp/dumping-status.xml: chown: {MASK}\n"
    assert_nowhere(run, "the-Sudo-Password")


def test_echo_of_the_login_password_is_masked_without_sudo(tallowick, product, server):
    product.set_scout(f"print STDERR q({MOVER.password}), qq(\\n); exit 1;")
    run = tallowick.run("--send-scout", *source(server))
    assert run.err.endswith(f"The output on STDERR is\n{MASK}\n")
    assert_nowhere(run, MOVER.password)


def test_echo_of_single_parts_is_masked(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("echo 'near \"Words-Two\"' >&2; exit 1"), "Words-One Words-Two xyz")
    assert f'near "{MASK}"' in run.err
    assert_nowhere(run, "Words-Two")


def test_short_parts_are_left_alone(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("echo 'near xyz at' >&2; exit 1"), "Words-One Words-Two xyz at")
    assert "near xyz at" in run.err


def test_empty_sudo_password_masks_nothing(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("echo plain words >&2; exit 1"), "")
    assert "plain words" in run.err
    assert MASK not in run.err + run.session.log


@pytest.mark.parametrize("before", [0, 1, 5, 65520, 65525, 65530, 65535, 65536])
@pytest.mark.parametrize("split", [1, 8, 16])
def test_password_cut_by_a_chunk_border_is_masked(tallowick, start_scripted, before, split):
    secret = "the-Sudo-Password"

    def run(command):
        if b"perl" not in command.command:
            command.exit(0)
            return
        command.err(b"x" * before + secret[:split].encode())
        # Long enough for the first part to be read, and logged, alone.
        time.sleep(0.3)
        command.err(secret[split:].encode() + b" and more\n")
        command.exit(1)

    result = send(tallowick, start_scripted(run=run), secret)
    assert result.status == 2
    assert f"{MASK} and more" in result.err
    assert_nowhere(result, secret)


def test_password_that_drips_byte_by_byte_is_masked(tallowick, echo_sudo):
    server = echo_sudo("for c in t h e - S u d o - P a s s; do printf %s $c >&2; sleep 0.05; done; echo >&2; exit 1")
    run = send(tallowick, server, "the-Sudo-Pass")
    assert MASK in run.err
    assert_nowhere(run, "the-Sudo-Pass")
    log = "".join(line.partition("remote stderr -> ")[2] for line in run.session.log.splitlines()
                  if "remote stderr -> " in line)
    assert "the-Sudo-Pass" not in log


def test_start_of_a_password_that_never_ends_is_still_shown(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("printf 'end: the-Su' >&2; exit 1"), "the-Sudo-Password")
    assert run.err.endswith("end: the-Su")
    assert "end: the-Su" in "".join(line.partition("remote stderr -> ")[2]
                                    for line in run.session.log.splitlines() if "remote stderr -> " in line)


def test_stored_report_is_never_masked(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("cat"), "the-Sudo-Password")
    assert run.status == 0
    assert run.session.scout_result == f"the-Sudo-Password\n{SMALL_SCOUT}".encode()
    assert_nowhere(run, "the-Sudo-Password", except_for=("scout-result.xml",))


def test_echo_on_standard_output_is_masked_in_the_log(tallowick, product, server):
    product.set_scout(f"print q(before {MOVER.password} after);")
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == f"before {MOVER.password} after".encode()
    assert_nowhere(run, MOVER.password, except_for=("scout-result.xml",))


def test_rest_of_the_input_may_be_logged_but_not_its_password_line(tallowick, echo_sudo):
    run = send(tallowick, echo_sudo("cat >/dev/null"), "the-Sudo-Password")
    assert run.status == 0
    assert_nowhere(run, "the-Sudo-Password", "the-Sudo")


def assert_in_no_process(running, server, outbox, account):
    """Once the remote perl waits, no process of the run, of the server or of the command shows a password."""
    wait_until((outbox / "running").exists, "the remote perl")
    seen = {}
    for pid in [running.pid, *descendants(running.pid), *server.pids()]:
        for name in ("cmdline", "environ", "comm"):
            seen[f"{proc_bytes(pid, 'comm').decode().strip()}[{pid}] {name}"] = proc_bytes(pid, name)
    (outbox / "go").touch()
    assert running.wait().status == 0
    assert any(where.startswith("perl") for where in seen)
    for where, content in seen.items():
        for secret in {account.password, account.sudo_password}:
            assert secret.encode() not in content, f"a password stands in {where}"


def wait_for_go(outbox):
    """Perl that says that it runs and waits for its end."""
    os.chmod(outbox, 0o777)
    return (f"open F, q(>{outbox}/running); close F; "
            f"until (-e '{outbox}/go') {{ select undef, undef, undef, 0.05 }}")


PROCESSES = pytest.mark.parametrize("account, sudo", [(MOVER, False), (MOVER, True), (SPACEY, True)],
                                    ids=["no sudo", "sudo", "sudo with blanks"])


@PROCESSES
def test_no_process_shows_a_password_while_the_scout_runs(tallowick, product, server, outbox, account, sudo):
    product.set_scout(wait_for_go(outbox))
    running = tallowick.start("--send-scout", *source(server, account), *(["--sudo-password"] if sudo else []),
                              password=account.password, sudo_password=account.sudo_password)
    assert_in_no_process(running, server, outbox, account)


@PROCESSES
@pytest.mark.parametrize("asked, action", [("status", "--deploy-agent"), ("dump", "--dump-all"),
                                           ("list", "--get-content")])
def test_no_process_shows_a_password_while_the_agent_runs(tallowick, deployed, server, outbox, account, sudo, asked,
                                                          action):
    agent = deployed(account)
    agent.on(asked, wait_for_go(outbox))
    running = tallowick.start(action, *source(server, account), *agent.options, *AGENT_ACTIONS[action],
                              *(["--sudo-password"] if sudo else []), password=account.password,
                              sudo_password=account.sudo_password)
    assert_in_no_process(running, server, outbox, account)


def test_rejected_password_is_in_no_document_of_the_server_side_either(tallowick, server):
    run = tallowick.run("--send-scout", "--sudo-password", *source(server, OWNER), password=OWNER.password,
                        sudo_password="wrong-Sudo-Password-2")
    assert run.status == 2
    assert b"wrong-Sudo-Password-2" not in b"".join(server.commands())
    assert "wrong-Sudo-Password-2" not in server.log()
