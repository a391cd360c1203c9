# SPDX-License-Identifier: Apache-2.0
"""Reading what a run leaves in its session directory."""

import pathlib
import re
from dataclasses import dataclass
from xml.etree import ElementTree

from harness import schemas

# One record of the default log set-up; a message may go on over several lines.
_RECORD = re.compile(
    r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d[.,]\d+ +"
    r"(?P<level>DEBUG|INFO|NOTICE|WARN|ERROR|CRIT|ALERT|FATAL|EMERG) +"
    r"\[?(?P<category>[\w.]*)\]?:? (?P<text>.*)$")


@dataclass(frozen=True)
class LogRecord:
    """One message of the log."""

    level: str
    category: str
    text: str


@dataclass(frozen=True)
class Message:
    """One error of a result document, with the one that it includes."""

    code: str
    identifier: str
    severity: str
    description: str
    inner: "Message | None"


def parse_log(text):
    """The records of a log, in their order."""
    records = []
    # The layout ends each record with a newline of its own; a message may end with one, too.
    for line in text.removesuffix("\n").split("\n"):
        match = _RECORD.match(line)
        if match:
            records.append([match["level"], match["category"], match["text"]])
        elif records:
            records[-1][2] += "\n" + line
    return [LogRecord(*record) for record in records]


class Session:
    """A session directory."""

    def __init__(self, path):
        self.path = pathlib.Path(path)

    def file(self, name):
        return self.path / name

    def names(self):
        """The names in the directory, sorted."""
        return sorted(entry.name for entry in self.path.iterdir()) if self.path.is_dir() else []

    @property
    def log(self):
        """The whole log as it is, bytes that are not UTF-8 kept as surrogates."""
        file = self.file("migration.log")
        return file.read_bytes().decode("utf-8", "surrogateescape") if file.exists() else ""

    @property
    def records(self):
        return parse_log(self.log)

    @property
    def status(self):
        """The root of migration.status."""
        return self._document("migration.status")

    @property
    def scout_result(self):
        return self.file("scout-result.xml").read_bytes()

    def result(self, name="migration.result"):
        """The root of the result document."""
        return self._document(name)

    def _document(self, name):
        content = self.file(name).read_bytes()
        root = ElementTree.fromstring(content)
        schemas.check(schemas.schema_of(name), content, self.file(name))
        return root

    def succeeded(self, name="migration.result"):
        """What the result document says, "success" or "error"."""
        return self.result(name).get("status")

    def error(self, name="migration.result"):
        """The one error of the result document."""
        messages = self.result(name).findall("message")
        assert len(messages) == 1, f"{len(messages)} messages in the result document"
        return _message(messages[0])


def _message(element):
    inner = element.find("message")
    return Message(element.get("code"), element.get("id"), element.get("severity"),
                   element.findtext("description"), None if inner is None else _message(inner))


def shape(element):
    """An element as nested tuples (name, attributes, text, children), to compare whole documents."""
    return (element.tag, dict(element.attrib), (element.text or "").strip(), [shape(child) for child in element])
