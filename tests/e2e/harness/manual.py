# SPDX-License-Identifier: Apache-2.0
"""Reading the man pages: what a test can hold against the program."""

import re
from dataclasses import dataclass

from harness.places import SOURCE_ROOT

DIRECTORY = SOURCE_ROOT / "doc" / "man"

# What stands for one character each in the sources of the pages; "\&" stands for nothing.
_ESCAPES = {r"\-": "-", r"\e": "\\", r"\&": "", r"\(aq": "'"}


def plain(text):
    """The text that the macros' words make, without the escapes."""
    return re.sub(r"\\(?:\(..|.)", lambda match: _ESCAPES[match[0]], text)


@dataclass(frozen=True)
class Item:
    """One entry of a list of options: its names without dashes, whether they take an argument, and its text."""

    names: list
    takes_argument: bool
    body: str


class Page:
    """The source of one man page."""

    def __init__(self, name):
        self.path = DIRECTORY / name
        self.source = self.path.read_text(encoding="utf-8")

    def section(self, title):
        """The source of one section."""
        match = re.search(rf"^\.Sh {re.escape(title)}\n(.*?)(?=^\.Sh |\Z)", self.source, re.MULTILINE | re.DOTALL)
        assert match, f"{self.path.name} has no section {title}"
        return match[1]

    def items(self, title):
        """What the entries of a section's outermost lists are called, in their order, macros and all, with their text."""
        return re.findall(r"^\.It (.*)\n((?:(?!\.It |\.El).*\n)*)", self.section(title), re.MULTILINE)

    def options(self):
        """The entries of the section OPTIONS."""
        return [Item(re.findall(r"Fl -?([\w-]+)", head), " Ar " in head, body) for head, body in self.items("OPTIONS")]

    def words(self, macro):
        """The arguments of all calls of a macro that marks words, such as "Sy" or "Pa", each as plain text."""
        found = set()
        for line in re.findall(r"^\.(.*)$", self.source, re.MULTILINE):
            for match in re.finditer(rf"(?:^|(?<= )){macro} ((?:(?!(?:Ns|Ar|Pa|Sy|Fl|,|\.|;|:) ?)\S+ ?)+)", line):
                found.add(plain(match[1].strip()))
        return found


def displays(text):
    """The literal displays of a source, as they are read."""
    return [plain(display) for display in re.findall(r"^\.Bd -literal.*\n((?:.*\n)*?)\.Ed", text, re.MULTILINE)]
