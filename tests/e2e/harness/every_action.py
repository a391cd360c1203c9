# SPDX-License-Identifier: Apache-2.0
"""All actions of the program against one deployed agent, for tests of what has to hold for each of them."""

from harness.accounts import MOVER
from harness.agents import AGENT_STATUS, DUMP, AgentCatalogue, DeployedAgent, fill
from harness.places import write
from harness.product import SMALL_REPORT
from harness.program import source

ACTIONS = ("--send-scout", "--deploy-agent", "--get-dumping-status", "--dump-selected", "--dump-all", "--get-content",
           "--remove-agent", "--remove-dumping-status")
CONTENT = {"content/file": b"some content\n" * 2000}
DUMPING_STATUS = b"<dumping-status/>"


class EveryAction:
    """Runs any action with everything it needs in place; `program` is one of the `Program` fixtures."""

    def __init__(self, program, product, directory, owner=MOVER):
        self._program = program
        self._product = product
        self._directory = directory
        self._owner = owner
        self.restore()

    def restore(self):
        """Puts back what runs have taken from the source host."""
        self.agent = DeployedAgent(self._product, self._directory, owner=self._owner)
        entry_point = {"run.pl": self.agent.entry_point.read_bytes()}
        fill(AgentCatalogue(self._product).path(self.agent.name), entry_point)
        fill(AgentCatalogue(self._product).shared, {"lib/Common.pm": "1;"})
        write(self.agent.directory / "dumping-status.xml", DUMPING_STATUS)
        self.agent.offer(CONTENT)

    def arguments(self, action, server):
        """The command line without the session."""
        if action == "--remove-dumping-status":
            return [action]
        agent = [] if action == "--send-scout" else self.agent.options
        return [action, *source(server, self._owner), *agent]

    def start(self, action, server, *options, **run):
        """Starts the action with the owner's password, or without any for the one that has no use for it."""
        run.setdefault("password", None if action == "--remove-dumping-status" else self._owner.password)
        return self._program.start(*self.arguments(action, server), *options, **run)

    def run(self, action, server, *options, **run):
        """The same to its end."""
        return self.start(action, server, *options, **run).wait()


def result_name(action):
    """The name of the action's result document."""
    return "transfer.result" if action == "--get-content" else "migration.result"


def assert_done(action, run):
    """The run says that it has done everything, and has."""
    assert (run.status, run.session.succeeded(result_name(action))) == (0, "success")
    files = {"--send-scout": {"scout-result.xml": SMALL_REPORT},
             "--deploy-agent": {"agent-deployment.status": AGENT_STATUS},
             "--dump-selected": {"dump.xml": DUMP}, "--dump-all": {"dump.xml": DUMP},
             "--get-content": CONTENT}.get(action, {})
    for name, content in files.items():
        assert run.session.file(name).read_bytes() == content
    for name in {"--dump-selected": ["dump-name"], "--dump-all": ["dump-name"],
                 "--get-content": ["dump-name", "migration-result-name"]}.get(action, []):
        assert run.session.file(name).read_bytes()
    if action == "--get-dumping-status":
        assert run.stdout == DUMPING_STATUS


def assert_honest(action, run):
    """Whatever the run's outcome: its result document is whole where there is one, and success is true."""
    name = result_name(action)
    if run.session.file(name).exists():
        assert (run.session.succeeded(name) == "success") == (run.status == 0)
    if run.status == 0:
        assert_done(action, run)
    else:
        assert run.err
