# SPDX-License-Identifier: Apache-2.0
"""The faults of a source host by their names: tests/faulty-host.md says what the program does for each."""

import dataclasses
import functools
import re
from dataclasses import dataclass

import paramiko

from harness.agents import ContentFile, content_list
from harness.relay import DRIP, FIN, HALF_CLOSE, PAUSE, PAUSE_S, RST, STALL, Fault
from harness.scripted import Script
from harness.source_host import Answer, Behaviour, deliver, failure, send_output

_HOSTILE = b"hostile\n"
_GIGABYTE = 1_000_000_000


class FaultError(Exception):
    """A fault was asked for that there is not."""


@dataclass(frozen=True)
class NamedFault:
    """One fault: either `kind`, of the relay, or `change`, which is called with a `Behaviour`, and with a number of
    bytes where the fault has a `default` for that."""

    name: str
    summary: str
    kind: str | None = None
    change: object = None
    default: int | None = None

    @property
    def usage(self):
        """The name with what it takes."""
        if self.kind:
            return f"{self.name}@[client:]N"
        return self.name if self.default is None else f"{self.name}[@N]"


class Plan:
    """What `words` ("cut@client:300", "xml-bomb", …) ask for, on the first `connections` connections (all if None).
    Throws FaultError."""

    def __init__(self, words, connections=None):
        self.relay_faults = []
        self._changes = []
        self._connections = connections
        for word in words:
            self._add(word)

    def _add(self, word):
        name, at, argument = word.partition("@")
        fault = FAULTS.get(name)
        if fault is None:
            raise FaultError(f"no such fault: {name}")
        if fault.kind:
            self._add_to_relay(fault.kind, argument, word)
        elif fault.default is not None:
            size = _number(argument, word) if at else fault.default
            self._changes.append(lambda behaviour: fault.change(behaviour, size))
        elif at:
            raise FaultError(f"takes no number: {name}")
        else:
            self._changes.append(fault.change)

    def _add_to_relay(self, kind, argument, word):
        stream, colon, number = argument.rpartition(":")
        if colon and stream not in ("client", "server"):
            raise FaultError(f'a stream is that of the "client" or of the "server": {word}')
        at, stream = _number(number, word), stream or "server"
        if any(fault.stream == stream for fault in self.relay_faults):
            raise FaultError(f"more than one fault for the {stream}'s stream")
        which = [None] if self._connections is None else range(self._connections)
        self.relay_faults += [Fault(kind, at, stream, connection) for connection in which]

    @property
    def changes_host(self):
        """Whether it takes more than a relay."""
        return bool(self._changes)

    def behaviour(self, number, script=None):
        """How the host is to behave on a connection; `script` is changed where a fault asks for that."""
        behaviour = Behaviour(script=script or Script())
        if self._connections is None or number < self._connections:
            for change in self._changes:
                change(behaviour)
        return behaviour


def _number(text, word):
    if not (text.isascii() and text.isdigit()):
        raise FaultError(f"a number of bytes is missing: {word}")
    return int(text)


def _lists(make):
    """The content list is what `make` does with its true entries."""
    def change(behaviour):
        behaviour.listing = make

    return change


def _with_first(**fields):
    """The first entry is told otherwise."""
    return _lists(lambda entries: content_list([dataclasses.replace(entries[0], **fields), *entries[1:]]))


def _with_size_of_first(text):
    """The size of the first entry is told otherwise; the totals are true."""
    return _lists(lambda entries: re.sub('(?<=<file size=")[^"]*', text, content_list(entries), count=1))


def _with_total(number):
    return _lists(lambda entries: content_list(entries, size=number))


def _with_name(name):
    """A file of that name is there and listed."""
    def change(behaviour):
        behaviour.more_files[name] = _HOSTILE

    return change


def _bomb(_entries):
    entities = "".join(f'<!ENTITY {name} "{f"&{before};" * 10}">' for before, name in zip("abcdefghi", "bcdefghij"))
    return (f'<!DOCTYPE contentlist [<!ENTITY a "aaaaaaaaaa">{entities}]>'
            "<contentlist size='4'><file>&j;</file></contentlist>")


def _external_entity(_entries):
    return ('<!DOCTYPE contentlist [<!ENTITY e SYSTEM "file:///etc/passwd">]>'
            "<contentlist size='4'><file>&e;</file></contentlist>")


def _floods_list(behaviour, size):
    behaviour.listing = lambda entries: content_list(entries).encode().ljust(size)


def _fail(run, answer, err):
    """Our own scripts fail with that on standard error."""
    deliver(run, dataclasses.replace(answer, out=b"", err=err, status=3) if answer.own else answer)


def _fails_with(err):
    def change(behaviour):
        behaviour.deliver = lambda run, answer: _fail(run, answer, err)

    return change


def _floods_errors(behaviour, size):
    behaviour.deliver = lambda run, answer: _fail(run, answer, _repeated(b"oh dear, oh dear, oh dear\n" * 1000, size))


def _repeated(piece, size):
    """Pieces that are `size` bytes together."""
    for start in range(0, size, len(piece)):
        yield piece[:size - start]


def _adds(**noise):
    """Every command says something before its answer, as a login shell with a loud profile makes it do."""
    def change(behaviour):
        behaviour.deliver = lambda run, answer: deliver(
            run, dataclasses.replace(answer, **{name: text + getattr(answer, name) for name, text in noise.items()}))

    return change


def _adds_third_stream(behaviour):
    def send(run, answer):
        send_output(run, answer)
        run.other(2, b"what nobody reads\n")
        run.exit(answer.status)

    behaviour.deliver = send


def _ends_own(end):
    """Our own scripts say all that they have to say, and then `end` is called with their run."""
    def send(run, answer):
        if not answer.own:
            deliver(run, answer)
            return
        send_output(run, answer)
        end(run)

    def change(behaviour):
        behaviour.deliver = send

    return change


def _killed(run):
    run.signal("KILL")
    run.close()


def _without_status(run):
    run.eof()
    run.close()


def _lost(run):
    run.eof()
    run.drop()


def _refuses_exec(behaviour):
    behaviour.script.accepts_exec = lambda command: False


def _script(**fields):
    """Fields of the `Script`."""
    def change(behaviour):
        for name, value in fields.items():
            setattr(behaviour.script, name, value)

    return change


def _only_new_rsa(behaviour):
    behaviour.script.host_keys = [_rsa_key()]
    behaviour.script.without = {"keys": ["ssh-rsa"]}


@functools.cache
def _rsa_key():
    return paramiko.RSAKey.generate(2048)


def _no_sudo(behaviour):
    behaviour.sudo_version = failure("bash: line 1: sudo: command not found\n", 127)
    behaviour.sudo = lambda executor, command, stdin: behaviour.sudo_version


def _sudo_says(text):
    def change(behaviour):
        behaviour.sudo = lambda executor, command, stdin: failure(text)

    return change


def _sudo_that_does_not_ask(behaviour):
    def run(executor, command, stdin):
        answer = executor.execute(command, stdin)
        first_line = stdin.partition(b"\n")[0]
        if not answer.own or not first_line:
            return answer
        # What perl says of a password as its first line of program.
        return Answer(err=b'syntax error at - line 1, near "' + first_line + b'"\n', status=255, own=True)

    behaviour.sudo = run


_ALL = [
    NamedFault("cut", "closes the connection after N bytes", FIN),
    NamedFault("reset", "resets the connection after N bytes", RST),
    NamedFault("half-close", "ends what the program reads after N bytes, but still reads what it writes", HALF_CLOSE),
    NamedFault("stall", "passes nothing on after N bytes, and keeps the connection open", STALL),
    NamedFault("pause", f"passes nothing on for {PAUSE_S:.0f} s after N bytes", PAUSE),
    NamedFault("drip", "passes single bytes on after N bytes, a thousand a second at the most", DRIP),

    NamedFault("greeting", "says some lines before the protocol begins", change=_script(
        greeting=b"Welcome to the source host\r\n\x1b[31mEvery byte is recorded\x1b[0m\r\n")),
    NamedFault("rsa-only", "has an RSA host key only, and not for its SHA-1 form",
               change=_only_new_rsa),
    NamedFault("banner", "shows a banner of 20 KB before the login", change=_script(banner="Be good.\r\n" * 2000)),
    NamedFault("password-refused", "takes no password", change=_script(password=lambda password: False)),
    NamedFault("public-key-only", "offers no method of authentication but public keys",
               change=_script(methods="publickey")),
    NamedFault("no-authentication", "lets everybody in before a password is asked for", change=_script(methods=None)),
    NamedFault("keyboard-interactive", "asks two questions instead of taking the password", change=_script(
        methods="keyboard-interactive", prompts=[[("Password: ", False), ("And once more: ", False)]])),

    NamedFault("channel-refused", "opens no channel", change=_script(accepts_channels=False)),
    NamedFault("exec-refused", "runs no command, and leaves the channel open", change=_refuses_exec),
    NamedFault("exit-signal", "kills scout and agent after their output", change=_ends_own(_killed)),
    NamedFault("no-exit-status", "ends scout and agent without a status", change=_ends_own(_without_status)),
    NamedFault("lost-before-status", "closes the connection between the output of scout and agent and their status",
               change=_ends_own(_lost)),

    NamedFault("login-noise", "puts two lines before the output of every command", change=_adds(
        out=b"Last login: today\nYou have new mail.\n")),
    NamedFault("error-noise", "puts a line before the standard error of every command", change=_adds(
        err=b"bash: warning: setlocale: LC_ALL: cannot change locale\n")),
    NamedFault("third-stream", "ends every command with data on a stream beside output and standard error",
               change=_adds_third_stream),
    NamedFault("stderr-escapes", "scout and agent fail with escape sequences for a terminal",
               change=_fails_with(b"\x1b[31moh \x1b]0;title\x07\x1b[2Jdear\r\n\x08\x7f")),
    NamedFault("stderr-nul", "scout and agent fail with zero bytes", change=_fails_with(b"oh\0dear\0\n")),
    NamedFault("stderr-latin1", "scout and agent fail with text that is Latin-1, not UTF-8",
               change=_fails_with("fichier supprimé à l'instant\n".encode("latin-1"))),
    NamedFault("stderr-flood", "scout and agent fail with N bytes, 1 GB by default",
               change=_floods_errors, default=_GIGABYTE),

    NamedFault("sudo-missing", "has no sudo", change=_no_sudo),
    NamedFault("sudo-refusing", "has a sudo that the login must not use", change=_sudo_says(
        "you are not in the sudoers file.  This incident will be reported.\n")),
    NamedFault("sudo-not-asking", "has a sudo that takes no password, so that the command reads it as its first line",
               change=_sudo_that_does_not_ask),
    NamedFault("sudo-tty", "has a sudo that works only on a terminal", change=_sudo_says(
        "sudo: sorry, you must have a tty to run sudo\n")),

    NamedFault("wrong-sum", "lists the first file with another MD5 sum", change=_with_first(md5="0" * 32)),
    NamedFault("wrong-size", "lists the first file with another size and no sum",
               change=_with_first(size=4321, md5=None)),
    NamedFault("missing-file", "lists a file that it has not", change=_lists(
        lambda entries: content_list([entries[0], ContentFile("gone", 4), *entries[1:]]))),
    NamedFault("name-parent", "lists ../../etc/cron.d/hostile", change=_with_name("../../etc/cron.d/hostile")),
    NamedFault("name-absolute", "lists /etc/cron.d/hostile", change=_with_name("/etc/cron.d/hostile")),
    NamedFault("name-own", "lists migration.log", change=_with_name("migration.log")),
    NamedFault("name-empty", "lists a file without a name", change=_with_name("")),
    NamedFault("name-long", "lists a name of 300 letters", change=_with_name("n" * 300)),
    NamedFault("name-braces", "lists {a,b}, which a shell expands", change=_with_name("{a,b}")),
    NamedFault("name-shell", "lists a name with quotes, blanks, a newline, $(…), ; and *", change=_with_name(
        "it's \"$(touch /tmp/hostile)\"; * `id`\n& two")),

    NamedFault("total-negative", "lists a total size of -1", change=_with_total("-1")),
    NamedFault("total-malformed", "lists a total size of 12 bananas", change=_with_total("12 bananas")),
    NamedFault("total-gigantic", "lists a total size of 2^64", change=_with_total(2**64)),
    NamedFault("total-largest", "lists a total size of 2^63 - 1", change=_with_total(2**63 - 1)),
    NamedFault("size-negative", "lists the first file with a size of -1", change=_with_size_of_first("-1")),
    NamedFault("size-malformed", "lists the first file with a size of 12 bananas",
               change=_with_size_of_first("12 bananas")),
    NamedFault("size-gigantic", "lists the first file with a size of 2^64", change=_with_size_of_first(str(2**64))),

    NamedFault("list-half", "sends half of the list", change=_lists(
        lambda entries: content_list(entries)[:-30])),
    NamedFault("list-empty", "sends no list", change=_lists(lambda entries: "")),
    NamedFault("list-other", "sends a list with another root element", change=_lists(
        lambda entries: "<files size='0'/>")),
    NamedFault("list-latin1", "sends a list with a name in Latin-1", change=_lists(
        lambda entries: content_list([*entries, ContentFile("café", 4)]).encode("latin-1"))),
    NamedFault("list-flood", "sends a list of N bytes, 32 MB by default", change=_floods_list, default=32_000_000),
    NamedFault("xml-bomb", "sends a list with entities that grow to 10 GB", change=_lists(_bomb)),
    NamedFault("external-entity", "sends a list that includes /etc/passwd of the destination",
               change=_lists(_external_entity)),
]

FAULTS = {fault.name: fault for fault in _ALL}
