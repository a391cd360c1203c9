# SPDX-License-Identifier: Apache-2.0
"""The whole log of some runs, line by line with level and category, against the files in golden/.

`TALLOWICK_WRITE_GOLDEN=1` writes those files anew; look at the difference before you keep it.
"""

import dataclasses
import os
import pathlib
import re
import resource
import socket

import pytest

from harness.accounts import OWNER
from harness.agents import (NAME, PERL_STATUS_AGENT, AgentCatalogue, ContentFile, DeployedAgent,
                            content_list)
from harness.isolation import without_account
from harness.places import make_dir, write
from harness.probe import execute, get, put
from harness.product import configure
from harness.program import source
from harness.relay import FIN, Fault
from harness.session import parse_log
from harness.sshd import ALSO_OLD_KEY_EXCHANGE, KEYBOARD_INTERACTIVE, free_port

GOLDEN = pathlib.Path(__file__).parent / "golden"

# What differs from run to run or from library to library.
PATTERNS = [
    (re.compile(r"\b[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-8[0-9a-f]{3}-[0-9a-f]{12}\0"), "{id}"),
    (re.compile(r"\baes\d+-(ctr|cbc)\b"), "{cipher}"),
    (re.compile(r"(?<=SSH session was not started: ).+"), "{library}"),
    (re.compile(r"(?<=/migration\.(?:status|result))\w{6}(?=:)"), "{six}"),
    (re.compile(r"(\[\./[\w.-]+):\d+\]\n[^\n]*\b\w+\([^\n]*(\n|$)"), r"\1:{line}]\n{function}\2"),
]


def normalised(records, replacements):
    """The records as the golden files have them."""
    text = "".join(f"{record.level} {record.category}: {record.text}\n" for record in records)
    # Longer values first: one may be part of another.
    for value, name in sorted(((str(value), name) for name, value in replacements.items()),
                              key=lambda pair: -len(pair[0])):
        # Whole words only: a port's digits may occur in a sum.
        text = re.sub(rf"(?<!\w){re.escape(value)}(?!\w)", lambda _, name=name: "{" + name + "}", text)
    for pattern, replacement in PATTERNS:
        text = pattern.sub(replacement, text)
    return text


def compare(name, records, **replacements):
    """Compares records with a golden file."""
    file = GOLDEN / f"{name}.log"
    text = normalised(records, replacements)
    if os.environ.get("TALLOWICK_WRITE_GOLDEN"):
        file.write_text(text, encoding="utf-8")
    assert text.splitlines() == file.read_text(encoding="utf-8").splitlines()


def compare_run(name, run, **replacements):
    compare(name, run.session.records, program=run.command[0], session=run.session.path, **replacements)


def test_scout(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    compare_run("send-scout", run, port=server.port)


def test_failing_scout_through_sudo(tallowick, start_sshd, workspace):
    tools = make_dir(workspace / "bin")
    write(tools / "sudo", '#!/bin/sh\ncase "$*" in *perl) printf "oh dear" >&2; exit 3 ;; esac\n', 0o755)
    server = start_sshd(path=f"{tools}:/usr/bin:/bin")
    run = tallowick.run("--send-scout", "--sudo-password", *source(server, OWNER), password=OWNER.password,
                        sudo_password="a sudo Password")
    compare_run("sudo", run, port=server.port)


def test_dumping_status(tallowick, server, outbox):
    write(outbox / "dumping-status.xml", "<status/>")
    run = tallowick.run("--get-dumping-status", *source(server), f"--agent-dir={outbox}", "--agent-name=SomeAgent")
    compare_run("get-dumping-status", run, port=server.port, agent=outbox)


def test_compatibility_mode_and_keyboard_interactive(tallowick, start_sshd, start_relay):
    server = start_sshd((*KEYBOARD_INTERACTIVE, *ALSO_OLD_KEY_EXCHANGE))
    relay = start_relay(server, Fault(FIN, 0, connection=0))
    run = tallowick.run("--send-scout", *source(relay))
    compare_run("compatibility", run, port=relay.port)


def test_wrong_password(tallowick, server):
    run = tallowick.run("--send-scout", *source(server), password="wrong-Password-5")
    compare_run("wrong-password", run, port=server.port)


def test_refused_connection(tallowick):
    port = free_port()
    run = tallowick.run("--get-dumping-status", *source(port), "--agent-dir=/some/agent", "--agent-name=SomeAgent")
    compare_run("refused-connection", run, port=port, agent="/some/agent")


def test_unknown_host(tallowick):
    with pytest.raises(socket.gaierror) as error:
        socket.getaddrinfo("nowhere.invalid", "22")
    run = tallowick.run("--send-scout", "--host=nowhere.invalid", "--login=mover")
    compare_run("unknown-host", run, resolver=error.value.strerror)


def test_validation_error(tallowick):
    compare_run("validation-error", tallowick.run("--send-scout"))


def test_malformed_host_configuration_without_the_panels_account(tallowick, product, workspace):
    configure("# a comment\nPRODUCT_ROOT_D=/opt/p\nDUMP_TMP_D\nPRODUCT_ROOT_D /usr/local/ovn\n")
    run = tallowick.run("--remove-dumping-status", password=None, prefix=without_account("ovnadm", workspace))
    assert run.status == 2
    program = next(word for word in map(str, run.command) if word.endswith("/tallowick"))
    compare("host-configuration", run.session.records, program=program, session=run.session.path)


def test_missing_host_configuration(tallowick, product):
    configure(None)
    run = tallowick.run("--remove-dumping-status", password=None)
    assert run.status == 0
    compare_run("no-host-configuration", run)


def test_run_without_a_reported_exit_code(tallowick_release, server):
    # Descriptors run out at socket(), as in the test of that failure; how many are open before is searched for.
    runs = (tallowick_release.run("--send-scout", *source(server), preexec_fn=lambda most=limit: resource.setrlimit(
        resource.RLIMIT_NOFILE, (most, most))) for limit in range(4, 16))
    run = next(run for run in runs if run.err.startswith("Uncaught std::exception: socket: ") and run.session.log)
    compare_run("plain-exception", run, port=server.port)


def deploy(tallowick, server, agent_dir):
    return tallowick.run("--deploy-agent", *source(server), f"--agent-dir={agent_dir}", f"--agent-name={NAME}")


# The order in which a directory is listed is the file system's: none of these holds more than one thing to be told.
def test_deployment(tallowick, product, server, outbox):
    catalogue = AgentCatalogue(product)
    catalogue.install_shared({"lib/Common.pm": "1;\n"})
    catalogue.install(files={"run.pl": PERL_STATUS_AGENT}, Description="Some hosting panel", EntryPoint="run.pl",
                      DocumentType="dump", Stylesheet="dump.xsl")
    run = deploy(tallowick, server, outbox)
    assert run.status == 0
    compare_run("deploy-agent", run, port=server.port, agent=outbox, agents=catalogue.directory)


def test_deployment_with_a_bad_spec_file_and_things_that_are_skipped(tallowick, product, server, outbox):
    catalogue = AgentCatalogue(product)
    os.mkfifo(catalogue.install_shared() / "pipe")
    (catalogue.install(spec="EntryPoint: run.pl\nno colon\n") / "loop").symlink_to(".")
    run = deploy(tallowick, server, outbox)
    assert run.status == 2
    compare_run("deploy-agent-bad-spec", run, port=server.port, agent=outbox, agents=catalogue.directory)


def test_deployment_without_a_spec_file(tallowick, product, server, outbox):
    catalogue = AgentCatalogue(product)
    catalogue.install_shared()
    (catalogue.install(EntryPoint="run.pl") / "control" / "spec").unlink()
    run = deploy(tallowick, server, outbox)
    assert run.status == 2
    compare_run("deploy-agent-no-spec", run, port=server.port, agent=outbox, agents=catalogue.directory)


def test_every_operation_of_the_connection(probe, server, workspace, outbox):
    local = write(workspace / "local", "some text")
    run = probe.run(server, execute("cat", stdin=local, loud=True), execute("echo oops >&2", loud=True),
                    put(local, outbox / "remote"), get(local, outbox / "remote"), options=["--no-encryption"])
    assert run.statuses == [0, 0, 0, 0]
    # The probe's layout has no date.
    dated = re.sub(r"^(?=(DEBUG|INFO|ERROR) k\.)", "2000-01-01 00:00:00,000 ", run.log.decode(), flags=re.MULTILINE)
    compare("probe", parse_log(dated), port=server.port, local=local, remote=outbox / "remote")


def test_content(tallowick, start_sshd, product, workspace):
    tools = make_dir(workspace / "bin")
    # The real one writes its message in pieces, of which each might become a line.
    write(tools / "rm", '#!/bin/sh\ncase $1 in *locked*) printf "rm: not that one\\n" >&2; exit 1 ;; esac\n', 0o755)
    server = start_sshd(path=f"{tools}:/usr/bin:/bin")
    agent = DeployedAgent(product, workspace / "agent")
    entries = agent.offer({"site.tar": b"some archive", "mail/two words.tar": b"damaged", "locked/file": b""})
    damaged = dataclasses.replace(entries[1], md5="0123456789abcdef" * 2)
    agent.answer(list=content_list([entries[0], damaged, entries[2], ContentFile("gone")]))
    run = tallowick.run("--get-content", *source(server), *agent.options)
    assert run.status == 2
    compare_run("get-content", run, port=server.port, agent=agent.directory, agents=AgentCatalogue(product).directory)


def test_dump(tallowick, product, server, outbox):
    agent = DeployedAgent(product, outbox / "agent")
    agent.on("dump", "print qq(one domain dumped\\n);")
    run = tallowick.run("--dump-selected", *source(server), *agent.options, "--domains=one.example",
                        "--content-transport=rsync", "--no-content")
    assert run.status == 0
    compare_run("dump-selected", run, port=server.port, agent=agent.directory,
                agents=AgentCatalogue(product).directory)


def test_dump_with_a_dumper_that_fails(tallowick, product, server, outbox):
    agent = DeployedAgent(product, outbox / "agent")
    agent.fail("dump", "oh dear\n", 3)
    run = tallowick.run("--dump-all", *source(server), *agent.options)
    assert run.status == 2
    compare_run("dump-all-failed", run, port=server.port, agent=agent.directory,
                agents=AgentCatalogue(product).directory)


def test_verbose_run_shows_the_same_on_the_console(tallowick, server):
    run = tallowick.run("--send-scout", *source(server), "--verbose")
    expected = "".join(f"{record.level} {record.category}: {record.text}\n" for record in run.session.records)
    assert run.err == expected
