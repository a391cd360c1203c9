# SPDX-License-Identifier: Apache-2.0
"""An SSH server that does what a real one never does, as a test scripts it."""

import socket
import threading
from dataclasses import dataclass, field

import paramiko
from paramiko.common import (MSG_CHANNEL_FAILURE, MSG_CHANNEL_SUCCESS, cMSG_CHANNEL_EXTENDED_DATA,
                             cMSG_CHANNEL_REQUEST, cMSG_DISCONNECT)

from harness import tcp

_HOST_KEY = paramiko.ECDSAKey.generate()


def _exit_0(run):
    run.exit(0)


@dataclass
class Script:
    """What the server does; every field has the meaning of an ordinary, friendly server."""

    # Lines before the protocol's own, the keys of the server, and the algorithms that it does without (as paramiko
    # takes them: {"keys": ["ssh-rsa"]}).
    greeting: bytes = b""
    host_keys: list = field(default_factory=lambda: [_HOST_KEY])
    without: dict = field(default_factory=dict)
    # Text to show before the login.
    banner: str | None = None
    # What "userauth_list" gets; None accepts the method "none".
    methods: str | None = "password"
    # The one login that can succeed; any when None.
    login: str | None = None
    # Called with the password; true accepts it.
    password: object = lambda password: True
    # Rounds of keyboard-interactive prompts, each a list of (text, echo), and what is made of the answers.
    prompts: list = field(default_factory=lambda: [[("Password: ", False)]])
    answers: object = lambda answers: True
    accepts_channels: bool = True
    # Called with the command line; true grants "exec". What happens then: called with a Run, in a thread of its own.
    accepts_exec: object = lambda command: True
    run: object = _exit_0


class Run:
    """One granted "exec": what the script can do with it."""

    def __init__(self, server, transport, channel, command):
        self.server = server
        self.transport = transport
        self.channel = channel
        self.command = command

    def read_input(self):
        """All of the command's input."""
        return self.channel.makefile("rb").read()

    def out(self, data):
        self.channel.sendall(data)

    def err(self, data):
        self.channel.sendall_stderr(data)

    def other(self, stream, data):
        """Sends data on a stream beside the two; SSH itself knows no other one than 1, standard error. Nobody reads
        it, so it takes away of the window for good."""
        with self.channel.lock:
            size = len(data) if self.channel.eof_sent else self.channel._wait_for_send_window(len(data))
        message = paramiko.Message()
        message.add_byte(cMSG_CHANNEL_EXTENDED_DATA)
        message.add_int(self.channel.remote_chanid)
        message.add_int(stream)
        message.add_string(data[:size])
        self.transport._send_user_message(message)

    def exit(self, status):
        """Exit status, EOF and close: how a command ends in good order."""
        self.status(status)
        self.channel.close()

    def status(self, status):
        self.channel.send_exit_status(status)

    def eof(self):
        self.channel.shutdown_write()

    def close(self):
        self.channel.close()

    def signal(self, name):
        """Says that the command was ended by a signal (a name without "SIG")."""
        message = paramiko.Message()
        message.add_byte(cMSG_CHANNEL_REQUEST)
        message.add_int(self.channel.remote_chanid)
        message.add_string("exit-signal")
        message.add_boolean(False)
        message.add_string(name)
        message.add_boolean(False)
        message.add_string("")
        message.add_string("")
        self.transport._send_user_message(message)

    def disconnect(self):
        """Sends the protocol's own farewell and closes the connection."""
        message = paramiko.Message()
        message.add_byte(cMSG_DISCONNECT)
        message.add_int(11)
        message.add_string("by application")
        message.add_string("")
        self.transport._send_message(message)
        self.drop()

    def drop(self):
        """Closes the TCP connection in good order, without a word."""
        self.server.drop(self.transport)

    def reset(self):
        """Resets the TCP connection."""
        self.server.reset(self.transport)

    def burst(self):
        """A scope in which everything is held back, to leave in as few TCP segments as possible."""
        return _Corked(self.transport.sock)


class _Corked:
    def __init__(self, sock):
        self._sock = sock

    def __enter__(self):
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)

    def __exit__(self, *_):
        try:
            self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 0)
        except OSError:
            pass  # closed inside of the scope, which sends what was held back


class _Transport(paramiko.Transport):
    """Tells when the reply to a request has left, so that a command's output never overtakes it."""

    def __init__(self, sock, without):
        super().__init__(sock, disabled_algorithms=without)
        self.replied = threading.Event()

    def _send_user_message(self, data):
        super()._send_user_message(data)
        if data.asbytes()[0] in (MSG_CHANNEL_SUCCESS, MSG_CHANNEL_FAILURE):
            self.replied.set()


class _Session(paramiko.ServerInterface):
    def __init__(self, server, transport, script):
        self._server = server
        self._script = script
        self._transport = transport
        self._rounds = list(script.prompts)
        self._known = True

    def get_banner(self):
        return self._script.banner, "en"

    def get_allowed_auths(self, username):
        return self._script.methods or ""

    def check_auth_none(self, username):
        return paramiko.AUTH_SUCCESSFUL if self._script.methods is None else paramiko.AUTH_FAILED

    def check_auth_password(self, username, password):
        self._server.note("password", password)
        self._meet(username)
        return self._verdict(self._script.password(password))

    def check_auth_interactive(self, username, submethods):
        self._server.note("keyboard-interactive", username)
        self._meet(username)
        return self._next_round()

    def check_auth_interactive_response(self, responses):
        self._server.note("answers", list(responses))
        if self._rounds:
            return self._next_round()
        return self._verdict(self._script.answers(list(responses)))

    def _next_round(self):
        query = paramiko.InteractiveQuery("a name", "some instruction")
        for text, echo in self._rounds.pop(0):
            query.add_prompt(text, echo)
        return query

    def _meet(self, login):
        self._known = self._script.login in (None, login)

    def _verdict(self, good):
        return paramiko.AUTH_SUCCESSFUL if good and self._known else paramiko.AUTH_FAILED

    def check_channel_request(self, kind, chanid):
        if self._script.accepts_channels:
            return paramiko.OPEN_SUCCEEDED
        return paramiko.OPEN_FAILED_ADMINISTRATIVELY_PROHIBITED

    def check_channel_exec_request(self, channel, command):
        self._server.note("exec", command)
        if not self._script.accepts_exec(command):
            return False
        self._transport.replied.clear()
        run = Run(self._server, self._transport, channel, command)
        threading.Thread(target=self._run, args=(run,), daemon=True).start()
        return True

    def _run(self, run):
        self._transport.replied.wait()
        try:
            self._script.run(run)
        except (OSError, EOFError, paramiko.SSHException) as error:
            self._server.note("ended", str(error))


class ScriptedServer(tcp.TcpServer):
    """Listens on a port of its own and does on each connection what `script` says: a `Script`, or a function that
    gives one for the number of a connection. `listen` as for `TcpServer`."""

    def __init__(self, script=None, **listen):
        self._script = script or Script()
        self._transports = []
        super().__init__(**listen)

    def commands(self):
        """The command lines that the server was asked to run."""
        return self.details("exec")

    def _serve(self, client):
        number = len(self._transports)
        self.note("connection", number)
        script = self._script(number) if callable(self._script) else self._script
        transport = _Transport(client, script.without)
        self._transports.append(transport)
        for key in script.host_keys:
            transport.add_server_key(key)
        try:
            client.sendall(script.greeting)
            transport.start_server(event=threading.Event(), server=_Session(self, transport, script))
        except (OSError, EOFError, paramiko.SSHException) as error:
            self.note("not started", str(error))

    def drop(self, transport=None):
        """Closes one connection, or all of them, without a word."""
        for each in [transport] if transport else self._transports:
            tcp.hang_up(each.sock)

    def reset(self, transport=None):
        """Resets one connection, or all of them."""
        for each in [transport] if transport else self._transports:
            tcp.reset(each.sock)

    def _end_connections(self):
        for transport in self._transports:
            transport.close()
