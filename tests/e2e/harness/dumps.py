# SPDX-License-Identifier: Apache-2.0
"""What the tests of dumps have in common: how one is run, and how one that went well or failed is known."""

import os

from harness.accounts import MOVER
from harness.agents import DUMP
from harness.program import source
from harness.session import shape

FAILED = "Error during dump retrieval"
DUMPER_FAILED = "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: {}"
IDLE = ("migration-status", {}, "", [("idle", {}, "", [])])
MASK = "********"


def dumping(tallowick, server, agent):
    """A function that runs a dump, of selected objects unless `action` says otherwise."""
    def run(*options, action="--dump-selected", to=server, account=MOVER, **more):
        more.setdefault("password", account.password)
        return tallowick.run(action, *source(to, account), *agent.options, *options, **more)

    return run


def assert_dumped(run, content=DUMP):
    """The run has fetched the dump and says so in every way it has."""
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    assert run.session.file("dump.xml").read_bytes() == content
    assert run.session.file("dump-name").read_bytes() == os.fsencode(f"{run.session.path}/dump.xml")
    assert run.session.succeeded() == "success"
    assert shape(run.session.status) == IDLE
    assert not temporary_names(run.session)


def assert_failed(run, inner, description=None):
    """The run has failed for the reason `inner`, and what it has not received it does not show."""
    assert (run.status, run.err, run.stdout) == (2, FAILED, b"")
    error = run.session.error()
    assert (error.code, error.description, error.inner.code) == ("CantRetrieveDump", FAILED, inner)
    if description is not None:
        assert error.inner.description == description
    assert error.inner.inner is None
    assert run.session.succeeded() == "error"
    assert shape(run.session.status) == IDLE
    assert not run.session.file("dump-name").exists()
    assert not temporary_names(run.session)


def temporary_names(session):
    return [name for name in session.names() if name.startswith(".incoming-")]


def one_call(agent):
    """The only call of the agent."""
    calls = agent.calls()
    assert len(calls) == 1
    return calls[0]
