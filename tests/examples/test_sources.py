# SPDX-License-Identifier: Apache-2.0
"""The sources of the agent: what an author may take as they are."""

import re
import subprocess

import pytest

from sample import AGENTS

SOURCES = sorted([*AGENTS.rglob("*.pm"), *AGENTS.rglob("*.pl")])
KEYS = ("Description", "EntryPoint", "DocumentType", "Stylesheet", "Interpreter")


@pytest.mark.parametrize("source", SOURCES, ids=lambda source: source.name)
def test_perl_has_nothing_to_say_against(source):
    ended = subprocess.run(["perl", f"-I{AGENTS}/shared/lib", f"-I{AGENTS}/SampleHosting/lib", "-wc", source],
                           capture_output=True, text=True, check=False)
    assert ended.stderr == f"{source} syntax OK\n"
    assert ended.returncode == 0


@pytest.mark.parametrize("source", SOURCES, ids=lambda source: source.name)
def test_is_strict_and_needs_core_modules_only(source):
    used = re.findall(r"^use ([A-Za-z][\w:]*)", source.read_text(), re.MULTILINE)
    assert "strict" in used and "warnings" in used
    own = [module for module in used if module.split("::")[0] in ("Agent", "SampleHosting")]
    foreign = sorted(set(used) - set(own))
    ended = subprocess.run(["perl", "-MModule::CoreList", "-e",
                            "print grep { !Module::CoreList::is_core($_, undef, '5.010001') } @ARGV", *foreign],
                           capture_output=True, text=True, check=True)
    assert ended.stdout == ""


def test_spec_has_known_keys_and_names_an_entry_point_that_is_sent():
    lines = (AGENTS / "SampleHosting/control/spec").read_text().splitlines()
    spec = dict(line.split(": ", 1) for line in lines)
    assert set(spec) <= set(KEYS)
    assert (AGENTS / "SampleHosting" / spec["EntryPoint"]).is_file()
    assert not spec["EntryPoint"].startswith("control/")


@pytest.mark.parametrize("tree", ["shared", "SampleHosting"])
def test_files_lie_in_directories_so_that_the_login_owns_where_they_are_sent_to(tree):
    assert [entry.name for entry in (AGENTS / tree).iterdir() if not entry.is_dir()] == []
