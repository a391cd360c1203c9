# SPDX-License-Identifier: Apache-2.0
"""What the documents name exists: paths, commands, options, tests, identifiers, links; and ARCHITECTURE.md has every
folder and the layers of scripts/check-layers."""

import functools
import pathlib
import re
from dataclasses import dataclass

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]

# Made by scripts/bench, and checked by nobody.
MADE = {"bench/RESULTS.md", "bench/results.svg"}
# Options of programs that are none of ours, and that no file of ours calls.
OF_OTHERS = {"--gtest_filter", "--retry-failed", "--retries"}
# Names that occur in no file of ours: packages, programs, columns of GNU parallel's job log, and forms of names.
WORDS_OF_OTHERS = {"moreutils", "ps", "Starttime", "JobRuntime", "UpperCamel", "lowerCamel", "kName"}

SOURCE_SUFFIXES = (".c", ".cmake", ".cpp", ".h", ".json", ".md", ".pl", ".pm", ".py", ".rng", ".sh", ".supp", ".txt")


def is_kept(path):
    """Whether a file belongs to the tree: it is not made by building or testing it, nor something of git or an editor."""
    parts = path.relative_to(TOP).parts
    hidden = parts[0].startswith(".") and parts[0] != ".ci" and (TOP / parts[0]).is_dir()
    return not hidden and parts[0] != "build" and not {"__pycache__", ".pytest_cache"} & set(parts)


@functools.cache
def tree():
    """Every file and folder of the tree, as text relative to the top."""
    return {str(path.relative_to(TOP)) for path in TOP.rglob("*") if is_kept(path)}


DOCUMENTS = sorted(name for name in tree() if name.endswith(".md") and name not in MADE)


def content(name):
    """The text of a file of the tree."""
    return (TOP / name).read_text(encoding="utf-8", errors="replace")


@functools.cache
def others():
    """The files that are no documents: those of which documents tell."""
    return [name for name in sorted(tree()) if (TOP / name).is_file() and not name.endswith(".md") and
            "/corpus/" not in name and TOP / name != pathlib.Path(__file__)]


@functools.cache
def words():
    """Every word of those files: what can be meant by a name in a document."""
    return WORDS_OF_OTHERS.union(*(re.findall(r"\w+", f"{name} {content(name)}") for name in others()))


@functools.cache
def options():
    """Every option in the program's table, or in the text of one of those files."""
    own = re.findall(r'^    \{"([a-z-]+)", ', content("src/tallowick/options.cpp"), re.MULTILINE)
    return OF_OTHERS.union((f"--{name}" for name in own),
                           *(re.findall(r"(?<![\w-])--[a-z][\w-]*", content(name)) for name in others()))


@functools.cache
def options_of(command):
    """Every option that occurs in a command of ours, or in a file that it names."""
    text = content(command)
    parts = [name for name in re.findall(r"[\w./-]+/[\w.-]+", text) if name in tree() and (TOP / name).is_file()]
    return set(re.findall(r"--[a-z][\w-]*", " ".join([text, *map(content, parts)])))


@functools.cache
def known_tests():
    """The names of all tests: "Suite.Case" with "Suite.*", and those of functions."""
    found = set()
    for path in (TOP / "tests").rglob("*"):
        if path.suffix == ".cpp":
            text = path.read_text(encoding="utf-8")
            cases = re.findall(r"^TEST(?:_[FP])?\(\s*(\w+)\s*,\s*(\w+)\s*\)", text, re.MULTILINE)
            found |= {f"{suite}.{case}" for suite, case in cases} | {f"{suite}.*" for suite, _ in cases}
        elif path.suffix == ".py":
            found |= set(re.findall(r"^(?:    )?def (test_\w+)\(", path.read_text(encoding="utf-8"), re.MULTILINE))
        elif path.name == "CMakeLists.txt":
            found |= {f"{suite}.*" for suite in re.findall(r"add_test\(NAME (\w+)\.", path.read_text(encoding="utf-8"))}
    return found


@dataclass(frozen=True)
class Document:
    """The text of a document, and the folder that its names are relative to."""

    text: str
    folder: str = "."

    @staticmethod
    def named(name):
        return Document(content(name), str(pathlib.PurePath(name).parent))

    def blocks(self):
        """The texts between fences."""
        return re.findall(r"^```.*\n((?:.*\n)*?)```$", self.text, re.MULTILINE)

    def prose(self):
        return re.sub(r"^```.*\n(?:.*\n)*?```$", "", self.text, flags=re.MULTILINE)

    def spans(self):
        """What stands between backticks, lines put together."""
        return [re.sub(r"\s+", " ", span) for span in re.findall(r"`([^`]+)`", self.prose())]

    def links(self):
        return re.findall(r"\]\(([^)\s]+)\)", self.prose())


def slugs(text):
    """The anchors of a document's headings."""
    titles = re.findall(r"^#+ (.*)$", Document(text).prose(), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def missing_link(document, target):
    """What is wrong with a link; nothing with one that leads out of the tree."""
    if re.match(r"[a-z]+:", target):
        return None
    path, _, anchor = target.partition("#")
    name = pathlib.PurePath(document.folder, path) if path else None
    text = document.text
    if name is not None:
        file = (TOP / name).resolve()
        if not file.exists():
            return f"{target} does not exist"
        text = file.read_text(encoding="utf-8") if file.is_file() and anchor else ""
    if anchor and anchor not in slugs(text):
        return f"{target} names no heading"
    return None


@functools.cache
def endings():
    """The paths of the tree, and each of them from any of its folders on."""
    return {name for path in tree() for name in [path, *(path[slash.end():] for slash in re.finditer("/", path))]}


def pattern_of(path):
    """A path with placeholders such as NAME, N or "*" as a pattern."""
    parts = [".*" if re.fullmatch(r"[A-Z]+", part) else re.escape(part).replace(r"\*", "[^/]*")
             for part in path.rstrip("/").split("/")]
    return re.compile("/".join(parts))


def is_path(document, word):
    """Whether a word is meant as a path of the tree: from the top, from the document's folder, or the end of one."""
    first = word.split("/")[0]
    if word in MADE or first == "build" or word.startswith("/") or "…" in word:
        return False
    inside = "/" in word and (first in tree() or (TOP / document.folder / first).exists() and first not in ("..", "."))
    return inside or word.endswith(SOURCE_SUFFIXES)


def missing_path(document, word):
    pattern = pattern_of(word)
    if word.endswith(SOURCE_SUFFIXES):
        names = endings()
    else:
        here = "" if document.folder == "." else document.folder + "/"
        names = tree() | {name.removeprefix(here) for name in tree()}
    return None if any(map(pattern.fullmatch, names)) else f"{word} does not exist"


def missing_in(document, text):
    """What does not exist of the paths and options in a text, a command line for example."""
    for word in re.findall(r"[^\s'\"()\[\],;<>|=]+", text):
        word = word.rstrip(".:")
        if is_path(document, word) and "://" not in word:
            yield missing_path(document, word)
    command = re.match(r"(?:scripts|examples|tools|tests)/[\w-]+(?= )", text)
    known = options_of(command[0]) if command and (TOP / command[0]).is_file() else options()
    for option in re.findall(r"(?<![\w-])--[a-z][\w-]*", text):
        if option not in known:
            yield f"{option} is no option"


def missing_name(span):
    """What is wrong with a name: of a test, of something in a source, of a file or program."""
    if re.fullmatch(r"[A-Z]\w+\.(?:[A-Z]\w+|\*)", span) or re.fullmatch(r"test_\w+", span):
        return None if span in known_tests() else f"{span} is no test"
    if re.fullmatch(r"~?\w[\w:~-]*(?:\.\w+)?", span):
        unknown = [word for word in re.findall(r"\w+", span) if word not in words() and not word.isdigit()]
        return f"{span} occurs nowhere" if unknown else None
    return None


def complaints(document):
    found = [missing_link(document, target) for target in document.links()]
    for text in [*document.spans(), *document.blocks()]:
        found += missing_in(document, text)
    found += [missing_name(span) for span in document.spans()]
    return [complaint for complaint in found if complaint]


def table(name, heading):
    """The rows of the table below a heading, as lists of cells."""
    text = content(name)
    section = re.search(rf"^## {re.escape(heading)}\n(.*?)(?=^## |\Z)", text, re.MULTILINE | re.DOTALL)[1]
    lines = [line.strip("|") for line in section.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line.split("|")] for line in lines[2:]]


# ---- The documents ----

@pytest.mark.parametrize("name", DOCUMENTS)
def test_everything_that_the_document_names_exists(name):
    assert complaints(Document.named(name)) == []


def test_every_folder_at_the_top_is_in_the_architecture():
    folders = {f"`{name}/`" for name in tree() if "/" not in name and (TOP / name).is_dir()}
    assert {row[0] for row in table("ARCHITECTURE.md", "Folders")} == folders


@pytest.mark.parametrize("top, heading", [("src", "Layers"), ("tests", "Tests")])
def test_every_folder_of_sources_and_tests_is_in_the_architecture(top, heading):
    folders = {f"{path.relative_to(TOP)}/" for path in (TOP / top).iterdir() if path.is_dir() and is_kept(path)}
    named = {span for row in table("ARCHITECTURE.md", heading) for cell in row[:2]
             for span in re.findall(rf"`({top}/\w+/)`", cell)}
    assert named == folders


def test_layers_are_those_that_are_checked():
    script = content("scripts/check-layers")
    below = dict(re.findall(r"^    (\w+)\s+=> \[(?:qw\(([^)]*)\))?\],$", script, re.MULTILINE))
    assert len(below) >= 7
    told = {row[0].strip("`"): " ".join(re.findall(r"`(\w+)`", row[2])) for row in table("ARCHITECTURE.md", "Layers")}
    assert told == below


def test_objects_of_the_process_are_in_the_architecture():
    objects = {name for path in (TOP / "src").rglob("*.h")
               for name in re.findall(r"^extern (?!const )[^\"(]*?(\w+);$", path.read_text(encoding="utf-8"), re.MULTILINE)}
    assert {"theSession", "pAction"} < objects
    told = {span for row in table("ARCHITECTURE.md", "What there is once per process")
            for span in re.findall(r"`(\w+)`", row[0])}
    assert objects <= told


def test_every_command_is_told_to_developers():
    commands = {f"`{name}`" for name in tree() if re.fullmatch(r"scripts/[\w-]+", name) and (TOP / name).is_file()}
    assert len(commands) > 10
    assert {row[0] for row in table("CONTRIBUTING.md", "Commands")} == commands


def test_exit_statuses_of_the_readme_are_those_of_the_program():
    header = content("src/tallowick/exit_status.h")
    statuses = re.findall(r"^    kExit\w+ = (\d+),", header, re.MULTILINE)
    assert [row[0] for row in table("README.md", "Exit statuses")] == statuses


def test_files_that_survive_are_those_that_are_saved():
    def files(name, heading):
        return {span for row in table(name, heading) for span in re.findall(r"`([a-z][\w.-]+)`", row[0])}
    assert files("ARCHITECTURE.md", "How files are saved") == files("SECURITY.md", "What survives")


# ---- That it would be found ----

@pytest.mark.parametrize("text, complaint", [
    ("`src/nowhere.cpp`", "src/nowhere.cpp does not exist"),
    ("`tests/e2e/nowhere/`", "tests/e2e/nowhere/ does not exist"),
    ("`nowhere.cpp`", "nowhere.cpp does not exist"),
    ("`scripts/nothing --sample`", "scripts/nothing does not exist"),
    ("`scripts/torture --keep`", "--keep is no option"),
    ("`--nonesuch`", "--nonesuch is no option"),
    ("```console\n# scripts/nothing\n```\n", "scripts/nothing does not exist"),
    ("```console\n# scripts/torture --nonesuch 7\n```\n", "--nonesuch is no option"),
    ("`SshGet.DoesNothingAtAll`", "SshGet.DoesNothingAtAll is no test"),
    ("`test_nothing_at_all`", "test_nothing_at_all is no test"),
    ("`Session::nonesuch_`", "Session::nonesuch_ occurs nowhere"),
    ("`nonesuch-name.xml`", "nonesuch-name.xml occurs nowhere"),
    ("[here](nowhere.md)", "nowhere.md does not exist"),
    ("[here](README.md#no-such-heading)", "README.md#no-such-heading names no heading"),
    ("# One\n[here](#two)", "#two names no heading")])
def test_what_does_not_exist_is_found(text, complaint):
    assert complaint in complaints(Document(text))


@pytest.mark.parametrize("text", [
    "`src/ssh/pump.h`", "`ssh/pump.h`", "`tests/e2e/`", "`pump.h`", "`scripts/torture --sample`", "`--host`",
    "`SshGet.*`", "`Corpus.*`",
    "`Ssh::get`", "`Channel::~Channel`", "`migration.status`", "`tests/fuzz/corpus/NAME/`", "`/etc/nowhere/at-all.cpp`",
    "[here](README.md#agents)", "[there](https://example.invalid/nowhere.md#x)", "# One two\n[here](#one-two)",
    "`build/nowhere/tallowick`"])
def test_what_exists_is_not_found_missing(text):
    assert complaints(Document(text)) == []


def test_names_are_looked_for_beside_the_document_as_well():
    assert complaints(Document("`judging.py` [x](../fuzz/README.md)", "tests/torture")) == []
    assert complaints(Document("[x](fuzz/README.md)", "tests/torture")) != []
