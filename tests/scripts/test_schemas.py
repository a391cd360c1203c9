# SPDX-License-Identifier: Apache-2.0
"""The schemas accept every legal shape of their documents, which the corpus has, and none of the others."""

import pathlib
import re
import subprocess
import sys
from xml.etree import ElementTree

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

# pylint: disable=wrong-import-position
from harness import schemas

SCHEMAS = pathlib.Path(__file__).resolve().parents[2] / "schemas"
CORPUS = SCHEMAS / "corpus"
RNG = "{http://relaxng.org/ns/structure/1.0}"
DOCUMENTATION = "{http://relaxng.org/ns/compatibility/annotations/1.0}documentation"

NAMES = sorted(schema.stem for schema in SCHEMAS.glob("*.rng"))


def valid(name, files):
    """Which of `files` the schema accepts."""
    run = subprocess.run(["xmllint", "--nonet", "--noout", "--relaxng", SCHEMAS / f"{name}.rng", *files],
                         capture_output=True, text=True, check=False)
    assert "failed to compile" not in run.stderr, run.stderr
    return {pathlib.Path(file) for file in re.findall(r"^(.*) validates$", run.stderr, re.MULTILINE)}


def documents(name, folder="."):
    return set((CORPUS / name / folder).glob("*.xml"))


def test_there_is_a_schema_for_each_document_and_a_corpus_for_each_schema():
    assert NAMES == ["contentlist", "contentlist-accepted", "execution-result", "migration-status", "selected-objects"]
    assert sorted(folder.name for folder in CORPUS.iterdir()) == NAMES


@pytest.mark.parametrize("name", NAMES)
def test_every_legal_shape_is_accepted(name):
    legal = documents(name)
    assert len(legal) >= 7
    assert legal - valid(name, legal) == set()


@pytest.mark.parametrize("name", NAMES)
def test_every_illegal_shape_is_refused(name):
    illegal = documents(name, "refused")
    assert len(illegal) >= 13
    assert valid(name, illegal) == set()


def test_what_an_agent_should_write_is_accepted():
    lists = documents("contentlist")
    assert valid("contentlist-accepted", lists) == lists


def test_what_is_merely_accepted_should_not_be_written():
    assert valid("contentlist", documents("contentlist-accepted")) == set()


def test_documents_that_the_unit_tests_expect_of_the_program_are_legal():
    expected = set((SCHEMAS.parent / "tests" / "data" / "xml").glob("*.xml"))
    statuses = {file for file in expected if file.name.startswith("migration-status-")}
    results = expected - statuses
    assert len(statuses) >= 8 and len(results) >= 9
    assert valid("migration-status", statuses) == statuses
    assert valid("execution-result", results) == results


def test_the_example_of_selected_objects_is_as_it_should_be():
    example = SCHEMAS.parent / "examples" / "selected-objects.xml"
    assert valid("selected-objects", [example]) == {example}


@pytest.mark.parametrize("name", NAMES)
def test_schemas_say_what_their_documents_are_for(name):
    schema = ElementTree.parse(SCHEMAS / f"{name}.rng").getroot()
    assert schema.findtext(DOCUMENTATION).split()


def alternatives(name):
    """What a document of a schema may hold: names of elements and attributes, and the values that are spelled out."""
    schema = ElementTree.parse(SCHEMAS / f"{name}.rng").getroot()
    found = {(kind, each.get("name")) for kind in ("element", "attribute") for each in schema.iter(RNG + kind)
             if each.get("name")}
    return found | {("value", each.text or "") for each in schema.iter(RNG + "value")}


def used(documents_):
    found = set()
    for document in documents_:
        for element in ElementTree.parse(document).iter():
            found.add(("element", element.tag))
            found |= {("attribute", name) for name in element.keys()}
            found |= {("value", value) for value in element.attrib.values()}
    return found


@pytest.mark.parametrize("name", NAMES)
def test_the_corpus_has_everything_that_a_schema_names(name):
    assert alternatives(name) - used(documents(name)) == set()


def test_the_end_to_end_tests_judge_as_xmllint_does():
    for name in NAMES:
        for document in documents(name):
            assert schemas.complaint(name, document.read_bytes()) == ""
        for document in documents(name, "refused"):
            assert schemas.complaint(name, document.read_bytes()) != ""


@pytest.mark.parametrize("name, fetches_content, schema", [
    ("migration.status", False, "migration-status"), ("migration.status", True, "migration-status"),
    ("migration.result", False, "execution-result"), ("migration.result.12", False, "execution-result"),
    ("transfer.result", True, "execution-result"), ("transfer.result.1", True, "execution-result"),
    ("migration.result", True, None), ("transfer.result", False, None), ("migration.statusAb12xZ", False, None),
    ("migration.result.1a", False, None), ("dump.xml", True, None)])
def test_documents_are_known_by_the_names_that_the_run_gives_them(name, fetches_content, schema):
    assert schemas.schema_of(name, fetches_content) == schema


def test_documents_that_were_there_before_a_run_are_not_judged_and_those_that_it_leaves_are(tmp_path):
    (tmp_path / "migration.result").write_bytes(b"planted")
    documents_ = schemas.Documents(["tallowick", "--send-scout", f"--session-path={tmp_path}"], "/")
    (tmp_path / "migration.result").rename(tmp_path / "migration.result.1")
    (tmp_path / "migration.result").write_bytes(b'<execution-result status="success"/>')
    documents_.check(succeeded=True)
    (tmp_path / "migration.status").write_bytes(b"<migration-status/>")
    with pytest.raises(schemas.IllegalDocument, match="migration.status is no migration-status"):
        documents_.check(succeeded=True)


def test_content_list_is_judged_when_the_run_has_accepted_it(tmp_path):
    (tmp_path / ".agent").mkdir()
    (tmp_path / ".agent" / "list").write_bytes(b"<contentlist/>")
    documents_ = schemas.Documents(["tallowick", "--get-content", f"--agent-dir={tmp_path}"], "/")
    documents_.check(succeeded=False)
    with pytest.raises(schemas.IllegalDocument, match="no contentlist-accepted"):
        documents_.check(succeeded=True)
