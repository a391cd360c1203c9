# SPDX-License-Identifier: Apache-2.0
"""Every kind of error that the program can tell is raised in the sources and expected by a test."""

import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Raised by a template, which takes it as its default.
RAISED_BY_TEMPLATE = {"InvalidHandle"}
# What a test knows such an error by where that is not its name.
CODES = {"ExecCmd::Failed": "ExecCmd::ExFailed"}


def sources():
    return [file.read_text(encoding="utf-8") for file in sorted((ROOT / "src").rglob("*"))
            if file.suffix in (".h", ".cpp")]


def tags_of_classes(text):
    """The tags that belong to a class, as CLASS::TAG."""
    for tag in re.finditer(r"\bstatic ErrorKind (\w+)\(bool\)", text):
        owner = re.findall(r"^class (\w+)", text[:tag.start()], re.MULTILINE)[-1]
        yield f"{owner}::{tag[1]}"


def defined_tags():
    found = set()
    for text in sources():
        found |= set(re.findall(r"^KORVA_ERROR_TAG\(\s*(\w+),", text, re.MULTILINE)) | set(tags_of_classes(text))
    return found


def raised_tags():
    """Those that are made; a few are not thrown but told in the log."""
    return set(re.findall(r"KORVA_EXC(?:_CAUSED_BY)?\(\s*([\w:]+)", "".join(sources()))) - {"Tag"}


def expectations(tag, text):
    """Where a test names the error as one that it expects: as a type that it catches, or by its code. Fakes that throw
    one do not count."""
    code = CODES.get(tag, tag)
    return re.findall(rf"(?<!throw Exc)<&{tag}>|[\"']{code}[\"'\[:]", text)


@pytest.fixture(scope="module")
def tests():
    files = [*(ROOT / "tests" / "unit").rglob("*.cpp"), *(ROOT / "tests" / "e2e").rglob("*.py")]
    return "\n".join(file.read_text(encoding="utf-8") for file in files)


def test_every_tag_that_is_defined_is_raised():
    defined = defined_tags()
    assert len(defined) > 50
    assert {"Agent::ParseFailed", "ExecCmd::Failed"} < defined
    assert defined - raised_tags() == RAISED_BY_TEMPLATE


def test_every_tag_that_is_raised_is_defined():
    assert raised_tags() <= defined_tags()


def test_every_tag_is_expected_by_a_test(tests):
    assert [tag for tag in sorted(defined_tags()) if not expectations(tag, tests)] == []


@pytest.mark.parametrize("text, count", [
    ('EXPECT_THROW(run(), Exc<&Some>);', 1), ('statusOf<&Some>()', 1), ('isError("Some", "text")', 1),
    ("codes == ['Some']", 1), ('"Some[" in log', 1), ('throw Exc<&Some>("context", "file", 1);', 0), ("// Some", 0),
    ('EXPECT_THROW(run(), Exc<&SomeOther>);', 0), ('"SomeOther"', 0)])
def test_fakes_and_other_words_are_no_expectation(text, count):
    assert len(expectations("Some", text)) == count
