# SPDX-License-Identifier: Apache-2.0
"""Every kind of error that the program can tell is told in a test."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Raised only to be turned into another error at once, whose tests are theirs: the text of neither is ever seen.
TURNED_INTO = {"SshCommandNotFound": "SudoNotFound", "SshUnknown": "SudoNotAllowed",
               "SshAuthorizationFailed": "SshInvalidCredentials"}


def source_text():
    return "".join(file.read_text(encoding="utf-8")
                   for file in sorted((ROOT / "src").rglob("*")) if file.suffix in (".h", ".cpp"))


def tags():
    """The tags that the sources define, and those that they raise."""
    text = source_text()
    defined = set(re.findall(r"KORVA_ERROR_TAG\(\s*(\w+),", text)) - {"Tag"}
    raised = set(re.findall(r"KORVA_EXC(?:_CAUSED_BY)?\(\s*(?:\w+::)*(\w+)", text)) - {"Tag"}
    return defined, raised


def text_of_tests():
    files = [*(ROOT / "tests" / "unit").rglob("*.cpp"), *(ROOT / "tests" / "e2e").rglob("*.py")]
    return "".join(file.read_text(encoding="utf-8") for file in files)


def test_every_tag_that_is_defined_is_raised():
    defined, raised = tags()
    assert len(defined) > 40
    assert defined - raised == {"InvalidHandle"}  # by a template that takes it as its default


def test_every_tag_is_named_by_a_test():
    text = text_of_tests()
    wanted = {TURNED_INTO.get(tag, tag) for tag in tags()[0]}
    assert [tag for tag in sorted(wanted) if not re.search(rf"\b{tag}\b", text)] == []
