# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the tests of the example agent: places, sample servers, deployed agents. No network, no sandbox."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

import pytest

from sample import LOGIN, TOP, Agent

# Ignored by whoever started the tests in the background, it would be so in everything that they start.
signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture(scope="session")
def servers():
    """Makes sample servers; two tests that ask for the same size get the same one and must not change it."""
    with tempfile.TemporaryDirectory() as place:
        os.chmod(place, 0o755)
        made = {}

        def make(domains, mib=1):
            if (domains, mib) not in made:
                directory = pathlib.Path(place, f"{domains}-{mib}")
                subprocess.run([TOP / "tests/sandbox/make-source", directory, f"--domains={domains}", f"--mib={mib}"],
                               check=True)
                made[domains, mib] = directory
            return made[domains, mib]

        yield make


@pytest.fixture
def place():
    """A directory that other accounts can enter as well."""
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)
        yield pathlib.Path(directory)


@pytest.fixture
def deploy(place):
    """Deploys the agent as the login user would have it, for the server in the given directory."""
    def make(server):
        agent = Agent(place / "agent", server)
        if os.geteuid() == 0:
            for entry in [agent.directory, *agent.directory.rglob("*")]:
                os.chown(entry, LOGIN, LOGIN)
        return agent

    return make


@pytest.fixture
def agent(servers, deploy):
    """An agent for a server of seven domains, the least that has every kind of owner."""
    return deploy(servers(7))


@pytest.fixture
def small_agent(place, deploy):
    """An agent for a server of one empty site, in `place`/server, that the test may change."""
    server = place / "server"
    (server / "site").mkdir(parents=True)
    (server / "hosting.conf").write_text("[domain one.example]\nid 1\nsite site\n")
    yield deploy(server)
    shutil.rmtree(server)


@pytest.fixture
def root():
    assert os.geteuid() == 0, "this test changes owners and accounts; run it as root"
