# SPDX-License-Identifier: Apache-2.0
"""Logging in: by password, by keyboard-interactive, and every way to be refused."""

import socket

import pytest

from harness.accounts import MOVER, SPACEY
from harness.places import write
from harness.product import SMALL_REPORT
from harness.program import source
from harness.relay import FIN, RST
from harness.sshd import KEYBOARD_INTERACTIVE, PASSWORD, PUBLIC_KEY

REFUSED = "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"


def session_log(run):
    return [(record.level, record.text) for record in run.session.records
            if record.category == "k.libssh2pp.Session"]


def assert_refused(run):
    assert run.status == 17
    assert run.err == REFUSED
    error = run.session.error()
    assert (error.code, error.description) == ("SshInvalidCredentials", REFUSED)
    assert session_log(run)[-2:] == [("ERROR", "Authentication failed"), ("DEBUG", "SSH session finished")]


def assert_lost(run):
    assert run.status == 18
    assert run.err == "Lost connection with the remote host"
    assert run.session.error().code == "SshConnectionFault"


def test_password_is_accepted(tallowick, server):
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    lines = session_log(run)
    asked = lines.index(("DEBUG", "Requested authorization for user mover"))
    assert lines[asked + 1:asked + 5] == [
        ("DEBUG", "Getting userauth methods for user 'mover'"),
        ("DEBUG", "Got the following allowed userauth methods: publickey,password"),
        ("DEBUG", "Trying 'password' authentication"),
        ("DEBUG", "Authenticated succesfully")]


def test_wrong_password_is_status_17(tallowick, server):
    assert_refused(tallowick.run("--send-scout", *source(server), password="wrong-Password-1"))


def test_unknown_login_is_status_17(tallowick, server):
    assert_refused(tallowick.run("--send-scout", "--host=127.0.0.1", f"--port={server.port}", "--login=nobody-here"))


def test_password_with_blanks_is_used_as_it_is(tallowick, server):
    run = tallowick.run("--send-scout", *source(server, SPACEY), password=SPACEY.password)
    assert run.status == 0


def test_keyboard_interactive_alone_is_accepted(tallowick, start_sshd):
    run = tallowick.run("--send-scout", *source(start_sshd(KEYBOARD_INTERACTIVE)))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT
    texts = [text for _, text in session_log(run)]
    assert "Trying 'password' authentication" not in texts
    assert "Trying 'keyboard-interactive' authentication" in texts
    assert "'keyboard-interactive' callback requested. Filling 1 responses with the password" in texts
    assert "Authenticated successfully" in texts
    assert "Authenticated succesfully" not in texts


def test_wrong_password_over_keyboard_interactive_is_status_17(tallowick, start_sshd):
    server = start_sshd(KEYBOARD_INTERACTIVE)
    assert_refused(tallowick.run("--send-scout", *source(server), password="wrong-Password-2"))


def test_server_that_offers_only_public_keys_is_status_17(tallowick, start_sshd):
    run = tallowick.run("--send-scout", *source(start_sshd(PUBLIC_KEY)))
    assert_refused(run)
    assert "Trying" not in " ".join(text for _, text in session_log(run)).replace("Trying to start SSH session", "")


def test_server_that_accepts_the_method_none_gives_an_invalid_handle(tallowick, start_scripted):
    run = tallowick.run("--send-scout", *source(start_scripted(methods=None)))
    assert run.status == 2
    assert run.err == "Invalid handle passed"
    assert run.session.error().code == "InvalidHandle"


@pytest.mark.parametrize("methods", ["publickey,,password", ",password", "password,", ",,password,,"])
def test_method_list_with_empty_pieces_still_finds_the_password(tallowick, start_scripted, methods):
    server = start_scripted(methods=methods)
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert server.details("password") == [MOVER.password]
    assert ("DEBUG", f"Got the following allowed userauth methods: {methods}") in session_log(run)


@pytest.mark.parametrize("methods", ["passwordx,xpassword", "Password", "publickey,hostbased", "gssapi-with-mic"])
def test_method_must_have_exactly_the_right_name(tallowick, start_scripted, methods):
    server = start_scripted(methods=methods)
    assert_refused(tallowick.run("--send-scout", *source(server)))
    assert server.details("password") == []


def test_refused_password_is_tried_again_over_keyboard_interactive(tallowick, start_scripted):
    server = start_scripted(methods="publickey,password,keyboard-interactive", password=lambda password: False)
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert server.details("password") == [MOVER.password]
    assert server.details("answers") == [[MOVER.password]]
    assert len(server.details("connection")) == 1


def test_accepted_password_leaves_keyboard_interactive_alone(tallowick, start_scripted):
    server = start_scripted(methods="keyboard-interactive,password")
    assert tallowick.run("--send-scout", *source(server)).status == 0
    assert server.details("keyboard-interactive") == []


def test_both_methods_refused_is_status_17(tallowick, start_scripted):
    server = start_scripted(methods="password,keyboard-interactive", password=lambda password: False,
                            answers=lambda answers: False)
    assert_refused(tallowick.run("--send-scout", *source(server)))
    assert server.details("answers") == [[MOVER.password]]


def test_every_prompt_is_answered_with_the_password(tallowick, start_scripted):
    prompts = [("Password: ", False), ("", True), ("Your favourite colour: ", True)]
    server = start_scripted(methods="keyboard-interactive", prompts=[prompts])
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert server.details("answers") == [[MOVER.password] * 3]
    assert ("DEBUG", "'keyboard-interactive' callback requested. Filling 3 responses with the password") in \
        session_log(run)


def test_request_without_prompts_is_answered_with_nothing(tallowick, start_scripted):
    server = start_scripted(methods="keyboard-interactive", prompts=[[], [("Password: ", False)], []])
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert server.details("answers") == [[], [MOVER.password], []]
    assert ("DEBUG", "'keyboard-interactive' callback requested. Filling 0 responses with the password") in \
        session_log(run)


def test_method_list_is_copied_not_freed(tallowick, server):
    # Freeing the library's text aborts the process when the session ends.
    run = tallowick.run("--send-scout", *source(server))
    assert (run.status, run.stderr) == (0, b"")


@pytest.mark.parametrize("length", [4094, 4095])
def test_password_of_up_to_4095_bytes_is_used_whole(tallowick, start_scripted, length):
    server = start_scripted()
    password = "p" * (length - 1) + "!"
    assert tallowick.run("--send-scout", *source(server), password=password).status == 0
    assert server.details("password") == [password]


@pytest.mark.parametrize("length", [4096, 4097, 9000])
def test_longer_password_is_cut_to_4095_bytes(tallowick, start_scripted, length):
    server = start_scripted()
    password = ("0123456789" * 1000)[:length]
    assert tallowick.run("--send-scout", *source(server), password=password).status == 0
    assert server.details("password") == [password[:4095]]


def test_password_with_any_letters_arrives_unchanged(tallowick, start_scripted):
    server = start_scripted()
    password = " pässwörd\t'\"\\$`%1%\n "
    assert tallowick.run("--send-scout", *source(server), password=password).status == 0
    assert server.details("password") == [password]


@pytest.mark.parametrize("methods", ["password", "keyboard-interactive"])
@pytest.mark.parametrize("kind", [FIN, RST])
def test_connection_lost_while_a_method_is_tried_is_no_wrong_password(tallowick, start_scripted, methods, kind):
    def hang_up(_):
        if kind == RST:
            server.reset()
        else:
            server.drop()
        return False

    server = start_scripted(methods=methods, password=hang_up, answers=hang_up)
    assert_lost(tallowick.run("--send-scout", *source(server)))


def test_server_that_throws_the_client_out_after_a_refused_password_is_a_lost_connection(tallowick, start_sshd):
    server = start_sshd(("MaxAuthTries 1", *PASSWORD))
    assert tallowick.run("--send-scout", *source(server)).status == 0
    assert_lost(tallowick.run("--send-scout", *source(server), password="wrong-Password-3"))


@pytest.mark.parametrize("size", [1, 3000])
def test_banner_before_the_login_is_read_over(tallowick, start_sshd, workspace, size):
    banner = write(workspace / "banner", "Be good.\n" * size)
    server = start_sshd((f"Banner {banner}", *PASSWORD))
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert run.session.scout_result == SMALL_REPORT


def test_session_lost_between_login_and_command_is_an_error(tallowick, start_scripted):
    server = start_scripted(run=lambda run: run.drop())
    run = tallowick.run("--send-scout", *source(server))
    assert run.status in (2, 18)
    assert run.session.succeeded() == "error"


def test_half_closed_connection_during_login_is_a_lost_connection(tallowick, start_scripted, start_relay):
    relays = []

    def half_close(_):
        relays[0].connections[0].client.shutdown(socket.SHUT_WR)
        return True

    server = start_scripted(password=half_close)
    relays.append(start_relay(server))
    assert_lost(tallowick.run("--send-scout", *source(relays[0])))
