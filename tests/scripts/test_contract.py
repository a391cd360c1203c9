# SPDX-License-Identifier: Apache-2.0
"""The contract table has every tag and status of the sources, and is what they say."""

import json
import pathlib
import shutil
import subprocess
import sys

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts" / "lib"))

# pylint: disable=wrong-import-position
from contract import Contract, ContractError, Sources

DUMPS = ("--dump-selected", "--dump-all")


@pytest.fixture(scope="module")
def sources():
    return Sources(TOP)


@pytest.fixture(scope="module")
def table():
    return json.loads((TOP / "doc" / "contract.json").read_text(encoding="utf-8"))


@pytest.fixture
def tree(tmp_path):
    """A copy of what the table is made of."""
    shutil.copytree(TOP / "src", tmp_path / "src")
    shutil.copytree(TOP / "doc", tmp_path / "doc")
    return tmp_path


def change(file, old, new):
    text = file.read_text(encoding="utf-8")
    assert old in text
    file.write_text(text.replace(old, new, 1), encoding="utf-8")


def script(*arguments):
    return subprocess.run([TOP / "scripts" / "contract", *arguments], capture_output=True, text=True, check=False)


def rows_of(table, **values):
    return [row for row in table["rows"] if all(row[name] == value for name, value in values.items())]


def test_the_table_in_the_tree_is_what_the_sources_say():
    run = script("--check")
    assert (run.returncode, run.stderr) == (0, "")


def test_sources_are_read(sources):
    assert set(sources.statuses.values()) == {0, 1, 2, *range(11, 19)}
    assert len(sources.status_of_tags) == 8
    assert len(sources.tags) > 50
    assert {"Agent::ParseFailed", "ExecCmd::ExFailed", "SystemError", "OptParsingError"} < set(sources.tags)
    assert sources.tags["CantRetrieveDumpFile"] == (
        "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: %1%")
    assert [(action.number, option) for option, action in sources.actions.items()] == list(enumerate((
        "--send-scout", "--deploy-agent", "--get-dumping-status", *DUMPS, "--get-content", "--remove-agent",
        "--remove-dumping-status", "--help")))
    assert {option for option, action in sources.actions.items() if action.swallows} == {"--remove-agent"}
    assert {option: action.wrappers for option, action in sources.actions.items() if action.wrappers} == {
        "--get-dumping-status": {"execute": "DumpStatusError"},
        **{option: {"execute": "CantRetrieveDump"} for option in DUMPS},
        "--get-content": {"fetchAll": "CantRetrieveDump"}}


def test_every_tag_has_a_row_or_a_reason_for_having_none(sources, table):
    told = {row[place] for row in table["rows"] for place in ("outer", "innermost", "logged")}
    for entry in table["tags"]:
        assert (entry["tag"] in told) != bool(entry["unseen"]), entry
    assert {entry["tag"] for entry in table["tags"]} == set(sources.tags)


def test_every_status_has_a_row_and_a_sentence(sources, table):
    assert {row["status"] for row in table["rows"]} == set(sources.statuses.values())
    assert {int(number) for number in table["statuses"]} == set(sources.statuses.values())


def test_every_action_has_a_row_for_its_success_and_every_row_advice_and_one_sentence(sources, table):
    for option in sources.actions:
        assert rows_of(table, action=option, cause="usage" if option == "--help" else "done", status=0)
    assert list(table["retry"]) == ["now", "later", "fix credentials", "free space", "never"]
    for row in table["rows"]:
        assert row["retry"] in table["retry"]
        assert row["sentence"].endswith(".") and ". " not in row["sentence"]
        assert (row["outer"] is None) == (row["innermost"] is None)


def test_dumps_and_their_status_end_with_2_where_others_tell_what_it_was(table):
    for cause, status in (("refused", 11), ("credentials", 17), ("unknown-host", 16)):
        assert [row["status"] for row in rows_of(table, cause=cause, action="--send-scout")] == [status]
        for action, outer in (*((dump, "CantRetrieveDump") for dump in DUMPS), ("--get-dumping-status",
                                                                                "DumpStatusError")):
            row, = rows_of(table, cause=cause, action=action)
            assert (row["status"], row["outer"]) == (2, outer)


def test_removing_the_agent_never_fails_once_it_has_begun(table):
    assert {row["status"] for row in rows_of(table, action="--remove-agent", document="migration.result")
            if row["cause"] != "out-of-means"} == {0}
    row, = rows_of(table, action="--remove-agent", cause="refused")
    assert (row["outer"], row["innermost"], row["logged"]) == (None, None, "ConnectionRefused")


def test_what_the_example_of_a_migration_repeats_is_what_the_table_advises(table):
    """examples/migrate repeats a fetch by its status, and by the tag behind a status of 2."""
    for row in rows_of(table, action="--get-content", document="transfer.result"):
        repeats = row["status"] in (11, 12, 13, 14, 15, 18) or row["innermost"] == "SshConnectionFault"
        assert not repeats or row["retry"] in ("now", "later"), row


@pytest.mark.parametrize("file, old, new, problem", [
    ("commons/socket.h", "KORVA_ERROR_TAG(HostNotFound, ",
     'KORVA_ERROR_TAG(NewTag, "%1%")\nKORVA_ERROR_TAG(HostNotFound, ', "NewTag has no row"),
    ("commons/socket.h", "KORVA_ERROR_TAG(HostNotFound, ", "KORVA_ERROR_TAG(NoSuchHost, ", "NoSuchHost has no row"),
    ("xml/xml_errors.h", "KORVA_ERROR_TAG(tError_EmptyDoc, ", "NO_TAG(tError_EmptyDoc, ",
     "tError_EmptyDoc is not in the sources"),
    ("agents/agent_spec.h", '"Agent::ParseFailed"', '"Agent::Broken"', "Agent::Broken has no row"),
    ("tallowick/exit_status.h", "    kExitLostConnection = 18,", "    kExitLostConnection = 18,\n    kExitNew = 19,",
     "status 19 has no sentence"),
    ("tallowick/driver.cpp", "{&isKind<&HostNotFound>, kExitHostNotFound},", "", "status 16 has no row")],
    ids=["new tag", "renamed tag", "tag that is gone", "renamed code", "new status", "status of nothing"])
def test_change_of_the_sources_that_the_table_does_not_follow_is_told(tree, file, old, new, problem):
    change(tree / "src" / file, old, new)
    with pytest.raises(ContractError, match=problem):
        Contract(tree)


@pytest.mark.parametrize("old, new, problem", [
    ('NoParentNode = "', 'NotThere = "', "NoParentNode has no row"),
    ('retry = "now"', 'retry = "soon"', "no such advice: soon"),
    ('actions = ["--help"]', 'actions = ["--hel"]', "no such action: --hel"),
    ('18 = "', '19 = "', "status 18 has no sentence"),
    ("[unseen]", '[unseen]\nHostNotFound = "never"', "HostNotFound has a row, so it is not unseen")])
def test_mistake_in_the_causes_is_told(tree, old, new, problem):
    change(tree / "doc" / "contract.toml", old, new)
    with pytest.raises(ContractError, match=problem):
        Contract(tree)


def test_status_that_the_driver_gives_to_another_tag_changes_the_table(tree, table):
    change(tree / "src/tallowick/driver.cpp", "&isKind<&HostNotFound>, kExitHostNotFound", "&isKind<&HostNotFound>, "
           "kExitUsage")
    change(tree / "src/tallowick/exit_status.h", "    kExitHostNotFound = 16,\n", "")
    change(tree / "doc" / "contract.toml", '16 = "The name of the source host cannot be resolved."\n', "")
    row, = rows_of(Contract(tree).data, action="--send-scout", cause="unknown-host")
    assert row["status"] == 1
    assert row not in table["rows"]


def test_manual_page_names_every_tag_of_the_table(table):
    page = (TOP / "doc" / "man" / "tallowick.8").read_text(encoding="utf-8")
    assert page.count(".TS\n") == page.count(".TE\n") == 1
    for row in table["rows"]:
        assert f".It Sy {row['innermost'] or row['logged'] or 'no tag'}\n" in page
        assert row["sentence"].replace("-", "\\-") in page.replace("\n", " ")


def test_document_has_a_line_for_every_cause(table):
    page = script("--markdown").stdout
    for row in table["rows"]:
        assert f"| {row['retry']} | {row['sentence']} |" in page
    widths = {line.count(" | ") for line in page.splitlines() if line.startswith("| ")}
    assert len(widths) == 1


def test_anything_else_is_told_the_usage():
    run = script("--help")
    assert (run.returncode, run.stdout) == (1, "")
    assert run.stderr.startswith("usage: scripts/contract --write")
