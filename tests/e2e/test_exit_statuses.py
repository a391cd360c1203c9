# SPDX-License-Identifier: Apache-2.0
"""Every exit status that the program knows is the end of a real run."""

import re

import pytest

from harness import network
from harness.places import SOURCE_ROOT
from harness.program import source


def success(program, server, **_):
    return program.run("--send-scout", *source(server))


def wrong_options(program, **_):
    return program.run("--send-scout")


def scout_that_fails(program, product, server, **_):
    product.set_scout("exit 3;")
    return program.run("--send-scout", *source(server))


def nobody_listens(program, **_):
    return program.run("--send-scout", *source(1))


def nobody_answers(program, **_):
    with network.sysctl("net.ipv4.tcp_syn_retries", 1), network.port_that_never_answers() as port:
        return program.run("--send-scout", *source(port))


def no_route_to_the_network(program, **_):
    return program.run("--send-scout", *source(22, host=network.NO_ROUTE))


def no_route_to_the_host(program, **_):
    with network.route("unreachable", network.UNREACHABLE_HOST) as host:
        return program.run("--send-scout", *source(22, host=host))


def prohibited(program, **_):
    with network.route("prohibit", network.PROHIBITED) as host:
        return program.run("--send-scout", *source(22, host=host))


def unknown_host(program, **_):
    return program.run("--send-scout", *source(22, host="nowhere.invalid"))


def wrong_password(program, server, **_):
    return program.run("--send-scout", *source(server), password="wrong-Password")


def lost_connection(program, start_scripted, **_):
    def run(command):
        # A connection that is lost while the script is sent ends the run otherwise.
        command.read_input()
        command.drop()

    return program.run("--send-scout", *source(start_scripted(run=run)))


# The name of each status in the program, and a run that ends with it.
STATUSES = {"kExitSuccess": success, "kExitUsage": wrong_options, "kExitFailure": scout_that_fails,
            "kExitConnectionRefused": nobody_listens, "kExitConnectionTimedOut": nobody_answers,
            "kExitNetworkUnreachable": no_route_to_the_network, "kExitHostUnreachable": no_route_to_the_host,
            "kExitConnectionFault": prohibited, "kExitHostNotFound": unknown_host,
            "kExitInvalidCredentials": wrong_password, "kExitLostConnection": lost_connection}


def known_statuses():
    text = (SOURCE_ROOT / "src" / "tallowick" / "exit_status.h").read_text(encoding="utf-8")
    return {name: int(number) for name, number in re.findall(r"^ +(kExit\w+) = (\d+),", text, re.MULTILINE)}


def test_table_names_every_status():
    assert set(STATUSES) == set(known_statuses())
    assert set(known_statuses().values()) == {0, 1, 2, *range(11, 19)}


@pytest.mark.parametrize("name, run", STATUSES.items(), ids=STATUSES.keys())
def test_status_is_the_end_of_a_run(tallowick_release, product, server, start_scripted, name, run):
    ended = run(program=tallowick_release, product=product, server=server, start_scripted=start_scripted)
    assert ended.status == known_statuses()[name]
    assert f"Tallowick finished. Exit code: {ended.status}\n" in ended.session.log
