# SPDX-License-Identifier: Apache-2.0
"""Installing, upgrading, removing and purging the package, and what becomes of the log configuration by that."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

from conftest import ROOT, SHARE, STATE, TOP, run

DVX = ROOT / "DVX"
LOG_CONFIGURATION = DVX / "log4cpp.properties"
DEFAULT = (TOP / "conf/log4cpp.properties").read_text()
NEXT_DEFAULT = DEFAULT.replace("DEBUG", "INFO")
EDITED = DEFAULT + "# edited\n"


@pytest.fixture
def next_version(version_of):
    return version_of("9.1", NEXT_DEFAULT)


# ---- Using it ----

def test_a_whole_migration_succeeds_with_the_installed_program(machine, package):
    machine.install(package)
    place = TOP / "build/package/migration"
    shutil.rmtree(place, ignore_errors=True)
    place.mkdir()
    said = run(TOP / "scripts/lib/demo-inside", "1", "/usr/sbin/tallowick", "/usr/share/doc/tallowick/examples",
               "/usr/bin/tallowick-preflight", place, cwd=TOP)
    assert re.findall(r"^(\S+) +(\d+) runs, (\d+) failures$", said, re.MULTILINE)
    assert {(runs, failures) for runs, failures in re.findall(r"(\d+) runs, (\d+) failures", said)} == {("1", "0")}
    assert LOG_CONFIGURATION.read_text() == DEFAULT
    # The installed tools, on what that has left.
    assert "SUCCESS" in run("tallowick-watch", "--once", place / "run/migration").upper()
    said = run("tallowick-agent-check", "--allow-root", "--domains=shop.example",
               "/usr/share/doc/tallowick/examples/agents/SampleHosting")
    assert "\n0 problems, 0 warnings" in said


def test_programs_and_pages_are_found_by_name(machine, package):
    machine.install(package)
    tools = ["tallowick-agent-check", "tallowick-preflight", "tallowick-watch"]
    assert run("bash", "-lc", f"type -P tallowick {' '.join(tools)}").split() == [
        "/usr/sbin/tallowick", *(f"/usr/bin/{tool}" for tool in tools)]
    for name, section in (("tallowick", 8), ("tallowick-session", 5), ("tallowick-agent", 7), *((tool, 1) for tool in tools)):
        assert run("man", "-w", name).strip() == f"/usr/share/man/man{section}/{name}.{section}.gz"


def test_completion_is_found_where_bash_completion_looks(machine, package):
    machine.install(package)
    words = run("bash", "-c", "source /usr/share/bash-completion/completions/tallowick; complete -p tallowick")
    assert " tallowick" in words


# ---- Installing ----

def test_log_configuration_is_put_into_the_products_directory(machine, package):
    said = machine.install(package)
    assert LOG_CONFIGURATION.read_text() == DEFAULT
    status = LOG_CONFIGURATION.stat()
    assert (status.st_uid, status.st_gid, oct(status.st_mode)) == (0, 0, oct(0o100644))
    assert os.listdir(DVX) == ["log4cpp.properties"]
    assert "tallowick: " not in said


def test_log_configuration_that_is_there_is_left_alone(machine, package):
    DVX.mkdir()
    LOG_CONFIGURATION.write_text(EDITED)
    machine.install(package)
    assert LOG_CONFIGURATION.read_text() == EDITED


@pytest.mark.parametrize("text, root", [
    ("PRODUCT_ROOT_D /run/panel\n", "/run/panel"),
    ("PRODUCT_ROOT_D /run/panel", "/run/panel"),
    ("PRODUCT_ROOT_D /run/panel # root\n", "/run/panel"),
    ("  PRODUCT_ROOT_D\t /run/panel\n", "/run/panel"),
    ("PRODUCT_ROOT_D /run/first\nPRODUCT_ROOT_D /run/panel\n", "/run/panel"),
    ("PRODUCT_ROOT_D /run/panel of hosting\n", "/run/panel of hosting"),
    ("PRODUCT_ROOT_D /run/panel\nPRODUCT_ROOT_D=/run/other\nPRODUCT_ROOT_D\nPRODUCT_ROOT_D # none\n", "/run/panel"),
    ("PRODUCT_ROOT_D=/run/panel\n", "/usr/local/ovn"),
    ("# PRODUCT_ROOT_D /run/panel\n", "/usr/local/ovn"),
    ("OLD_PRODUCT_ROOT_D /run/panel\n", "/usr/local/ovn"),
    ("", "/usr/local/ovn"),
])
def test_product_root_is_the_one_that_the_program_reads(machine, package, text, root):
    machine.configure(text)
    machine.install(package)
    assert pathlib.Path(root, "DVX/log4cpp.properties").read_text() == DEFAULT
    session = pathlib.Path("/run/tallowick/session")
    ended = subprocess.run(["tallowick", "--remove-dumping-status", f"--session-path={session}"], check=False)
    assert (ended.returncode, (session / "migration.log").exists()) == (0, True)
    run("rm", "-r", session)


@pytest.mark.parametrize("text", ["PRODUCT_ROOT_D /run/panel  \n", "PRODUCT_ROOT_D /run/panel \n", "PRODUCT_ROOT_D panel\n"])
def test_product_root_that_nobody_can_have_meant_is_told_of_and_not_made(machine, package, text):
    machine.configure(text)
    said = machine.install(package)
    assert "tallowick: PRODUCT_ROOT_D in /etc/ovn/ovn.conf is no absolute path" in said
    assert list(pathlib.Path("/run").glob("panel*")) == []
    assert run("dpkg-query", "--show", "--showformat", "${db:Status-Status}", "tallowick") == "installed"


def test_product_root_in_which_no_directory_can_be_made_is_told_of(machine, package, tmp_path):
    occupied = tmp_path / "panel"
    occupied.write_text("a file")
    machine.configure(f"PRODUCT_ROOT_D {occupied}\n")
    said = machine.install(package)
    assert f"tallowick: when there can be a directory {occupied}/DVX, copy {SHARE}/log4cpp.properties there" in said
    assert run("dpkg-query", "--show", "--showformat", "${db:Status-Status}", "tallowick") == "installed"
    assert occupied.read_text() == "a file"


def test_missing_account_of_the_panel_is_told_of_and_not_made(machine, package):
    passwd = pathlib.Path("/etc/passwd")
    whole = passwd.read_text()
    passwd.write_text("".join(line for line in whole.splitlines(keepends=True) if not line.startswith("ovnadm:")))
    try:
        said = machine.install(package)
        assert 'tallowick: there is no account "ovnadm", which comes with the panel' in said
        assert "ovnadm" not in passwd.read_text()
    finally:
        passwd.write_text(whole)


# ---- Upgrading ----

def test_unedited_log_configuration_gets_the_new_default(machine, package, next_version):
    machine.install(package)
    said = machine.install(next_version)
    assert LOG_CONFIGURATION.read_text() == NEXT_DEFAULT
    assert "tallowick: " not in said


def test_edited_log_configuration_survives_upgrades_and_is_told_of(machine, package, next_version, version_of):
    machine.install(package)
    LOG_CONFIGURATION.write_text(EDITED)
    said = machine.install(next_version)
    assert f"tallowick: {LOG_CONFIGURATION} was edited and is left as it is" in said
    assert str(SHARE / "log4cpp.properties") in said
    machine.install(version_of("9.2", NEXT_DEFAULT + "# more\n"))
    assert LOG_CONFIGURATION.read_text() == EDITED


def test_nothing_is_said_of_an_edited_file_while_the_default_is_the_same(machine, package, version_of):
    machine.install(package)
    LOG_CONFIGURATION.write_text(EDITED)
    assert "tallowick: " not in machine.install(version_of("9.0", DEFAULT))
    assert LOG_CONFIGURATION.read_text() == EDITED


def test_default_of_two_versions_ago_counts_as_unedited_once_it_is_back(machine, package, next_version, version_of):
    machine.install(package)
    LOG_CONFIGURATION.write_text(EDITED)
    machine.install(next_version)
    LOG_CONFIGURATION.write_text(DEFAULT)
    last = NEXT_DEFAULT + "# more\n"
    machine.install(version_of("9.2", last))
    assert LOG_CONFIGURATION.read_text() == last


def test_edited_file_that_becomes_the_new_default_by_hand_counts_as_unedited(machine, package, next_version, version_of):
    machine.install(package)
    LOG_CONFIGURATION.write_text(NEXT_DEFAULT)
    machine.install(next_version)
    last = NEXT_DEFAULT + "# more\n"
    machine.install(version_of("9.2", last))
    assert LOG_CONFIGURATION.read_text() == last


def test_upgrade_leaves_a_file_alone_that_the_package_has_not_put_there(machine, package, next_version):
    DVX.mkdir()
    LOG_CONFIGURATION.write_text(DEFAULT)
    machine.install(package)
    machine.install(next_version)
    assert LOG_CONFIGURATION.read_text() == DEFAULT


def test_link_in_place_of_the_log_configuration_stays_a_link(machine, package, next_version):
    machine.install(package)
    elsewhere = DVX / "elsewhere"
    LOG_CONFIGURATION.rename(elsewhere)
    LOG_CONFIGURATION.symlink_to(elsewhere)
    machine.install(next_version)
    assert LOG_CONFIGURATION.is_symlink()
    machine.purge()
    assert LOG_CONFIGURATION.read_text() == DEFAULT


def test_missing_log_configuration_comes_back_since_no_run_is_possible_without(machine, package, next_version):
    machine.install(package)
    LOG_CONFIGURATION.unlink()
    machine.install(next_version)
    assert LOG_CONFIGURATION.read_text() == NEXT_DEFAULT


def test_going_back_to_an_older_version_brings_its_default_back(machine, package, next_version):
    machine.install(next_version)
    machine.install(package)
    assert LOG_CONFIGURATION.read_text() == DEFAULT


def test_interrupted_upgrade_is_made_good_by_the_next_one(machine, package, next_version, version_of):
    machine.install(package)
    (DVX / "log4cpp.properties.dpkg-new").mkdir()    # where the new file is to be prepared
    machine.install(next_version, status=1)
    assert LOG_CONFIGURATION.read_text() == DEFAULT
    (DVX / "log4cpp.properties.dpkg-new").rmdir()
    last = NEXT_DEFAULT + "# more\n"
    machine.install(version_of("9.2", last))
    assert LOG_CONFIGURATION.read_text() == last


def test_purging_after_an_interrupted_upgrade_removes_the_unedited_file(machine, package, next_version):
    machine.install(package)
    (DVX / "log4cpp.properties.dpkg-new").mkdir()
    machine.install(next_version, status=1)
    (DVX / "log4cpp.properties.dpkg-new").rmdir()
    assert "was edited" not in machine.purge()
    assert not DVX.exists()


# ---- Removing and purging ----

def test_removing_leaves_the_log_configuration(machine, package):
    machine.install(package)
    machine.remove()
    assert not SHARE.exists()
    assert LOG_CONFIGURATION.read_text() == DEFAULT


def test_purging_removes_all_that_was_put_there(machine, package):
    DVX.parent.joinpath("other").write_text("the panel's")
    machine.install(package)
    machine.purge()
    assert os.listdir(ROOT) == ["other"]
    assert not STATE.exists()
    assert not SHARE.exists()


def test_purging_after_removing_and_upgrading_removes_the_newest_default(machine, package, next_version):
    machine.install(package)
    machine.install(next_version)
    machine.remove()
    machine.purge()
    assert os.listdir(ROOT) == []


def test_purging_leaves_an_edited_log_configuration_and_says_so(machine, package):
    machine.install(package)
    LOG_CONFIGURATION.write_text(EDITED)
    assert f"tallowick: {LOG_CONFIGURATION} was edited and stays" in machine.purge()
    assert LOG_CONFIGURATION.read_text() == EDITED


def test_purging_leaves_a_file_that_the_package_has_not_put_there(machine, package):
    DVX.mkdir()
    LOG_CONFIGURATION.write_text(DEFAULT)
    machine.install(package)
    machine.purge()
    assert LOG_CONFIGURATION.read_text() == DEFAULT


def test_purging_leaves_directories_that_others_use_or_have_made(machine, package):
    machine.install(package)
    (DVX / "scout.pl").write_text("the panel's")
    machine.purge()
    assert os.listdir(DVX) == ["scout.pl"]
    (DVX / "scout.pl").unlink()
    machine.install(package)
    machine.purge()
    assert os.listdir(DVX) == []


def test_purging_takes_no_offence_at_a_directory_that_was_moved_and_linked(machine, package):
    machine.configure("PRODUCT_ROOT_D /run/panel\n")
    machine.install(package)
    pathlib.Path("/run/panel").rename("/run/moved")
    pathlib.Path("/run/panel").symlink_to("/run/moved")
    machine.purge()
    assert pathlib.Path("/run/panel").is_symlink()
    assert not pathlib.Path("/run/moved/DVX").exists()
    pathlib.Path("/run/panel").unlink()
    pathlib.Path("/run/moved").rmdir()


def test_purging_finds_what_was_put_into_an_earlier_product_root(machine, package, next_version):
    machine.install(package)
    machine.configure("PRODUCT_ROOT_D /run/panel\n")
    machine.install(next_version)
    assert pathlib.Path("/run/panel/DVX/log4cpp.properties").read_text() == NEXT_DEFAULT
    assert LOG_CONFIGURATION.read_text() == DEFAULT
    machine.purge()
    assert not pathlib.Path("/run/panel").exists()
    assert not DVX.exists()
