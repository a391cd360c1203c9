# SPDX-License-Identifier: Apache-2.0
"""A source host in memory: it knows the commands that the program sends, answers them, and runs nothing."""

import re
import shlex
from dataclasses import dataclass, field

from harness.agents import AGENT_STATUS, DUMP, content_file, content_list
from harness.product import SMALL_REPORT
from harness.scripted import Script

STATUS_DOCUMENT = b'<dumping-status total="1" left="0"/>\n'
CONTENT = {"sites/site.tar": b"some archive\n" * 24000, "mail/two words.tar": b"some mail\n", "empty": b""}

_ENTERS_DIRECTORY = re.compile(r"cd .*?(?:; | && )(.*)", re.DOTALL)
_THROUGH_SUDO = "sudo -k; sudo -S -p ' ' "
_NO_SUCH_FILE = "{}: No such file or directory\n"


@dataclass
class Answer:
    """What one command gives. `err` may be bytes or an iterable of them. `own` for what comes from a script of ours,
    the scout or the agent, not from a tool of the system."""

    out: bytes = b""
    err: object = b""
    status: int = 0
    own: bool = False


def failure(text, status=1):
    """The answer of a tool that fails."""
    return Answer(err=text.encode("utf-8", "surrogateescape"), status=status)


def deliver(run, answer):
    """Sends an answer in good order."""
    send_output(run, answer)
    run.exit(answer.status)


def send_output(run, answer):
    """Sends what an answer has for the two streams."""
    if answer.out:
        run.out(answer.out)
    for chunk in [answer.err] if isinstance(answer.err, bytes) else answer.err:
        if chunk:
            run.err(chunk)


def sudo_that_asks(executor, command, stdin):
    """Runs `command` if the first line of its input is the right password."""
    password, _, rest = stdin.partition(b"\n")
    if executor.sudo_password in (None, password):
        return executor.execute(command, rest)
    return failure("Sorry, try again.\nsudo: no password was provided\nsudo: 1 incorrect password attempt\n")


@dataclass
class Behaviour:
    """How a source host differs from a friendly one; every field has the meaning of that one."""

    # Files beside the host's own, by their path: listed after the first of them.
    more_files: dict = field(default_factory=dict)
    # Makes the text of the content list (str or bytes) of its true entries.
    listing: object = content_list
    sudo_version: Answer = field(default_factory=lambda: Answer(b"Sudo version 1.9\n"))
    # Called with what executes commands, a command line and the whole input.
    sudo: object = sudo_that_asks
    # Called with the run (`scripted.Run`) and the answer.
    deliver: object = deliver
    # The connection itself; `run` is set by the host.
    script: Script = field(default_factory=Script)


class SourceHost:
    """What is on the host. Files are removed as the program asks for it; whatever it uploads is forgotten.

    The agent directory may be any: a path means the file whose name it ends with. `on_removed`, if any, is called with
    the name of each file that is removed.
    """

    def __init__(self, files=None, sudo_password=None, on_removed=None):
        self.files = dict(CONTENT if files is None else files)
        self.documents = {"dump.xml": DUMP, "dumping-status.xml": STATUS_DOCUMENT}
        self.sudo_password = sudo_password
        self.on_removed = on_removed or (lambda name: None)

    def script(self, behaviour=None):
        """A script for a server, with which it is this host."""
        behaviour = behaviour or Behaviour()

        def run(run):
            executor = _Executor(self, behaviour)
            command = run.command.decode("utf-8", "surrogateescape")
            behaviour.deliver(run, executor.execute(command, run.read_input()))

        behaviour.script.run = run
        return behaviour.script


class _Executor:
    """Answers one command of the program."""

    def __init__(self, host, behaviour):
        self._host = host
        self._behaviour = behaviour
        self._tools = {"true": _succeed, "mkdir": _succeed, "chown": _succeed, "cat": self._cat, "rm": self._rm,
                       "sudo": self._version_of_sudo, "sh": self._shell}

    @property
    def sudo_password(self):
        return None if self._host.sudo_password is None else self._host.sudo_password.encode()

    def execute(self, line, stdin):
        """The answer to a command line with that input."""
        if line.startswith(_THROUGH_SUDO):
            return self._behaviour.sudo(self, line.removeprefix(_THROUGH_SUDO), stdin)
        name, *arguments = shlex.split(line)
        return self._tools.get(name, self._run_script)(arguments, stdin)

    def _shell(self, arguments, stdin):
        return self.execute(_ENTERS_DIRECTORY.fullmatch(arguments[1]).group(1), stdin)

    def _version_of_sudo(self, _arguments, _stdin):
        return self._behaviour.sudo_version

    def _cat(self, arguments, _stdin):
        if not arguments or arguments[0] == ">":
            return Answer()
        name = self._name_of(arguments[0])
        if name is None:
            return failure("cat: " + _NO_SUCH_FILE.format(arguments[0]))
        return Answer(self._all_files()[name])

    def _rm(self, arguments, _stdin):
        if arguments[0] == "-rf":
            return Answer()
        name = self._name_of(arguments[0])
        if name is None:
            return failure("rm: cannot remove " + _NO_SUCH_FILE.format(arguments[0]))
        for files in (self._host.files, self._behaviour.more_files):
            files.pop(name, None)
        self._host.on_removed(name)
        return Answer()

    def _all_files(self):
        return {**self._host.documents, **self._host.files, **self._behaviour.more_files}

    def _name_of(self, path):
        named = [name for name in self._all_files() if path == name or path.endswith("/" + name.lstrip("/"))]
        return max(named, key=len, default=None)

    def _run_script(self, arguments, _stdin):
        if not arguments:
            return Answer(SMALL_REPORT, own=True)
        if arguments[1:] == ["--get-status"]:
            return Answer(AGENT_STATUS, own=True)
        if arguments[1:] == ["--get-content-list"]:
            return Answer(self._content_list(), own=True)
        return Answer(own=True)  # a dump, which is there already

    def _content_list(self):
        entries = [content_file(name, content) for name, content in self._host.files.items()]
        entries[1:1] = [content_file(name, content) for name, content in self._behaviour.more_files.items()]
        text = self._behaviour.listing(entries)
        return text if isinstance(text, bytes) else text.encode()


def _succeed(_arguments, _stdin):
    return Answer()
