# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the tests of the package, which run in scripts/sandbox, and in that below tests/package/enter."""

import pathlib
import shutil
import subprocess

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
OVN_CONF = pathlib.Path("/etc/ovn/ovn.conf")
ROOT = pathlib.Path("/usr/local/ovn")
SHARE = pathlib.Path("/usr/share/tallowick")
STATE = pathlib.Path("/var/lib/tallowick")


def run(*words, status=0, **options):
    ended = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                           check=False, **options)
    assert ended.returncode == status, ended.stdout
    return ended.stdout


@pytest.fixture(scope="session")
def package():
    """The package that scripts/package has made."""
    packages = list((TOP / "build/package").glob("tallowick_*.deb"))
    assert len(packages) == 1
    return packages[0]


@pytest.fixture(scope="session")
def version_of(package, tmp_path_factory):
    """Makes the package of another version, whose default of the log configuration is another too."""
    made = {}

    def make(version, default):
        if version not in made:
            tree = tmp_path_factory.mktemp("version") / "tree"
            run("dpkg-deb", "--raw-extract", package, tree)
            control = tree / "DEBIAN/control"
            lines = control.read_text().splitlines(keepends=True)
            control.write_text("".join(f"Version: {version}\n" if line.startswith("Version:") else line
                                       for line in lines))
            (tree / "usr/share/tallowick/log4cpp.properties").write_text(default)
            made[version] = tree.parent / f"tallowick_{version}.deb"
            run("dpkg-deb", "-Znone", "--root-owner-group", "--build", tree, made[version])
        return made[version]

    return make


class Machine:
    """What is done with packages on it. Its index of man pages is nobody's business here."""

    @staticmethod
    def install(package, status=0):
        return run("dpkg", "--no-triggers", "--install", package, status=status)

    @staticmethod
    def remove():
        return run("dpkg", "--no-triggers", "--remove", "tallowick")

    @staticmethod
    def purge():
        return run("dpkg", "--no-triggers", "--purge", "tallowick")

    @staticmethod
    def configure(text):
        OVN_CONF.write_text(text)


@pytest.fixture
def machine():
    """A machine without the package, and with nothing in the product's directory, before and after."""
    yield Machine
    Machine.purge()
    assert not STATE.exists()
    OVN_CONF.unlink(missing_ok=True)
    for entry in ROOT.iterdir():
        shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
