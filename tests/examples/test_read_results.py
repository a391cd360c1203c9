# SPDX-License-Identifier: Apache-2.0
"""The example of a reader: it has something to say about every legal document, and nothing disturbs it."""

import shutil
import subprocess
from xml.etree import ElementTree

import pytest

from sample import TOP

CORPUS = TOP / "schemas" / "corpus"
STATUSES = sorted(CORPUS.glob("migration-status/*.xml"))
RESULTS = sorted(CORPUS.glob("execution-result/*.xml"))

# What it says by the first words of a document's name.
STATES = {"agent-deploy": "sending to src.example", "agent-wait": "waiting for 2001:db8::1", "agent": "waiting for ",
          "transfer-of-the-list": "asking src.example for the list of files",
          "transfer-after-a-deployment": "asking src.example for the list of files",
          "transfer": "fetching '", "idle": "idle", "translate": "working on this host",
          "deploy": "working on this host"}


def read(*arguments):
    run = subprocess.run([TOP / "examples" / "read-results.py", *arguments], capture_output=True, text=True,
                         encoding="utf-8", env={"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"}, check=False)
    return run.returncode, run.stdout, run.stderr


def lines_of(directory):
    status, out, err = read(directory)
    assert (status, err) == (0, "")
    return out.splitlines()


@pytest.mark.parametrize("document", STATUSES, ids=lambda document: document.stem)
def test_every_state_is_told_in_one_line(place, document):
    shutil.copy(document, place / "migration.status")
    state, = lines_of(place)
    words = max((name for name in STATES if document.stem.startswith(name)), key=len)
    assert state.startswith(f"state: {STATES[words]}".rstrip())


def test_progress_is_told_in_bytes_and_files(place):
    shutil.copy(CORPUS / "migration-status" / "transfer-of-a-file.xml", place / "migration.status")
    assert lines_of(place) == ["state: fetching 'clients/a & b.tgz' from src.example: 1048 of 2048 bytes, "
                               "7 of 10 files left, 512 bytes/s"]


def codes(element):
    """The codes of a result document in the order in which they are to be told."""
    found = []
    for message in element.findall("message"):
        found += [error.get("code") for error in message.iter("message")][::-1]
    for child in element.findall("object"):
        found += codes(child)
    return found


@pytest.mark.parametrize("name", ["migration.result", "transfer.result"])
@pytest.mark.parametrize("document", RESULTS, ids=lambda document: document.stem)
def test_every_result_is_told_with_all_of_its_errors(place, document, name):
    shutil.copy(document, place / name)
    result = ElementTree.parse(document).getroot()
    state, outcome, *errors = lines_of(place)
    assert (state, outcome) == ("state: unknown", f"{name}: {result.get('status')}")
    assert [error.partition(" [")[0].split()[-1] for error in errors] == codes(result)
    ids = {message.get("id") for message in result.iter("message")}
    assert all(any(f"[{each}]" in error for error in errors) for each in ids)


def test_innermost_error_comes_first(place):
    shutil.copy(CORPUS / "execution-result" / "error-with-its-cause.xml", place / "transfer.result")
    assert lines_of(place)[1:] == [
        "transfer.result: error",
        "  error SshConnectionFault [76931fac-9dab-42b3-86c2-48b87d6ae33f]: Lost connection with the remote host",
        "    which led to error CantRetrieveDump [9a62d718-3a5d-4578-89e4-b2d6b441e241]: Error during dump retrieval"]


def test_foreign_text_cannot_move_the_cursor(place):
    (place / "migration.result").write_text(
        '<execution-result status="error"><message code="A" id="i" severity="error"><description>&#155;2J&#13;&#10;b'
        "</description></message></execution-result>", encoding="utf-8")
    assert lines_of(place)[2] == "  error A [i]: 2J b"


def test_both_results_of_a_session_are_told(place):
    shutil.copy(CORPUS / "migration-status" / "idle.xml", place / "migration.status")
    shutil.copy(CORPUS / "execution-result" / "success.xml", place / "migration.result")
    shutil.copy(CORPUS / "execution-result" / "success.xml", place / "transfer.result")
    assert lines_of(place) == ["state: idle", "migration.result: success", "transfer.result: success"]


def test_missing_files_are_no_failure(place):
    assert lines_of(place) == ["state: unknown"]
    assert lines_of(place / "not-there-yet") == ["state: unknown"]


@pytest.mark.parametrize("name", ["migration.status", "migration.result", "transfer.result"])
@pytest.mark.parametrize("content", [b"", b"<execution-result status='er"], ids=["empty", "torn"])
def test_files_that_are_not_whole_are_no_failure(place, name, content):
    (place / name).write_bytes(content)
    assert lines_of(place) == ["state: unknown"]


def test_wrong_call_is_told_what_it_is_for():
    status, out, err = read()
    assert (status, out) == (1, "")
    assert err.startswith("read-results.py SESSION-DIRECTORY: ")
