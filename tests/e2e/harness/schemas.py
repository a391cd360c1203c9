# SPDX-License-Identifier: Apache-2.0
"""Judging documents by the schemas that are handed out with the program."""

import contextlib
import functools
import os
import re

from lxml import etree

from harness.places import SOURCE_ROOT

_STATUS = re.compile(r"migration\.status")
_RESULTS = {True: re.compile(r"transfer\.result(\.\d+)?"), False: re.compile(r"migration\.result(\.\d+)?")}
_GET_CONTENT = "--get-content"
# Where an agent of `harness.agents` keeps the content list that it prints.
_LIST = ".agent/list"
# A validator takes quadratic time: half a minute for a list of 1 MiB.
_LONGEST_LIST = 64 * 1024  # bytes


class IllegalDocument(AssertionError):
    """A document is not what its schema asks for."""


@functools.cache
def _schema(name):
    return etree.RelaxNG(etree.parse(SOURCE_ROOT / "schemas" / f"{name}.rng"))


def complaint(name, document):
    """Why `document` (bytes) is not what the schema `name` asks for; nothing when it is."""
    try:
        root = etree.fromstring(document, etree.XMLParser(resolve_entities=False, no_network=True, huge_tree=True))
    except etree.XMLSyntaxError as error:
        return f"not well-formed: {error}"
    schema = _schema(name)
    return "" if schema.validate(root) else str(schema.error_log.last_error)


def check(name, document, what):
    """Raises IllegalDocument unless the document is what the schema asks for."""
    reason = complaint(name, document)
    if reason:
        raise IllegalDocument(f"{what} is no {name}: {reason}\n{document[:2000]!r}")


def schema_of(name, fetches_content=None):
    """The schema of a document in a session directory by its name, or None for all other files. A fetched file may have
    the name of the result document that the other actions write: `fetches_content` tells which one is meant."""
    if _STATUS.fullmatch(name):
        return "migration-status"
    kinds = _RESULTS.values() if fetches_content is None else [_RESULTS[fetches_content]]
    return "execution-result" if any(kind.fullmatch(name) for kind in kinds) else None


def option(command, name):
    """The value of an option in a command line, the last one that is given; nothing without it."""
    given = [word.partition("=")[2] for word in map(os.fsdecode, command) if word.startswith(f"--{name}=")]
    return given[-1] if given else ""


class Documents:
    """The documents of one run: those that it writes into its session directory, what is there before it starts being
    none of them, and the content list that it has accepted when it succeeds."""

    def __init__(self, command, cwd):
        self._session = os.path.join(os.fsdecode(cwd), option(command, "session-path"))
        self._list = os.path.join("/", option(command, "agent-dir"), _LIST)
        self._fetches_content = _GET_CONTENT in command
        self._before = {identity for _, _, identity in self._files()}

    def check(self, succeeded):
        """Raises IllegalDocument when one of them is not what its schema asks for."""
        for file, schema, identity in self._files():
            if identity not in self._before:
                _check_file(schema, file)
        if succeeded and self._fetches_content and _size(self._list) <= _LONGEST_LIST:
            _check_file("contentlist-accepted", self._list)

    def _files(self):
        try:
            entries = list(os.scandir(self._session))
        except (FileNotFoundError, NotADirectoryError):
            return
        for entry in entries:
            schema = schema_of(entry.name, self._fetches_content)
            if schema is not None and entry.is_file(follow_symlinks=False):
                with contextlib.suppress(FileNotFoundError):
                    yield entry.path, schema, _identity(entry)


def _identity(entry):
    state = entry.stat(follow_symlinks=False)
    return state.st_dev, state.st_ino, state.st_mtime_ns


def _size(path):
    return os.stat(path).st_size if os.path.exists(path) else 0


def _check_file(schema, path):
    with contextlib.suppress(FileNotFoundError):  # another run of the session renames it just now
        with open(path, "rb") as file:
            check(schema, file.read(), path)
