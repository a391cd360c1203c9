# SPDX-License-Identifier: Apache-2.0
"""Two hosts in one sandbox: the destination is the sandbox itself, the source a second network with an sshd of its own."""

import os
import pathlib
import subprocess

from harness.accounts import MOVER
from harness.places import make_dir, write
from harness.tcp import greets
from harness.waiting import wait_until

BASE = pathlib.Path("/run/bench")
_NETWORK = pathlib.Path("/run/netns/source")
PORT = 22
ROUND_TRIPS = (0, 10, 50)  # milliseconds

# Debian's own, apart from where things lie.
_SSHD = """\
ListenAddress 0.0.0.0
HostKey {keys}/host_ecdsa
HostKey {keys}/host_ed25519
KbdInteractiveAuthentication no
UsePAM yes
X11Forwarding yes
PrintMotd no
AcceptEnv LANG LC_*
Subsystem sftp /usr/lib/openssh/sftp-server
PidFile none
"""


# The kernel's own, whatever this machine has made of them. Apart from the first: a connection is not to start with
# what an earlier one has learnt.
_SETTINGS = ["net.ipv4.tcp_no_metrics_save=1", "net.ipv4.tcp_rmem=4096 131072 6291456",
             "net.ipv4.tcp_wmem=4096 16384 4194304"]
_CONTROL = "net.ipv4.tcp_congestion_control"


class NotPermitted(Exception):
    """This machine does not let us make the network."""


def address(rtt):
    """The address of the source host at the end of the link with that round trip."""
    return f"10.77.{rtt}.2"


class Hosts:
    """The network and the source host's sshd; both end with the sandbox."""

    def __init__(self, binaries):
        self._binaries = binaries
        self._children = []
        make_dir(BASE)
        self._make_network()
        self._start_sshd()

    def _make_network(self):
        try:
            _ip("netns", "add", _NETWORK.name)
            _ip("link", "add", "near0", "type", "veth", "peer", "name", "far0", "netns", _NETWORK.name)
        except subprocess.CalledProcessError as error:
            raise NotPermitted(f"a second network and a link to it: {error.stderr.strip()}") from error
        for rtt in ROUND_TRIPS[1:]:
            self._start_relay(rtt)
        for network, names, end in ((None, "near{}", 1), (_NETWORK.name, "far{}", 2)):
            _ip("link", "set", "lo", "up", network=network)
            for rtt in ROUND_TRIPS:
                _ip("address", "add", f"10.77.{rtt}.{end}/24", "dev", names.format(rtt), network=network)
                _ip("link", "set", names.format(rtt), "up", "txqueuelen", "10000", network=network)
        for prefix in ([], _inside()):
            subprocess.run([*prefix, "sysctl", "-qw", *_SETTINGS], check=True)
            # Not every kernel gives its usual one to a network like this.
            subprocess.run([*prefix, "sh", "-c", " || ".join(f"sysctl -qw {_CONTROL}={name}" for name in ("cubic", "reno"))],
                           check=True, capture_output=True)

    def _start_relay(self, rtt):
        relay = subprocess.Popen(
            [self._binaries / "relay", str(rtt * 500), f"near{rtt}", f"far{rtt}", _NETWORK],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if relay.stdout.readline() != "ready\n":
            raise NotPermitted(f"TUN devices: {relay.communicate()[1].strip()}")
        self._children.append(relay)

    def _start_sshd(self):
        keys = make_dir(BASE / "sshd")
        for kind in ("ecdsa", "ed25519"):
            subprocess.run(["ssh-keygen", "-q", "-N", "", "-t", kind, "-f", keys / f"host_{kind}"], check=True)
        public = (keys / "host_ed25519.pub").read_text().split()[:2]
        write(BASE / "known_hosts", "".join(f"{address(rtt)} {' '.join(public)}\n" for rtt in ROUND_TRIPS))
        config = write(keys / "config", _SSHD.format(keys=keys))
        self._children.append(subprocess.Popen([*_inside(), "/usr/sbin/sshd", "-D", "-f", config, "-E", keys / "log"],
                                               stdin=subprocess.DEVNULL))
        for rtt in ROUND_TRIPS:
            wait_until(lambda there=address(rtt): greets(there, PORT), f"sshd at {address(rtt)}")

    @staticmethod
    def congestion_control():
        """The kernel's name of it."""
        return subprocess.run(["sysctl", "-n", _CONTROL], check=True, capture_output=True, text=True).stdout.strip()

    def stop(self):
        """Ends what was started."""
        for child in reversed(self._children):
            child.kill()
            child.wait()


def _inside():
    return ["nsenter", f"--net={_NETWORK}"]


def _ip(*words, network=None):
    prefix = ["-n", network] if network else []
    subprocess.run(["ip", *prefix, *words], check=True, stdin=subprocess.DEVNULL, capture_output=True, text=True)


def give_to_login(path):
    """Makes `path` and all below it the login user's."""
    os.chown(path, MOVER.uid, MOVER.gid)
    for directory, directories, files in os.walk(path):
        for name in (*directories, *files):
            os.chown(os.path.join(directory, name), MOVER.uid, MOVER.gid)
