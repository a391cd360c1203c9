# SPDX-License-Identifier: Apache-2.0
"""The agent as the program would deploy and call it, and trees as one compares them."""

import hashlib
import os
import pathlib
import shutil
import stat
import subprocess
from xml.etree import ElementTree

TOP = pathlib.Path(__file__).resolve().parents[2]
AGENTS = TOP / "examples/agents"
LOGIN = 4711          # number of the account that sent the agent, when the tests run as root
PATIENCE_S = 120      # against hanging


class Agent:
    """A deployed agent."""

    def __init__(self, directory, server):
        self.directory = directory
        self.environment = {"PATH": "/usr/bin:/bin", "SAMPLE_HOSTING_CONF": str(server / "hosting.conf")}
        for tree in (AGENTS / "shared", AGENTS / "SampleHosting"):
            shutil.copytree(tree, directory, dirs_exist_ok=True, ignore=lambda path, names, top=tree: (
                ["control"] if pathlib.Path(path) == top else []))
        spec = (AGENTS / "SampleHosting/control/spec").read_text()
        self.spec = dict(line.split(": ", 1) for line in spec.splitlines())

    @property
    def command(self):
        return [self.spec["Interpreter"], str(self.directory / self.spec["EntryPoint"])]

    def start(self, *words, **options):
        options = {"cwd": self.directory, "env": self.environment, "stdin": subprocess.DEVNULL,
                   "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.Popen([*self.command, *words], **options)

    def run(self, *words, given="", **options):
        """The ended process, its output as text."""
        return subprocess.run([*self.command, *words], cwd=self.directory, env=self.environment, input=given, text=True,
                              capture_output=True, check=False, timeout=PATIENCE_S, **options)

    def dump(self, *words, given="", **options):
        """Dumps, which must succeed without a word, and returns the root of dump.xml."""
        ended = self.run("--migration-mode", *words, given=given, **options)
        assert (ended.returncode, ended.stdout, ended.stderr) == (0, "", "")
        return self.document("dump.xml")

    def document(self, name):
        return ElementTree.parse(self.directory / name).getroot()

    def content_list(self):
        ended = self.run("--get-content-list")
        assert (ended.returncode, ended.stderr) == (0, "")
        return ElementTree.fromstring(ended.stdout)

    def archives(self):
        return sorted(path.name for path in self.directory.glob("*.tar*"))

    def names(self):
        return sorted(path.name for path in self.directory.iterdir())


def names_of(dump, kind):
    return [element.get("name") for element in dump.findall(kind)]


def archive_of(dump, kind, name, content):
    """The attributes of an object's archive, or None."""
    return next((archive.attrib for archive in dump.findall(f"{kind}[@name='{name}']/{content}/archive")), None)


def md5_of(path):
    return hashlib.md5(path.read_bytes()).hexdigest()


def unpack(archive, directory):
    directory.mkdir()
    subprocess.run(["tar", "-x", "-p", "--no-same-owner", "-f", archive, "-C", directory], check=True)
    return directory


def tree(top):
    """All that is below `top`: names as bytes, with kind, mode and time, and content or target."""
    found = {}
    for path, directories, files in os.walk(os.fsencode(top)):
        for name in [b".", *directories, *files]:
            entry = os.path.normpath(os.path.join(path, name))
            status = os.lstat(entry)
            content = None
            if stat.S_ISREG(status.st_mode):
                with open(entry, "rb") as file:
                    content = hashlib.md5(file.read()).hexdigest()
            elif stat.S_ISLNK(status.st_mode):
                content = os.readlink(entry)
            found[os.path.relpath(entry, os.fsencode(top))] = (status.st_mode, int(status.st_mtime), content)
    return found
