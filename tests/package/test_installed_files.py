# SPDX-License-Identifier: Apache-2.0
"""What is installed, and where."""

import gzip
import os
import pathlib
import re
import stat

import pytest

from conftest import TOP, run

RELEASE = TOP / "build/release"

BUILT = {"sbin/tallowick", "bin/tallowick-agent-check", "bin/tallowick-watch"}
PROGRAMS = BUILT | {"bin/tallowick-preflight"}
AGENTS = "share/doc/tallowick/examples/agents"
EXECUTABLE_EXAMPLES = {
    "share/doc/tallowick/examples/fleet",
    "share/doc/tallowick/examples/migrate",
    "share/doc/tallowick/examples/read-results.py",
    f"{AGENTS}/SampleHosting/bin/agent.pl",
}
MAN_PAGES = {
    "share/man/man1/tallowick-agent-check.1",
    "share/man/man1/tallowick-preflight.1",
    "share/man/man1/tallowick-watch.1",
    "share/man/man5/tallowick-session.5",
    "share/man/man7/tallowick-agent.7",
    "share/man/man8/tallowick.8",
}
FILES = PROGRAMS | EXECUTABLE_EXAMPLES | MAN_PAGES | {
    "share/bash-completion/completions/tallowick",
    *(f"share/doc/tallowick/{name}.md" for name in
      ("ARCHITECTURE", "CONTRIBUTING", "README", "SECURITY", "doc/fleet")),
    "share/doc/tallowick/doc/watch.svg",
    "share/doc/tallowick/examples/scout.pl",
    "share/doc/tallowick/examples/selected-objects.xml",
    f"{AGENTS}/README.md",
    f"{AGENTS}/SampleHosting/control/spec",
    f"{AGENTS}/SampleHosting/lib/SampleHosting/Dump.pm",
    f"{AGENTS}/SampleHosting/lib/SampleHosting/Server.pm",
    *(f"{AGENTS}/shared/lib/Agent/{name}.pm" for name in
      ("Archive", "Files", "Options", "Results", "Status", "Tar", "Xml")),
    "share/tallowick/contract.json",
    "share/tallowick/log4cpp.properties",
    *(f"share/tallowick/schemas/{name}.rng" for name in
      ("contentlist", "contentlist-accepted", "execution-result", "migration-status", "selected-objects")),
    *(f"share/doc/tallowick/examples/{path.relative_to(TOP / 'schemas')}"
      for path in (TOP / "schemas/corpus").rglob("*") if path.is_file()),
}


def files_below(directory):
    return {str(path.relative_to(directory)) for path in directory.rglob("*") if not path.is_dir()}


@pytest.fixture(scope="module")
def staged(tmp_path_factory):
    """Everything installed for a prefix of its own, below a directory that stands for the root."""
    place = tmp_path_factory.mktemp("staged")
    run("bash", "-c", 'umask 022; exec cmake --install "$0" --prefix /opt/tallowick', RELEASE,
        env={**os.environ, "DESTDIR": str(place)})
    return place


@pytest.fixture(scope="module")
def unpacked(package, tmp_path_factory):
    place = tmp_path_factory.mktemp("unpacked")
    run("dpkg-deb", "--extract", package, place)
    return place


def test_install_puts_every_file_below_the_prefix(staged):
    assert files_below(staged) == {f"opt/tallowick/{name}" for name in FILES}


def test_package_has_the_same_files_and_those_of_every_package(unpacked):
    uncompressed = {name.removesuffix(".gz") for name in files_below(unpacked)}
    assert uncompressed == {f"usr/{name}" for name in FILES} | {
        "usr/share/doc/tallowick/changelog", "usr/share/doc/tallowick/copyright"}


def test_programs_and_scripts_can_be_run_and_nothing_else(staged, unpacked):
    for place in (staged / "opt/tallowick", unpacked / "usr"):
        found = {name for name in files_below(place) if (place / name).stat().st_mode & 0o111}
        assert found == PROGRAMS | EXECUTABLE_EXAMPLES


def test_everybody_can_read_everything(staged, unpacked):
    for place in (staged / "opt/tallowick", unpacked / "usr"):
        for path in place.rglob("*"):
            wanted = 0o755 if path.is_dir() or str(path.relative_to(place)) in PROGRAMS | EXECUTABLE_EXAMPLES else 0o644
            assert oct(stat.S_IMODE(path.stat().st_mode)) == oct(wanted), path


def test_every_man_page_of_the_tree_is_installed():
    assert {path.name for path in (TOP / "doc/man").iterdir()} == {pathlib.Path(name).name for name in MAN_PAGES}


def test_every_schema_of_the_tree_is_installed():
    schemas = {path.name for path in (TOP / "schemas").glob("*.rng")}
    assert schemas == {pathlib.Path(name).name for name in FILES if name.endswith(".rng")}


@pytest.mark.parametrize("program", sorted(BUILT))
def test_packed_program_is_the_one_of_the_build_without_its_symbols(program, staged, unpacked):
    assert " .symtab " in run("readelf", "--wide", "--sections", staged / "opt/tallowick" / program)
    packed = unpacked / "usr" / program
    assert " .symtab " not in run("readelf", "--wide", "--sections", packed)
    identity = re.compile(r"Build ID: (\w+)")
    assert identity.findall(run("readelf", "--notes", packed)) == \
        identity.findall(run("readelf", "--notes", RELEASE / pathlib.Path(program).name))


@pytest.mark.parametrize("program", sorted(BUILT))
def test_packed_program_is_hardened_and_finds_libraries_by_name_alone(program, unpacked):
    packed = unpacked / "usr" / program
    dynamic = run("readelf", "--wide", "--dynamic", packed)
    assert "Flags: NOW PIE" in dynamic
    assert "RUNPATH" not in dynamic and "RPATH" not in dynamic
    assert "__stack_chk_fail" in run("readelf", "--wide", "--dyn-syms", packed)


def test_versions_of_program_and_package_are_the_same(package):
    project = re.search(r"^project\(tallowick VERSION (\S+)", (TOP / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert run("dpkg-deb", "--field", package, "Version").strip() == project.group(1)


def test_package_asks_for_the_libraries_that_the_programs_are_linked_with(package):
    wanted = run("dpkg-deb", "--field", package, "Depends")
    for library in ("libc6", "liblog4cpp5v5", "libncursesw6", "libssh2-1", "libssl3", "libstdc++6", "libxml2"):
        assert f"{library} (>= " in wanted


def test_changelog_of_the_package_begins_with_its_version(package, unpacked):
    with gzip.open(unpacked / "usr/share/doc/tallowick/changelog.gz", "rt") as changelog:
        assert changelog.readline().startswith(f"tallowick ({run('dpkg-deb', '--field', package, 'Version').strip()}) ")
