# SPDX-License-Identifier: Apache-2.0
"""tallowick-agent-check finds each defect of an agent, by its rule and no other, and none in a sound one."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import pytest

from sample import AGENTS, LOGIN, PATIENCE_S, TOP

NAMES = "--domains=one.example,two.example"
NOT_ROOT = {"user": LOGIN, "group": LOGIN, "extra_groups": []} if os.geteuid() == 0 else {}

SPEC = """\
Description: A small agent
EntryPoint: bin/agent.sh
DocumentType: migration-dump
Interpreter: sh
"""

AGENT = r"""
set -eu
umask 077
cd "$(dirname "$0")/.."
. lib/shared.sh

list() {
    total=0 files=
    for name in $(listed); do
        [ -f "$name" ] || continue
        size=$(stat -c %s "$name")
        sum=$(md5sum <"$name")
        total=$((total + size)) path=$name
        files="$files<file size=\"$size\" md5sum=\"${sum%% *}\">$path</file>"
    done
    echo "<contentlist size=\"$total\">$files</contentlist>"
}

listed() { ls | sed -n '/^domain-/p'; echo migration.result; echo dump.xml; }

dump() {
    names=one.example
    case $* in *--dump-domains=-*) names=$(tail -n 1) ;; esac
    rm -f domain-* dump.xml
    status dumping
    number=0
    for name in $(echo "$names" | tr , ' '); do
        number=$((number + 1))
        echo "the files of $name" >"domain-$number.tar"
        status dumping
    done
    echo '<execution-result status="success"/>' | replace migration.result
    echo "<dump domains=\"$number\"/>" | replace dump.xml
    status finished
}

case $1 in
    --get-status) echo '<agentstatus><statusfile>dumping-status.xml</statusfile></agentstatus>' ;;
    --get-content-list) list ;;
    --migration-mode) dump "$@" ;;
    *) exit 2 ;;
esac
"""

SHARED = r"""
replace() { cat >"$1.new" && mv "$1.new" "$1"; }
status() { echo "<dumping-status><$1/></dumping-status>" | replace dumping-status.xml; }
"""


class Checked:
    """What was told of an agent."""

    def __init__(self, ended):
        self.status = ended.returncode
        self.output = ended.stdout
        self.error = ended.stderr
        self.verdicts = {rule: verdict for verdict, rule in
                         re.findall(r"^(ok|warning|problem) +([a-z-]+): ", ended.stdout, re.MULTILINE)}

    def found(self):
        """The rules of which something is wrong, with the verdicts."""
        return {rule: verdict for rule, verdict in self.verdicts.items() if verdict != "ok"}


@pytest.fixture(scope="session")
def program():
    """The program where every account can start it."""
    built = os.environ.get("TALLOWICK_AGENT_CHECK_BIN", TOP / "build/release/tallowick-agent-check")
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)
        yield shutil.copy(built, directory)


@pytest.fixture
def small(place):
    """The directory of a sound agent, with what all agents share beside it."""
    for name, text in {"Small/control/spec": SPEC, "Small/bin/agent.sh": AGENT, "shared/lib/shared.sh": SHARED}.items():
        (place / name).parent.mkdir(parents=True)
        (place / name).write_text(text)
    return place / "Small"


@pytest.fixture
def command(program, place):
    """The start of a check as a user that is not root, who has a directory for temporary files."""
    temporary = place / "tmp"
    temporary.mkdir()
    if NOT_ROOT:
        os.chown(temporary, LOGIN, LOGIN)

    def make(*words, env=None, user=None):
        return {"args": [program, *map(str, words)], "cwd": "/", "stdin": subprocess.DEVNULL, "text": True,
                "env": {**os.environ, "PATH": "/usr/bin:/bin", "TMPDIR": str(temporary), **(env or {})},
                **(NOT_ROOT if user is None else user)}

    yield make
    assert list(temporary.iterdir()) == []    # it cleans up after itself


@pytest.fixture
def check(command):
    def run(*words, **how):
        return Checked(subprocess.run(**command(*words, **how), capture_output=True, check=False, timeout=PATIENCE_S))

    return run


def replace_in(file, changes):
    text = file.read_text()
    for old, new in changes:
        assert old in text, old
        text = text.replace(old, new)
    file.write_text(text)


def shared_of(agent):
    return agent.parent / "shared"


def in_file(name, *changes):
    def change(agent):
        replace_in(agent / name, changes)
    return change


def in_agent(*changes):
    return in_file("bin/agent.sh", *changes)


def in_shared(*changes):
    return lambda agent: replace_in(shared_of(agent) / "lib/shared.sh", changes)


def in_spec(*changes):
    return in_file("control/spec", *changes)


def instead_of_list(text):
    return in_agent(("--get-content-list) list ;;", f"--get-content-list) {text} ;;"))


def on_path(path):
    return in_agent(("path=$name", f'path=$name; [ "$name" != domain-1.tar ] || path="{path}"'))


def link(name, target):
    return lambda agent: (agent / name).symlink_to(target)


def add(name, text, mode=0o644):
    def change(agent):
        (agent / name).write_text(text)
        (agent / name).chmod(mode)
    return change


def both(*changes):
    def change(agent):
        for one in changes:
            one(agent)
    return change


def outside(agent):
    """A directory of the login beside the agent, with a file of its user."""
    directory = agent.parent / "sites"
    directory.mkdir()
    (directory / "site.tar").write_text("of the user")
    if NOT_ROOT:
        os.chown(directory, LOGIN, LOGIN)
    return directory


def list_through_a_link(agent):
    in_agent(("listed() {", f"listed() {{ [ -h content ] || ln -s '{outside(agent)}' content; echo content/site.tar;"))(
        agent)


# name -> change of the agent, rule that finds it, verdict
DEFECTS = {
    "no spec file": (lambda agent: (agent / "control/spec").unlink(), "spec-file", "problem"),
    "spec file is a directory": (lambda agent: ((agent / "control/spec").unlink(), (agent / "control/spec").mkdir()),
                                 "spec-file", "problem"),
    "line without a colon": (in_spec(("Interpreter", "A remark\nInterpreter")), "spec-grammar", "problem"),
    "line of blanks": (in_spec(("Interpreter", "  \nInterpreter")), "spec-grammar", "problem"),
    "unknown key": (in_spec(("DocumentType", "Documenttype")), "spec-grammar", "problem"),
    "key given twice": (in_spec(("Interpreter: sh", "Interpreter: perl\nInterpreter: sh")), "spec-keys", "warning"),
    "blank behind the entry point": (in_spec(("agent.sh\n", "agent.sh \n")), "spec-values", "problem"),
    "tab behind the interpreter": (in_spec((": sh\n", ": sh\t\n")), "spec-values", "problem"),
    "spec file with CR": (in_spec(("\n", "\r\n")), "spec-values", "problem"),
    "blank behind the description": (in_spec(("small agent", "small agent ")), "spec-values", "warning"),
    "nothing shared": (both(in_agent((". lib/shared.sh", SHARED)), lambda agent: shutil.rmtree(shared_of(agent))),
                       "shared", "problem"),
    "directory over a shared file": (both(in_agent((". lib/shared.sh", SHARED)),
                                          lambda agent: (agent / "lib/shared.sh").mkdir(parents=True)),
                                     "files", "problem"),
    "link to outside": (link("bin/host", "/etc/hostname"), "links", "warning"),
    "link to nothing": (link("bin/nothing", "nowhere"), "links", "problem"),
    "link to where it lies": (link("bin/again", ".."), "links", "problem"),
    "FIFO": (lambda agent: os.mkfifo(agent / "queue"), "special-files", "warning"),
    "no entry point": (in_spec(("EntryPoint: bin/agent.sh\n", "")), "entry-point", "problem"),
    "entry point is no file": (in_spec(("bin/agent.sh", "bin")), "entry-point", "problem"),
    "entry point is not there": (in_spec(("bin/agent.sh", "agent.sh")), "entry-point", "problem"),
    "entry point is not sent": (in_spec(("bin/agent.sh", "control/spec")), "entry-point", "problem"),
    "entry point with a blank": (both(in_spec(("bin/agent.sh", "bin/my agent.sh")),
                                      lambda agent: shutil.copy(agent / "bin/agent.sh", agent / "bin/my agent.sh")),
                                 "entry-point", "problem"),
    "entry point outside": (in_spec(("bin/agent.sh", "../../../../../etc/hostname")), "entry-point", "problem"),
    "interpreter with an option": (in_spec((": sh", ": sh -u")), "interpreter", "problem"),
    "interpreter is missing": (in_spec((": sh", ": no-such-interpreter")), "interpreter", "problem"),
    "interpreter of the agent itself": (both(in_spec((": sh", ": bin/sh")), add("bin/sh", "#!/bin/sh\n", 0o755)),
                                        "interpreter", "problem"),
    "default interpreter is another": (in_spec(("Interpreter: sh\n", "")), "status", "problem"),
    "status fails": (in_agent(("--get-status) echo", "--get-status) exit 3; echo")), "status", "problem"),
    "status hangs": (in_agent(("--get-status) echo", "--get-status) sleep 1000; echo")), "status", "problem"),
    "status leaves its output open": (in_agent(("--get-status) echo", "--get-status) sleep 1000 & echo")), "status",
                                      "problem"),
    "status never stops": (in_agent(("--get-status) echo", "--get-status) yes")), "status", "problem"),
    "noise before the status": (in_agent(("--get-status) echo", "--get-status) echo 'Welcome <you>!'; echo")),
                                "status-noise", "problem"),
    "status is not well-formed": (in_agent(("</statusfile>", "")), "status-document", "problem"),
    "status is empty": (in_agent(("--get-status) echo", "--get-status) : ")), "status-document", "problem"),
    "status of another name": (in_agent(("<statusfile>dumping", "<statusfile>other")), "status-document", "warning"),
    "status of another kind": (in_agent(("<agentstatus><", "<a><"), ("></agentstatus", "></a")), "status-document",
                               "warning"),
    "status minds its input": (in_agent(("--get-status) echo", "--get-status) ! read -r line || exit 1; echo")),
                               "status-password", "problem"),
    "status repeats its input": (in_agent(("--get-status) echo", "--get-status) cat >&2; echo")), "status-password",
                                 "problem"),
    "dumper fails": (in_agent(("status finished", "echo no space left >&2; exit 1")), "dump", "problem"),
    "dumper hangs": (in_agent(("status finished", "sleep 1000")), "dump", "problem"),
    "dumper is killed": (in_agent(("status finished", "kill -9 $$")), "dump", "problem"),
    "no dump.xml": (in_agent(("replace dump.xml", "replace other.xml")), "dump-document", "problem"),
    "dump.xml is not whole": (in_agent(('echo "<dump domains=\\"$number\\"/>"', "echo '<dump>'")), "dump-document",
                              "problem"),
    "dump.xml is closed": (in_agent(("status finished", "chmod 0 dump.xml; status finished")), "dump-document",
                           "problem"),
    "no dumping status": (in_shared(("status() {", "status() { return;")), "dumping-status", "warning"),
    "dumping status is no document": (in_shared(('echo "<dumping', 'echo "dumping')), "dumping-status", "problem"),
    "dumping status is closed": (in_shared(("replace dumping-status.xml; }",
                                            "replace dumping-status.xml; chmod 0 dumping-status.xml; }")),
                                 "dumping-status", "problem"),
    "dumping status is written in place": (in_shared(("| replace dumping-status.xml", ">dumping-status.xml")),
                                           "status-replaced", "problem"),
    "dumping status is appended to": (in_shared(("replace dumping-status.xml; }",
                                                 "replace dumping-status.xml; echo >>dumping-status.xml; }")),
                                      "status-replaced", "problem"),
    "dumping status is removed before the next": (
        in_shared(("status() {", "status() { rm -f dumping-status.xml;")), "status-replaced", "problem"),
    "dumping status is linked instead of the last": (
        in_shared(("| replace dumping-status.xml", ">status.new; rm -f dumping-status.xml; ln status.new "
                                                   "dumping-status.xml; rm status.new")), "status-replaced", "problem"),
    "dumping status is moved away before the next": (
        in_shared(("status() {", "status() { [ ! -e dumping-status.xml ] || mv dumping-status.xml status.old;")),
        "status-replaced", "problem"),
    "dumping status is made before it is replaced": (
        in_agent(("    rm -f domain-* dump.xml", "    rm -f domain-* dump.xml; [ -e dumping-status.xml ] || "
                  ": >dumping-status.xml")), "status-replaced", "problem"),
    "something is left running": (in_agent(("status finished", "status finished; sleep 1000 >/dev/null 2>&1 &")),
                                  "processes", "warning"),
    "list fails": (instead_of_list("exit 1"), "list", "problem"),
    "list is too long": (instead_of_list("yes '<file/>' | head -c 17000000"), "list-length", "problem"),
    "list of too many files": (instead_of_list("echo '<contentlist>'; yes '<file/>' | head -n 500001; "
                                               "echo '</contentlist>'"), "list-length", "problem"),
    "noise before the list": (instead_of_list("echo; echo '<?xml version=\"1.0\"?>'; list"), "list-noise", "problem"),
    "comment and text before the list": (instead_of_list("echo '<!-- hello --> Welcome'; list"), "list-noise", "problem"),
    "list is not well-formed": (in_agent(("</contentlist>", "")), "list-document", "problem"),
    "list is empty": (instead_of_list(":"), "list-document", "problem"),
    "list of another name": (in_agent(("<contentlist size", "<list size"), ("</contentlist>", "</list>")),
                             "list-document", "problem"),
    "list with an entity": (instead_of_list("echo '<!DOCTYPE a [<!ENTITY b \"c\">]>'; list"), "list-document",
                            "problem"),
    "list with a declaration and an entity": (
        instead_of_list("echo '<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY b \"c\">]>'; list"), "list-document",
        "problem"),
    "list without a total": (in_agent(('size=\\"$total\\"', "")), "list-numbers", "problem"),
    "total is no number": (in_agent(('size=\\"$total\\"', 'size=\\"$total B\\"')), "list-numbers", "problem"),
    "size is no number": (in_agent(('size=\\"$size\\"', 'size=\\"$size B\\"')), "list-numbers", "problem"),
    "size is negative": (in_agent(('size=\\"$size\\"', 'size=\\"-$size\\"')), "list-numbers", "problem"),
    "total is wrong": (in_agent(('size=\\"$total\\"', 'size=\\"1$total\\"')), "list-total", "problem"),
    "path leads out": (on_path("../agent/$name"), "list-paths", "problem"),
    "path with braces": (in_agent(('"domain-$number.tar"', '"domain-{1,$number}.tar"')), "list-paths", "problem"),
    "path of the run's own file": (in_agent(("migration.result; ", "migration.result; echo dump-name; "),
                                            ("status finished", "echo >dump-name; status finished")), "list-paths",
                                   "problem"),
    "same path twice": (in_agent(("migration.result; ", "migration.result; echo migration.result; ")), "list-names",
                        "problem"),
    "same last component twice": (in_agent(("migration.result; ", "migration.result; echo other/migration.result; "),
                                           ("status finished", "mkdir -p other; cp migration.result other; "
                                                               "status finished")), "list-names", "warning"),
    "listed file is missing": (on_path("$name.gz"), "list-files", "problem"),
    "path with a newline around it": (on_path("\n$name\n"), "list-files", "problem"),
    "listed file lies outside": (list_through_a_link, "list-files", "problem"),
    "listed file is a FIFO": (in_agent(("status finished", "rm -f domain-1.tar; mkfifo domain-1.tar; status finished"),
                                       ('[ -f "$name" ]', '[ -e "$name" ]'),
                                       ('md5sum <"$name"', '[ -p "$name" ] || md5sum <"$name"')), "list-files", "problem"),
    "listed file is closed": (in_agent(("list() {", "list() {\n    chmod 600 domain-1.tar"),
                                       ("echo \"<contentlist", "chmod 0 domain-1.tar; echo \"<contentlist")),
                              "list-readable", "problem"),
    "size is not true": (in_agent(("$(stat -c %s \"$name\")", "$(($(stat -c %s \"$name\") + 1))")), "list-sizes",
                         "problem"),
    "sum is not true": (in_agent(("$(md5sum <\"$name\")", "$(echo | md5sum)")), "list-sums", "problem"),
    "sum is another kind": (in_agent(("md5sum <", "sha1sum <")), "list-sums", "problem"),
    "no sum": (in_agent((' md5sum=\\"${sum%% *}\\"', "")), "list-sums", "warning"),
    "sum in upper case": (in_agent(("$(md5sum <\"$name\")", "$(md5sum <\"$name\" | tr a-f A-F)")), "list-sum-case",
                          "warning"),
    "dump.xml is not listed": (in_agent(("echo dump.xml; }", ":; }")), "list-dump", "problem"),
    "migration.result is not listed": (in_agent(("echo migration.result; ", "")), "list-dump", "warning"),
    "list minds its input": (instead_of_list("! read -r line || exit 1; list"), "list-password", "problem"),
    "removed files are still listed": (
        instead_of_list("[ -e list.cache ] || list >list.cache; cat list.cache"), "list-removed", "problem"),
    "list fails when a file is gone": (in_agent(('[ -f "$name" ] || continue', '[ -f "$name" ] || exit 1')),
                                       "list-removed", "problem"),
    "list fails when all is gone": (in_agent(("total=0 files=", "total=0 files=; [ -f dump.xml ] || exit 1")),
                                    "list-removed", "problem"),
    "rest is not listed": (in_agent(("listed() {", "listed() { [ -f domain-1.tar ] || return 0;")), "list-removed",
                           "problem"),
    "dumper runs only once": (in_agent(("    rm -f domain-* dump.xml", "    mkdir once")), "dump-again", "problem"),
    "dumper wants no dump": (in_agent(("    rm -f domain-* dump.xml", "    [ ! -e dump.xml ] || exit 1")), "dump-again",
                             "problem"),
    "dumper wants a whole dump": (in_agent(("    rm -f domain-* dump.xml", "    [ -e dump.xml ] || mkdir once")),
                                  "dump-again", "problem"),
    "second dump is half": (in_agent(('echo "<dump domains=\\"$number\\"/>"',
                                      "if [ -e once ]; then echo '<dump>'; else >once; echo '<dump/>'; fi")),
                            "dump-again", "problem"),
    "second dump is not listed": (in_agent(("total=0 files=", "total=0 files=; [ ! -e twice ] || exit 1"),
                                           ("    rm -f domain-* dump.xml", "    [ ! -e dump.xml ] || >twice")),
                                  "dump-again", "problem"),
    "list is that of the first dump": (
        both(instead_of_list("[ -e list.cache ] || list >list.cache; cat list.cache"),
             in_agent(('echo "the files of $name"', 'mktemp -u'))), "dump-again", "problem"),
    "each dump makes other files": (in_agent(("number=0", "echo >>dumps; number=$(wc -l <dumps)0")), "dump-password",
                                    "warning"),
    "dumper takes the first line": (in_agent(("tail -n 1", "head -n 1")), "dump-password", "problem"),
    "dumper repeats its input": (in_agent(("names=$(tail -n 1)", "input=$(cat); echo \"$input\" >&2; "
                                           "names=$(echo \"$input\" | tail -n 1)")), "dump-password", "problem"),
    "dumper writes its input down": (in_agent(("names=$(tail -n 1)", "input=$(cat); names=$(echo \"$input\" | tail -n 1)"),
                                              ("<dump domains=\\\"$number\\\"/>", "<dump>$input</dump>")),
                                     "dump-password", "problem"),
    "file has to be executable": (both(add("bin/count", "#!/bin/sh\necho 1\n", 0o755),
                                       in_agent(("number=0", "number=$(bin/count)"),
                                                ("domain-* dump.xml", "domain-* dump.xml dumping-status.xml"))), "modes",
                                  "problem"),
}


@pytest.mark.parametrize("name", DEFECTS)
def test_each_defect_is_found_by_its_rule_and_no_other(check, small, name):
    change, rule, verdict = DEFECTS[name]
    change(small)
    limit = ["--time-limit=5"] if re.search("hangs|open", name) else []
    checked = check(NAMES, *limit, small)
    assert checked.found() == {rule: verdict}, checked.output
    assert (checked.status, checked.error) == (1 if verdict == "problem" else 0, "")


def rules():
    """The rules of the sources, in their order."""
    text = (TOP / "src/agent_check/rules.h").read_text(encoding="utf-8")
    names = dict(re.findall(r'constexpr Rule (k\w+)\{\s*"([a-z-]+)"', text))
    return [names[constant] for constant in re.findall(r"&rules::(k\w+)", text)]


def test_there_is_a_defect_for_each_rule():
    assert {rule for _, rule, _ in DEFECTS.values()} == set(rules())


def test_a_sound_agent_passes_every_rule(check, small):
    checked = check(NAMES, small)
    assert (checked.status, checked.error) == (0, "")
    assert list(checked.verdicts) == rules()
    assert set(checked.verdicts.values()) == {"ok"}
    assert "skipped" not in checked.output
    assert checked.output.endswith(f"\n0 problems, 0 warnings, {len(rules())} ok\n")


@pytest.mark.parametrize("selection", [[], ["--domains=shop.example,blog.example", "--clients=anna"]],
                         ids=["everything", "names"])
def test_the_example_agent_passes(check, servers, selection):
    checked = check(*selection, AGENTS / "SampleHosting", env={"SAMPLE_HOSTING_CONF": str(servers(7) / "hosting.conf")})
    assert (checked.found(), checked.status, checked.error) == ({}, 0, ""), checked.output
    assert list(checked.verdicts) == rules()


def test_the_example_agent_without_its_server_fails_at_its_status(check):
    checked = check(AGENTS / "SampleHosting", env={"SAMPLE_HOSTING_CONF": "/nowhere/hosting.conf"})
    assert checked.found() == {"status": "problem"}
    assert "cannot read the server's configuration /nowhere/hosting.conf" in checked.output
    assert "skipped  until the problems above are mended: status-noise, " in checked.output


def test_a_selected_objects_file_selects(check, small, place):
    selection = place / "selected.xml"
    selection.write_text("<selection><domain><name>a.example</name></domain></selection>")
    in_agent(("names=$(tail -n 1)", "names=$(tail -n 1); [ \"$names\" = a.example ]"))(small)
    assert check(f"--selected-objects-file={selection}", small).status == 0
    selection.write_text("<selection><domain><name>b.example</name></domain></selection>")
    assert check(f"--selected-objects-file={selection}", small).found() == {"dump": "problem"}


def test_shared_files_may_lie_elsewhere(check, small, place):
    (place / "shared").rename(place / "common")
    assert check(small).found() == {"shared": "problem", "status": "problem"}
    assert check(f"--shared={place}/common", small).status == 0


def test_what_the_agent_says_is_told_on_one_line_without_control_characters(check, small):
    in_agent(("--get-status) echo", "--get-status) printf 'first\\n\\033[31msecond\\302\\233 \\377' >&2; exit 4; echo"))(small)
    line = next(line for line in check(small).output.split("\n") if line.startswith("problem"))
    assert line == ("problem  status: --get-status ended with 4: first / \\x1b[31msecond\\x9b \ufffd. "
                    "Print an answer to --get-status and end with 0.")


def test_more_of_the_same_is_counted(check, small):
    in_agent(("$(md5sum <\"$name\")", "$(echo | md5sum)"))(small)
    assert re.search(r"^problem  list-sums: 'domain-1.tar' has the sum \w+ instead of \w+ \(and 3 more\)\. ",
                     check(NAMES, small).output, re.MULTILINE)


def test_the_agent_runs_where_a_deployment_puts_it(check, small):
    (small / "control/notes").write_text("for the destination host")
    in_agent(("--get-status) echo", "--get-status) (pwd; umask; ls -A; ls -l bin lib; cat) >&2; exit 1; echo"))(small)
    (small / "bin/agent.sh").chmod(0o755)
    # Nothing of "control" is sent, and nothing is executable.
    output = check(small).output
    assert re.search(r"ended with 1: \S+/tmp/tallowick-agent-check-\w{6}/agent / \d+ / bin / lib / bin: / total \d+ / "
                     r"-rw-r--r-- ", output), output


def test_the_agent_gets_the_environment_without_the_passwords(check, small):
    in_agent(("--get-status) echo", "--get-status) env | grep OVN_ >&2; exit 1; echo"))(small)
    output = check(small, env={"OVN_OTHER": "passed on", "OVN_PASSWORD": "of-the-login",
                               "OVN_SUDO_PASSWORD": "of-root"}).output
    assert "problem  status: --get-status ended with 1: OVN_OTHER=passed on. Print an answer" in output


@pytest.mark.parametrize("old, subject", [("--get-status) echo", "--get-status"), ("status finished", "the dumper")])
def test_what_keeps_the_output_open_is_told_as_a_sentence(check, small, old, subject):
    in_agent((old, old.replace("echo", "sleep 1000 & echo").replace("finished", "finished; sleep 1000 &")))(small)
    assert (f": {subject} has ended, but something that it left behind kept its output open; it was ended after 2 s. "
            in check("--time-limit=2", small).output)


def test_what_a_second_dump_does_wrong_is_told_as_a_sentence(check, small):
    again = "problem  dump-again: over an earlier dump "
    in_agent(("    rm -f domain-* dump.xml", "    [ ! -e dump.xml ] || { echo no >&2; exit 3; }"))(small)
    output = check(small).output
    assert again + "the dumper ended with 3: no. Let a dump start over what an earlier one has left.\n" in output
    assert "skipped  until the problems above are mended: list-removed, dump-password\n" in output


def test_a_hanging_agent_is_ended_with_all_that_it_has_started(check, small):
    in_agent(("--get-status) echo", "--get-status) sleep 1003 & setsid sleep 1003; echo"))(small)
    assert "was still running after 2 s and was ended" in check("--time-limit=2", small).output
    assert subprocess.run(["pgrep", "-f", "^sleep 1003$"], check=False, stdout=subprocess.DEVNULL).returncode == 1


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT])
def test_a_signal_ends_the_check_and_the_agent_and_tidies_up(command, small, number):
    in_agent(("--get-status) echo", "--get-status) sleep 1004; echo"))(small)
    # Who starts tests in the background may have had this signal ignored, and that is inherited.
    started = subprocess.Popen(**command(small), stdout=subprocess.DEVNULL,
                               preexec_fn=lambda: signal.signal(number, signal.SIG_DFL))
    end = time.monotonic() + PATIENCE_S
    while subprocess.run(["pgrep", "-f", "^sleep 1004$"], check=False, stdout=subprocess.DEVNULL).returncode != 0:
        assert time.monotonic() < end
    started.send_signal(number)
    assert started.wait(PATIENCE_S) == -number
    assert subprocess.run(["pgrep", "-f", "^sleep 1004$"], check=False, stdout=subprocess.DEVNULL).returncode == 1


def test_a_dumper_may_print_what_it_likes(check, small):
    in_agent(("status finished", "status finished; yes | head -c 17000000; echo warning >&2"))(small)
    assert check(NAMES, small).found() == {}


def test_what_is_made_with_odd_modes_is_removed_as_well(check, small):
    in_agent(("status finished", "mkdir -p closed/in; chmod 0 closed/in closed; status finished"),
             ("    rm -f domain-* dump.xml", "    rm -f domain-* dump.xml; [ ! -e closed ] || chmod 700 closed"))(small)
    assert check(NAMES, small).status == 0


def test_what_is_listed_through_a_link_to_outside_is_not_removed(check, small):
    list_through_a_link(small)
    output = check(NAMES, small).output
    assert "'content/site.tar' lies outside of the agent directory, and what is fetched is removed. " in output
    assert "\nskipped  list-removed: what is listed cannot be fetched\n" in output
    assert (small / "../sites/site.tar").read_text() == "of the user"


def test_what_a_later_link_leads_to_is_not_removed(check, small):
    listed = "echo content/site.tar; [ -e migration.result ] || [ -h content ] || { rm -r content; ln -s '%s' content; };"
    in_agent(("listed() {", "listed() { " + listed % outside(small)),
             ("number=0", "number=0; rm -rf content; mkdir content; printf 'of the user' >content/site.tar"),
             ("$(listed)", "$(listed | sort -r)"))(small)
    assert check(NAMES, small).found() == {"list-removed": "problem"}
    assert (small / "../sites/site.tar").read_text() == "of the user"


def test_the_directory_can_be_kept(check, small):
    output = check(NAMES, "--keep", small).output
    kept = pathlib.Path(re.search(r"^kept     (\S+)$", output, re.MULTILINE)[1])
    assert (kept / "agent/bin/agent.sh").read_text() == AGENT
    assert (kept / "agent/dump.xml").is_file()
    assert (kept.stat().st_mode & 0o7777, kept.stat().st_uid) == (0o700, LOGIN if NOT_ROOT else os.geteuid())
    shutil.rmtree(kept)


def test_what_root_runs_is_out_of_reach_of_the_login(check, small, root):
    output = check("--keep", "--allow-root", small, user={}).output
    kept = pathlib.Path(re.search(r"^kept     (\S+)$", output, re.MULTILINE)[1])
    assert (kept.stat().st_mode & 0o7777, kept.stat().st_uid) == (0o700, 0)
    assert (kept / "agent/bin/agent.sh").stat().st_uid != 0    # else the modes would not be judged as the login's
    shutil.rmtree(kept)


def test_root_runs_no_agent_unless_it_is_told_to(check, small, root):
    refused = check(small, user={})
    assert (refused.status, refused.output) == (2, "")
    assert refused.error == ("tallowick-agent-check: an agent is somebody's code, and root can do everything; be an "
                             "ordinary user, or give --allow-root\n")


def test_what_root_makes_must_be_readable_for_the_login(check, small, root):
    give = "chown --reference=bin/agent.sh"
    checked = check(NAMES, "--allow-root", small, user={})
    assert checked.found() == {"dumping-status": "problem", "list-readable": "problem"}
    in_shared(('cat >"$1.new" &&', f'cat >"$1.new" && {give} "$1.new" &&'))(small)
    in_agent(("        status dumping\n    done", f'        {give} "domain-$number.tar"; status dumping\n    done'))(small)
    checked = check(NAMES, "--allow-root", small, user={})
    assert (checked.found(), checked.status) == ({}, 0), checked.output


@pytest.mark.parametrize("words, said", [
    ([], "give one agent directory; see --help"), (["a", "b"], "give one agent directory; see --help"),
    (["/nowhere"], "No such file or directory"), (["/etc/hostname"], "is no directory"),
    (["--shared=/nowhere", "/tmp"], "No such file or directory"), (["--nonsense", "/tmp"], "unrecognized option"),
    (["--time-limit=0", "/tmp"], "--time-limit takes a number of seconds"),
    (["--time-limit=1s", "/tmp"], "--time-limit takes a number of seconds"),
    (["--selected-objects-file=/nowhere", "/tmp"], "does not exist"),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_what_cannot_be_checked_ends_with_2(check, words, said):
    checked = check(*words)
    assert (checked.status, checked.output) == (2, "")
    assert said in checked.error


def test_a_place_that_no_agent_directory_can_have_is_refused(check, small, place):
    odd = place / "with blank"
    odd.mkdir()
    checked = check(small, env={"TMPDIR": str(odd)})
    assert checked.status == 2
    assert "TMPDIR leads to" in checked.error


def test_help_tells_the_options_and_exit_statuses(check):
    checked = check("--help")
    assert (checked.status, checked.error) == (0, "")
    assert "Exit status: 0 without a problem, 1 with problems, 2 if it could not check." in checked.output
    options = set(re.findall(r'\{"([a-z-]+)", ', (TOP / "src/agent_check/check_options.cpp").read_text()))
    assert set(re.findall(r"--([a-z-]+)", checked.output)) == options
    assert max(map(len, checked.output.splitlines())) <= 80
