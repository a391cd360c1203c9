# SPDX-License-Identifier: Apache-2.0
"""Dumping: what the dumper on the source host is given, and what becomes of its dump here."""

import concurrent.futures
import os
import resource
import shlex
import subprocess

import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OWNER, PLAIN
from harness.agents import DUMP, AgentCatalogue, DeployedAgent
from harness.places import make_dir, write
from harness.program import source
from harness.relay import FIN, HALF_CLOSE, RST, STALL, Fault
from harness.session import Session, shape
from harness.waiting import open_for_reader, wait_until

FAILED = "Error during dump retrieval"
DUMPER_FAILED = "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: {}"
IDLE = ("migration-status", {}, "", [("idle", {}, "", [])])
MASK = "********"
# The arguments that every dump of selected objects has around those of the selection.
FIRST, LAST = ["--migration-mode"], ["--include-app-distrib"]


@pytest.fixture
def agent(product, outbox):
    """An agent that is deployed on the source host already and belongs to the login of most tests."""
    return DeployedAgent(product, outbox / "agent")


@pytest.fixture
def dump(tallowick, server, agent):
    """Runs a dump, of selected objects unless `action` says otherwise."""
    def run(*options, action="--dump-selected", to=server, account=MOVER, **more):
        more.setdefault("password", account.password)
        return tallowick.run(action, *source(to, account), *agent.options, *options, **more)

    return run


def assert_dumped(run, content=DUMP):
    """The run has fetched the dump and says so in every way it has."""
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert run.session.file("dump.xml").read_bytes() == content
    assert run.session.file("dump-name").read_bytes() == os.fsencode(f"{run.session.path}/dump.xml")
    assert run.session.succeeded() == "success"
    assert shape(run.session.status) == IDLE
    assert not temporary_names(run.session)


def assert_failed(run, inner, description=None):
    """The run has failed for the reason `inner`, and what it has not received it does not show."""
    assert (run.status, run.err, run.stdout) == (2, FAILED, b"")
    error = run.session.error()
    assert (error.code, error.description, error.inner.code) == ("CantRetrieveDump", FAILED, inner)
    if description is not None:
        assert error.inner.description == description
    assert error.inner.inner is None
    assert run.session.succeeded() == "error"
    assert shape(run.session.status) == IDLE
    assert not run.session.file("dump-name").exists()
    assert not temporary_names(run.session)


def temporary_names(session):
    return [name for name in session.names() if name.startswith(".incoming-")]


def one_call(agent):
    calls = agent.calls()
    assert len(calls) == 1
    return calls[0]


def assert_given(agent, arguments, stdin=b""):
    call = one_call(agent)
    assert (call.arguments, call.stdin) == (arguments, stdin)


# --- the dumper's arguments and standard input

@pytest.fixture
def assert_all_given(tallowick, product, server, outbox):
    """Dumps once for each of `rows`, name -> (options, standard input, arguments of the dumper, its standard input),
    several at a time: the name of each that went wrong tells which."""
    def run(row, agent):
        options, typed, arguments, stdin = row
        assert_dumped(tallowick.run("--dump-selected", *source(server), *agent.options, *options, stdin=typed))
        assert_given(agent, [*FIRST, *arguments, *LAST], stdin)

    def check(rows):
        agents = {name: DeployedAgent(product, outbox / f"agent-{number}") for number, name in enumerate(rows)}
        with concurrent.futures.ThreadPoolExecutor(max_workers=4) as workers:
            runs = {name: workers.submit(run, rows[name], agents[name]) for name in rows}
        errors = {name: each.exception() for name, each in runs.items() if each.exception()}
        assert not errors, "\n".join(f"{name}: {error}" for name, error in errors.items())

    return check


SELECTIONS = {
    "nothing selected": ([], [], b""),
    "two domains": (["--domains=a.example,b.example"], ["--dump-domains=-"], b"a.example,b.example"),
    "clients": (["--clients=carl"], ["--dump-clients=-"], b"carl"),
    "resellers": (["--resellers", "rose,rick"], ["--dump-resellers=-"], b"rose,rick"),
    "all three lists": (["--resellers=r", "--clients=c1,c2", "--domains=d"],
                        ["--dump-domains=-", "--dump-clients=-", "--dump-resellers=-"], b"d\nc1,c2\nr"),
    "domains and resellers": (["--domains=d", "--resellers=r"], ["--dump-domains=-", "--dump-resellers=-"], b"d\nr"),
    "names with odd characters": (["--domains=a b,c'd\"e$f;g\nh|\u00fc"], ["--dump-domains=-"],
                                  "a b,c'd\"e$f;g\nh|\u00fc".encode()),
    "empty list": (["--domains="], [], b""),
    "later list of a kind": (["--domains=first", "--domains=second"], ["--dump-domains=-"], b"second"),
    "only mail": (["--only-mail"], ["--only-mail"], b""),
    "only hosting": (["--only-hosting"], ["--only-hosting"], b""),
    "both filters": (["--only-hosting", "--only-mail"], ["--only-mail"], b""),
    "no compression": (["--no-compress"], ["--no-compress"], b""),
    "filter and compression after the lists": (["--no-compress", "--only-mail", "--domains=d"],
                                               ["--dump-domains=-", "--only-mail", "--no-compress"], b"d"),
    "unknown transport": (["--content-transport=ftp"], [], b""),
    "empty transport": (["--content-transport="], [], b""),
}


def test_dumper_is_given_the_selection(assert_all_given):
    assert_all_given({name: (options, b"", *given) for name, (options, *given) in SELECTIONS.items()})


def test_flags_follow_everything_else_in_their_order(dump, agent):
    assert_dumped(dump("--no-content", "--no-license", "--admin-info", "--server", "--no-compress", "--only-hosting",
                       "--domains=d"))
    assert_given(agent, ["--migration-mode", "--dump-domains=-", "--only-hosting", "--no-compress",
                         "--include-app-distrib", "--server", "--admin-info", "--no-license", "--no-content"], b"d")


@pytest.mark.parametrize("flag", ["--server", "--admin-info", "--no-license", "--no-content"])
def test_each_flag_reaches_the_dumper(dump, agent, flag):
    assert_dumped(dump(flag))
    assert_given(agent, [*FIRST, *LAST, flag])


def test_dump_of_all_is_asked_for_and_nothing_else(dump, agent):
    assert_dumped(dump(action="--dump-all"))
    assert_given(agent, ["--migration-mode", "--dump-all"])


def test_dump_of_all_passes_neither_selection_nor_filter_nor_flags(dump, agent):
    assert_dumped(dump("--only-mail", "--domains=d", "--clients=c", "--resellers=r", "--no-compress", "--server",
                       "--admin-info", "--no-license", action="--dump-all"))
    assert_given(agent, ["--migration-mode", "--dump-all"])


def test_dump_of_all_without_content_says_so_to_the_dumper(dump, agent):
    assert_dumped(dump("--no-content", action="--dump-all"))
    assert_given(agent, ["--migration-mode", "--dump-all", "--no-content"])


def test_dump_of_all_does_not_read_the_selected_objects_file(dump, agent, workspace):
    assert_dumped(dump(f"--selected-objects-file={workspace}/missing", action="--dump-all"))
    assert_given(agent, ["--migration-mode", "--dump-all"])


def access_lines(port, account=MOVER):
    return f"127.0.0.1\n{account.login}\n{account.password}\n{port}\n".encode()


def test_rsync_transport_tells_the_dumper_how_to_reach_its_own_host(dump, agent, server):
    assert_dumped(dump("--content-transport=rsync"))
    assert_given(agent, ["--content-transport=rsync", *FIRST, *LAST], access_lines(server.port))


def test_rsync_transport_without_port_tells_port_0(tallowick, start_sshd, agent):
    start_sshd(address="127.0.0.23", port=22)
    run = tallowick.run("--dump-selected", "--host=127.0.0.23", "--login=mover", "--content-transport=rsync",
                        "--domains=d", *agent.options)
    assert_dumped(run)
    assert_given(agent, ["--content-transport=rsync", *FIRST, "--dump-domains=-", *LAST],
                 f"127.0.0.23\nmover\n{MOVER.password}\n0\nd".encode())


def test_rsync_transport_comes_before_the_lists(dump, agent, server):
    assert_dumped(dump("--content-transport=rsync", "--domains=d", "--clients=c"))
    assert_given(agent, ["--content-transport=rsync", *FIRST, "--dump-domains=-", "--dump-clients=-", *LAST],
                 access_lines(server.port) + b"d\nc")


def test_rsync_transport_is_all_that_a_dump_of_all_adds(dump, agent, server):
    assert_dumped(dump("--content-transport=rsync", "--domains=d", action="--dump-all"))
    assert_given(agent, ["--content-transport=rsync", "--migration-mode", "--dump-all"], access_lines(server.port))


def test_password_for_the_rsync_transport_is_masked_in_the_log(dump, server):
    run = dump("--content-transport=rsync", "--domains=d.example")
    assert f"remote stdin <- 127.0.0.1\nmover\n{MASK}\n{server.port}\nd.example" in run.session.log


INPUTS = {
    "domains": (["--domains=-"], b"a.example,b.example\nnot,read\n", ["--dump-domains=-"], b"a.example,b.example"),
    "line without an end": (["--clients=-"], b"carl,cora", ["--dump-clients=-"], b"carl,cora"),
    "carriage return": (["--clients=-"], b"carl\r\n", ["--dump-clients=-"], b"carl\r"),
    "no input": (["--resellers=-"], b"", [], b""),
    "empty line": (["--domains=-"], b"\nd\n", [], b""),
    "resellers before clients": (["--clients=-", "--resellers=-"], b"r1,r2\nc1\n",
                                 ["--dump-clients=-", "--dump-resellers=-"], b"-\nr1,r2"),
    "resellers before all": (["--domains=-", "--clients=-", "--resellers=-"], b"r\nc\nd\n",
                             ["--dump-domains=-", "--dump-clients=-", "--dump-resellers=-"], b"-\n-\nr"),
    "clients before domains": (["--domains=-", "--clients=-"], b"c\nd\n",
                               ["--dump-domains=-", "--dump-clients=-"], b"-\nc"),
    "a dash that is read": (["--domains=-"], b"-\n", ["--dump-domains=-"], b"-"),
    "one list of three": (["--domains=d", "--clients=-", "--resellers=r"], b"c\n",
                          ["--dump-domains=-", "--dump-clients=-", "--dump-resellers=-"], b"d\nc\nr"),
    "bytes that are not UTF-8": (["--domains=-"], b"\xff\xfe,d\n", ["--dump-domains=-"], b"\xff\xfe,d"),
    "long line": (["--domains=-"], b"x" * 300_000 + b"\n", ["--dump-domains=-"], b"x" * 300_000),
    "nothing is read without a dash": (["--domains=d"], b"other\n", ["--dump-domains=-"], b"d"),
}


def test_one_list_at_the_most_is_read_from_standard_input(assert_all_given):
    assert_all_given(INPUTS)


def test_list_is_read_for_a_dump_of_all_but_not_passed_on(dump, agent):
    assert_dumped(dump("--domains=-", action="--dump-all", stdin=b"d\n"))
    assert_given(agent, ["--migration-mode", "--dump-all"])


# --- the selected-objects file

def objects(text, parameters=""):
    return f'<?xml version="1.0" encoding="UTF-8"?>\n<objects><parameters {parameters}/>{text}</objects>\n'


FILES = {
    "two domains": (objects("<domain><name>a</name></domain><domain><name>b</name></domain>"),
                    [], ["--dump-domains=-"], "a,b"),
    "file before command line": (objects("<domain><name>a</name></domain><domain><name>b</name></domain>"),
                                 ["--domains=c"], ["--dump-domains=-"], "a,b,c"),
    "all kinds, each before the command line": (
        objects("<reseller><name>r</name><client><name>c</name><domain><name>d</name></domain></client></reseller>"),
        ["--domains=D", "--clients=C", "--resellers=R"],
        ["--dump-domains=-", "--dump-clients=-", "--dump-resellers=-"], "d,D\nc,C\nr,R"),
    "names anywhere, in document order": (
        objects("<x><domain><name>1</name><domain><name>2</name></domain></domain></x><domain><name>3</name></domain>"),
        [], ["--dump-domains=-"], "1,2,3"),
    "empty names do not count": (
        objects("<domain><name/></domain><domain><name></name></domain><domain><name>d</name></domain><domain/>"),
        ["--clients="], ["--dump-domains=-"], "d"),
    "only empty names": (objects("<domain><name/></domain>"), [], [], ""),
    "odd characters": (objects("<domain><name>a&amp;b &lt;'\"$;`\u00fc\u20ac&#x1F600;</name></domain>"), [],
                       ["--dump-domains=-"], "a&b <'\"$;`\u00fc\u20ac\U0001F600"),
    "blanks and newlines of a name": (objects("<domain><name> a\nb </name></domain>"), [], ["--dump-domains=-"],
                                      " a\nb "),
    "name in a CDATA section": (objects("<domain><name><![CDATA[a&b]]></name></domain>"), [], ["--dump-domains=-"],
                                "a&b"),
    "name in two pieces": (objects("<domain><name>a<!-- c -->b</name></domain>"), [], ["--dump-domains=-"], "a,b"),
    "other elements of the same shape": (objects("<site><name>s</name></site><domain><title>t</title></domain>"),
                                         [], [], ""),
    "names in a namespace": (objects('<domain xmlns="urn:x"><name>d</name></domain>'), [], [], ""),
    "document in a namespace": ('<o xmlns="urn:x"><parameters filter="only-mail"/><domain><name>d</name></domain></o>',
                                [], [], ""),
    "names with a prefix": (objects('<x:domain xmlns:x="urn:x"><x:name>d</x:name></x:domain>'), [], [], ""),
    "other encoding": ('<?xml version="1.0" encoding="UTF-16"?>\n<o><domain><name>\u00fc</name></domain></o>',
                       [], ["--dump-domains=-"], "\u00fc"),
    "any root, nothing in it": ("<anything/>", ["--clients=c"], ["--dump-clients=-"], "c"),
    "server, licence and administrator": (objects("<server><license/></server><admin-info/>"), [], [], ""),
    "filter for mail": (objects("", 'filter="only-mail"'), [], ["--only-mail"], ""),
    "filter for hosting, spelled as the panel does": (objects("", 'filter="only-phosting"'), [], ["--only-hosting"],
                                                      ""),
    "filter for hosting, spelled right": (objects("", 'filter="only-hosting"'), [], [], ""),
    "unknown filter": (objects("", 'filter="nothing"'), [], [], ""),
    "filter that the command line replaces": (objects("", 'filter="only-mail"'), ["--only-hosting"],
                                              ["--only-hosting"], ""),
    "filter that the command line does not mention": (objects("", 'filter="only-phosting"'), ["--no-compress"],
                                                      ["--only-hosting", "--no-compress"], ""),
    "no compression": (objects("", 'compression-level="do-not-compress"'), [], ["--no-compress"], ""),
    "standard compression": (objects("", 'compression-level="standard"'), [], [], ""),
    "unknown compression": (objects("", 'compression-level="best"'), [], [], ""),
    "compression that the command line replaces": (objects("", 'compression-level="standard"'), ["--no-compress"],
                                                   ["--no-compress"], ""),
    "parameters further down": ('<o><deeper><parameters filter="only-mail"/></deeper></o>', [], [], ""),
}


def test_dumper_is_given_what_the_selected_objects_file_and_the_command_line_select(assert_all_given, workspace):
    rows = {}
    for name, (text, options, arguments, stdin) in FILES.items():
        file = write(workspace / f"{name}.xml", text.encode("utf-16" if "UTF-16" in text else "utf-8"))
        rows[name] = ([f"--selected-objects-file={file}", *options], b"", arguments, stdin.encode())
    assert_all_given(rows)


@pytest.mark.parametrize("flag", ["--server", "--admin-info", "--no-license"])
def test_flags_of_the_command_line_stand_above_those_of_the_file(dump, agent, workspace, flag):
    file = write(workspace / "objects.xml", objects("<server><license/></server><admin-info/>"))
    assert_dumped(dump(f"--selected-objects-file={file}", flag))
    assert_given(agent, [*FIRST, *LAST, flag])


def test_list_from_standard_input_follows_that_of_the_file(dump, agent, workspace):
    file = write(workspace / "objects.xml", objects("<domain><name>a</name></domain>"))
    assert_dumped(dump(f"--selected-objects-file={file}", "--domains=-", stdin=b"b,c\n"))
    assert_given(agent, [*FIRST, "--dump-domains=-", *LAST], b"a,b,c")


def test_file_with_very_many_names_is_passed_on_whole(dump, agent, workspace):
    names = [f"domain-{number}.example" for number in range(20_000)]
    file = write(workspace / "objects.xml", objects("".join(f"<domain><name>{name}</name></domain>"
                                                            for name in names)))
    assert_dumped(dump(f"--selected-objects-file={file}"))
    assert_given(agent, [*FIRST, "--dump-domains=-", *LAST], ",".join(names).encode())


def test_dtd_that_the_file_names_is_not_loaded(dump, agent, workspace):
    os.mkfifo(workspace / "dtd")  # whoever opens it waits for ever
    file = write(workspace / "objects.xml",
                 f'<!DOCTYPE o SYSTEM "{workspace}/dtd"><o><domain><name>d</name></domain></o>')
    assert_dumped(dump(f"--selected-objects-file={file}"))
    assert_given(agent, [*FIRST, "--dump-domains=-", *LAST], b"d")


def assert_unreadable_selection(run, server, code, beginning):
    """The run has ended before it connected anywhere."""
    assert run.status == 2
    assert run.err.startswith(beginning)
    error = run.session.error()
    assert (error.code, error.inner) == (code, None)
    assert error.description == run.err
    assert server.commands() == []
    assert "Resolving" not in run.session.log
    assert run.session.names() == ["archives", "migration.log", "migration.result"]


BOMB = "".join(f'<!ENTITY e{number} "{f"&e{number - 1};" * 10}">' for number in range(1, 12))
UNPARSABLE = {
    "no XML at all": "these are no objects\n",
    "empty": "",
    "cut": "<objects><domain><name>d</name>",
    "not UTF-8": b"<o><domain><name>\xff\xfe</name></domain></o>",
    "external entity": '<!DOCTYPE o [<!ENTITY x SYSTEM "file:///etc/passwd">]><o><domain><name>&x;</name></domain></o>',
    "bomb of entities": f'<!DOCTYPE o [<!ENTITY e0 "x">{BOMB}]><o><domain><name>&e11;</name></domain></o>',
    "parameter entity": '<!DOCTYPE o [<!ENTITY % x SYSTEM "http://127.0.0.1:1/x"> %x;]><o/>',
}


@pytest.mark.parametrize("name", UNPARSABLE)
def test_selected_objects_file_that_cannot_be_parsed_ends_the_run_before_the_connection(dump, server, workspace, name):
    file = write(workspace / "objects.xml", UNPARSABLE[name])
    assert_unreadable_selection(
        dump(f"--selected-objects-file={file}"), server, "tError_ParseFile",
        f"The XML file {file} was not parsed successfully with the following errors:\n")


def test_selected_objects_file_that_is_no_file_ends_the_run_before_the_connection(dump, server, workspace):
    os.mkfifo(workspace / "fifo")
    for name in ("missing", "outbox", "fifo"):
        assert_unreadable_selection(
            dump(f"--selected-objects-file={workspace}/{name}"), server, "tError_WrongInputFile",
            f"The XML file does not exist or is not a regular file. Check the file '{workspace}/{name}'")


def test_all_complaints_about_the_selected_objects_file_are_told_in_their_order(dump, workspace):
    file = write(workspace / "objects.xml", "<o><a></b>\n<c></d>\n</o>")
    description = dump(f"--selected-objects-file={file}").session.error().description
    assert 0 < description.index("a line 1 and b") < description.index("c line 2 and d")


def test_passwords_that_the_parser_quotes_are_masked(dump, workspace):
    file = write(workspace / "objects.xml", f"<o><name>{OWNER.password} & {MOVER.password}</name></o>")
    run = dump(f"--selected-objects-file={file}", "--sudo-password", sudo_password=OWNER.password)
    assert run.status == 2
    assert f"{MASK} & {MASK}</name></o>\n" in run.err
    assert f"{MASK} & {MASK}</name></o>\n" in run.session.error().description


# --- the remote command lines

SUDO = r"sudo\ -k\;\ sudo\ -S\ -p\ \'\ \'\ "
CHECKS = [b"sudo -V", b"sudo -k; sudo -S -p ' ' true"]


def test_commands_without_sudo(dump, agent, server):
    assert_dumped(dump("--domains=d.example", "--no-content"))
    here = agent.directory
    assert server.commands() == [
        rf"sh -c cd\ {here}\;\ perl\ {here}/run.pl\ --migration-mode\ --dump-domains=-\ --include-app-distrib"
        r"\ --no-content".encode(),
        f"cat {here}/dump.xml".encode()]
    assert one_call(agent).cwd == str(here)
    assert one_call(agent).uid == MOVER.uid


def commands_with_sudo(here, login):
    return [*CHECKS,
            rf"sh -c cd\ {here}\;\ {SUDO}perl\ {here}/run.pl\ --migration-mode\ --dump-all".encode(),
            rf"sh -c cd\ {here}\;\ {SUDO}chown\ {login}\ {here}/dump.xml".encode(),
            f"cat {here}/dump.xml".encode()]


@pytest.mark.parametrize("account, sudo_password", [(MOVER, MOVER.sudo_password), (OWNER, OWNER.sudo_password),
                                                    (NOPASS, ""), (NOPASS, "never-asked-For-1")],
                         ids=["root's password", "own password", "no password", "password that is not asked for"])
def test_commands_with_sudo(dump, agent, server, account, sudo_password):
    # As root leaves it when root's umask is strict.
    agent.on("dump", "umask 077; unlink qq($FindBin::Bin/dump.xml);")
    assert_dumped(dump("--sudo-password", action="--dump-all", account=account, sudo_password=sudo_password))
    assert server.commands() == commands_with_sudo(agent.directory, account.login)
    assert one_call(agent).uid == 0
    assert (agent.directory / "dump.xml").stat().st_uid == account.uid
    assert (agent.directory / "dump.xml").stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("account, sudo_password, before", [
    (MOVER, MOVER.sudo_password, b""), (NOPASS, "", b""), (NOPASS, "never-asked-For-1", b"never-asked-For-1\n")],
    ids=["asked", "empty", "not asked"])
def test_password_line_that_sudo_does_not_take_is_the_first_of_the_dumpers_input(dump, agent, account, sudo_password,
                                                                                before):
    options = {"account": account, "sudo_password": sudo_password}
    assert_dumped(dump("--sudo-password", "--domains=d,e", "--clients=c", **options))
    assert_dumped(dump("--sudo-password", **options))
    assert [call.stdin for call in agent.calls()] == [before + b"d,e\nc", before]


@pytest.mark.parametrize("sudo_password, line", [("a sudo Password", b"a sudo Password\n"), ("", b"")])
def test_sudo_is_given_the_password_line_and_then_the_lists(dump, start_sshd, agent, workspace, outbox, sudo_password,
                                                            line):
    tools = make_dir(workspace / "bin")
    write(tools / "sudo", f'#!/bin/sh\ncase "$*" in *run.pl*) cat >{outbox}/input ; echo x >{agent.directory}/dump.xml '
                          ';; esac\n', 0o755)
    server = start_sshd(path=f"{tools}:/usr/bin:/bin")
    for options, lists in ((["--resellers=r"], b"r"), ([], b"")):
        assert_dumped(dump("--sudo-password", *options, to=server, sudo_password=sudo_password), b"x\n")
        assert (outbox / "input").read_bytes() == line + lists


def test_sudo_that_is_not_allowed_ends_the_dump_before_the_dumper_runs(dump, agent, server):
    run = dump("--sudo-password", account=PLAIN, sudo_password=PLAIN.password)
    assert_failed(run, "SudoNotAllowed", "sudo is not allowed for user plain on host 127.0.0.1.")
    assert server.commands() == CHECKS
    assert agent.calls() == []


def test_dumper_runs_under_the_interpreter_of_its_agent(tallowick, product, server, outbox):
    directory = make_dir(outbox / "agent", 0o777)
    write(make_dir(directory / "bin") / "run", f"printf '<%s/>' \"$2\" >{directory}/dump.xml\n")
    AgentCatalogue(product).install("Shell", EntryPoint="bin/run", Interpreter="/bin/sh")
    run = tallowick.run("--dump-all", *source(server), f"--agent-dir={directory}", "--agent-name=Shell")
    assert_dumped(run, b"<--dump-all/>")
    assert server.commands()[0] == (
        rf"sh -c cd\ {directory}\;\ /bin/sh\ {directory}/bin/run\ --migration-mode\ --dump-all".encode())


@pytest.mark.parametrize("spec", ["EntryPoint: run.pl\n", "EntryPoint: run.pl\nInterpreter:\n",
                                  "EntryPoint: run.pl\nInterpreter:  \t \n"], ids=["absent", "empty", "blank"])
def test_agent_without_interpreter_is_run_with_perl(dump, product, agent, server, spec):
    AgentCatalogue(product).install(agent.name, spec=spec)
    assert_dumped(dump())
    assert shlex.split(shlex.split(server.commands()[0].decode())[2])[2:4] == ["perl", f"{agent.directory}/run.pl"]


def test_words_with_odd_letters_are_quoted_one_by_one(tallowick, product, server, outbox):
    odd = DeployedAgent(product, outbox / "a b", entry_point="x'$y.pl")
    assert_dumped(tallowick.run("--dump-all", *source(server), *odd.options))
    # Only the directory that is entered stands unquoted, so here it is not entered.
    assert server.commands() == [
        rf"sh -c cd\ {outbox}/a\ b\;\ perl\ {outbox}/a\\\ b/x\\\'\\\$y.pl\ --migration-mode\ --dump-all".encode(),
        rf"cat {outbox}/a\ b/dump.xml".encode()]
    assert one_call(odd).cwd == str(MOVER.home)


def test_login_root_dumps_without_sudo(dump, agent):
    assert_dumped(dump(account=ACCOUNTS["root"]))
    assert one_call(agent).uid == 0


def test_status_document_tells_that_the_agent_waits(tallowick, server, agent):
    os.mkfifo(agent.directory / "held", 0o666)
    agent.on("dump", "open my $held, '<', qq($FindBin::Bin/held); readline $held;")
    running = tallowick.start("--dump-all", *source(server), *agent.options)
    with open_for_reader(agent.directory / "held"):
        assert shape(running.session.status) == (
            "migration-status", {}, "", [("agent", {"action": "wait"}, "", [("host", {}, "127.0.0.1", [])])])
    assert_dumped(running.wait())


# --- the dump

@pytest.mark.parametrize("size", [0, 1, 65535, 65536, 65537, 5_000_000])
def test_dump_of_any_size_arrives_byte_for_byte(dump, agent, size):
    content = (bytes(range(256)) * (size // 256 + 1))[:size]
    agent.answer(dump=content)
    run = dump()
    assert_dumped(run, content)
    assert run.session.names() == ["archives", "dump-name", "dump.xml", "migration.log", "migration.result",
                                   "migration.status"]


def test_dump_is_never_logged(dump):
    assert "one.example" not in dump("--verbose", "--clients=c").session.log


@pytest.mark.parametrize("umask", [0o000, 0o077])
def test_dump_is_readable_for_all_whatever_the_umask_is(dump, umask):
    file = dump(umask=umask).session.file("dump.xml")
    assert file.stat().st_mode & 0o777 == 0o644


def test_later_dump_replaces_the_earlier_one_as_a_whole(dump, agent):
    first = dump()
    before = first.session.file("dump.xml").open("rb")
    agent.answer(dump=b"<later/>")
    with before:
        assert_dumped(dump(session=first.session), b"<later/>")
        assert before.read() == DUMP


def test_dump_name_is_the_path_as_it_was_given(tallowick, server, agent, workspace):
    path = f"{workspace}/given//session/"
    run = tallowick.run("--dump-all", *source(server), *agent.options, f"--session-path={path}", session=False)
    assert run.status == 0
    assert (workspace / "given/session/dump-name").read_text() == f"{path}/dump.xml"


def test_longer_name_of_an_earlier_dump_is_replaced(dump, tallowick):
    session = tallowick.new_session()
    make_dir(session.path)
    write(session.file("dump-name"), "x" * 5000 + "\n")
    assert_dumped(dump(session=session))


# --- the dumper fails

def test_dumper_that_fails_is_quoted(dump, agent):
    agent.fail("dump", "oh dear\nso sorry", 3)
    run = dump("--domains=d")
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format("oh dear\nso sorry"))
    assert not run.session.file("dump.xml").exists()
    assert "Execution finished with return code 3\n" in run.session.log


def test_dumper_that_fails_in_silence(dump, agent):
    agent.on("dump", "exit 1;")
    assert_failed(dump(), "CantRetrieveDumpFile", DUMPER_FAILED.format(""))


def test_dumper_that_fails_after_it_left_a_dump_is_a_failure(dump, agent):
    write(agent.directory / "dump.xml", DUMP)
    agent.fail("dump")
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile")
    assert not run.session.file("dump.xml").exists()


@pytest.mark.parametrize("sudo", [(), ("--sudo-password",)], ids=["without sudo", "with sudo"])
def test_dumper_that_is_killed_is_a_failure(dump, agent, sudo):
    agent.on("dump", "print STDERR q(some words); kill KILL => $$; sleep 1000;")
    run = dump(*sudo, sudo_password=MOVER.sudo_password)
    assert_failed(run, "CantRetrieveDumpFile")
    # Under sudo, the prompt and the shell's own remark stand around them.
    assert "some words" in run.session.error().inner.description
    assert "Execution finished with return code 137\n" in run.session.log


def test_dumper_that_does_not_exist_is_a_failure(dump, agent):
    agent.entry_point.unlink()
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile")
    assert f"{agent.directory}/run.pl" in run.session.error().inner.description
    assert "Execution finished with return code 2\n" in run.session.log


def test_interpreter_that_does_not_exist_is_a_failure(dump, product, agent):
    AgentCatalogue(product).install(agent.name, EntryPoint="run.pl", Interpreter="no-such-interpreter")
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile")
    assert "no-such-interpreter" in run.session.error().inner.description
    assert "Execution finished with return code 127\n" in run.session.log


def test_failed_dumper_leaves_the_earlier_dump_alone(dump, agent):
    session = dump().session
    session.file("dump-name").unlink()
    agent.fail("dump")
    assert_failed(dump(session=session), "CantRetrieveDumpFile")
    assert session.file("dump.xml").read_bytes() == DUMP


def test_dumper_that_leaves_no_dump_is_a_failure_that_quotes_cat(dump, agent):
    agent.answer(dump=None)
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile",
                  DUMPER_FAILED.format(f"cat: {agent.directory}/dump.xml: No such file or directory\n"))
    assert not run.session.file("dump.xml").exists()


def test_with_sudo_a_dumper_that_leaves_no_dump_is_a_failure_that_quotes_chown(dump, agent, server):
    agent.answer(dump=None)
    run = dump("--sudo-password", sudo_password=MOVER.sudo_password)
    assert_failed(run, "CantTakeFileOwnership")
    assert run.session.error().inner.description.startswith(f"Cannot take ownership of {agent.directory}/dump.xml: ")
    assert "No such file or directory" in run.session.error().inner.description
    assert not any(command.startswith(b"cat ") for command in server.commands())


def test_dump_that_the_login_cannot_read_is_a_failure(dump, agent):
    agent.on("dump", "unlink qq($FindBin::Bin/dump.xml); umask 0777;")
    assert_failed(dump(), "CantRetrieveDumpFile",
                  DUMPER_FAILED.format(f"cat: {agent.directory}/dump.xml: Permission denied\n"))


def test_failed_download_leaves_the_earlier_dump_alone(dump, agent):
    session = dump().session
    session.file("dump-name").unlink()
    (agent.directory / "dump.xml").unlink()
    agent.answer(dump=None)
    assert_failed(dump(session=session), "CantRetrieveDumpFile")
    assert session.file("dump.xml").read_bytes() == DUMP


@pytest.mark.parametrize("end", ["exit 1", "kill -KILL $$"])
def test_download_that_stops_half_way_leaves_the_earlier_dump_alone(dump, agent, start_sshd, workspace, end):
    session = dump().session
    session.file("dump-name").unlink()
    tools = make_dir(workspace / "bin")
    write(tools / "cat", f"#!/bin/sh\nhead -c 3 \"$1\"; echo oops >&2; {end}\n", 0o755)
    run = dump(session=session, to=start_sshd(path=f"{tools}:/usr/bin:/bin"))
    assert_failed(run, "CantRetrieveDumpFile")
    assert session.error().inner.description.startswith(DUMPER_FAILED.format("oops\n"))
    assert session.file("dump.xml").read_bytes() == DUMP


LINES = "".join(f"line {number:06} of many\n" for number in range(100_000))
SAY_MUCH = r"for (0 .. 99_999) { printf STDERR qq(line %06d of many\n), $_; printf qq(line %06d of many\n), $_; }"


def test_dumper_that_says_megabytes_is_no_failure_and_is_logged_whole(tallowick_release, server, agent):
    agent.on("dump", SAY_MUCH)
    run = tallowick_release.run("--dump-all", *source(server), *agent.options)
    assert_dumped(run)
    for stream in ("stdout", "stderr"):
        chunks = [record.text for record in run.session.records if record.text.startswith(f"remote {stream} -> ")]
        assert "".join(chunk.removeprefix(f"remote {stream} -> ") for chunk in chunks) == LINES


def test_standard_error_of_a_failed_dumper_is_told_whole(tallowick_release, server, agent):
    agent.on("dump", SAY_MUCH + "exit 5;")
    run = tallowick_release.run("--dump-all", *source(server), *agent.options)
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format(LINES))


def test_standard_error_that_is_no_text_is_told_as_text(dump, agent):
    agent.on("dump", r'binmode STDERR; print STDERR "\xff\x00\x1b[1mbold\x{c3}\x{bc}"; exit 1;')
    run = dump()
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format("\ufffd\ufffd\ufffd[1mbold\u00fc"))


READ_INPUT = "my $input = do { local (@ARGV, $/) = glob qq($FindBin::Bin/.agent/calls/*/stdin); <> };"


def test_password_line_that_the_dumper_quotes_is_masked(dump, agent):
    agent.on("dump", READ_INPUT + "print STDERR qq(what is '$input'?); exit 1;")
    run = dump("--sudo-password", "--domains=d", account=NOPASS, sudo_password="some-Sudo-Password 4")
    assert_failed(run, "CantRetrieveDumpFile", DUMPER_FAILED.format(f"what is '{MASK}\nd'?"))


def test_access_to_its_host_that_the_dumper_quotes_is_masked(dump, agent, server):
    agent.on("dump", READ_INPUT + "print $input; print STDERR $input; exit 1;")
    run = dump("--content-transport=rsync", "--verbose")
    assert run.status == 2
    lines = f"127.0.0.1\nmover\n{MASK}\n{server.port}\n"
    assert run.session.error().inner.description == DUMPER_FAILED.format(lines)
    for label in ("stdin <-", "stdout ->", "stderr ->"):
        assert f"remote {label} {lines}" in run.session.log


def test_agent_that_is_not_known_ends_the_dump_before_the_connection(tallowick, server, agent):
    run = tallowick.run("--dump-all", *source(server), f"--agent-dir={agent.directory}", "--agent-name=Other")
    assert_failed(run, "AgentNotFound", "Agent Other was not found or does not contain proper spec file")
    assert server.commands() == []
    assert "Resolving" not in run.session.log


@pytest.mark.parametrize("spec", ["EntryPoint run.pl\n", "Entrypoint: run.pl\n"], ids=["no colon", "unknown key"])
def test_agent_with_a_broken_spec_file_is_not_known(dump, product, agent, server, spec):
    AgentCatalogue(product).install(agent.name, spec=spec)
    assert_failed(dump(), "AgentNotFound")
    assert server.commands() == []


# --- the connection fails

def test_failed_connection_is_included(tallowick, agent):
    run = tallowick.run("--dump-all", *source(1), *agent.options)
    assert_failed(run, "ConnectionRefused", "No one listening on the remote address at host 127.0.0.1")


def test_refused_login_is_included(dump, agent):
    assert_failed(dump(password="wrong-Password-7"), "SshInvalidCredentials")
    assert agent.calls() == []


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_connection_lost_while_the_dumper_runs_is_included(tallowick, server, agent, start_relay, kind):
    os.mkfifo(agent.directory / "held", 0o666)
    agent.on("dump", "open my $held, '<', qq($FindBin::Bin/held); readline $held;")
    relay = start_relay(server)
    running = tallowick.start("--dump-all", *source(relay), *agent.options)
    with open_for_reader(agent.directory / "held"):
        relay.connections[0].act(kind, "server")
        run = running.wait()
    assert_failed(run, "SshConnectionFault", "Lost connection with the remote host")
    assert not run.session.file("dump.xml").exists()


@pytest.mark.parametrize("kind", [FIN, RST, HALF_CLOSE])
def test_connection_lost_amid_the_dump_leaves_the_earlier_one_alone(dump, server, agent, start_relay, kind):
    session = dump().session
    session.file("dump-name").unlink()
    agent.answer(dump=b"x" * 3_000_000)
    run = dump(to=start_relay(server, Fault(kind, 1_000_000)), session=session)
    assert_failed(run, "SshConnectionFault")
    assert session.file("dump.xml").read_bytes() == DUMP


def test_half_of_a_dump_never_shows(tallowick, server, agent, start_relay):
    agent.answer(dump=b"x" * 3_000_000)
    relay = start_relay(server, Fault(STALL, 1_000_000))
    running = tallowick.start("--dump-all", *source(relay), *agent.options)
    wait_until(lambda: relay.connections and relay.connections[0].cut.is_set(), "half of the dump")
    wait_until(lambda: [name for name in temporary_names(running.session)
                        if running.session.file(name).stat().st_size], "what was received of it")
    assert not running.session.file("dump.xml").exists()
    relay.connections[0].close()
    assert_failed(running.wait(), "SshConnectionFault")


# --- the dump cannot be stored

def obstruct(path, kind, target):
    """Puts something in the place of a file; `target` is what a link leads to."""
    make_dir(path.parent)
    if kind == "symlink":
        os.symlink(target, path)
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "device":
        os.mknod(path, 0o666 | 0o020000, os.makedev(1, 3))
    else:
        make_dir(path)
        write(path / "in it", "text")


def identity(path):
    status = path.lstat()
    return status.st_ino, status.st_mode


KINDS = ["symlink", "dangling symlink", "fifo", "device", "directory"]


@pytest.mark.parametrize("kind", KINDS)
def test_what_is_no_regular_file_is_not_replaced_by_the_dump(dump, tallowick, workspace, kind):
    target = workspace / "target"
    if kind != "dangling symlink":
        write(target, "precious")
    session = tallowick.new_session()
    obstruct(session.file("dump.xml"), kind.removeprefix("dangling "), target)
    before = identity(session.file("dump.xml"))
    assert_failed(dump(session=session), "StreamWrite", "Cannot write data to the stream")
    assert identity(session.file("dump.xml")) == before
    assert (target.read_text() == "precious") if target.exists() else (kind == "dangling symlink")
    if kind == "directory":
        assert os.listdir(session.file("dump.xml")) == ["in it"]


@pytest.mark.parametrize("kind", KINDS)
def test_what_is_no_regular_file_is_not_written_as_the_record_of_the_dumps_name(dump, tallowick, workspace, kind):
    target = workspace / "target"
    if kind != "dangling symlink":
        write(target, "precious")
    session = tallowick.new_session()
    obstruct(session.file("dump-name"), kind.removeprefix("dangling "), target)
    before = identity(session.file("dump-name"))
    assert_name_not_written(dump(session=session))
    assert identity(session.file("dump-name")) == before
    assert (target.read_text() == "precious") if target.exists() else (kind == "dangling symlink")


def assert_name_not_written(run):
    beginning = f"Error during {run.session.file('dump-name')} write: "
    assert run.status == 2
    assert run.err.startswith(beginning) and len(run.err) > len(beginning)
    error = run.session.error()
    assert (error.code, error.description, error.inner) == ("FileWrite", run.err, None)
    assert run.session.succeeded() == "error"
    assert shape(run.session.status) == IDLE
    assert run.session.file("dump.xml").read_bytes() == DUMP


@pytest.fixture
def small_disk(workspace):
    """Mounts a file system of a few KiB below a new directory."""
    mounted = []

    def mount(name, kib):
        directory = make_dir(workspace / name)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={kib}k,mode=755", "tmpfs", str(directory)], check=True)
        mounted.append(directory)
        return directory

    def bind(file, name):
        subprocess.run(["mount", "--bind", str(file), str(name)], check=True)
        mounted.append(name)

    mount.bind = bind
    yield mount
    for each in reversed(mounted):
        subprocess.run(["umount", str(each)], check=True)


@pytest.mark.parametrize("earlier", [True, False])
def test_full_disk_leaves_the_earlier_dump_alone(dump, agent, small_disk, earlier):
    session = Session(small_disk("disk", 512) / "session")
    if earlier:
        dump(session=session)
        session.file("dump-name").unlink()
    agent.answer(dump=b"x" * 3_000_000)
    assert_failed(dump(session=session), "StreamWrite", "Cannot write data to the stream")
    assert session.file("dump.xml").exists() == earlier
    if earlier:
        assert session.file("dump.xml").read_bytes() == DUMP


def test_last_byte_of_the_dump_that_cannot_be_written_counts(dump, agent):
    limit = 200_000
    options = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))}
    agent.answer(dump=b"x" * limit)
    assert_dumped(dump(**options), b"x" * limit)
    agent.answer(dump=b"x" * (limit + 1))
    assert_failed(dump(**options), "StreamWrite")


def test_full_disk_below_the_record_of_the_dumps_name_is_told(dump, tallowick, small_disk):
    disk = small_disk("disk", 4)
    write(disk / "dump-name", b"")
    write(disk / "filler", b"x" * 4096)
    session = tallowick.new_session()
    make_dir(session.path)
    write(session.file("dump-name"), b"")
    small_disk.bind(disk / "dump-name", session.file("dump-name"))
    assert_name_not_written(dump(session=session))


def test_next_dump_succeeds_where_the_last_one_failed(dump, agent):
    agent.fail("dump")
    session = dump().session
    agent.on("dump", "")
    assert_dumped(dump(session=session))
