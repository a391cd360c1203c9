# SPDX-License-Identifier: Apache-2.0
"""The contract table is true: runs end with the status and the tags that it has for their cause, and the documents that
the schemas have for good are taken by the program."""

import json
import shutil
from dataclasses import dataclass
from xml.etree import ElementTree

import pytest

from harness.accounts import MOVER, PLAIN
from harness.agents import AgentCatalogue, ContentFile, content_file, content_list
from harness.content import small_disk
from harness.every_action import ACTIONS, EveryAction, result_name
from harness.places import SOURCE_ROOT, make_dir, write
from harness.session import Session

TABLE = json.loads((SOURCE_ROOT / "doc" / "contract.json").read_text(encoding="utf-8"))
CORPUS = SOURCE_ROOT / "schemas" / "corpus"
ONE_FILE = content_list([content_file("file", b"text")])


@dataclass
class Place:
    """What a run needs: the program, a source host, the product, an agent that is deployed there."""

    program: object
    server: object
    product: object
    agent: object
    session: object
    start_scripted: object
    every: EveryAction

    def run(self, action, *options, server=None, **run):
        run.setdefault("session", self.session)
        return self.every.run(action, server or self.server, *options, **run)


@pytest.fixture
def place(tallowick_release, server, product, workspace, start_scripted):
    every = EveryAction(tallowick_release, product, workspace / "agent")
    session = tallowick_release.new_session()
    make_dir(session.path)
    return Place(tallowick_release, server, product, every.agent, session, start_scripted, every)


def tags_of(run, document):
    """The outermost and the innermost tag in the result document."""
    messages = run.session.result(document).findall("message")
    if not messages:
        return None, None
    error = outermost = run.session.error(document)
    while error.inner is not None:
        error = error.inner
    return outermost.code, error.code


def assert_as_in_the_table(run, action, cause):
    rows = [row for row in TABLE["rows"] if (row["action"], row["cause"]) == (action, cause)]
    assert run.status in {row["status"] for row in rows}
    documents = {row["document"] for row in rows}
    assert len(documents) == 1
    if documents == {None}:
        assert result_name(action) not in run.session.names()
        assert run.err
        return
    ends = {(row["status"], row["outer"], row["innermost"]) for row in rows}
    assert (run.status, *tags_of(run, documents.pop())) in ends
    assert run.session.succeeded(result_name(action)) == ("success" if run.status == 0 else "error")
    for row in rows:
        if row["logged"]:
            assert f"{row['logged']}[" in run.session.log


# ---- What makes a run end so; each is given a place and the action ----


def done(place, action):
    return place.run(action)


def command_line(place, action):
    return place.run(action, "--no-such-option")


def options(place, action):
    if action == "--remove-dumping-status":
        return place.run(action, "--host=src.example")
    return place.program.run(action, session=place.session)


def session(place, action):
    return place.run(action, session=Session(write(place.session.path / "file", "in the way")))


def log(place, action):
    place.product.log_properties.unlink()
    return place.run(action)


def refused(place, action):
    return place.run(action, server=1)


def unknown_host(place, action):
    return place.run(action, "--host=nowhere.invalid")


def credentials(place, action):
    return place.run(action, password="wrong-Password")


def sudo_refused(place, action):
    return place.run(action, "--sudo-password", f"--login={PLAIN.login}", password=PLAIN.password, sudo_password="no-1")


def no_channel(place, action):
    return place.run(action, server=place.start_scripted(accepts_channels=False))


def lost(place, action):
    def run(command):
        command.read_input()
        command.drop()

    return place.run(action, server=place.start_scripted(run=run))


def lost_while_sending(place, action):
    place.product.set_scout("#" * 20_000_000)
    return place.run(action, server=place.start_scripted(run=lambda command: command.drop()))


def lost_among_files(place, action):
    def run(command):
        if b"--get-content-list" not in command.command:
            command.drop()
        else:
            command.out(ONE_FILE.encode())
            command.exit(0)

    return place.run(action, server=place.start_scripted(run=run))


def status_not_placed(place, action):
    make_dir(place.session.file("migration.status") / "inside")
    return place.run(action)


def scout_missing(place, action):
    place.product.scout_file.unlink()
    return place.run(action)


def scout_failed(place, action):
    place.product.set_scout("exit 3;")
    return place.run(action)


def shared_missing(place, action):
    shutil.rmtree(AgentCatalogue(place.product).shared)
    return place.run(action)


def agent_missing(place, action):
    shutil.rmtree(AgentCatalogue(place.product).path(place.agent.name))
    return place.run(action)


def agent_unknown(place, action):
    (AgentCatalogue(place.product).path(place.agent.name) / "control" / "spec").unlink()
    return place.run(action)


def directory_not_made(place, action):
    return place.run(action, "--agent-dir=/proc/no-such-directory")


def agent_does_not_answer(place, action):
    write(AgentCatalogue(place.product).path(place.agent.name) / "run.pl", "exit 5;")
    return place.run(action)


def upload_failed(place, action):
    write(AgentCatalogue(place.product).path(place.agent.name) / "extra", "text")
    make_dir(place.agent.directory / "extra")
    run = place.run(action)
    assert "ERROR k.Ssh: Writing to the remote file " in run.session.log
    return run


def dumping_status_not_taken(place, action):
    (place.agent.directory / "dumping-status.xml").unlink()
    return place.run(action, "--sudo-password", sudo_password=MOVER.sudo_password)


def no_dumping_status(place, action):
    (place.agent.directory / "dumping-status.xml").unlink()
    run = place.run(action)
    assert run.stdout == b""
    return run


def dumping_status_not_read(place, action):
    return place.run(action, server=place.start_scripted(accepts_exec=lambda command: False))


def selection_missing(place, action):
    return place.run(action, "--selected-objects-file=/nowhere")


def selection_broken(place, action):
    return place.run(action, f"--selected-objects-file={CORPUS}/selected-objects/refused/torn.xml")


def dumper_failed(place, action):
    place.agent.fail("dump")
    return place.run(action)


def dump_not_taken(place, action):
    place.agent.answer(dump=None)
    return place.run(action, "--sudo-password", sudo_password=MOVER.sudo_password)


def name_not_kept(place, action):
    make_dir(place.session.file("dump-name"))
    return place.run(action)


def list_failed(place, action):
    place.agent.fail("list")
    return place.run(action)


def space_unknown(place, action):
    return place.run(action, f"--dumps-dir=/{'n' * 300}")


def file_differs(place, action):
    place.agent.add("file", b"damaged")
    place.agent.answer(list=ONE_FILE)
    return place.run(action)


CAUSES = {
    done: ACTIONS,
    command_line: ["--send-scout", "--remove-agent"],
    options: ACTIONS,
    session: ["--get-content"],
    log: ["--send-scout"],
    refused: [action for action in ACTIONS if action != "--remove-dumping-status"],
    unknown_host: ["--dump-all", "--get-content", "--remove-agent"],
    credentials: ["--deploy-agent", "--get-dumping-status", "--dump-selected", "--get-content", "--remove-agent"],
    sudo_refused: ["--send-scout", "--get-dumping-status", "--dump-all", "--get-content", "--remove-agent"],
    no_channel: ["--send-scout", "--dump-all"],
    lost: ["--send-scout", "--dump-all", "--get-content"],
    lost_while_sending: ["--send-scout"],
    lost_among_files: ["--get-content"],
    status_not_placed: ["--send-scout", "--dump-all", "--remove-dumping-status"],
    scout_missing: ["--send-scout"],
    scout_failed: ["--send-scout"],
    shared_missing: ["--deploy-agent"],
    agent_missing: ["--deploy-agent"],
    agent_unknown: ["--deploy-agent", "--dump-selected", "--get-content"],
    directory_not_made: ["--deploy-agent"],
    agent_does_not_answer: ["--deploy-agent"],
    upload_failed: ["--deploy-agent"],
    dumping_status_not_taken: ["--get-dumping-status"],
    dumping_status_not_read: ["--get-dumping-status"],
    no_dumping_status: ["--get-dumping-status"],
    selection_missing: ["--dump-selected"],
    selection_broken: ["--dump-selected"],
    dumper_failed: ["--dump-selected", "--dump-all"],
    dump_not_taken: ["--dump-all"],
    name_not_kept: ["--dump-all", "--get-content"],
    list_failed: ["--get-content"],
    space_unknown: ["--get-content"],
    file_differs: ["--get-content"],
}
LISTS = {"list-empty": "", "list-broken": "<contentlist", "list-of-another-kind": "<dump/>",
         "list-without-total": "<contentlist/>", "no-space": content_list([], size=10 ** 18),
         "file-failed": content_list([ContentFile("no such file", 4)]),
         "list-failed": content_list([ContentFile("file", -1)], size=4)}


@pytest.mark.parametrize("end, action", [(end, action) for end, actions in CAUSES.items() for action in actions],
                         ids=lambda each: each if isinstance(each, str) else each.__name__)
def test_run_ends_as_the_table_has_it(place, end, action):
    run = end(place, action)
    assert_as_in_the_table(run, action, end.__name__.replace("_", "-"))


@pytest.mark.parametrize("cause", LISTS)
def test_content_list_ends_a_run_as_the_table_has_it(place, cause):
    place.agent.answer(list=LISTS[cause])
    assert_as_in_the_table(place.run("--get-content"), "--get-content", cause)


def test_dump_that_does_not_fit_ends_as_the_table_has_it(place):
    place.agent.answer(dump=b"d" * 1_000_000)
    with small_disk(place.session.path, "size=256k"):
        assert_as_in_the_table(place.run("--dump-all"), "--dump-all", "dump-not-kept")


# ---- What the schemas call good ----


def files_of(document):
    try:
        return [element.text for element in ElementTree.parse(document).getroot().findall("file")]
    except ElementTree.ParseError:
        return []


@pytest.mark.parametrize("document", [*CORPUS.glob("contentlist/*.xml"), *CORPUS.glob("contentlist-accepted/*.xml")],
                         ids=lambda document: document.stem)
def test_content_list_that_is_legal_is_accepted(place, document):
    for path in files_of(document):
        place.agent.add(path.lstrip("/"), b"text")
    place.agent.answer(list=document.read_bytes())
    assert place.run("--get-content", "--no-check-space").status == 0


@pytest.mark.parametrize("document", CORPUS.glob("contentlist-accepted/refused/*.xml"),
                         ids=lambda document: document.stem)
def test_content_list_that_is_not_accepted_ends_the_run(place, document):
    place.agent.add("file", b"text")
    place.agent.answer(list=document.read_bytes())
    run = place.run("--get-content", "--no-check-space")
    assert run.status == 2
    assert tags_of(run, "transfer.result")[1] in (
        "AssertionFailed", "CantRetrieveContentFile", "CantRetrieveContentList", "NoSuchAttribute", "tError_ParseFile",
        "tError_WrongDoc")


@pytest.mark.parametrize("document", sorted(CORPUS.glob("selected-objects/**/*.xml")),
                         ids=lambda document: f"{document.parent.name}-{document.stem}")
def test_selected_objects_are_read_whatever_they_hold_unless_they_are_torn(place, document):
    run = place.run("--dump-selected", f"--selected-objects-file={document}", server=1)
    expected = ("tError_ParseFile",) * 2 if document.stem == "torn" else ("CantRetrieveDump", "ConnectionRefused")
    assert tags_of(run, "migration.result") == expected
