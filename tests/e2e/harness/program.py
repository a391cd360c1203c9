# SPDX-License-Identifier: Apache-2.0
"""Running the program under test."""

import contextlib
import os
import subprocess
import threading
import time
from dataclasses import dataclass

from harness.accounts import MOVER
from harness.processes import finish
from harness.schemas import Documents
from harness.session import Session

DOCUMENTED_STATUSES = {0, 1, 2, 11, 12, 13, 14, 15, 16, 17, 18}

# Generous: nothing that a test starts takes this long unless it hangs.
HANGS_AFTER_S = 60

_SANITIZER_STATUS = 99
_DOCUMENTS = ("migration.result", "migration.status", "transfer.result")
# Nothing is inherited but what the sanitizers' own set-up says.
_SANITIZERS = ("ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS")


def environment(leaks=True, **variables):
    """The environment of a run: fixed, plus `variables` whose value is not None. Without `leaks`, memory that is
    never freed is not looked for."""
    result = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
              "TZ": "UTC", "LC_ALL": "C.UTF-8"}
    for name in _SANITIZERS:
        own = os.environ.get(name, "")
        more = [f"exitcode={_SANITIZER_STATUS}", "print_stacktrace=1", *([] if leaks else ["detect_leaks=0"])]
        result[name] = ":".join(filter(None, [own, *more]))
    result.update({name: value for name, value in variables.items() if value is not None})
    return result


def check_sanitizers(stderr):
    """Fails when a sanitizer has complained; the complaint is in the report of the run."""
    complaints = [line for line in stderr.decode("utf-8", "replace").splitlines()
                  if "Sanitizer: " in line or "runtime error: " in line]
    assert not complaints, "\n".join(complaints)


@dataclass
class Run:
    """One finished run."""

    command: list
    status: int
    stdout: bytes
    stderr: bytes
    seconds: float
    session: Session

    @property
    def err(self):
        return self.stderr.decode("utf-8", "surrogateescape")

    def report(self):
        """Everything that explains this run to a reader of a failed test."""
        parts = [f"$ {' '.join(self.command)}", f"status {self.status} after {self.seconds:.2f} s",
                 f"stdout: {self.stdout[-2000:]!r}", f"stderr: {self.err[-12000:]}",
                 f"session directory: {self.session.names()}"]
        for name in self.session.names():
            if name.startswith(_DOCUMENTS) and self.session.file(name).is_file():
                parts.append(f"--- {name}\n{self.session.file(name).read_text('utf-8', 'replace')}")
        log = self.session.log
        parts.append(f"--- migration.log\n{log[:4000]}{'...' if len(log) > 20000 else ''}{log[4000:][-16000:]}")
        return "\n".join(parts).encode("utf-8", "backslashreplace").decode("utf-8")


class Running:
    """A run that has been started and goes on."""

    def __init__(self, program, command, session, secrets, documents, popen):
        self.command = command
        self.session = session
        self.popen = popen
        self._program = program
        self._secrets = secrets
        self._documents = documents
        self._began = time.monotonic()

    @property
    def pid(self):
        return self.popen.pid

    def wait(self, timeout=HANGS_AFTER_S, stdin=None, statuses=frozenset(DOCUMENTED_STATUSES)):
        """Waits for the end and judges what holds for every run: a documented status, no sanitizer's
        complaint, no password in what the run wrote, every document as its schema has it. `stdin` is given to the
        run's standard input."""
        out, err, hung = finish(self.popen, timeout, stdin)
        run = Run(self.command, self.popen.returncode, out or b"", err or b"",
                  time.monotonic() - self._began, self.session)
        self._program.runs.append(run)
        assert not hung, f"still running after {timeout} s"
        check_sanitizers(run.stderr)
        assert run.status in statuses, f"status {run.status}"
        self._check_secrets(run)
        self._documents.check(succeeded=run.status == 0)
        return run

    def _check_secrets(self, run):
        written = {"standard error": run.stderr}
        for name in self.session.names():
            file = self.session.file(name)
            if name.startswith(("migration.log", *_DOCUMENTS)) and file.is_file():
                with contextlib.suppress(FileNotFoundError):  # another run of the session renames it just now
                    written[name] = file.read_bytes()
        for secret in self._secrets:
            for where, content in written.items():
                assert os.fsencode(secret) not in content, f"a password stands in {where}"


class Program:
    """Starts the program under test; `runs` keeps every finished run for the report of a failed test."""

    def __init__(self, binary, directory):
        self.binary = binary
        self.runs = []
        self._directory = directory
        self._number = 0
        self._lock = threading.Lock()

    def new_session(self):
        """A session directory that does not exist yet."""
        with self._lock:
            self._number += 1
            return Session(self._directory / f"session-{self._number}")

    def start(self, *arguments, session=None, password=MOVER.password, sudo_password=None, stdin=subprocess.DEVNULL,
              stdout=subprocess.PIPE, cwd="/", prefix=(), leaks=True, **popen):
        """Starts a run. `--session-path` is added unless `session` is False; passwords that are None stay out
        of the environment; `prefix` is a command that runs the program; `leaks` as in `environment`."""
        own = session if isinstance(session, Session) else self.new_session()
        paths = [] if session is False else [f"--session-path={own.path}"]
        command = [*prefix, self.binary, *arguments, *paths]
        documents = Documents(command, cwd)
        process = subprocess.Popen(
            command, stdin=stdin, stdout=stdout, stderr=subprocess.PIPE, cwd=cwd,
            env=environment(leaks, OVN_PASSWORD=password, OVN_SUDO_PASSWORD=sudo_password), **popen)
        secrets = [secret for secret in (password, sudo_password) if secret]
        return Running(self, command, own, secrets, documents, process)

    def run(self, *arguments, stdin=b"", timeout=HANGS_AFTER_S, statuses=frozenset(DOCUMENTED_STATUSES), **options):
        """Runs to the end; `stdin` is bytes or a file."""
        if isinstance(stdin, bytes):
            running = self.start(*arguments, stdin=subprocess.PIPE, **options)
            return running.wait(timeout, stdin, statuses)
        return self.start(*arguments, stdin=stdin, **options).wait(timeout, None, statuses)


def source(port, account=MOVER, host="127.0.0.1"):
    """The options that name a source host and a login on it; `port` is a number or a server."""
    return [f"--host={host}", f"--port={getattr(port, 'port', port)}", f"--login={account.login}"]
