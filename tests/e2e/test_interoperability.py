# SPDX-License-Identifier: Apache-2.0
"""SSH servers of several makes and ages, with each type of host key: login, scout, and content of several sizes."""

import re
import subprocess

import paramiko
import pytest

from harness.agents import NAME, AgentCatalogue
from harness.content import fetched_files, get_content, remote_files
from harness.dropbear import Dropbear
from harness.product import SMALL_REPORT
from harness.program import source
from harness.relay import FIN, Fault
from harness.scripted import ScriptedServer
from harness.source_host import Behaviour, SourceHost
from harness.sshd import PASSWORD

CONTENTS = {"empty": b"", "one byte": b"x", "sub/border": b"b" * 65536, "sub/odd": bytes(range(256)) * 300 + b"!",
            "large": bytes(range(251)) * 8000}

# As far as today's sshd still has them.
OLD_ALGORITHMS = ("KexAlgorithms diffie-hellman-group1-sha1", "MACs hmac-sha1", "HostKeyAlgorithms ssh-rsa", *PASSWORD)
SHA1_RSA_KEYS = ("HostKeyAlgorithms +ssh-rsa", *PASSWORD)
NOTHING_IN_COMMON = re.compile("The server and this program's SSH library have no .* method in common. "
                               "A server that has an RSA host key only is such a case: .*")


def send_scout(tallowick, server):
    """Sends the scout, which arrives; returns the name of the cipher."""
    run = tallowick.run("--send-scout", *source(server))
    assert (run.status, run.stderr) == (0, b"")
    assert run.session.scout_result == SMALL_REPORT
    return re.search("Selected (.*) encryption method", run.session.log)[1]


def fetch_all(tallowick, server, agent):
    """Fetches all of the content, which then is here and nowhere else."""
    agent.offer(CONTENTS)
    run = get_content(tallowick, server, agent)
    assert (run.status, run.stderr) == (0, b"")
    assert fetched_files(run.session) == CONTENTS
    assert remote_files(agent) == {}


@pytest.mark.parametrize("host_key", ["ecdsa", "ed25519"])
def test_openssh_with_its_defaults(tallowick, start_sshd, agent, host_key):
    server = start_sshd(PASSWORD, host_keys=(host_key,), record=False)
    send_scout(tallowick, server)
    fetch_all(tallowick, server, agent)


def test_openssh_with_an_rsa_host_key_in_its_old_form(tallowick, start_sshd, agent):
    server = start_sshd(SHA1_RSA_KEYS, host_keys=("rsa",), record=False)
    send_scout(tallowick, server)
    fetch_all(tallowick, server, agent)


@pytest.mark.parametrize("cipher", ["aes128-cbc", "aes192-cbc", "aes256-cbc", "3des-cbc"])
def test_openssh_with_old_algorithms_only(tallowick, start_sshd, agent, cipher):
    server = start_sshd((f"Ciphers {cipher}", *OLD_ALGORITHMS), host_keys=("rsa",), record=False)
    assert send_scout(tallowick, server) == cipher
    fetch_all(tallowick, server, agent)


def test_openssh_with_an_rsa_host_key_only_is_beyond_the_library_and_the_log_says_so(tallowick, start_sshd):
    server = start_sshd(PASSWORD, host_keys=("rsa",))
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 2
    error = run.session.error()
    text = "Unable to start SSH session: Unable to exchange encryption keys"
    assert (error.code, error.description, run.err) == ("UnableToStartSshSession", text, text)
    told = [record for record in run.session.records if NOTHING_IN_COMMON.fullmatch(record.text)]
    assert [(record.level, record.category) for record in told] == [("ERROR", "k.libssh2pp.Session")]


def test_key_exchange_that_ends_otherwise_is_not_blamed_on_the_algorithms(tallowick, start_sshd, start_relay):
    server = start_sshd(("KexAlgorithms curve25519-sha256", *PASSWORD))
    run = tallowick.run("--send-scout", *source(start_relay(server, Fault(FIN, 0, connection=0))))
    assert run.session.error().code == "UnableToStartSshSession"
    assert "method in common" not in run.session.log


@pytest.fixture
def start_dropbear(workspace):
    servers = []

    def start(host_key):
        servers.append(Dropbear(workspace / "dropbear", host_key))
        return servers[-1]

    yield start
    for each in servers:
        each.stop()


@pytest.mark.parametrize("host_key", ["ecdsa", "ed25519", "rsa"])
def test_dropbear(tallowick, start_dropbear, agent, host_key):
    server = start_dropbear(host_key)
    send_scout(tallowick, server)
    fetch_all(tallowick, server, agent)


def paramiko_key(kind, workspace):
    if kind == "ecdsa":
        return paramiko.ECDSAKey.generate()
    if kind == "rsa":
        return paramiko.RSAKey.generate(2048)
    # Paramiko reads keys of this type and makes none.
    file = workspace / "host_ed25519"
    subprocess.run(["ssh-keygen", "-q", "-N", "", "-t", "ed25519", "-f", str(file)], check=True,
                   stdin=subprocess.DEVNULL)
    return paramiko.Ed25519Key(filename=str(file))


@pytest.mark.parametrize("host_key", ["ecdsa", "ed25519", "rsa"])
def test_python_server(tallowick, product, workspace, host_key):
    AgentCatalogue(product).install(NAME, EntryPoint="run.pl")
    host = SourceHost(CONTENTS)
    behaviour = Behaviour()
    behaviour.script.host_keys = [paramiko_key(host_key, workspace)]
    with ScriptedServer(host.script(behaviour)) as server:
        send_scout(tallowick, server)
        run = tallowick.run("--get-content", *source(server), "--agent-dir=/srv/agent", f"--agent-name={NAME}")
    assert (run.status, run.stderr) == (0, b"")
    assert fetched_files(run.session) == CONTENTS
    assert host.files == {}
