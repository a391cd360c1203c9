# SPDX-License-Identifier: Apache-2.0
"""Deploying an agent: what arrives on the source host, in which order, and what is left in the session."""

import os
import re
import shutil
import socket
import stat

import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OVNADM, OWNER
from harness.agents import AGENT_STATUS, NAME, PERL_STATUS_AGENT, SHELL_STATUS_AGENT, AgentCatalogue, fill
from harness.disks import full_disk_at
from harness.hostile import Planted
from harness.places import make_dir, write
from harness.product import SMALL_REPORT
from harness.program import source
from harness.relay import FIN, RST, Fault
from harness.session import LogRecord, shape
from harness.shell import SUDO_CHECK, as_root, in_directory, words
from harness.waiting import wait_until

STATUS = "agent-deployment.status"
NOT_FOUND = f"Agent {NAME} was not found or does not contain proper spec file"
CANNOT_ASK = "Cannot request remote agent status using command line {}: {}"
CANNOT_MAKE = "Can't create agent directory {} on the remote host: {}"
RUN_PL = {"run.pl": PERL_STATUS_AGENT}


@pytest.fixture
def catalogue(product):
    """The product's agents directory with an empty shared tree and an agent of one perl script."""
    catalogue = AgentCatalogue(product)
    catalogue.install_shared()
    catalogue.install(files=RUN_PL, EntryPoint="run.pl")
    return catalogue


@pytest.fixture
def target(outbox):
    """The agent directory on the source host, which is not there yet."""
    return outbox / "agent"


@pytest.fixture
def deploy(tallowick, server, target):
    """Deploys the agent."""
    def run(*more, program=tallowick, port=server, account=MOVER, name=NAME, agent_dir=target, start=False, **options):
        options.setdefault("password", account.password)
        return (program.start if start else program.run)(
            "--deploy-agent", *source(port, account), f"--agent-dir={agent_dir}", f"--agent-name={name}", *more,
            **options)

    return run


@pytest.fixture
def session(tallowick):
    """A session directory that exists already."""
    session = tallowick.new_session()
    make_dir(session.path)
    return session


def tree(directory):
    """Every file (its bytes) and directory (None) below `directory`."""
    found = {}
    for where, directories, files in os.walk(os.fsencode(directory)):
        inside = os.path.relpath(where, os.fsencode(directory))
        for name in directories:
            found[os.path.normpath(os.path.join(inside, name))] = None
        for name in files:
            with open(os.path.join(where, name), "rb") as file:
                found[os.path.normpath(os.path.join(inside, name))] = file.read()
    return {os.fsdecode(name): content for name, content in found.items()}


def contents(files):
    """`files` as `tree` tells them, without the directories."""
    return {name: content.encode() if isinstance(content, str) else content for name, content in files.items()}


def files_of(directory):
    return {name: content for name, content in tree(directory).items() if content is not None}


def make_commands(target, name="", wrap=in_directory, login="mover"):
    path = f"{target}/{name}" if name else str(target)
    return [wrap(target, words("mkdir", "-p", path)), wrap(target, words("chown", login, path))]


def copy_command(target, name):
    return b"cat > " + words(f"{target}/{name}")


def status_command(target, entry="run.pl", interpreter="perl", wrap=in_directory):
    return wrap(target, words("sh", "-c", f"cd {target} && {interpreter} {target}/{entry} --get-status"))


def assert_failed(run, code, text, status=2):
    assert (run.status, run.err) == (status, text)
    error = run.session.error()
    assert (error.code, error.description) == (code, text)
    assert run.session.succeeded() == "error"
    assert shape(run.session.status) == ("migration-status", {}, "", [("idle", {}, "", [])])


def agent_records(run):
    """What the log says of agents and of their deployment."""
    return [record for record in run.session.records
            if record.category in ("k.SendAgentAction", "k.Agent", "k.AgentsFactory")]


def skipped(run):
    return [record.text for record in run.session.records if record.text.startswith("skipping ")]


def test_deployment_leaves_the_documented_files(deploy, catalogue):
    run = deploy()
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert run.session.names() == [STATUS, "archives", "migration.log", "migration.result", "migration.status"]
    assert run.session.file(STATUS).read_bytes() == AGENT_STATUS
    assert run.session.succeeded() == "success"
    assert shape(run.session.status) == ("migration-status", {}, "", [("idle", {}, "", [])])


def test_deployment_status_belongs_to_the_panel_after_a_success(deploy, catalogue):
    entry = deploy().session.file(STATUS).stat()
    assert (entry.st_uid, entry.st_gid) == (OVNADM.uid, OVNADM.gid)


def test_shared_tree_is_sent_before_the_agents_own_and_the_status_is_asked_last(deploy, catalogue, server, target):
    catalogue.install_shared({"lib/Common.pm": "1;"})
    catalogue.install(files={"lib/own/run.pl": PERL_STATUS_AGENT}, EntryPoint="lib/own/run.pl")
    assert deploy().status == 0
    assert server.commands() == [
        *make_commands(target), *make_commands(target, "lib"), copy_command(target, "lib/Common.pm"),
        *make_commands(target), *make_commands(target, "lib"), *make_commands(target, "lib/own"),
        copy_command(target, "lib/own/run.pl"), status_command(target, "lib/own/run.pl")]


def test_file_of_both_trees_ends_up_with_the_agents_version(deploy, catalogue, target):
    catalogue.install_shared({"both": "shared " * 1000, "shared": "s", "lib/both": "shared", "lib/shared": "s"})
    catalogue.install(files={**RUN_PL, "both": "agent", "lib/both": "agent", "own/deep/er": "a"}, EntryPoint="run.pl")
    assert deploy().status == 0
    assert files_of(target) == contents({"both": "agent", "shared": "s", "lib/both": "agent", "lib/shared": "s",
                                         "own/deep/er": "a", **RUN_PL})


def test_control_directory_is_skipped_at_the_top_and_copied_deeper_down(deploy, catalogue, target):
    fill(catalogue.install_shared(), {"control/spec": "x", "control/sub/x": "x", "lib/control/kept": "1"})
    directory = catalogue.install(files={**RUN_PL, "deep/control/kept": "2"}, EntryPoint="run.pl")
    fill(directory, {"control/run.pl": "x", "control/sub/x": "x"})
    run = deploy()
    assert run.status == 0
    assert files_of(target) == contents({"lib/control/kept": "1", "deep/control/kept": "2", **RUN_PL})
    assert not (target / "control").exists()


def test_file_named_control_is_copied(deploy, catalogue, target):
    catalogue.install_shared({"control": "no directory"})
    assert deploy().status == 0
    assert (target / "control").read_text() == "no directory"


def test_link_to_a_directory_named_control_is_skipped_at_the_top(deploy, catalogue, workspace, target):
    make_dir(workspace / "elsewhere")
    (catalogue.shared / "control").symlink_to(fill(workspace / "elsewhere", {"x": "x"}))
    assert deploy().status == 0
    assert tree(target) == contents(RUN_PL)


def test_empty_directories_are_made(deploy, catalogue, target):
    make_dir(catalogue.shared / "one" / "two")
    make_dir(catalogue.path() / "three")
    assert deploy().status == 0
    assert tree(target) == {"one": None, "one/two": None, "three": None, **contents(RUN_PL)}


def test_agent_runs_in_its_directory_as_the_login(deploy, catalogue, target):
    catalogue.install(files={"run.pl": "use Cwd (); print Cwd::getcwd(), qq(\\n), scalar(getpwuid($>)), qq(\\n);"},
                      EntryPoint="run.pl")
    assert deploy().session.file(STATUS).read_text() == f"{target}\nmover\n"


def test_missing_shared_directory_fails_before_anything_is_copied(deploy, catalogue, server, target):
    shutil.rmtree(catalogue.shared)
    run = deploy()
    assert_failed(run, "NoSharedAgentsDirectory", "'shared' agents directory not found")
    assert ": 'shared' agents directory not found [./send_agent:" in run.session.log
    assert "SSH" not in run.session.log
    assert server.commands() == []
    assert STATUS not in run.session.names()


def test_shared_that_is_a_file_sends_nothing(deploy, catalogue, target):
    shutil.rmtree(catalogue.shared)
    write(catalogue.shared, "no directory")
    assert deploy().status == 0
    assert tree(target) == contents(RUN_PL)


def test_missing_agent_directory_fails_after_the_shared_files_were_copied(deploy, catalogue, server, target):
    catalogue.install_shared({"lib/Common.pm": "1;"})
    shutil.rmtree(catalogue.path())
    run = deploy()
    assert_failed(run, "NoAgentDirectory", f"Directory for agent '{catalogue.path()}' does not exist")
    assert f"Directory for agent '{catalogue.path()}' does not exist [./send_agent:" in run.session.log
    assert tree(target) == {"lib": None, "lib/Common.pm": b"1;"}
    assert server.commands()[-1] == copy_command(target, "lib/Common.pm")
    assert STATUS not in run.session.names()


def test_agent_without_control_directory_is_not_found_after_both_trees_were_copied(deploy, catalogue, server, target):
    catalogue.install_shared({"shared": "s"})
    shutil.rmtree(catalogue.path() / "control")
    run = deploy()
    assert_failed(run, "AgentNotFound", NOT_FOUND)
    assert tree(target) == contents({"shared": "s", **RUN_PL})
    assert server.commands()[-1] == copy_command(target, "run.pl")
    assert STATUS not in run.session.names()
    assert agent_records(run)[-2:] == [
        LogRecord("DEBUG", "k.AgentsFactory", f"Parsing {NAME}"),
        LogRecord("ERROR", "k.AgentsFactory", f"{catalogue.path()}/control/spec is not a regular file")]


@pytest.mark.parametrize("kind", ["directory", "dangling link", "FIFO", "device"])
def test_spec_that_is_no_file_is_told_in_the_log(deploy, catalogue, kind):
    spec = catalogue.path() / "control" / "spec"
    spec.unlink()
    {"directory": spec.mkdir, "dangling link": lambda: spec.symlink_to("nowhere"),
     "FIFO": lambda: os.mkfifo(spec), "device": lambda: spec.symlink_to("/dev/null")}[kind]()
    run = deploy()
    assert_failed(run, "AgentNotFound", NOT_FOUND)
    assert agent_records(run)[-1].text == f"{spec} is not a regular file"


@pytest.mark.parametrize("text, reason", [
    ("EntryPoint: run.pl\n\nno colon here\n", "{spec}:3: Expected '<token>: <value>', got 'no colon here'"),
    ("EntryPoint : run.pl\n", "Illegal parameter found in {spec}: EntryPoint "),
    ("entrypoint: run.pl\n", "Illegal parameter found in {spec}: entrypoint"),
    (" EntryPoint: run.pl\n", "Illegal parameter found in {spec}:  EntryPoint"),
    ("# EntryPoint: run.pl\n", "Illegal parameter found in {spec}: # EntryPoint"),
    ("#\nEntryPoint: run.pl\n", "{spec}:1: Expected '<token>: <value>', got '#'"),
    ("EntryPoint: run.pl\n\r\n", "{spec}:2: Expected '<token>: <value>', got '\r'"),
    (": value\n", "Illegal parameter found in {spec}: "),
    ("%1%: %s %2%\n", "Illegal parameter found in {spec}: %1%")])
def test_bad_spec_is_told_in_the_log_and_the_agent_not_found(deploy, catalogue, target, text, reason):
    catalogue.install(files=RUN_PL, spec=text)
    spec = catalogue.path() / "control" / "spec"
    run = deploy()
    assert_failed(run, "AgentNotFound", NOT_FOUND)
    assert [record for record in run.session.records if record.level == "ERROR"][-2:] == [
        LogRecord("ERROR", "k.AgentsFactory", f"{spec} is not a valid agent spec file"),
        LogRecord("ERROR", "k.AgentsFactory", f"Unable to parse spec file: {reason.format(spec=spec)}")]
    assert tree(target) == contents(RUN_PL)


@pytest.mark.parametrize("text", [
    "EntryPoint:   run.pl\n", "EntryPoint:\t \v run.pl", "EntryPoint:run.pl\nStylesheet:\nDocumentType: a: b\n",
    "EntryPoint: no.pl\nInterpreter: no\nEntryPoint: run.pl\nInterpreter: \n\n"])
def test_spec_gives_the_entry_point(deploy, catalogue, server, target, text):
    catalogue.install(files=RUN_PL, spec=text)
    assert deploy().status == 0
    assert server.commands()[-1] == status_command(target)


def test_trailing_white_space_belongs_to_the_value(deploy, catalogue, server, target):
    catalogue.install(files={"run.pl\r": "print 'x';"}, spec="EntryPoint: run.pl\r\nInterpreter: perl -w \n")
    assert deploy().status == 0
    assert server.commands()[-1] == status_command(target, "run.pl\r", "perl -w ")


def test_agent_without_interpreter_is_asked_with_perl_and_the_log_says_so(deploy, catalogue, server, target):
    run = deploy()
    assert server.commands()[-1] == status_command(target, interpreter="perl")
    assert LogRecord("DEBUG", "k.Agent", "Interpreter: perl") in run.session.records


def test_agent_is_asked_with_its_interpreter(deploy, catalogue, server, target):
    catalogue.install(files={"run": SHELL_STATUS_AGENT}, EntryPoint="run", Interpreter="sh")
    run = deploy()
    assert run.session.file(STATUS).read_bytes() == AGENT_STATUS
    assert server.commands()[-1] == status_command(target, "run", "sh")


def test_unreadable_spec_gives_an_agent_of_empty_values(deploy, catalogue, server, target):
    # Root may read all files but a few of the kernel's, which can only be written.
    spec = catalogue.path() / "control" / "spec"
    spec.unlink()
    spec.symlink_to("/proc/sys/net/ipv4/route/flush")
    run = deploy()
    assert run.session.error().code == "CantRequestAgentStatus"
    assert run.err.startswith(CANNOT_ASK.format(f"{target}/", ""))
    assert server.commands()[-1] == status_command(target, "")
    assert [record.text for record in run.session.records if record.category == "k.Agent"] == [
        f"Agent {NAME}", "Description: ", "Interpreter: perl"]


def test_spec_is_parsed_once(deploy, catalogue):
    assert [record.text for record in deploy().session.records].count(f"Parsing {NAME}") == 1


def test_failing_status_request_is_told_by_its_entry_point(deploy, catalogue, target):
    catalogue.install(files={"run.pl": "print qq(half\\n); print STDERR qq(oh %1% dear\\n); exit 5;"},
                      EntryPoint="run.pl")
    run = deploy()
    assert_failed(run, "CantRequestAgentStatus", CANNOT_ASK.format(f"{target}/run.pl", "oh %1% dear\n"))
    assert " [./send_agent:" in run.session.log


def test_failing_status_request_keeps_what_the_agent_printed_and_the_files_owner(deploy, catalogue, session):
    catalogue.install(files={"run.pl": "print qq(half\\n); exit 5;"}, EntryPoint="run.pl")
    file = write(session.file(STATUS), "from before" * 1000, 0o640)
    os.chown(file, 12, 13)
    assert deploy(session=session).status == 2
    entry = file.stat()
    assert (file.read_bytes(), entry.st_uid, entry.st_gid, stat.S_IMODE(entry.st_mode)) == (b"half\n", 12, 13, 0o640)


def test_status_request_that_cannot_run_is_told(deploy, catalogue, target):
    catalogue.install(files={}, EntryPoint="missing.pl", Interpreter="no-such-interpreter")
    run = deploy()
    assert run.status == 2
    assert run.err.startswith(CANNOT_ASK.format(f"{target}/missing.pl", ""))
    assert "no-such-interpreter" in run.err
    assert run.session.file(STATUS).read_bytes() == b""


def test_agent_killed_while_it_is_asked_is_no_success(deploy, catalogue):
    catalogue.install(files={"run.pl": "$| = 1; print 'half'; kill q(KILL), $$; sleep 60;"}, EntryPoint="run.pl")
    run = deploy()
    assert (run.status, run.session.error().code) == (2, "CantRequestAgentStatus")


@pytest.mark.parametrize("size", [0, 65537, 500_000])
def test_deployment_status_of_any_size_arrives_whole(deploy, catalogue, session, size):
    catalogue.install(files={"run.pl": f"binmode STDOUT; print substr(join('', map chr, 0..255) x {size // 256 + 1}, "
                                       f"0, {size});"}, EntryPoint="run.pl")
    write(session.file(STATUS), "from before" * 1000)
    assert deploy(session=session).status == 0
    assert session.file(STATUS).read_bytes() == (bytes(range(256)) * (size // 256 + 1))[:size]


@pytest.mark.parametrize("kind", ["link to a file", "link to nothing", "fifo", "directory"])
def test_what_is_no_file_in_place_of_the_deployment_status_is_refused(deploy, catalogue, session, outside, kind):
    planted = Planted(kind, session.file(STATUS), outside)
    assert_failed(deploy(session=session), "StreamWrite", "Cannot write data to the stream")
    assert planted.is_at(session.file(STATUS))


@pytest.mark.parametrize("kind", ["link to a file", "link to nothing", "fifo"])
def test_what_is_no_file_in_place_of_the_log_ends_the_run_at_once(deploy, catalogue, server, session, outside, kind):
    file = session.file("migration.log")
    planted = Planted(kind, file, outside)
    run = deploy(session=session)
    assert run.status == 1
    assert run.err.startswith("Uncaught ")
    assert f"Cannot write to {file}" in run.err
    assert planted.is_at(file)
    assert "migration.result" not in session.names()
    assert server.commands() == []


def test_full_disk_below_the_deployment_status_is_an_error(deploy, catalogue, session, workspace):
    with full_disk_at(session.file(STATUS), workspace / "disk"):
        assert_failed(deploy(session=session), "StreamWrite", "Cannot write data to the stream")


def test_agent_directory_that_cannot_be_made_is_told(deploy, catalogue, server, workspace):
    target = workspace / "agent"
    run = deploy(agent_dir=target)
    assert run.session.error().code == "CantCreateAgentDirectory"
    assert run.err.startswith(CANNOT_MAKE.format(target, ""))
    assert f"mkdir: cannot create directory '{target}': Permission denied\n" in run.err
    assert server.commands() == make_commands(target)[:1]
    assert " [./send_agent:" in run.session.log
    assert not target.exists()


def test_directory_whose_place_is_taken_keeps_what_was_copied_before(deploy, catalogue, server, target):
    catalogue.install_shared({"lib": "a file of this name"})
    catalogue.install(files={"lib/run.pl": PERL_STATUS_AGENT}, EntryPoint="lib/run.pl")
    run = deploy()
    assert_failed(run, "CantCreateAgentDirectory", CANNOT_MAKE.format(
        f"{target}/lib", f"mkdir: cannot create directory '{target}/lib': File exists\n"))
    assert tree(target) == contents({"lib": "a file of this name"})
    assert server.commands()[-1] == make_commands(target, "lib")[0]


def test_directory_that_the_login_cannot_own_is_told(deploy, catalogue, server, target):
    make_dir(target, 0o777)
    run = deploy()
    assert_failed(run, "CantCreateAgentDirectory", CANNOT_MAKE.format(
        target, f"chown: changing ownership of '{target}': Operation not permitted\n"))
    assert server.commands() == make_commands(target)


def test_remote_file_that_cannot_be_written_is_only_logged(deploy, catalogue, target):
    catalogue.install_shared({"taken": "new", "other": "new"})
    make_dir(target)
    os.chown(target, MOVER.uid, MOVER.gid)
    make_dir(target / "taken")
    write(target / "run.pl", PERL_STATUS_AGENT)  # of root: what stands there stays and is asked
    run = deploy()
    assert run.status == 0
    assert (target / "other").read_text() == "new"
    assert [record.text for record in run.session.records if (record.level, record.category) == ("ERROR", "k.Ssh")] \
        == [f"Writing to the remote file {target}/{name} has ended with return code 1" for name in ("taken", "run.pl")]


ODD_NAMES = [
    "two  blanks ", " leading", "-n", "--help", "quote'd \"name\"", "tab\tnew\nline", "\n", "$HOME `id` \\ \\\\",
    "a;b|c&d<e>f(g)", "#1 * ? [x] ~ !", "per%cent %1%", "ümläut 日本", "\udcff\udcfe raw", "{one", "a=b", "\x01\x7f\x1b"]


def test_odd_names_arrive_as_they_are(deploy, catalogue, target):
    files = {f"{name}": f"content of {name!r}" for name in ODD_NAMES}
    files |= {f"dir {name}/{name}": f"below {name!r}" for name in ODD_NAMES}
    catalogue.install_shared(files)
    assert deploy().status == 0
    assert files_of(target) == contents({**files, **RUN_PL})


def test_braces_in_a_name_are_for_the_login_shell_to_expand(deploy, catalogue, target):
    # The one thing that quoting does not protect from bash; dash and sh know nothing of it.
    catalogue.install_shared({"{a,b}.txt": "x", "lone{brace}": "kept"})
    run = deploy()
    assert run.status == 0
    assert files_of(target) == contents({"lone{brace}": "kept", **RUN_PL})
    assert LogRecord("ERROR", "k.Ssh", f"Writing to the remote file {target}/{{a,b}}.txt has ended with "
                     "return code 1") in run.session.records


def test_files_of_any_size_and_content_arrive_whole(deploy, catalogue, target):
    sizes = [0, 1, 65535, 65536, 65537, 5_000_003]
    files = {f"size-{size}": (bytes(range(251)) * (size // 251 + 1))[:size] for size in sizes}
    catalogue.install_shared({**files, "text": "one\r\ntwo\x1a\x00\n"})
    assert deploy().status == 0
    assert files_of(target) == contents({**files, "text": "one\r\ntwo\x1a\x00\n", **RUN_PL})


def test_content_of_files_never_stands_in_the_log(deploy, catalogue):
    catalogue.install_shared({"private": "Content-That-Is-Private"})
    assert "Content-That-Is-Private" not in deploy().session.log


def test_links_are_sent_as_what_they_lead_to(deploy, catalogue, workspace, target):
    elsewhere = fill(make_dir(workspace / "elsewhere"), {"file": "linked", "sub/file": "below"})
    (catalogue.shared / "to file").symlink_to(elsewhere / "file")
    (catalogue.shared / "to directory").symlink_to(elsewhere)
    (catalogue.shared / "relative").symlink_to("to file")
    assert deploy().status == 0
    assert tree(target) == {"to file": b"linked", "relative": b"linked", "to directory": None,
                            "to directory/file": b"linked", "to directory/sub": None,
                            "to directory/sub/file": b"below", **contents(RUN_PL)}
    assert not any(path.is_symlink() for path in target.rglob("*"))


def test_directory_that_two_links_lead_to_is_sent_twice(deploy, catalogue, target):
    fill(catalogue.shared, {"real/file": "x"})
    (catalogue.shared / "first").symlink_to("real")
    (catalogue.shared / "second").symlink_to("real")
    assert deploy().status == 0
    assert files_of(target) == contents({"real/file": "x", "first/file": "x", "second/file": "x", **RUN_PL})


def test_links_that_lead_back_are_skipped_with_a_log_line(deploy, catalogue, target):
    shared = catalogue.shared
    fill(shared, {"sub/deep/file": "x"})
    loops = [shared / "self", shared / "sub" / "top", shared / "sub" / "deep" / "up"]
    for loop, leads_to in zip(loops, [".", "..", ".."]):
        loop.symlink_to(leads_to)
    run = deploy()
    assert run.status == 0
    assert sorted(skipped(run)) == sorted(f"skipping {loop}: it leads back to itself" for loop in loops)
    assert tree(target) == {"sub": None, "sub/deep": None, "sub/deep/file": b"x", **contents(RUN_PL)}


def test_what_is_neither_file_nor_directory_is_skipped_with_a_log_line(deploy, catalogue, target):
    shared = catalogue.shared
    os.mkfifo(shared / "fifo")
    os.mkfifo(make_dir(shared / "sub") / "fifo")
    os.mknod(shared / "device", stat.S_IFCHR | 0o666, os.makedev(1, 3))
    (shared / "to fifo").symlink_to("fifo")
    (shared / "dangling").symlink_to("nowhere")
    (shared / "itself").symlink_to("itself")
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(shared / "socket"))
        run = deploy()
    assert run.status == 0
    names = ["fifo", "sub/fifo", "device", "to fifo", "dangling", "itself", "socket"]
    assert sorted(skipped(run)) == sorted(f"skipping {shared}/{name}: neither a file nor a directory" for name in names)
    assert {(record.level, record.category) for record in run.session.records if "skipping" in record.text} == {
        ("WARN", "k.SendAgentAction")}
    assert tree(target) == {"sub": None, **contents(RUN_PL)}


def sudo_cases():
    return [pytest.param(MOVER, id="asked for root's password"), pytest.param(OWNER, id="asked for its own"),
            pytest.param(NOPASS, id="not asked")]


@pytest.mark.parametrize("account", sudo_cases())
def test_through_sudo_root_makes_directories_and_asks_but_the_login_sends_files(deploy, catalogue, server, outbox,
                                                                                target, account):
    os.chown(outbox, account.uid, account.gid)
    catalogue.install_shared({"lib/Common.pm": "1;"})
    catalogue.install(files={"run.pl": "print scalar(getpwuid($>)), qq(\\n);"}, EntryPoint="run.pl")
    run = deploy("--sudo-password", account=account, sudo_password=account.sudo_password)
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.file(STATUS).read_bytes() == b"root\n"
    login = account.login
    assert server.commands() == [
        *SUDO_CHECK, *make_commands(target, "", as_root, login), *make_commands(target, "lib", as_root, login),
        copy_command(target, "lib/Common.pm"), *make_commands(target, "", as_root, login),
        copy_command(target, "run.pl"), status_command(target, wrap=as_root)]
    for path in (target, target / "lib", target / "lib" / "Common.pm", target / "run.pl"):
        assert path.stat().st_uid == account.uid, path


def test_new_agent_directory_below_one_of_root_belongs_to_the_login_under_sudo(deploy, catalogue, workspace):
    target = workspace / "of-root" / "agent"
    run = deploy("--sudo-password", account=OWNER, sudo_password=OWNER.sudo_password, agent_dir=target)
    assert run.status == 0
    assert target.parent.stat().st_uid == 0
    assert target.stat().st_uid == OWNER.uid
    assert tree(target) == contents(RUN_PL)


def test_wrong_sudo_password_copies_nothing(deploy, catalogue, server, target):
    run = deploy("--sudo-password", account=OWNER, sudo_password="wrong-Sudo-1")
    assert_failed(run, "SudoNotAllowed", "sudo is not allowed for user owner on host 127.0.0.1.")
    assert server.commands() == SUDO_CHECK
    assert not target.exists()


def test_root_deploys_without_sudo(deploy, catalogue, workspace):
    target = workspace / "agent"
    assert deploy(account=ACCOUNTS["root"], agent_dir=target).status == 0
    assert tree(target) == contents(RUN_PL)


def test_second_deployment_replaces_the_files_of_the_first_and_leaves_others(deploy, catalogue, target):
    catalogue.install_shared({"long": "x" * 100_000, "gone": "old"})
    assert deploy().status == 0
    catalogue.install_shared({"long": "short"})
    assert deploy().status == 0
    assert tree(target) == contents({"long": "short", "gone": "old", **RUN_PL})


def test_status_tells_deploy_while_files_are_copied_and_wait_while_the_agent_is_asked(deploy, catalogue, start_sshd,
                                                                                      workspace, outbox):
    tools = make_dir(workspace / "bin")
    wait = "touch {0}/{1}; until [ -e {0}/go-{1} ]; do sleep 0.02; done\n"
    write(tools / "mkdir", f"#!/bin/sh\n{wait.format(outbox, 'copying')}exec /bin/mkdir \"$@\"\n", 0o755)
    catalogue.install(files={"run": wait.format(outbox, "asking")}, EntryPoint="run", Interpreter="sh")
    running = deploy(port=start_sshd(path=f"{tools}:/usr/bin:/bin"), start=True)
    for stage, action in (("copying", "deploy"), ("asking", "wait")):
        wait_until((outbox / stage).exists, stage)
        assert shape(running.session.status) == (
            "migration-status", {}, "", [("agent", {"action": action}, "", [("host", {}, "127.0.0.1", [])])])
        (outbox / f"go-{stage}").touch()
    assert running.wait().status == 0


def test_tree_of_1000_files_in_100_directories_goes_over_one_connection(deploy, catalogue, tallowick_release, server,
                                                                        target):
    directories = [f"d{first}/e{second}" for first in range(10) for second in range(9)]
    files = {f"{directory}/f{number}": f"{directory} {number}" for directory in directories for number in range(10)}
    files |= {f"d{first}/f{number}": f"{first} {number}" for first in range(10) for number in range(10)}
    catalogue.install_shared(files)
    directories += [f"d{first}" for first in range(10)]
    assert (len(files), len(directories)) == (1000, 100)
    run = deploy(program=tallowick_release)
    assert run.status == 0
    assert files_of(target) == contents({**files, **RUN_PL})
    assert server.log().count("Accepted password") == 1
    commands = server.commands()
    assert sorted(commands) == sorted([
        *make_commands(target) * 2, *[command for each in directories for command in make_commands(target, each)],
        *[copy_command(target, each) for each in [*files, "run.pl"]], status_command(target)])
    told = [(record.level, record.text) for record in run.session.records if record.category == "k.SendAgentAction"]
    assert told[0] == ("NOTICE", f"Copying agent {NAME} to the remote host.")
    assert told[-1] == ("NOTICE", "Getting agent deployment status")
    assert sorted(told[1:-1]) == sorted(
        [("INFO", f"remote mkdir {target}{each}") for each in ["", "", *[f"/{each}" for each in directories]]] +
        [("INFO", f"remote <copy {target}/{each} (from {catalogue.shared}/{each})") for each in files] +
        [("INFO", f"remote <copy {target}/run.pl (from {catalogue.path()}/run.pl)")])
    made = {match[1] for text in (text for _, text in told) if (match := re.fullmatch(r"remote mkdir (.*)", text))}
    for _, text in told:
        if match := re.match(r"remote <copy (.*)/[^/]* \(from ", text):
            assert match[1] in made


@pytest.mark.parametrize("kind", [FIN, RST])
def test_connection_lost_while_a_directory_is_made_is_status_18(deploy, catalogue, server, start_relay, workspace,
                                                                start_sshd, outbox, target, kind):
    tools = make_dir(workspace / "bin")
    write(tools / "mkdir", f"#!/bin/sh\n/bin/mkdir \"$@\"\ncase $* in */lib) touch {outbox}/here; sleep 60 ;; esac\n",
          0o755)
    catalogue.install_shared({"lib/Common.pm": "1;"})
    relay = start_relay(start_sshd(path=f"{tools}:/usr/bin:/bin"))
    running = deploy(port=relay, start=True)
    wait_until((outbox / "here").exists, "the remote mkdir")
    relay.connections[0].act(kind, "server")
    run = running.wait()
    assert_failed(run, "SshConnectionFault", "Lost connection with the remote host", status=18)
    assert tree(target) == {"lib": None}
    assert STATUS not in run.session.names()


def test_connection_lost_while_the_agent_is_asked_is_status_18(deploy, catalogue, server, start_relay, outbox):
    catalogue.install(files={"run.pl": f"$| = 1; print 'half'; open F, q(>{outbox}/here); sleep 60;"},
                      EntryPoint="run.pl")
    relay = start_relay(server)
    running = deploy(port=relay, start=True)
    wait_until(lambda: running.session.file(STATUS).exists() and running.session.file(STATUS).read_bytes(),
               "the agent's answer")
    relay.connections[0].act(FIN, "server")
    run = running.wait()
    assert_failed(run, "SshConnectionFault", "Lost connection with the remote host", status=18)
    assert run.session.file(STATUS).read_bytes() == b"half"
    assert run.session.file(STATUS).stat().st_uid == 0


@pytest.mark.parametrize("kind", [FIN, RST])
def test_connection_lost_amid_a_file_is_an_error(deploy, catalogue, server, start_relay, kind):
    catalogue.install_shared({"large": b"\4" * 8_000_000})
    run = deploy(port=start_relay(server, Fault(kind, 4_000_000, stream="client")))
    assert run.status in (2, 18)
    assert run.session.succeeded() == "error"


def test_scout_and_agent_share_a_session(tallowick, deploy, catalogue, server, session):
    assert tallowick.run("--send-scout", *source(server), session=session).status == 0
    assert deploy(session=session).status == 0
    assert session.scout_result == SMALL_REPORT
    assert session.file(STATUS).read_bytes() == AGENT_STATUS
    assert "migration.result.1" in session.names()
