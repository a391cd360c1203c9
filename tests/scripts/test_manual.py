# SPDX-License-Identifier: Apache-2.0
"""Option table, usage text, completion and man pages say the same, and the pages know what the sources know."""

import itertools
import os
import pathlib
import re
import shlex
import subprocess
import sys
from xml.etree import ElementTree

import pytest

_TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(_TOP / "tests" / "e2e"))

from harness.manual import DIRECTORY, Page, displays, plain  # noqa: E402

SRC = _TOP / "src"
COMPLETION = _TOP / "completion" / "tallowick"
PAGES = sorted(DIRECTORY.iterdir())

# The usage text, which callers know to the byte, has no room for these; the man page has them last.
NOT_IN_THE_USAGE_TEXT = ["content-transport", "verbose"]
# Read by the C library on the program's behalf.
OF_THE_C_LIBRARY = {"TZ", "POSIXLY_CORRECT"}

ACTIONS = ["send-scout", "deploy-agent", "get-dumping-status", "dump-selected", "dump-all", "get-content",
           "remove-agent", "remove-dumping-status"]


def source(path):
    return (SRC / path).read_text(encoding="utf-8")


def sources():
    """Those of the program, without those of the tools beside it."""
    return {file: file.read_text(encoding="utf-8") for file in sorted(SRC.rglob("*"))
            if file.suffix in (".h", ".cpp") and not {"agent_check", "watch"} & set(file.parts)}


def strings(text):
    """The texts in double quotes of a piece of source."""
    return re.findall(r'"((?:[^"\\]|\\.)*)"', text)


# ---- What there is: option table, usage text, man page ----

def option_table():
    """Long options of the program -> whether they take an argument."""
    table = {name: kind == "required"
             for name, kind in re.findall(r'^    \{"([a-z-]+)", (no|required)_argument,', source("tallowick/options.cpp"),
                                          re.MULTILINE)}
    assert len(table) > 30
    return table


def short_options():
    return list(re.search(r'getopt_long\(argc, argv, "([^"]*)"', source("tallowick/options.cpp"))[1])


@pytest.fixture(scope="module")
def usage():
    program = os.environ.get("TALLOWICK_RELEASE_BIN", _TOP / "build/release/tallowick")
    ended = subprocess.run([program, "--help"], capture_output=True, text=True, check=False)
    assert (ended.returncode, ended.stderr) == (0, "")
    return ended.stdout


@pytest.fixture(scope="module")
def page():
    return Page("tallowick.8")


def shown_options(usage):
    """The options of the usage text in the order in which they first appear."""
    return list(dict.fromkeys(name or short for name, short in
                              re.findall(r"--([a-z]+(?:-[a-z]+)*)|(?<=\| )-([a-z])\b", usage)))


def described_options(page):
    return list(itertools.chain.from_iterable(item.names for item in page.options()))


def test_usage_text_shows_every_option_of_the_table_but_two(usage):
    known = {*option_table(), *short_options()}
    assert set(shown_options(usage)) == known - set(NOT_IN_THE_USAGE_TEXT)


def test_man_page_describes_every_option_in_the_order_of_the_usage_text(usage, page):
    assert described_options(page) == [*shown_options(usage), *NOT_IN_THE_USAGE_TEXT]


def test_man_page_knows_which_options_take_an_argument(page):
    table = option_table()
    for item in page.options():
        for name in set(item.names) & set(table):
            assert item.takes_argument == table[name], name


def test_synopsis_has_every_option(page):
    assert set(re.findall(r"Fl -?([\w-]+)", page.section("SYNOPSIS"))) == {*option_table(), *short_options()}


def test_each_option_has_one_help_line_one_paragraph_and_one_example(page):
    for item in page.options():
        text, _, rest = item.body.partition(".Bd -literal")
        line, *paragraphs = text.split(".Pp\n")
        assert [piece.endswith(".") for piece in line.splitlines()] == [False] * (line.count("\n") - 1) + [True], line
        assert len(paragraphs) == 1 and paragraphs[0].strip(), item.names
        assert rest.count(".Ed\n") == 1 and rest.endswith(".Ed\n"), item.names


def test_each_example_of_an_option_uses_it(page):
    preamble = displays(page.section("OPTIONS"))[0]
    variables = dict(re.findall(r'^(\w+)="(.*)"$', preamble, re.MULTILINE))
    assert set(variables) == {"SOURCE", "AGENT", "SESSION"}
    for item in page.options():
        example = re.sub(r"\$([A-Z]+)", lambda match: variables[match[1]], displays(item.body)[0])
        words = {word.partition("=")[0] for word in re.split(r"\s+", example)}
        assert {f"--{name}" for name in item.names} & words, item.names


# ---- Completion ----

def complete(*words, breaks="=", cwd="/", path=COMPLETION):
    """What bash offers for the last of `words`, words being split at the letters of `breaks` as readline does."""
    pieces = [piece for word in words[:-1] for piece in split(word, breaks)]
    pieces += split(words[-1], breaks) or [""]
    if words[-1].endswith(tuple(breaks)):
        pieces.append("")
    script = f"""
        . {shlex.quote(str(path))}
        COMP_WORDS=({" ".join(map(shlex.quote, ["tallowick", *pieces]))})
        COMP_CWORD={len(pieces)}
        $(complete -p tallowick | sed 's/.*-F \\([^ ]*\\) .*/\\1/') tallowick
        [ ${{#COMPREPLY[@]}} -eq 0 ] || printf '%s\\n' "${{COMPREPLY[@]}}"
    """
    ended = subprocess.run(["bash", "--norc", "-c", script], capture_output=True, text=True, check=False, cwd=cwd)
    assert (ended.returncode, ended.stderr) == (0, "")
    return ended.stdout.splitlines()


def split(word, breaks):
    return [piece for piece in re.split(f"([{breaks}])", word) if piece] if breaks else [word]


def test_completion_offers_every_option_of_the_table_and_no_other():
    wanted = {f"--{name}{'=' if takes else ''}" for name, takes in option_table().items()}
    assert sorted(complete("")) == sorted(wanted | {f"-{name}" for name in short_options()})


def test_completion_offers_what_the_synopsis_has_for_the_action(page):
    forms = page.section("SYNOPSIS").split(".Pp\n")
    groups = {name: set(re.findall(r"Fl ([\w-]+)", text)) for name, text in
              re.findall(r"^\.Ar (\w+)\nis\n((?:(?!\.Ar \w+\nis).*\n)*)", forms[1], re.MULTILINE)}
    assert set(groups) == {"connection", "agent", "session"}
    by_action = {}
    for form in forms[0].split(".Nm\n")[1:]:
        action, *options = re.findall(r"Fl -([\w-]+)", form)
        named = {f"-{name}" for name in options}.union(*(groups[name] for name in re.findall(r"Ar (\w+)\n", form)
                                                         if name in groups))
        by_action[action] = {f"-{name}" for name in named}
    assert set(by_action) == {*ACTIONS, "help"}
    for action, options in by_action.items():
        offered = {name.removesuffix("=") for name in complete(f"--{action}", "")}
        assert offered == options - {"--help", "-h"} - ({"-h"} if action == "help" else set()), action


@pytest.mark.parametrize("breaks", ["=", ""], ids=["split at =", "whole"])
def test_completion_offers_no_second_action_and_no_option_twice(breaks):
    offered = complete("--dump-all", "--host=a", "--verbose", "--", breaks=breaks)
    assert {f"--{name}" for name in ACTIONS}.isdisjoint(offered)
    assert not {"--host=", "--verbose", "--help"} & set(offered)
    assert "--login=" in offered


def test_completion_narrows_to_what_was_typed():
    assert complete("--get-") == ["--get-dumping-status", "--get-content"]
    assert complete("--sess") == ["--session-path="]


@pytest.mark.parametrize("breaks", ["=", ""], ids=["split at =", "whole"])
@pytest.mark.parametrize("option, values", [
    ("--content-transport", ["rsync"]), ("--domains", ["-"]), ("--clients", ["-"]), ("--resellers", ["-"]),
    ("--port", ["22"]), ("--login", []), ("--agent-dir", [])])
def test_completion_knows_the_values(option, values, breaks):
    prefix = "" if breaks else f"{option}="
    assert complete(f"{option}=", breaks=breaks) == [prefix + value for value in values]
    assert complete(option, "") == values


@pytest.mark.parametrize("option, offered", [
    ("--session-path", ["a directory"]), ("--dumps-dir", ["a directory"]),
    ("--selected-objects-file", ["a directory", "a file.xml"])])
def test_completion_knows_the_paths(option, offered, tmp_path):
    (tmp_path / "a directory").mkdir()
    (tmp_path / "a file.xml").touch()
    assert sorted(complete(f"{option}=a", cwd=tmp_path)) == offered
    assert sorted(complete(option, "a", cwd=tmp_path)) == offered
    assert complete(option, "a\\ d", cwd=tmp_path) == complete(option, '"a d', cwd=tmp_path) == ["a directory"]


def test_completion_knows_the_agents_of_the_product_root(tmp_path):
    root, conf = tmp_path / "product root", tmp_path / "ovn.conf"
    for name in ("Some", "Other"):
        (root / "DVX/agents" / name / "control").mkdir(parents=True)
        (root / "DVX/agents" / name / "control/spec").touch()
    (root / "DVX/agents/shared").mkdir()
    root.rename(tmp_path / "root")
    conf.write_text(f"# a remark\nOTHER_D /nowhere\nPRODUCT_ROOT_D {tmp_path}/root\n", encoding="ascii")
    here = tmp_path / "completion"
    here.write_text(COMPLETION.read_text(encoding="utf-8").replace("/etc/ovn/ovn.conf", str(conf)), encoding="utf-8")
    assert sorted(complete("--agent-name=", path=here)) == ["Other", "Some"]
    assert complete("--agent-name", "S", path=here) == ["Some"]
    conf.write_text("", encoding="ascii")
    assert complete("--agent-name", "No-such-agent", path=here) == []


def test_completion_passes_shellcheck():
    subprocess.run(["shellcheck", COMPLETION], check=True)


# ---- What the program page knows ----

def test_every_exit_status_is_described_in_order(page):
    statuses = re.findall(r"^    kExit\w+ = (\d+),", source("tallowick/exit_status.h"), re.MULTILINE)
    assert len(statuses) == 11
    assert [head for head, _ in page.items("EXIT STATUS")] == statuses


def environment_variables():
    """What the sources ask the environment for, by name or through a constant."""
    found = set()
    for text in sources().values():
        constants = dict(re.findall(r'(\w+) = "([A-Z_]+)";', text))
        for argument in re.findall(r'\b(?:secure_)?(?:un)?(?:get|set)env\(\s*("?\w+"?)[,)]', text):
            found.add(argument.strip('"') if argument.startswith('"') else constants.get(argument))
    return found - {None}


def test_every_environment_variable_that_is_read_is_described(page):
    described = [re.fullmatch(r"Ev (\w+)", head)[1] for head, _ in page.items("ENVIRONMENT")]
    assert len(described) == len(set(described))
    assert {"OVN_PASSWORD", "OVN_SUDO_PASSWORD", "LOG_FILE_NAME"} <= environment_variables()
    assert set(described) == environment_variables() | OF_THE_C_LIBRARY


def test_no_environment_is_read_in_a_way_that_is_not_looked_for():
    # A variable by another name than a literal or a constant, which are looked for, is one of a child's.
    calls = [(file.name, argument) for file, text in sources().items()
             for argument in re.findall(r"\bgetenv\(([^)]*)\)", text)]
    assert calls == [("env_password.cpp", "kPassword"), ("env_password.cpp", "kSudoPassword"),
                     ("env_password.cpp", "kSudoPassword")]


def test_files_of_the_product_root_are_listed(page):
    wanted = {"DVX" + name for name in strings(source("commons/product_paths.cpp")) if name.startswith("/") and
              name not in ("/DVX", "/tmp") and "sbin" not in name}
    assert wanted == {"DVX/log4cpp.properties", "DVX/scout.pl", "DVX/agents"}
    files = page.section("FILES")
    assert [name for name in wanted if name not in files] == []
    assert strings(re.search(r"kOvnConfPath = .*", source("utils/ovn_conf.cpp"))[0])[0] in files


def test_the_place_of_the_contract_table_is_marked_once(page):
    mark = '.\\" contract table\n'
    assert page.source.count(mark) == page.section("DIAGNOSTICS").count(mark) == 1


def test_security_says_that_any_host_key_is_accepted(page):
    assert page.section("SECURITY").startswith("Any host key is accepted.\n")


# ---- What the page of the session directory knows ----

def session_files():
    """The names in the session directory that the sources know."""
    session, content = source("commons/session.cpp"), source("tallowick/content_target.cpp")
    found = set(re.findall(r'sessionPath_(?: \+ "/")? \+ "/?([^"/]+)"', session))
    found |= set(re.findall(r'path\(sessionPath_\) / "([^"]+)"', session))
    for file in (SRC / "tallowick").glob("*.cpp"):
        text = file.read_text(encoding="utf-8")
        found |= set(re.findall(r'(?:session_path|directory\(\)) \+ "/([^"]+)"', text))
        found |= set(re.findall(r'IncomingFile \w+\(\w+, "([^"]+)"\)', text))
    found |= {name for name in strings(re.search(r"getLogName\(.*?\n}", source("tallowick/driver.cpp"), re.DOTALL)[0])
              if name}
    found |= set(strings(re.search(r"kNames = \{.*?\};", content, re.DOTALL)[0]))
    found |= {name + suffix for name in ["dumping-status.xml"]
              for suffix in strings(re.search(r"unfinished = name \+ .*", source("tallowick/actions.cpp"))[0])}
    return found | {strings(re.search(r"kTemporaryPrefix = .*", source("commons/incoming_file.cpp"))[0])[0]}


def test_every_file_of_the_session_directory_is_described():
    known = session_files()
    assert {"migration.status", "migration.result", "transfer.result", "migration.log", "scout-result.xml",
            "agent-deployment.status", "dumping-status.xml", "dumping-status.xml.tmp", "dump.xml", "dump-name",
            "migration-result-name", "archives", "restore.xml", ".incoming-"} == known
    entries = [plain(name) for head, _ in Page("tallowick-session.5").items("FILES")
               for name in re.findall(r"Pa (\S+)", head)]
    assert [name for name in known if name not in entries] == []
    numbered = {"migration.result.", "transfer.result."}
    assert set(entries) == known | numbered


# Where the program makes or reads documents of the session directory.
DOCUMENTS = ["xml/xml_migration_status.cpp", "xml/xml_log.cpp", "xml/message_formatters.cpp"]


def document_names():
    """Elements and attributes that the program writes."""
    found = set()
    for path in DOCUMENTS:
        text = source(path)
        found |= set(re.findall(r'initNewDoc\("([^"]+)"', text))
        for call in re.findall(r"\b(?:newChild|newTextChild|addAttribute)\(((?:[^()]|\([^()]*\))*)\)", text):
            assert strings(call), f"{path}: {call}"
            # The second word is the name; what follows may be a value.
            found.add(re.match(r'[^,]*,\s*"([^"]+)"', call)[1])
    return found


def test_every_element_and_attribute_that_is_written_is_described():
    # Asked for without a parent, so it gets into no document.
    names = document_names() - {"pid"}
    assert {"migration-status", "current-file", "size-left", "execution-result", "message", "severity"} <= names
    assert sorted(names - Page("tallowick-session.5").words("Sy")) == []


def test_no_word_of_the_status_document_is_made_up():
    values = {"deploy", "wait", "success", "error", "warning", "account", "domain"}
    text = "".join(map(source, DOCUMENTS))
    for value in values:
        assert f'"{value}"' in text
        assert re.search(rf"^\.Ql {value}( |$)", Page("tallowick-session.5").source, re.MULTILINE), value


def test_what_is_read_of_selected_objects_is_described():
    names, values = set(), set()
    text = re.search(r"void parseSelectedObjectsFile\(.*?\n}", source("tallowick/dump_selection.cpp"), re.DOTALL)[0]
    for expression in strings(text):
        if "/" in expression:
            names |= set(re.findall(r"[a-z][a-z-]+(?!\()\b", expression.replace("text()", "")))
        else:
            values.add(expression)
    section = Page("tallowick-session.5").section("DOCUMENTS").partition(".Ss Selected objects\n")[2]
    assert len(names) == 10 and len(values) == 4
    assert [name for name in names if not re.search(rf"\bSy {name}(?: |$)", section, re.MULTILINE)] == []
    assert [value for value in values if not re.search(rf"^\.Ql {value}(?: |$)", section, re.MULTILINE)] == []


# ---- What the page for authors of agents knows ----

def test_spec_file_has_the_keys_that_are_read():
    keys = strings(re.search(r"kKeys = \{.*?\};", source("agents/agent_spec.cpp"), re.DOTALL)[0])
    page = Page("tallowick-agent.7")
    listed = [head for head, _ in page.items("THE SPEC FILE")]
    assert sorted(listed) == sorted(f"Sy {key}" for key in keys)
    default = re.search(r'kDefaultInterpreter = "(\w+)"', source("agents/agent_spec.cpp"))[1]
    assert f".Ql {default}\n" in page.section("THE SPEC FILE")


def called_with():
    """The options that agents are called with, those of dumps in the order in which they are put together."""
    selection = source("tallowick/dump_selection.cpp")
    first, arguments = (strings(re.search(rf"{name}\(.*?\n}}", selection, re.DOTALL)[0])
                        for name in ("DumperInput buildDumperInput", "void prepareDumpOptions"))
    transport = strings(re.search(r"void addRsyncTransport\(.*?\n}", selection, re.DOTALL)[0])
    commands = source("tallowick/agent_commands.cpp")
    last = strings(re.search(r"std::string dumperCommand\(.*?\n}", commands, re.DOTALL)[0])
    return [word for word in [*transport, *first, *arguments, *last] if word.startswith("--")]


def test_options_of_the_dumper_are_listed_in_their_order():
    section = Page("tallowick-agent.7").section("HOW THE AGENT IS CALLED")
    dumps = section.partition(".Ss Dumps\n")[2].partition(".Ss ")[0]
    listed = [f"-{name}" for head in re.findall(r"^\.It (.*)$", dumps, re.MULTILINE)
              for name in re.findall(r"Fl ([\w=-]+)", head)]
    assert len(called_with()) == 14
    assert listed == called_with()


def test_what_an_agent_is_asked_stands_in_its_page():
    headings = re.findall(r"^\.Ss (--.*)$", Page("tallowick-agent.7").source, re.MULTILINE)
    asked = set(re.findall(r"--get-[a-z-]+", source("tallowick/agent_commands.cpp")))
    assert set(headings) == asked


def test_elements_and_attributes_of_the_content_list_are_described():
    text = source("xml/xml_agent_file_list.cpp")
    names = set(re.findall(r'find\("([^"]+)"\)|name == "([^"]+)"|initFileDoc\("([^"]+)"|kTotalSize = "([^"]+)"|'
                           r'kUnpackedSize = "([^"]+)"', text))
    names = {name for match in names for name in match if name}
    assert names == {"contentlist", "file", "size", "unpacked", "md5sum"}
    assert names <= Page("tallowick-agent.7").words("Sy")


def test_limits_of_the_content_list_are_those_of_the_sources():
    page = Page("tallowick-agent.7").section("HOW THE AGENT IS CALLED")
    assert "kMaxListSize = std::size_t{16} << 20" in source("tallowick/content_list.h")
    assert "kMostFiles = 500'000" in source("xml/xml_agent_file_list.cpp")
    assert "16 MiB and 500,000 files" in page


# ---- What the page of the check of agents knows ----

def test_every_rule_of_the_check_is_described_in_its_order():
    text = source("agent_check/rules.h")
    names = dict(re.findall(r'constexpr Rule (k\w+)\{\s*"([a-z-]+)"', text))
    looked_at = [names[constant] for constant in re.findall(r"&rules::(k\w+)", text)]
    assert len(looked_at) == len(names) > 30
    assert [head for head, _ in Page("tallowick-agent-check.1").items("RULES")] == [f"Sy {name}" for name in looked_at]


def test_every_option_of_the_check_is_described():
    text = source("agent_check/check_options.cpp")
    table = {name: kind == "required" for name, kind in re.findall(r'\{"([a-z-]+)", (no|required)_argument,', text)}
    page = Page("tallowick-agent-check.1")
    described = {name: item.takes_argument for item in page.options() for name in item.names if len(name) > 1}
    assert described == table
    assert set(re.findall(r"Fl -([\w-]+)", page.section("SYNOPSIS"))) == set(table)
    limit = re.search(r"timeLimit\{(\d+)\}", source("agent_check/check_options.h"))[1]
    assert f"{limit} unless given" in page.source


# ---- The pages themselves ----

@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_page_is_clean(path):
    lint = subprocess.run(["mandoc", "-Tlint", "-W", "warning", path], capture_output=True, text=True, check=False)
    assert (lint.returncode, lint.stdout + lint.stderr) == (0, "")
    groff = subprocess.run(["groff", "-t", "-ww", "-mandoc", "-Tutf8", "-z", path], capture_output=True, text=True, check=False)
    assert (groff.returncode, groff.stdout + groff.stderr) == (0, "")
    man = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", path], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True, check=False,
                         env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MANROFFOPT": "-ww"})
    assert (man.returncode, man.stderr) == (0, "")


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_page_is_called_what_its_file_is_called(path):
    name, section = path.name.rsplit(".", 1)
    text = path.read_text(encoding="utf-8")
    assert text.removeprefix("'\\\" t\n").startswith('.\\" SPDX-License-Identifier: Apache-2.0\n')
    assert re.findall(r"^\.Dt (.*)$", text, re.MULTILINE) == [f"{name.upper()} {section}"]
    assert re.findall(r"^\.Nm (.*)$", text, re.MULTILINE)[:1] == [name]


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_references_lead_to_pages_that_exist(path):
    text = path.read_text(encoding="utf-8")
    ours = {f"{name}.{section}" for name, section in re.findall(r"^\.Xr (tallowick\S*) (\d)", text, re.MULTILINE)}
    assert ours <= {page.name for page in PAGES} - {path.name}


def test_page_of_the_program_and_all_others_lead_to_each_other():
    for page in PAGES:
        if page.name != "tallowick.8":
            assert f".Xr {page.stem} {page.suffix[1:]}" in (DIRECTORY / "tallowick.8").read_text(encoding="utf-8")
            assert ".Xr tallowick 8" in page.read_text(encoding="utf-8")


def test_documents_that_are_shown_are_well_formed():
    shown = [display for path in PAGES for display in displays(path.read_text(encoding="utf-8"))
             if display.startswith("<")]
    assert [ElementTree.fromstring(text).tag for text in shown] == [
        "agentstatus", "contentlist", "migration-status", "execution-result", "selected-objects"]


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_page_fits_on_a_terminal_of_80_columns(path):
    shown = subprocess.run(["mandoc", "-Tascii", path], capture_output=True, text=True, check=True).stdout
    lines = re.sub(r".\x08", "", shown).splitlines()
    assert [line for line in lines if len(line) > 80] == []
