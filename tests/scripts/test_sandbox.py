# SPDX-License-Identifier: Apache-2.0
"""scripts/sandbox gives its command a world of its own and leaves nothing of it behind."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import time
import uuid

import pytest

PATIENCE_S = 30


@pytest.fixture
def sandbox(top):
    """Starts scripts/sandbox with the given words; `inside` is the environment it gets."""
    def start(*words, **options):
        return subprocess.Popen([top / "scripts/sandbox", *words], stdin=subprocess.DEVNULL, text=True, **options)

    return start


@pytest.fixture
def shell(top):
    """Runs a shell text in a sandbox and returns the ended process."""
    def run(text, *words, **options):
        return subprocess.run([top / "scripts/sandbox", "bash", "-c", text, "bash", *words], text=True,
                              capture_output=True, check=False, stdin=subprocess.DEVNULL, **options)

    return run


def processes_with(mark):
    """The ids of the processes that have `mark` in their command line."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        with contextlib.suppress(OSError):
            if entry.name.isdigit() and mark.encode() in (entry / "cmdline").read_bytes():
                found.append(int(entry.name))
    return found


def wait_until(condition):
    end = time.monotonic() + PATIENCE_S
    while not condition():
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.02)


def machine():
    """What the sandbox might touch of the machine."""
    names = ("passwd", "shadow", "group", "gshadow", "sudoers", "hosts", "nsswitch.conf", "pam.d/sudo", "pam.d/sshd")
    files = [pathlib.Path("/etc", name) for name in names]
    return {
        "files": [file.read_bytes() if file.exists() else None for file in files],
        "directories": [sorted(os.listdir(name)) for name in ("/etc", "/run", "/usr/local", "/var/log", "/var/lib")],
        "mounts": pathlib.Path("/proc/self/mountinfo").read_text(),
        "host": os.uname().nodename,
    }


@pytest.mark.parametrize("status", [0, 1, 18, 125, 255])
def test_the_status_of_the_command_passes_through(shell, status):
    assert shell(f"exit {status}").returncode == status


def test_the_status_of_a_killed_command_is_128_plus_the_signal(shell):
    assert shell("kill -KILL $$").returncode == 128 + signal.SIGKILL


def test_a_command_that_does_not_exist_is_127(sandbox):
    assert sandbox("/nowhere", stderr=subprocess.DEVNULL).wait() == 127


def test_without_a_command_the_status_is_125(sandbox):
    assert sandbox(stderr=subprocess.DEVNULL).wait() == 125


def test_without_root_the_status_is_125_with_a_reason(top):
    ended = subprocess.run(["setpriv", "--reuid", "65534", "--clear-groups", "bash", "-c",
                            (top / "scripts/sandbox").read_text(), str(top / "scripts/sandbox"), "true"],
                           capture_output=True, text=True, check=False)
    assert ended.returncode == 125
    assert "only root" in ended.stderr


def test_words_arrive_as_they_are(shell):
    words = ["a b", "", "$HOME", "--", "*", "ü\n"]
    assert shell('printf "<%s>" "$@"', *words).stdout == "".join(f"<{word}>" for word in words)


def test_input_and_output_pass_through(top):
    data = os.urandom(300_000)
    ended = subprocess.run([top / "scripts/sandbox", "cat"], input=data, capture_output=True, check=False)
    assert ended.stdout == data
    assert ended.stderr == b""


def test_interrupts_are_not_ignored_inside(shell):
    ignored = int(shell("grep SigIgn /proc/self/status").stdout.split()[1], 16)
    assert not ignored & (1 << (signal.SIGINT - 1) | 1 << (signal.SIGQUIT - 1))


def test_the_machine_is_left_as_it_was(shell):
    before = machine()
    ended = shell("""
        set -e
        echo root:x:0:0::/:/bin/false >/etc/passwd
        rm -r /etc/sudoers /etc/ssh
        echo "PRODUCT_ROOT_D /run/p" >/etc/ovn/ovn.conf
        mkdir -p /usr/local/ovn/DVX /run/left /var/log/left /var/lib/sudo/left
        : >/usr/local/left
        echo left >/var/log/wtmp
        hostname left
        mount -t tmpfs left /mnt
    """)
    assert (ended.returncode, ended.stderr) == (0, "")
    assert machine() == before


def test_accounts_and_product_directories_are_there(shell):
    ended = shell("""
        id ovnadm; id -un; echo "$HOME"; getent passwd mover
        ls -A /etc/ovn /usr/local/ovn | wc -w
        stat -c '%U %a' ~mover
    """)
    assert ended.stdout.splitlines()[0].startswith("uid=931(ovnadm) gid=932(ovnadm)")
    assert ended.stdout.splitlines()[1:] == [
        "root", "/run/tallowick/home/root", "mover:x:4711:4711::/run/tallowick/home/mover:/bin/bash", "2", "mover 700"]


def test_what_else_is_in_usr_local_stays_visible(shell):
    assert set(os.listdir("/usr/local")) <= set(shell("ls -A /usr/local").stdout.split())


@pytest.mark.parametrize("login, password, status", [
    ("mover", "root-Sudo-0815", 0),
    ("mover", "mover-Login-4711", 1),
    ("owner", "owner-Pass-2233", 0),
    ("owner", "root-Sudo-0815", 1),
    ("spacey", "spacey pass word 6677", 0),
    ("plain", "plain-Pass-5566", 1),
    ("nopass", "anything", 0),
])
def test_sudo_asks_each_login_as_its_account_says(shell, login, password, status):
    ended = shell('su "$1" -c "sudo -k; sudo -S -p \'\' id -u" <<<"$2"', login, password)
    assert ended.returncode == status
    assert ended.stdout == ("0\n" if status == 0 else "")


def test_sudo_without_a_rule_refuses(shell):
    assert "not in the sudoers file" in shell('su plain -c "sudo -S -p \'\' true" <<<plain-Pass-5566').stderr


def test_the_sudoers_file_is_sound(shell):
    assert shell("visudo -c -q").returncode == 0


def test_every_loopback_address_works_and_nothing_else_is_reachable(shell):
    ended = shell("""/usr/bin/python3 - <<'END'
import socket
for address in ("127.0.0.1", "127.99.88.77", "::1"):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with socket.create_server((address, 0), family=family) as server:
        socket.create_connection(server.getsockname()[:2]).close()
try:
    socket.create_connection(("192.0.2.1", 22))
except OSError as error:
    print(error.strerror)
try:
    socket.getaddrinfo("host.invalid", 22)
except socket.gaierror as error:
    print(error.strerror)
END""")
    assert (ended.stdout, ended.stderr) == ("Network is unreachable\nName or service not known\n", "")


def test_sandboxes_side_by_side_do_not_see_each_other(sandbox):
    text = """
        set -e
        test ! -e /etc/ovn/mine
        echo "$1" >/etc/ovn/mine
        echo "$1" >/usr/local/ovn/mine
        hostname "host-$1"
        /usr/bin/python3 -c 'import socket, time; s = socket.create_server(("127.0.0.1", 22)); time.sleep(1)'
        test "$(cat /etc/ovn/mine /usr/local/ovn/mine | uniq)" = "$1"
        test "$(hostname)" = "host-$1"
    """
    started = [sandbox("bash", "-c", text, "bash", str(number)) for number in range(6)]
    assert [each.wait(PATIENCE_S) for each in started] == [0] * 6


def test_a_sandbox_works_inside_a_sandbox(shell, top):
    assert shell('"$1" bash -c "id -u mover; exit 5"', top / "scripts/sandbox").returncode == 5


@pytest.mark.parametrize("number, status", [
    (signal.SIGTERM, 143), (signal.SIGINT, 130), (signal.SIGHUP, 129), (signal.SIGKILL, -9)])
def test_a_signal_to_the_script_ends_everything_inside(sandbox, number, status):
    mark = str(uuid.uuid4())
    before = machine()
    text = 'trap "" TERM INT HUP; (setsid bash -c "sleep 1000; :" "$1" &) ; bash -c "sleep 1000; :" "$1"; :'
    started = sandbox("bash", "-c", text, "bash", mark)
    # The script, unshare, the first process inside, the command and its two children.
    wait_until(lambda: len(processes_with(mark)) >= 6)
    started.send_signal(number)
    assert started.wait(PATIENCE_S) == status
    wait_until(lambda: not processes_with(mark))
    assert machine() == before


def test_a_daemon_ends_with_the_command(shell):
    mark = str(uuid.uuid4())
    assert shell('setsid bash -c "sleep 1000; :" "$1" >/dev/null 2>&1 & sleep 0.2', mark).returncode == 0
    wait_until(lambda: not processes_with(mark))


def test_it_works_with_a_terminal(top):
    ended = subprocess.run(["script", "-q", "-e", "-c", f"{top}/scripts/sandbox bash -c 'tty; exit 3'", "/dev/null"],
                           capture_output=True, text=True, check=False, stdin=subprocess.DEVNULL)
    assert ended.returncode == 3
    assert ended.stdout.startswith("/dev/")


# A directory with the machine's programs in it; as the root of a chroot it is no mount point, and the mount
# below it is shared with other namespaces, as on a machine that systemd has started.
CHROOT = """
    set -e
    base=$1 tree=$2 proc=$3 root=$1/root
    "$tree/tests/sandbox/private-mounts"
    mount --bind "$base" "$base"
    mount --make-shared "$base"
    mkdir -p "$root"/{usr,var/log,var/lib/sudo,dev,proc,tmp,run,root,tree}
    cp -a /etc "$root/etc"
    for link in bin sbin lib lib32 lib64 libx32; do
        [ ! -L "/$link" ] || cp -a "/$link" "$root"
    done
    for name in usr dev; do mount --rbind "/$name" "$root/$name"; done
    mount --bind "$tree" "$root/tree"
    [ "$proc" = no ] || mount -t proc proc "$root/proc"
    before=$(cat /proc/self/mountinfo)
    chroot "$root" /tree/scripts/sandbox bash -c \
        'id -un 4711; mount -t tmpfs x /root; echo ready >&8; read -r line' <"$base/in" 8>"$base/out" &
    exec 9>"$base/in"
    read -r line <"$base/out"
    test "$before" = "$(cat /proc/self/mountinfo)"
    echo >&9
    wait $!
    test "$before" = "$(cat /proc/self/mountinfo)"
"""


@pytest.mark.parametrize("proc", ["yes", "no"])
def test_it_works_in_a_chroot_that_is_no_mount_point(top, tmp_path, proc):
    for name in ("in", "out"):
        os.mkfifo(tmp_path / name)
    ended = subprocess.run(["unshare", "--mount", "--propagation", "unchanged", "bash", "-c", CHROOT, "bash",
                            tmp_path, top, proc], capture_output=True, text=True, check=False)
    shutil.rmtree(tmp_path)
    assert (ended.stdout, ended.stderr, ended.returncode) == ("mover\n", "", 0)
