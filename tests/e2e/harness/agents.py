# SPDX-License-Identifier: Apache-2.0
"""Migration agents: in the product's catalogue on the destination host, and deployed on the source host."""

import hashlib
import os
import pathlib
from dataclasses import dataclass
from xml.sax.saxutils import escape, quoteattr

from harness.accounts import MOVER
from harness.places import make_dir, remove_tree, write

NAME = "SomeAgent"
AGENT_STATUS = b"<agentstatus><statusfile>dumping-status.xml</statusfile></agentstatus>\n"
DUMP = b'<?xml version="1.0"?>\n<dump><domain name="one.example"/></dump>\n'

# Prints what it is asked and where it runs; the entry point of an agent that a test deploys.
PERL_STATUS_AGENT = f"""\
use strict;
use warnings;
die "unexpected arguments: @ARGV\\n" unless "@ARGV" eq "--get-status";
print q({AGENT_STATUS.decode()});
"""
SHELL_STATUS_AGENT = f"[ \"$*\" = --get-status ] || exit 1\nprintf '%s' '{AGENT_STATUS.decode()}'\n"


def spec_text(**values):
    """The text of a spec file with the given keys, in the given order."""
    return "".join(f"{key}: {value}\n" for key, value in values.items())


class AgentCatalogue:
    """The product's agents directory."""

    def __init__(self, product):
        self.directory = product.dvx / "agents"
        self.shared = self.directory / "shared"

    def path(self, name=NAME):
        """The directory of one agent."""
        return self.directory / name

    def install_shared(self, files=()):
        """Makes the tree of what all agents need, without what was in it; `files` as in `fill`."""
        remove_tree(self.shared)
        return fill(make_dir(self.shared), files)

    def install(self, name=NAME, files=(), spec=None, **values):
        """Makes an agent, without what was there of that name: `files` as in `fill`, a control directory with
        the text `spec`, or with a spec file of `values` (EntryPoint="run.pl", Interpreter="sh", …)."""
        remove_tree(self.path(name))
        directory = fill(make_dir(self.path(name)), files)
        write(make_dir(directory / "control") / "spec", spec_text(**values) if spec is None else spec)
        return directory


def fill(directory, files):
    """Writes `files` (relative name -> text or bytes) below `directory`, making directories; returns it."""
    for name, content in dict(files).items():
        make_dir((directory / name).parent)
        write(directory / name, content)
    return directory


@dataclass(frozen=True)
class Call:
    """How a deployed agent was called: its arguments, all of its standard input, where and as whom it ran."""

    arguments: list
    stdin: bytes
    cwd: str
    uid: int
    environment: bytes


@dataclass(frozen=True)
class ContentFile:
    """One file of a content list as the agent lists it; without `size` or `md5` where that is None."""

    path: str
    size: "int | None" = None
    md5: "str | None" = None


def content_file(path, content):
    """The entry of a content list that tells the truth about `content`."""
    return ContentFile(path, len(content), hashlib.md5(content).hexdigest())


def content_list(files, size=None, unpacked=None):
    """The text of a content list; the totals are the true ones unless they are given."""
    total = sum(file.size or 0 for file in files)
    lines = [f"<contentlist size={quoteattr(str(total if size is None else size))} "
             f"unpacked={quoteattr(str(total if unpacked is None else unpacked))}>"]
    for file in files:
        attributes = "".join(f" {name}={quoteattr(str(value))}" for name, value in
                             (("size", file.size), ("md5sum", file.md5)) if value is not None)
        lines.append(f"<file{attributes}>{escape(file.path, {chr(13): '&#13;'})}</file>")
    return "\n".join(['<?xml version="1.0" encoding="UTF-8"?>', *lines, "</contentlist>"]) + "\n"


# What is answered lies in files beside it, so that a test can change it between calls. `do` runs a test's own perl.
_ENTRY_POINT = """\
use strict;
use warnings;
use Cwd ();
use FindBin;

my $own = "$FindBin::Bin/.agent";

sub slurp {
    my ($name) = @_;
    open my $file, '<:raw', $name or return;
    local $/;
    return scalar <$file>;
}

sub record {
    my ($call, $name, $content) = @_;
    open my $file, '>:raw', "$call/$name.part" or die "$call/$name: $!\\n";
    print {$file} $content;
    close $file or die "$call/$name: $!\\n";
    rename "$call/$name.part", "$call/$name" or die "$call/$name: $!\\n";
}

opendir my $calls, "$own/calls" or die "$own/calls: $!\\n";
my $number = grep { !/^[.]/ } readdir $calls;
my $call;
do {
    $call = sprintf '%s/calls/%04d', $own, ++$number;
} until mkdir $call or not $!{EEXIST};  # calls may come at the same time
-d $call or die "$call: $!\\n";
binmode STDIN;
binmode STDOUT;
our $input = do { local $/; <STDIN> };
record($call, 'argv', join '', map { "$_\\0" } @ARGV);
record($call, 'cwd', Cwd::getcwd());
record($call, 'uid', $>);
record($call, 'environment', slurp('/proc/self/environ'));
record($call, 'stdin', $input // '');

my $asked = "@ARGV" eq '--get-status' ? 'status' : "@ARGV" eq '--get-content-list' ? 'list' : 'dump';
if (-e "$own/on-$asked") {
    do "$own/on-$asked";
    die $@ if $@;
}
my $answer = slurp("$own/$asked");
if ($asked ne 'dump') {
    print $answer;
} elsif (defined $answer) {
    open my $file, '>:raw', "$FindBin::Bin/dump.xml" or die "dump.xml: $!\\n";
    print {$file} $answer;
    close $file or die "dump.xml: $!\\n";
}
"""


class DeployedAgent:
    """An agent as if it had been deployed already: in the catalogue, and in an agent directory of the source host
    that belongs to `owner`. It notes each call and answers as the test has set it."""

    def __init__(self, product, directory, name=NAME, *, owner=MOVER, entry_point="run.pl", **values):
        self.name = name
        self.directory = make_dir(pathlib.Path(directory))
        self._owner = owner
        AgentCatalogue(product).install_shared()
        AgentCatalogue(product).install(name, EntryPoint=entry_point, **values)
        self._own = make_dir(self.directory / ".agent")
        self._calls = make_dir(self._own / "calls", 0o777)
        self.entry_point = write(self.directory / entry_point, _ENTRY_POINT)
        for each in (self.directory, self._own, self._calls, self.entry_point):
            os.chown(each, owner.uid, owner.gid)
        self.answer(status=AGENT_STATUS, list=content_list([]), dump=DUMP)

    @property
    def options(self):
        """The options that name this agent."""
        return [f"--agent-dir={self.directory}", f"--agent-name={self.name}"]

    def answer(self, **answers):
        """Sets what is printed for "--get-status" (`status`) and "--get-content-list" (`list`), and what any other
        call leaves as dump.xml (`dump`; None leaves nothing)."""
        for asked, content in answers.items():
            if content is None:
                (self._own / asked).unlink(missing_ok=True)
            else:
                write(self._own / asked, content)

    def on(self, asked, perl):
        """Runs `perl` in each call of that kind ("status", "list" or "dump"), once it is noted and before the
        answer is given; "exit" there ends the call, $input is its standard input."""
        write(self._own / f"on-{asked}", perl)

    def fail(self, asked, message="oh dear\n", status=3):
        """Makes calls of that kind end with `status` and `message` on standard error."""
        self.on(asked, f"print STDERR q({message}); exit {status};")

    def add(self, path, content):
        """Puts a file below the agent directory, owned like the agent; returns its true entry of a content list."""
        file = self.directory / path
        made = [parent for parent in file.parents if not parent.exists()]
        make_dir(file.parent)
        write(file, content)
        for each in [file, *made]:
            os.chown(each, self._owner.uid, self._owner.gid)
        return content_file(path, content)

    def offer(self, files):
        """Puts `files` (path -> bytes) below the agent directory and lists them truly; returns the entries."""
        entries = [self.add(path, content) for path, content in files.items()]
        self.answer(list=content_list(entries))
        return entries

    def calls(self):
        """The calls so far whose standard input has ended, in their order."""
        return [Call(_text(call / "argv").split("\0")[:-1], (call / "stdin").read_bytes(), _text(call / "cwd"),
                     int(_text(call / "uid")), (call / "environment").read_bytes())
                for call in sorted(self._calls.iterdir()) if (call / "stdin").exists()]

    def dumps(self):
        """The calls of the dumper."""
        return [call for call in self.calls() if call.arguments not in (["--get-status"], ["--get-content-list"])]


def _text(file):
    return os.fsdecode(file.read_bytes())
