# SPDX-License-Identifier: Apache-2.0
"""The command lines of the program, of the floor, and of what a user would pick instead."""

import os
import shlex

from harness.accounts import MOVER, OVNADM
from harness.places import SOURCE_ROOT, write
from harness.session import parse_log
from hosts import BASE, PORT, address
from source import AGENT, AGENT_DIR, CONTENT_DIR

_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
ENVIRONMENT = {"PATH": _PATH, "HOME": "/root", "TZ": "UTC", "LC_ALL": "C.UTF-8",
               "OVN_PASSWORD": MOVER.password, "SSHPASS": MOVER.password,
               "LOG_PROPERTIES": str(SOURCE_ROOT / "conf" / "log4cpp.properties")}

_SSH_OPTIONS = ["-o", f"UserKnownHostsFile={BASE}/known_hosts", "-o", "HostKeyAlgorithms=ssh-ed25519"]
SOCKET = str(BASE / "master")


def tallowick(binary, action, rtt, session, *options):
    """A run of the program with its session directory."""
    return [binary, f"--{action}", f"--host={address(rtt)}", f"--port={PORT}", f"--login={MOVER.login}",
            f"--agent-dir={AGENT_DIR}", f"--agent-name={AGENT}", f"--session-path={session}", *options]


def floor(binary, rtt, plan, *options):
    """A run of the floor."""
    return [binary, f"--host={address(rtt)}", f"--port={PORT}", f"--login={MOVER.login}", *options, plan]


def saves(session):
    """What makes the floor replace a document for each piece, as the program does."""
    return [f"--save={session}/migration.status", f"--owner={OVNADM.uid}:{OVNADM.gid}"]


def shell(line, *arguments):
    """A line for the shell, for what needs a pipe or a redirection."""
    return ["sh", "-ec", line, "sh", *map(str, arguments)]


def ssh(rtt, command, *options, log_in=True):
    """A command on the source host; without `log_in` over the connection of `master`."""
    start = ["sshpass", "-e", "ssh"] if log_in else ["ssh", "-S", SOCKET]
    return [*start, *_SSH_OPTIONS, *options, f"{MOVER.login}@{address(rtt)}", command]


def master(rtt):
    """Keeps a connection for others to share. Not in ssh's own background: when sshpass ends, its terminal does."""
    return ["sshpass", "-e", "ssh", *_SSH_OPTIONS, "-M", "-S", SOCKET, "-N", f"{MOVER.login}@{address(rtt)}"]


def shared(rtt, work):
    """Lines for the shell that open such a connection, do the work and close it."""
    return (f"{shlex.join(master(rtt))} &\nuntil [ -S {SOCKET} ]; do sleep 0.01; done\n{work}\n"
            f"{shlex.join(end_master(rtt))}\nwait\n")


def end_master(rtt):
    """Closes it."""
    return ["ssh", *_SSH_OPTIONS, "-q", "-S", SOCKET, "-O", "exit", f"{MOVER.login}@{address(rtt)}"]


def _remote(rtt, path):
    return f"{MOVER.login}@{address(rtt)}:{path}"


def fetch_one(rtt, target, remote):
    """How one file is fetched, by the names of the peers."""
    local = f"{target}/file"
    ssh_line = shlex.join(["ssh", *_SSH_OPTIONS])
    curl_config = write(BASE / "curl", f'user = "{MOVER.login}:{MOVER.password}"\n', 0o600)
    batch = write(BASE / "sftp-get", f"get {remote} {local}\n")
    cat = shlex.join(ssh(rtt, f"cat {remote}"))
    gcm = shlex.join(ssh(rtt, f"cat {remote}", "-c", "aes128-gcm@openssh.com"))
    return {
        "ssh cat": shell(f"exec {cat} >{local}"),
        "ssh cat, aes128-gcm": shell(f"exec {gcm} >{local}"),
        "scp": ["sshpass", "-e", "scp", "-q", *_SSH_OPTIONS, _remote(rtt, remote), local],
        "sftp": ["sshpass", "-e", "sftp", "-q", "-o", "BatchMode=no", *_SSH_OPTIONS, "-b", batch,
                 f"{MOVER.login}@{address(rtt)}"],
        "rsync": ["sshpass", "-e", "rsync", "-e", ssh_line, _remote(rtt, remote), local],
        "curl sftp": ["curl", "-sS", "-k", "-K", curl_config, "-o", local, f"sftp://{address(rtt)}{remote}"],
    }


def fetch_many(rtt, target, names):
    """How files of the agent directory are fetched and removed there; `names` as the content list has them."""
    paths = [f"{AGENT_DIR}/{name}" for name in names]
    batch = write(BASE / "sftp-many",
                  "".join(f"get {path} {target}/{os.path.basename(path)}\nrm {path}\n" for path in paths))
    listed = write(BASE / "many", "".join(f"{os.path.basename(path)}\n" for path in paths))
    one = ["ssh", "-S", SOCKET, *_SSH_OPTIONS, f"{MOVER.login}@{address(rtt)}"]
    loop = ("while read -r name; do\n"
            f'    {shlex.join(one)} "cat {CONTENT_DIR}/$name" >"$1/$name" </dev/null\n'
            f'    {shlex.join(one)} "rm {CONTENT_DIR}/$name" </dev/null\ndone <"$2"')
    tar = shlex.join(ssh(rtt, f"cd {CONTENT_DIR} && tar cf - . && rm -rf ./*"))
    copy = shlex.join(["sshpass", "-e", "scp", "-q", "-r", *_SSH_OPTIONS, _remote(rtt, CONTENT_DIR)])
    remove = shlex.join(ssh(rtt, f"rm -rf {CONTENT_DIR}"))
    return {
        "sftp": ["sshpass", "-e", "sftp", "-q", "-o", "BatchMode=no", *_SSH_OPTIONS, "-b", batch,
                 f"{MOVER.login}@{address(rtt)}"],
        "ssh, multiplexed": shell(shared(rtt, loop), target, listed),
        "tar over ssh": shell(f'{tar} | tar xf - -C "$1"', target),
        "scp -r, ssh rm": shell(f'{copy} "$1"; {remove}', target),
        "rsync": ["sshpass", "-e", "rsync", "-a", "--remove-source-files", "-e", shlex.join(["ssh", *_SSH_OPTIONS]),
                  _remote(rtt, f"{CONTENT_DIR}/"), f"{target}/"],
    }


def deploy(rtt, tree):
    """How a tree of scripts gets into the agent directory."""
    one = ["ssh", "-S", SOCKET, *_SSH_OPTIONS, f"{MOVER.login}@{address(rtt)}"]
    loop = (f"cd {tree}\nfind . -type d ! -name control | while read -r name; do\n"
            f'    {shlex.join(one)} "mkdir -p {AGENT_DIR}/$name" </dev/null\ndone\n'
            "find . -type f ! -path './control/*' | while read -r name; do\n"
            f'    {shlex.join(one)} "cat >{AGENT_DIR}/$name" <"$name"\ndone')
    untar = shlex.join(ssh(rtt, f"mkdir -p {AGENT_DIR} && tar xf - -C {AGENT_DIR}"))
    batch = write(BASE / "sftp-put", f"mkdir {AGENT_DIR}\nput -r {tree}/. {AGENT_DIR}\n")
    return {
        "tar over ssh": shell(f"tar cf - -C {tree} --exclude=./control . | {untar}"),
        "rsync": ["sshpass", "-e", "rsync", "-a", "--exclude=/control", "-e", shlex.join(["ssh", *_SSH_OPTIONS]),
                  f"{tree}/", _remote(rtt, AGENT_DIR)],
        "scp -r": ["sshpass", "-e", "scp", "-q", "-r", *_SSH_OPTIONS, tree, _remote(rtt, AGENT_DIR)],
        "sftp": ["sshpass", "-e", "sftp", "-q", "-o", "BatchMode=no", *_SSH_OPTIONS, "-b", batch,
                 f"{MOVER.login}@{address(rtt)}"],
        "ssh, multiplexed": shell(shared(rtt, loop)),
    }


def plan_of(log, target):
    """The commands that a run has sent, by its log, as a plan for the floor, which keeps files below `target`.

    Downloads are of the agent directory and go to the same places below `target`."""
    steps, kind, local = [], "exec", None
    for record in parse_log(log):
        if record.category != "k.Ssh":
            continue
        if record.text.startswith("Reading data from the remote file "):
            path = record.text.removeprefix("Reading data from the remote file ")
            kind, local = "get", f"{target}/{os.path.relpath(path, AGENT_DIR)}"
        elif record.text.startswith("Writing file ") and record.text.endswith(" to the remote host"):
            kind, local = "put", record.text.removeprefix("Writing file ").removesuffix(" to the remote host")
        elif record.text.startswith("Executing ") and record.text.endswith(" on the remote host"):
            command = record.text.removeprefix("Executing ").removesuffix(" on the remote host")
            steps.append("\t".join(filter(None, [kind, command, local])))
            kind, local = "exec", None
    assert steps, "the log tells of no remote command"
    return "\n".join(steps) + "\n"
