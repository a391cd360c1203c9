# SPDX-License-Identifier: Apache-2.0
"""Passwords that can be recognised wherever they turn up: every action, with each kind of sudo, leaves them nowhere,
whatever letters they are made of; and nothing of a run that dies stays behind."""

import contextlib
import dataclasses
import itertools
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import xml.sax.saxutils

import pytest

from harness.every_action import ACTIONS, EveryAction, result_name
from harness.places import make_dir, write
from harness.processes import descendants, proc_bytes
from harness.product import DEFAULT_ROOT
from harness.program import source
from harness.waiting import wait_until


@dataclasses.dataclass(frozen=True)
class Passwords:
    """The two passwords of a run."""

    name: str
    login: bytes
    sudo: bytes

    def traces(self):
        """Everything that must be found nowhere: both, their words and lines, as they are and as documents and
        command lines would hold them."""
        found = set()
        for password in (self.login, self.sudo):
            words = [word for word in re.split(rb"\s", password) if len(word) >= 4]
            for text in (password, *words):
                found |= {text, xml.sax.saxutils.escape(text.decode("latin-1")).encode("latin-1"),
                          text.decode("utf-8", "replace").encode(),
                          re.sub(rb"([\t \"#$&'()*;<>?\[\\`|~])", rb"\\\1", text)}
        return found


PASSWORDS = [Passwords("plain", b"CANARY-Login-7261", b"CANARY-Sudo-9152"),
             Passwords("blanks", b" CANARY-one  CANARY-two\tCANARY-three ", b"CANARY-four  CANARY-five\tCANARY-six "),
             Passwords("quotes", b"CANARY'Login\"`x`\\", b"CANARY\"Sudo'$(x)\\"),
             Passwords("formats", b"CANARY%1%Login%s%n%%", b"CANARY%2%Sudo%s%n%|1$x|"),
             Passwords("lines", b"CANARY-Login-1\nCANARY-Login-2", b"CANARY-Sudo-1\nCANARY-Sudo-2"),
             Passwords("markup", b"CANARY<login>&amp;]]>", b"<!--CANARY&sudo;'\">"),
             Passwords("bytes", b"CANARY\xff\xfe\x80Login", b"\x80CANARY\xc3Sudo\xff"),
             Passwords("long", b"CANARY-Login".ljust(4095, b"l"), b"CANARY-Sudo".ljust(4095, b"s"))]

# Permits everything, like a sudo that asks, that does not ask, or that is not content; careless with what it reads.
SUDO = """#!/bin/sh
[ "$1" = -S ] || exit 0
shift 3
if [ {kind} != "not asked" ] ; then
  IFS= read -r line
  printf 'sudo: %s is what I have read\\n' "$line" >&2
fi
[ {kind} != wrong ] || exit 1
exec "$@"
"""
KINDS = ("none", "asked", "not asked", "wrong")


class Source:
    """A source host that takes every password and notes what it sees of the program, and what stands in all files
    below `places`, when it runs a command and when that has ended."""

    def __init__(self, start_scripted, directory, kind, places):
        tools = make_dir(directory / "bin")
        write(tools / "sudo", SUDO.format(kind=f"'{kind}'"), 0o755)
        self.seen = {}
        self._places = places
        self._environment = {"PATH": f"{tools}:/usr/bin:/bin"}
        self._pid = None
        self._server = start_scripted(run=self._run)
        self.port = self._server.port

    def watch(self, pid):
        """The program to look at."""
        self._pid = pid

    def _run(self, command):
        wait_until(lambda: self._pid, "the program's number")
        number = len(self._server.commands())
        self.seen[f"command {number}"] = command.command
        self._look(f"when command {number} came")
        done = subprocess.run(["/bin/sh", "-c", command.command], input=command.read_input(), env=self._environment,
                              cwd="/", capture_output=True, check=False)
        command.out(done.stdout)
        command.err(done.stderr)
        # The program waits for the status and cannot go on.
        self._look(f"when command {number} had ended")
        command.exit(done.returncode)

    def _look(self, when):
        for pid in (self._pid, *descendants(self._pid)):
            for name in ("environ", "cmdline", "comm", "status"):
                self.seen[f"/proc/{pid}/{name} {when}"] = proc_bytes(pid, name)
        for name, content in files_below(*self._places).items():
            self.seen[f"{name} {when}"] = content


# What the agent of the tests notes of its own input. A dumper that is to transfer the content itself gets the password
# of the login there; one that runs under a sudo that does not ask gets that for sudo.
GIVEN_ON_PURPOSE = re.compile(r"/\.agent/calls/\d+/stdin(\.part)?$")


def files_below(*directories):
    """The content of every file that is there at the moment."""
    found = {}
    for top, _, names in itertools.chain.from_iterable(map(os.walk, directories)):
        for name in names:
            path = os.path.join(top, name)
            with contextlib.suppress(FileNotFoundError):  # renamed or removed just now
                if not GIVEN_ON_PURPOSE.search(path):
                    found[path] = pathlib.Path(path).read_bytes()
    return found


def with_temporary_files_in(directory):
    """A command in front of the program, for which alone `directory` is /tmp and /var/tmp."""
    return ["unshare", "--mount", "--propagation", "unchanged", "sh", "-e", "-c",
            f'mount --bind {directory} /tmp; mount --bind {directory} /var/tmp; exec "$@"', "sh"]


def cases():
    """Every action with every kind of sudo, the passwords in turn; and all passwords with some actions."""
    turn = itertools.cycle(PASSWORDS)
    every = [(action, kind, next(turn)) for action in ACTIONS for kind in KINDS]
    some = [(action, kind, passwords) for action, kind in
            (("--send-scout", "asked"), ("--dump-all", "not asked"), ("--get-content", "wrong"))
            for passwords in PASSWORDS]
    return [pytest.param(*case, id=f"{case[0][2:]}-{case[1]}-{case[2].name}")
            for case in dict.fromkeys(every + some)]


@pytest.mark.parametrize("action, kind, passwords", cases())
def test_passwords_turn_up_nowhere(tallowick_release, product, workspace, start_scripted, action, kind, passwords):
    actions = EveryAction(tallowick_release, product, workspace / "agent")
    session = tallowick_release.new_session()
    temporary = make_dir(workspace / "tmp", 0o1777)
    places = (session.path, actions.agent.directory, temporary, DEFAULT_ROOT)
    host = Source(start_scripted, workspace, kind, places)
    options = ["--verbose", *(["--sudo-password"] if kind != "none" else []),
               *(["--content-transport=rsync"] if action.startswith("--dump") else [])]
    # Its own path may lie below /tmp.
    tallowick_release.binary = shutil.copy(tallowick_release.binary, workspace / "tallowick")
    running = actions.start(action, host.port, *options, session=session, password=os.fsdecode(passwords.login),
                            sudo_password=os.fsdecode(passwords.sudo), prefix=with_temporary_files_in(temporary))
    host.watch(running.pid)
    run = running.wait()
    if kind == "wrong" and action not in ("--remove-agent", "--remove-dumping-status"):
        assert (run.status, run.session.succeeded(result_name(action))) == (2, "error")
    seen = {"standard output": run.stdout, "standard error": run.stderr, **host.seen,
            **files_below(*places)}
    for where, content in seen.items():
        for trace in passwords.traces():
            assert trace not in content, f"{trace[:40]} stands in {where}"
    if action != "--remove-dumping-status":
        assert f"{session.path}/migration.log when command 1 came" in seen
        environments = [content for where, content in seen.items() if "/environ" in where]
        assert environments and not [each for each in environments if re.search(rb"OVN_\w*PASSWORD=[^\0]", each)]


@pytest.mark.parametrize("signal_number", [signal.SIGABRT, signal.SIGSEGV, signal.SIGQUIT])
def test_run_that_dies_leaves_no_core_dump(tallowick_release, workspace, signal_number):
    reader, writer = os.pipe()
    # The caller permits core dumps. The run waits for its standard input.
    running = tallowick_release.start(
        "--dump-selected", *source(1), "--agent-dir=/a", "--agent-name=a", "--domains=-", stdin=reader, cwd=workspace,
        group=4711, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY,) * 2))
    wait_until(lambda: "Tallowick started" in running.session.log, "the start of the run")
    limits = proc_bytes(running.pid, "limits").decode()
    assert re.search(r"^Max core file size +0 +0 +bytes", limits, re.MULTILINE)
    # The files of a process that leaves no dump belong to root, whatever its group is.
    assert os.stat(f"/proc/{running.pid}/environ").st_gid == 0
    running.popen.send_signal(signal_number)
    ended = os.waitid(os.P_PID, running.pid, os.WEXITED | os.WNOWAIT)
    assert ended.si_code == os.CLD_KILLED
    running.wait(statuses={-signal_number})
    os.close(reader)
    os.close(writer)
    assert [path.name for path in workspace.rglob("*core*")] == []
