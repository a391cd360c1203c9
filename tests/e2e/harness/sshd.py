# SPDX-License-Identifier: Apache-2.0
"""A real OpenSSH server with keys and a configuration of its own."""

import pathlib
import shlex
import socket
import subprocess

from harness.places import make_dir, write
from harness.processes import descendants, kill_tree
from harness.tcp import greets
from harness.waiting import wait_until

_PAM = "auth required pam_unix.so nodelay\naccount required pam_unix.so\nsession required pam_permit.so\n"

# Notes the command line byte for byte, then runs it as sshd would have done. Only what a shell has built in:
# the record must work for every PATH.
_RECORDER = """\
printf '%s\\0' "$SSH_ORIGINAL_COMMAND" >>{record}
command=$SSH_ORIGINAL_COMMAND
unset SSH_ORIGINAL_COMMAND
{environment}
exec "$SHELL" -c "$command"
"""

PASSWORD = ("PasswordAuthentication yes", "KbdInteractiveAuthentication no")
KEYBOARD_INTERACTIVE = ("UsePAM yes", "PasswordAuthentication no", "KbdInteractiveAuthentication yes")
PUBLIC_KEY = ("PasswordAuthentication no", "KbdInteractiveAuthentication no", "PubkeyAuthentication yes")
# Today's servers do not offer by themselves what the compatibility mode asks for.
ALSO_OLD_KEY_EXCHANGE = (*PASSWORD, "KexAlgorithms +diffie-hellman-group1-sha1")
OLD_KEY_EXCHANGE = (*PASSWORD, "KexAlgorithms diffie-hellman-group1-sha1")


def prepare_machine():
    """Lays out, in the sandbox's private directories, what every sshd here needs."""
    make_dir(pathlib.Path("/run/sshd"))
    write(pathlib.Path("/etc/pam.d/sshd"), _PAM)


class SshServer:
    """One sshd; listens as soon as it is constructed, ends with `stop()`.

    `config` are further lines of sshd_config; `path` replaces PATH for remote commands; `shell_lines` are run
    by the recorder before each command. With `record=False` commands run without the recorder in between.
    """

    def __init__(self, directory, config=PASSWORD, *, address="127.0.0.1", port=0, record=True,
                 host_keys=("ed25519", "ecdsa"), path=None, shell_lines=""):
        self.directory = make_dir(pathlib.Path(directory))
        self.address = address
        self.port = port or free_port(address)
        self._record = write(self.directory / "commands", b"", 0o666)
        self._log = self.directory / "sshd.log"
        lines = [
            f"ListenAddress {address}", f"Port {self.port}", "PidFile none", "AuthorizedKeysFile none",
            "UseDNS no", "StrictModes no", "PrintMotd no", "PrintLastLog no", "LogLevel VERBOSE",
            "MaxStartups 1000", "MaxSessions 100", "PermitRootLogin yes", "LoginGraceTime 0",
        ]
        lines += [f"HostKey {self._host_key(kind)}" for kind in host_keys]
        if record:
            lines.append(f"ForceCommand /bin/sh {self._recorder(path, shell_lines)}")
        # sshd takes the first value of an option, so the caller's lines come before the defaults.
        text = "\n".join([*config, *lines, *([] if "UsePAM yes" in config else ["UsePAM no"])]) + "\n"
        file = write(self.directory / "sshd_config", text)
        self._process = subprocess.Popen(
            ["/usr/sbin/sshd", "-D", "-f", str(file), "-E", str(self._log)],
            stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            wait_until(self._answers, f"sshd on port {self.port}\n{self.log()}")
        except AssertionError:
            self.stop()
            raise AssertionError(f"sshd does not answer:\n{self.log()}") from None

    def _host_key(self, kind):
        file = self.directory / f"host_{kind}"
        subprocess.run(["ssh-keygen", "-q", "-N", "", "-t", kind, "-f", str(file)], check=True,
                       stdin=subprocess.DEVNULL)
        return file

    def _recorder(self, path, shell_lines):
        environment = f"PATH={shlex.quote(path)}; export PATH\n" if path else ""
        return write(self.directory / "recorder",
                     _RECORDER.format(record=shlex.quote(str(self._record)), environment=environment + shell_lines))

    def _answers(self):
        if self._process.poll() is not None:
            raise AssertionError("sshd has ended")
        return greets(self.address, self.port)

    def log(self):
        """The server's own log so far."""
        return self._log.read_text(encoding="utf-8", errors="replace") if self._log.exists() else ""

    def commands(self):
        """The command lines that the server was asked to run, in their order, as bytes."""
        return self._record.read_bytes().split(b"\0")[:-1]

    def forget(self):
        """Empties the record of commands and the log (sshd appends to both)."""
        self._record.write_bytes(b"")
        if self._log.exists():
            self._log.write_bytes(b"")

    def pids(self):
        """The processes of the server, of its connections and of what runs on them."""
        return [self._process.pid, *descendants(self._process.pid)]

    def stop(self):
        """Ends the server, its connections and the commands that still run on them."""
        kill_tree(self._process.pid)
        self._process.wait()


def free_port(address="127.0.0.1"):
    """A port on which nobody listens just now; nobody but these tests lives in this network."""
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with socket.socket(family, socket.SOCK_STREAM) as probe:
        probe.bind((address, 0))
        return probe.getsockname()[1]
