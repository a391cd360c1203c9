# SPDX-License-Identifier: Apache-2.0
"""tools/tallowick-preflight on source hosts where something is amiss, over SSH and by hand."""

import contextlib
import os
import pathlib
import shlex
import shutil
import subprocess

import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OWNER, PLAIN
from harness.disks import full_disk_at
from harness.dropbear import Dropbear
from harness.places import BASE, SOURCE_ROOT, make_dir, remove_tree, write
from harness.program import source
from harness.sshd import KEYBOARD_INTERACTIVE, PASSWORD, PUBLIC_KEY, SshServer

SCRIPT = SOURCE_ROOT / "tools" / "tallowick-preflight"
ROOT = ACCOUNTS["root"]
SHELLS = ("dash", "bash --posix", "busybox sh")
HANGS_AFTER_S = 60
SYSTEM_PATH = "/usr/local/bin:/usr/bin:/bin"

# What is told of a server; only root is told the last, even where others can read its files.
OF_SERVER = {"methods", "host-keys", "key-exchange", "ciphers", "macs", "max-sessions", "max-startups",
             "forced-command"}


class Findings:
    """What one run printed, as (state, check, text)."""

    def __init__(self, ended):
        lines = ended.stdout.decode("utf-8", "replace").splitlines()
        self.text = ended.stdout.decode("utf-8", "replace") + ended.stderr.decode("utf-8", "replace")
        self.status = ended.returncode
        self.stderr = ended.stderr
        self.lines = [tuple(line.split(maxsplit=2)) for line in lines
                      if line.startswith(("ok ", "warning ", "problem ", "unknown "))]
        self.summary = [line for line in lines if line.startswith("summary: ")]

    def of(self, check):
        """The one line of a check."""
        found = [(state, text) for state, name, text in self.lines if name == check]
        assert len(found) == 1, f"{check}: {found}\n{self.text}"
        return found[0]

    def state(self, check):
        return self.of(check)[0]

    def checks(self, state):
        """The names of the checks that came to `state`."""
        return {name for each, name, _ in self.lines if each == state}


@pytest.fixture(scope="module")
def key():
    """A key with which every login comes in, however passwords are treated."""
    directory = make_dir(BASE / "preflight-key")
    subprocess.run(["ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", directory / "key"], check=True,
                   stdin=subprocess.DEVNULL)
    os.chmod(directory / "key.pub", 0o644)
    yield directory / "key"
    remove_tree(directory)


def keys_of(key):
    return f"AuthorizedKeysFile {key}.pub"


@pytest.fixture(scope="module")
def plain_server(key):
    """A server with nothing amiss."""
    server = SshServer(BASE / "preflight-server", (*PASSWORD, keys_of(key)), record=False)
    yield server
    server.stop()


@pytest.fixture
def preflight(key):
    """Sends the script to a server and runs it there."""
    def run(server, account=MOVER, *arguments, shell="sh"):
        ended = subprocess.run(
            ["ssh", "-F", "/dev/null", "-i", key, "-p", str(server.port), "-l", account.login,
             "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR",
             "-o", "HostKeyAlgorithms=+ssh-rsa", "-o", "BatchMode=yes", "127.0.0.1", f"{shell} -s", *arguments],
            input=SCRIPT.read_bytes(), capture_output=True, timeout=HANGS_AFTER_S, check=False)
        return Findings(ended)

    return run


@pytest.fixture
def started(preflight, start_sshd, key):
    """The findings on a server with further lines of configuration."""
    def run(*config, account=MOVER, arguments=(), **options):
        server = start_sshd((*config, keys_of(key), *PASSWORD), **{"record": False, **options})
        return preflight(server, account, *arguments)

    return run


def as_login(account):
    return [shutil.which("setpriv"), f"--reuid={account.uid}", f"--regid={account.gid}", "--clear-groups"]


def by_hand(account, *arguments, terminal=False, missing=None, **environment):
    """The findings of a run that no SSH server has started: on a terminal of its own if it is to have one, on a host
    without the program `missing`."""
    command = [*as_login(account), "sh", str(SCRIPT), *arguments]
    if missing:
        command = [*without_program(missing), *command]
    ended = subprocess.run(
        ["script", "-qec", shlex.join(command), "/dev/null"] if terminal else command,
        stdin=subprocess.DEVNULL, capture_output=True, timeout=HANGS_AFTER_S, check=False,
        env={"PATH": SYSTEM_PATH, "HOME": str(account.home), **environment})
    return Findings(ended)


def without_program(path):
    return ["unshare", "--mount", "--propagation", "unchanged", "sh", "-e", "-c",
            f'mount --bind /dev/null {path}; exec "$@"', "sh"]


@contextlib.contextmanager
def changed(path, change):
    """A file whose text is `change` of what it was, with its owner and mode, for the time of the scope. Runs of other
    tests go on beside it, as the login MOVER: what is changed must be nothing of theirs, and never half there."""
    path = pathlib.Path(path)
    before, stat = (path.read_bytes(), path.stat()) if path.exists() else (None, None)
    text = change("" if before is None else before.decode())
    mode = 0o644 if stat is None else stat.st_mode & 0o7777
    replace(path, text, mode)
    try:
        yield path
    finally:
        if before is None:
            path.unlink()
        else:
            replace(path, before, mode)


def replace(path, content, mode):
    os.replace(write(path.with_name(f"{path.name}.new"), content, mode), path)


def tools_without(directory, *missing):
    """A PATH of one directory, with what the source host of a migration needs but for `missing`."""
    make_dir(directory)
    for name in {"sh", "bash", "cat", "rm", "mkdir", "chown", "true", "perl", "sudo", "env"} - set(missing):
        (directory / name).symlink_to(shutil.which(name))
    return directory


# ---- A host with nothing amiss ----

@pytest.mark.parametrize("shell", SHELLS)
def test_login_is_told_what_it_can_see_under_every_shell(preflight, plain_server, workspace, shell):
    agent_dir = workspace / "outbox"
    findings = preflight(plain_server, MOVER, str(agent_dir), shell=shell)
    assert findings.stderr == b""
    assert findings.checks("problem") == set()
    assert findings.checks("warning") == {"agent-dir"}
    assert findings.checks("unknown") == {"sudo", "forced-command"}
    assert findings.of("key-exchange") == ("ok", "curve25519-sha256")
    assert findings.of("host-keys")[0] == "ok"
    assert findings.status == 1


def test_root_is_told_everything_and_nothing_is_wrong(preflight, plain_server, outbox):
    findings = preflight(plain_server, ROOT, str(outbox))
    assert findings.checks("ok") >= {"session", "tools", "perl", "login-shell", "login-noise", "sudo", "password",
                                     "sshd", *OF_SERVER, "agent-dir", "agent-space", "temp-space"}
    assert findings.checks("problem") | findings.checks("warning") | findings.checks("unknown") == set()
    assert findings.summary == [f"summary: problems: 0, warnings: 0, unknown: 0, ok: {len(findings.lines)}"]
    assert findings.status == 0


def test_host_that_is_found_in_order_is_one_that_the_program_works_with(tallowick_release, plain_server):
    assert tallowick_release.run("--send-scout", *source(plain_server)).status == 0


def test_nothing_is_changed(preflight, plain_server, outbox):
    def everything():
        places = [MOVER.home, outbox, pathlib.Path("/etc"), pathlib.Path("/var/lib/sudo"), pathlib.Path("/run/sudo")]
        return {str(file): (file.lstat().st_mtime_ns, file.lstat().st_size)
                for place in places if place.exists() for file in [place, *place.rglob("*")]}

    before = everything()
    preflight(plain_server, MOVER, str(outbox / "agent"))
    assert everything() == before


def test_help_and_wrong_words():
    for words, status, stream in (["--help"], 0, "stdout"), (["--verbose"], 3, "stderr"), (["/a", "/b"], 3, "stderr"):
        ended = subprocess.run(["sh", SCRIPT, *words], capture_output=True, text=True, check=False)
        assert ended.returncode == status
        assert getattr(ended, stream).startswith("usage: tallowick-preflight [AGENT-DIRECTORY]\n")
        assert "The exit status is 2 if there is a problem" in getattr(ended, stream)


# ---- By hand, and where little can be seen ----

def test_login_without_root_and_without_an_answering_server_knows_nothing_of_it(workspace):
    findings = by_hand(MOVER)
    assert findings.state("sshd") == "unknown"
    assert findings.checks("unknown") >= OF_SERVER - {"max-sessions", "max-startups"}
    assert findings.checks("unknown") >= {"session", "agent-dir"}


def test_limits_are_unknown_where_the_configuration_cannot_be_read(preflight, start_sshd, key):
    server = start_sshd((*PASSWORD, keys_of(key)), record=False)
    os.chmod(server.directory / "sshd_config", 0o600)
    assert {"max-sessions", "max-startups"} <= preflight(server).checks("unknown")


def test_limits_are_unknown_where_they_hold_under_a_condition():
    with changed("/etc/ssh/sshd_config.d/more.conf", lambda text: "Match User mover\nMaxSessions 1\n"):
        assert by_hand(MOVER).state("max-sessions") == "unknown"
        assert by_hand(MOVER).state("max-startups") == "ok"


def test_limits_are_read_from_included_files():
    with changed("/etc/ssh/sshd_config.d/more.conf", lambda text: "MaxSessions 1\n"):
        assert by_hand(MOVER).state("max-sessions") == "warning"


def test_two_values_of_a_limit_leave_it_unknown():
    with changed("/etc/ssh/sshd_config", lambda text: f"MaxStartups 1\nMaxStartups 10\n{text}"):
        assert by_hand(MOVER).state("max-startups") == "unknown"


def test_root_sees_when_the_configuration_is_broken(preflight, start_sshd, key):
    server = start_sshd((*PASSWORD, keys_of(key)), record=False)
    write(server.directory / "sshd_config", "Prot 2\n")
    findings = preflight(server, ROOT)
    state, text = findings.of("sshd")
    assert (state, "option: Prot" in text) == ("warning", True)
    assert findings.checks("unknown") >= OF_SERVER


@pytest.mark.parametrize("account, program, checks", [
    (MOVER, "/usr/bin/ssh", OF_SERVER - {"max-sessions", "max-startups"}), (ROOT, "/usr/sbin/sshd", OF_SERVER),
    (MOVER, "/usr/bin/passwd", {"password"}), (ROOT, "/bin/df", {"agent-space", "temp-space"})],
    ids=lambda value: value if isinstance(value, str) else "")
def test_what_cannot_be_asked_is_unknown(account, program, checks):
    assert by_hand(account, "/srv/agent", missing=program).checks("unknown") >= checks


def test_root_through_sudo_tells_about_the_login_that_calls_it():
    findings = by_hand(ROOT, SUDO_USER="mover")
    assert findings.state("sudo") == "ok"
    assert findings.state("methods") == "ok"    # as it is not for root, by default
    assert findings.checks("unknown") == {"login-shell", "agent-dir"}
    assert by_hand(ROOT, SUDO_USER="plain").state("sudo") == "problem"
    assert by_hand(ROOT, SUDO_USER="ovnadm").state("password") == "problem"
    with changed("/etc/ssh/sshd_config", lambda text: f"{text}\nMatch User mover\nMaxSessions 1\n"):
        assert by_hand(ROOT, SUDO_USER="mover").state("max-sessions") == "warning"
        assert by_hand(ROOT, SUDO_USER="owner").state("max-sessions") == "ok"


# ---- Tools ----

@pytest.mark.parametrize("tool", ["cat", "rm", "mkdir", "chown"])
def test_missing_tool_is_a_problem_even_where_the_shell_has_its_own(preflight, start_sshd, key, workspace, tool):
    path = f"{tools_without(workspace / 'bin', tool)}"
    server = start_sshd((*PASSWORD, keys_of(key)), path=path)
    state, text = preflight(server).of("tools")
    assert (state, f"({path}): {tool};" in text) == ("problem", True)


def test_missing_perl_is_a_problem(preflight, start_sshd, key, workspace):
    server = start_sshd((*PASSWORD, keys_of(key)), path=str(tools_without(workspace / "bin", "perl")))
    findings = preflight(server)
    assert findings.state("perl") == "problem"
    assert findings.state("tools") == "ok"
    assert findings.status == 2


@pytest.mark.parametrize("fake, state", [("exit 1", "problem"), ('[ "${2#use}" = "$2" ] && echo 5.8.0', "warning")],
                         ids=["broken", "without its modules"])
def test_perl_that_cannot_do_what_agents_need(workspace, fake, state):
    tools = tools_without(workspace / "bin", "perl")
    write(tools / "perl", f"#!/bin/sh\n{fake}\n", 0o755)
    assert by_hand(MOVER, PATH=str(tools)).state("perl") == state


# ---- The login shell ----

@pytest.mark.parametrize("line, state", [
    ("echo Welcome", "problem"), ("echo", "problem"), ("echo Welcome >&2", "warning"),
    ("[ -z \"$PS1\" ] || echo Welcome", "ok")],
    ids=["standard output", "an empty line", "standard error", "interactive shells only"])
def test_noise_of_the_login_shell(preflight, plain_server, line, state):
    with changed(PLAIN.home / ".bashrc", lambda text: f"{line}\n"):
        assert preflight(plain_server, PLAIN).state("login-noise") == state
        assert by_hand(PLAIN).state("login-noise") == state


def test_noise_is_shown_as_plain_text(preflight, plain_server):
    with changed(PLAIN.home / ".bashrc", lambda text: "printf '\\033[31mRed\\n\\302\\233two\\n'\n"):
        findings = preflight(plain_server, PLAIN)
    assert findings.of("login-noise")[1].endswith(": ?[31mRed ??two ")


def test_file_that_the_server_runs_before_each_command_is_a_warning(preflight, plain_server):
    make_dir(PLAIN.home / ".ssh")
    try:
        write(PLAIN.home / ".ssh/rc", "")
        findings = preflight(plain_server, PLAIN)
        assert ("warning", "login-noise") in [line[:2] for line in findings.lines]
    finally:
        remove_tree(PLAIN.home / ".ssh")


@pytest.mark.parametrize("shell, state", [
    ("/bin/rbash", "problem"), ("/usr/sbin/nologin", "problem"), ("/bin/dash", "ok")])
def test_login_shell_must_run_commands_as_they_are(shell, state):
    def change(text):
        return "\n".join(":".join([*line.split(":")[:6], shell]) if line.startswith("plain:") else line
                         for line in text.splitlines()) + "\n"

    with changed("/etc/passwd", change):
        assert by_hand(PLAIN).state("login-shell") == state


# ---- sudo ----

@pytest.mark.parametrize("account, password, state", [
    (OWNER, None, "unknown"), (MOVER, None, "unknown"), (PLAIN, None, "unknown"), (NOPASS, None, "warning"),
    (OWNER, OWNER.sudo_password, "ok"), (MOVER, MOVER.sudo_password, "ok"), (MOVER, MOVER.password, "problem"),
    (PLAIN, PLAIN.password, "problem"), (ROOT, None, "ok")],
    ids=["own", "root's", "none", "free", "own given", "root's given", "wrong given", "none given", "root"])
def test_sudo_of_each_kind_of_login(account, password, state):
    given = {} if password is None else {"OVN_SUDO_PASSWORD": password}
    findings = by_hand(account, **given)
    assert findings.state("sudo") == state
    assert password is None or password not in findings.text


def test_sudo_that_asks_for_nothing_tells_what_to_set(preflight, plain_server):
    assert "OVN_SUDO_PASSWORD=)" in preflight(plain_server, NOPASS).of("sudo")[1]


def test_sudo_that_wants_a_terminal_is_a_problem(preflight, plain_server):
    with changed("/etc/sudoers", lambda text: text + "Defaults:nopass requiretty\n"):
        state, text = preflight(plain_server, NOPASS).of("sudo")
        assert (state, "!requiretty" in text) == ("problem", True)
        assert preflight(plain_server, OWNER).state("sudo") == "unknown"


def test_terminal_of_the_caller_does_not_hide_that_sudo_wants_one():
    with changed("/etc/sudoers", lambda text: text + "Defaults:nopass requiretty\n"):
        assert by_hand(NOPASS, terminal=True).state("sudo") == "problem"


def test_remembered_password_of_sudo_is_neither_used_nor_forgotten(preflight, plain_server):
    with changed("/etc/sudoers", lambda text: text + "Defaults:owner timestamp_type=global, !use_pty\n"):
        sudo = [*as_login(OWNER), "sudo"]
        subprocess.run([*sudo, "-S", "-p", "", "true"], input=OWNER.password + "\n", text=True, check=True)
        assert preflight(plain_server, OWNER).state("sudo") == "unknown"
        assert subprocess.run([*sudo, "-n", "true"], check=False, stdin=subprocess.DEVNULL).returncode == 0


def test_host_without_sudo_and_sudo_that_is_broken(workspace):
    tools = tools_without(workspace / "bin", "sudo")
    assert by_hand(MOVER, PATH=str(tools)).state("sudo") == "warning"
    assert by_hand(ROOT, PATH=str(tools)).state("sudo") == "ok"
    write(tools / "sudo", "#!/bin/sh\nexit 1\n", 0o755)
    assert by_hand(MOVER, PATH=str(tools)).state("sudo") == "problem"
    write(tools / "sudo", "#!/bin/sh\n[ $1 = -V ] || { echo 'sudo: unable to change to root gid'; exit 1; }\n", 0o755)
    state, text = by_hand(MOVER, PATH=str(tools)).of("sudo")
    assert (state, text.endswith("unable to change to root gid")) == ("problem", True)


@pytest.mark.parametrize("account, password", [(PLAIN, "*"), (ROOT, "!"), (PLAIN, "")])
def test_login_whose_password_nobody_can_give(account, password):
    def change(text):
        return "\n".join(":".join([account.login, password, *line.split(":")[2:]])
                         if line.startswith(account.login + ":") else line for line in text.splitlines()) + "\n"

    assert by_hand(account).state("password") == "ok"
    with changed("/etc/shadow", change):
        assert by_hand(account).state("password") == "problem"


# ---- The SSH server: for root by its configuration, for others by what it offers ----

BOTH = pytest.mark.parametrize("account", [MOVER, ROOT], ids=["login", "root"])


@BOTH
@pytest.mark.parametrize("config, state", [
    (PUBLIC_KEY, "problem"), (("AuthenticationMethods publickey publickey,password", *PASSWORD), "problem"),
    (("AuthenticationMethods publickey password", *PASSWORD), "ok"), (KEYBOARD_INTERACTIVE, "ok"),
    (("KbdInteractiveAuthentication yes", "PasswordAuthentication no", "UsePAM no"), "problem")],
    ids=["public key only", "password after a key", "password or key", "keyboard-interactive", "nobody asks"])
def test_methods(started, config, state, account):
    assert started(*config, account=account).state("methods") == state


def test_root_without_password_is_a_problem(started):
    assert started("PermitRootLogin prohibit-password", account=ROOT).state("methods") == "problem"
    assert started("PermitRootLogin prohibit-password").state("methods") == "ok"


@pytest.mark.parametrize("account", [PLAIN, ROOT], ids=["login", "root"])
def test_methods_of_a_server_without_a_configuration_are_those_that_it_offers(preflight, workspace, key, account):
    keys = make_dir(account.home / ".ssh")
    server = Dropbear(workspace / "dropbear", "ecdsa")
    try:
        os.chown(keys, account.uid, account.gid)
        keys.chmod(0o700)
        shutil.copy(f"{key}.pub", keys / "authorized_keys")
        os.chown(keys / "authorized_keys", account.uid, account.gid)
        assert preflight(server, account).of("methods") == ("ok", "password")
    finally:
        server.stop()
        shutil.rmtree(keys)


@BOTH
def test_rsa_host_key_alone_is_a_problem(started, account):
    assert started(account=account, host_keys=("rsa",)).state("host-keys") == "problem"


@BOTH
def test_rsa_host_key_for_old_signatures_will_do(started, account):
    findings = started("HostKeyAlgorithms +ssh-rsa", account=account, host_keys=("rsa",))
    assert findings.of("host-keys") == ("ok", "ssh-rsa")


def test_host_key_is_known_without_its_public_half(preflight, start_sshd, key):
    server = start_sshd((*PASSWORD, keys_of(key)), record=False, host_keys=("ed25519",))
    (server.directory / "host_ed25519.pub").unlink()
    assert preflight(server, ROOT).of("host-keys") == ("ok", "ssh-ed25519")


@BOTH
def test_server_without_any_algorithm_in_common(started, account):
    findings = started("KexAlgorithms sntrup761x25519-sha512@openssh.com", "Ciphers aes256-gcm@openssh.com",
                       "MACs hmac-sha2-256-etm@openssh.com", account=account)
    assert findings.checks("problem") == {"key-exchange", "ciphers", "macs"}
    assert findings.of("macs")[1].endswith("; offered: hmac-sha2-256-etm@openssh.com")


@BOTH
@pytest.mark.parametrize("line, check, state", [
    ("MaxSessions 0", "max-sessions", "problem"), ("maxsessions = 1", "max-sessions", "warning"),
    ("MaxSessions=2", "max-sessions", "ok"), ("# MaxSessions 0", "max-sessions", "ok"),
    ("MaxStartups 1", "max-startups", "warning"), ("MaxStartups 1:30:5", "max-startups", "warning"),
    ("MaxStartups 10:30:100", "max-startups", "ok")])
def test_limits(line, check, state, account):
    with changed("/etc/ssh/sshd_config", lambda text: f"{line}\n{text}"):
        assert by_hand(account).state(check) == state


def test_condition_on_the_login_is_seen_by_root(started):
    findings = started("Match User root\nMaxSessions 1\nForceCommand /bin/sh -s\nMatch all", account=ROOT)
    assert findings.state("max-sessions") == "warning"
    assert findings.of("forced-command")[0] == "warning"


def test_login_that_is_shut_in_a_directory_is_a_warning():
    with changed("/etc/ssh/sshd_config", lambda text: f"ChrootDirectory /srv\n{text}"):
        assert by_hand(ROOT).state("forced-command") == "warning"


# ---- Space ----

def disk(directory, *options):
    make_dir(directory)
    subprocess.run(["mount", "-t", "tmpfs", "-o", ",".join(("mode=777", *options)), "tmpfs", directory], check=True)
    return directory


@pytest.mark.parametrize("options, state", [
    (["size=2g"], "ok"), (["size=1000m"], "warning"), (["size=15m"], "problem"),
    (["size=2g", "nr_inodes=500"], "warning"), (["size=2g", "nr_inodes=8"], "problem")],
    ids=["enough", "little space", "no space", "few inodes", "no inodes"])
def test_space_for_the_agent(workspace, options, state):
    directory = disk(workspace / "disk", *options)
    try:
        findings = by_hand(MOVER, f"{directory}/not/there/yet")
        assert findings.of("agent-dir")[0] == "ok"
        assert findings.state("agent-space") == state
    finally:
        subprocess.run(["umount", directory], check=True)


def test_full_disk_is_a_problem(workspace):
    with full_disk_at(workspace / "file", workspace / "full"):
        assert by_hand(ROOT, str(workspace / "full")).state("agent-space") == "problem"


@pytest.mark.parametrize("options, state", [
    (["size=100m"], "ok"), (["size=60m"], "warning"), (["size=500k"], "problem")])
def test_space_for_temporary_files(workspace, options, state):
    directory = disk(workspace / "tmp", *options)
    try:
        findings = by_hand(MOVER, TMPDIR=str(directory))
        assert [line[0] for line in findings.lines if line[1] == "temp-space" and str(directory) in line[2]] == [state]
    finally:
        subprocess.run(["umount", directory], check=True)


def test_temporary_directory_that_cannot_be_written_is_a_warning(workspace):
    findings = by_hand(MOVER, TMPDIR=str(workspace))
    assert [line[0] for line in findings.lines if line[1] == "temp-space" and str(workspace) in line[2]] == ["warning"]


@pytest.mark.parametrize("directory, state", [
    ("agent", "problem"), ("/srv/two words", "problem"), ("/srv/{a,b}", "problem"), ("/srv/$HOME", "problem"),
    ("/etc/passwd", "problem"), ("/etc/passwd/agent", "problem"), ("/srv/agent", "warning")])
def test_agent_directory_that_will_not_do(directory, state):
    assert by_hand(MOVER, directory).state("agent-dir") == state


def test_agent_directory_with_something_in_it_is_a_warning(outbox):
    assert by_hand(MOVER, str(outbox)).state("agent-dir") == "ok"
    write(outbox / "file", "")
    assert by_hand(MOVER, str(outbox)).state("agent-dir") == "warning"
