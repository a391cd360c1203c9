# SPDX-License-Identifier: Apache-2.0
"""The dumper's arguments and standard input, from the command line, standard input and the selected-objects file."""

import concurrent.futures
import os
import socket

import pytest

from harness.accounts import MOVER, OWNER
from harness.agents import DeployedAgent
from harness.dumps import MASK, assert_dumped, one_call
from harness.places import write
from harness.program import source

# The arguments that every dump of selected objects has around those of the selection.
FIRST, LAST = ["--migration-mode"], ["--include-app-distrib"]


def assert_given(agent, arguments, stdin=b""):
    call = one_call(agent)
    assert (call.arguments, call.stdin) == (arguments, stdin)


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


def test_empty_file_as_standard_input_is_an_empty_list(dump, agent, workspace):
    with open(write(workspace / "list", b""), "rb") as empty:
        assert_dumped(dump("--domains=-", stdin=empty))
    assert_given(agent, [*FIRST, *LAST])


@pytest.fixture
def unreadable_inputs():
    """Standard inputs, as options of a run, that fail at once or after some bytes."""
    ours, cut = socket.socketpair()
    cut.send(b"unread")
    ours.send(b"one.example,two.exa")
    ours.close()  # with something unread in it, so that the other end is told of a reset
    directory = os.open("/", os.O_RDONLY)
    yield {"directory": {"stdin": directory}, "cut line": {"stdin": cut},
           "closed descriptor": {"stdin": None, "preexec_fn": lambda: os.close(0)}}
    cut.close()
    os.close(directory)


def test_list_that_cannot_be_read_to_its_end_ends_the_run_before_the_connection(dump, server, unreadable_inputs):
    for name, options in unreadable_inputs.items():
        run = dump("--domains=-", **options)
        assert (run.status, run.err) == (2, "Cannot read data from the stream"), name
        assert run.session.error().code == "StreamRead", name
        assert server.commands() == [], name


def test_list_is_read_for_a_dump_of_all_but_not_passed_on(dump, agent):
    assert_dumped(dump("--domains=-", action="--dump-all", stdin=b"d\n"))
    assert_given(agent, ["--migration-mode", "--dump-all"])


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
