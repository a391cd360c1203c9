# SPDX-License-Identifier: Apache-2.0
#
# Writes a directory tree as a tar archive of the GNU kind, which takes names of any bytes and any length. It
# needs memory for one block, however large the tree. Owners stand in it as numbers.
#
# The tree may belong to somebody who wants root to read other files than the tree's: nothing is followed that
# is, or becomes while we look, a symbolic link. So the walk goes down with chdir and knows where it is.
package Agent::Tar;
use strict;
use warnings;
use 5.010;
use Fcntl qw(:mode O_RDONLY O_NOFOLLOW O_NONBLOCK);

my $BLOCK      = 512;
my $CHUNK      = 1 << 18;
my $NAME_LIMIT = 100;       # what a header holds; longer ones come before it, in a record of their own
my ($FILE, $LINK, $DIRECTORY, $LONG_LINK, $LONG_NAME) = qw(0 2 5 K L);

# Calls write(bytes, files) with the archive piece by piece and the number of files that are complete, and
# note(text) about what is not as it should be but no reason to fail.
sub new {
    my ($class, %calls) = @_;
    return bless { %calls, files => 0 }, $class;
}

# The number of files, directories not counted, of all trees so far.
sub files { return $_[0]{files} }

# Adds $directory and all below it, named "./" and on. The working directory is "/" afterwards.
sub add_tree {
    my ($self, $directory) = @_;
    chdir $directory or die "cannot enter $directory: $!\n";
    $self->_header('./', [stat '.'], $DIRECTORY, 0, '');
    $self->_add_entries('./');
    chdir '/' or die "cannot leave $directory: $!\n";
    return;
}

sub finish {
    my ($self) = @_;
    $self->_write("\0" x (2 * $BLOCK));
    return;
}

# All that the working directory holds; $prefix is its name in the archive.
sub _add_entries {
    my ($self, $prefix) = @_;
    no warnings 'recursion';
    opendir my $here, '.' or die 'cannot read ' . printable($prefix) . ": $!\n";
    for my $entry (sort grep { !/^\.\.?\z/ } readdir $here) {
        my @stat = lstat $entry;
        my $mode = $stat[2];
        if    (!@stat)         { $self->_missing("$prefix$entry") }
        elsif (S_ISREG($mode)) { $self->_add_file($prefix, $entry) }
        elsif (S_ISLNK($mode)) { $self->_add_link($prefix, $entry, \@stat) }
        elsif (S_ISDIR($mode)) { $self->_add_directory($prefix, $entry, \@stat, $here) }
        else                   { $self->_note("$prefix$entry", 'is neither file, directory nor link, and is left out') }
    }
    return;
}

sub _add_directory {
    my ($self, $prefix, $entry, $stat, $parent) = @_;
    chdir $entry or return $self->_missing("$prefix$entry");
    my @entered = stat '.';
    "@entered[0, 1]" eq "@$stat[0, 1]" or die printable("$prefix$entry") . " was replaced while it was read\n";
    $self->_header("$prefix$entry/", $stat, $DIRECTORY, 0, '');
    $self->_add_entries("$prefix$entry/");
    chdir $parent or die 'cannot return to ' . printable($prefix) . ": $!\n";
    return;
}

sub _add_link {
    my ($self, $prefix, $entry, $stat) = @_;
    my $target = readlink $entry;
    return $self->_missing("$prefix$entry") if !defined $target;
    $self->_header("$prefix$entry", $stat, $LINK, 0, $target);
    $self->{files}++;
    return;
}

# A file has the size that it had when it was opened: what grows meanwhile is cut, what shrinks ends in zeros.
sub _add_file {
    my ($self, $prefix, $entry) = @_;
    my $name = "$prefix$entry";
    sysopen my $in, $entry, O_RDONLY | O_NOFOLLOW | O_NONBLOCK or return $self->_missing($name);
    my @stat = stat $in;
    S_ISREG($stat[2]) or die printable($name) . " was replaced while it was read\n";
    my $left = $stat[7];
    $self->_header($name, \@stat, $FILE, $left, '');
    while ($left > 0) {
        my $got = sysread $in, my $bytes, $left < $CHUNK ? $left : $CHUNK;
        defined $got or die 'cannot read ' . printable($name) . ": $!\n";
        last if $got == 0;
        $self->_write($bytes);
        $left -= $got;
    }
    $self->_note($name, "became shorter while it was read; its last $left bytes are zeros") if $left > 0;
    while ($left > 0) {
        my $size = $left < $CHUNK ? $left : $CHUNK;
        $self->_write("\0" x $size);
        $left -= $size;
    }
    $self->_fill_block($stat[7]);
    $self->{files}++;
    return;
}

# A live server deletes files at any time; all other reasons are failures.
sub _missing {
    my ($self, $name) = @_;
    $!{ENOENT} or die 'cannot read ' . printable($name) . ": $!\n";
    $self->_note($name, 'was deleted while the dump was made');
    return;
}

sub _note {
    my ($self, $name, $text) = @_;
    $self->{note}->(printable($name) . " $text");
    return;
}

sub _write {
    my ($self, $bytes) = @_;
    $self->{write}->($bytes, $self->{files});
    return;
}

sub _header {
    my ($self, $name, $stat, $type, $size, $target) = @_;
    $self->_long($LONG_LINK, $target) if length $target > $NAME_LIMIT;
    $self->_long($LONG_NAME, $name)   if length $name > $NAME_LIMIT;
    $self->_write(header($name, $type, $size, $target, @$stat[2, 4, 5, 9]));
    return;
}

sub _long {
    my ($self, $type, $text) = @_;
    my $size = 1 + length $text;
    $self->_write(header('././@LongLink', $type, $size, '', 0, 0, 0, 0) . "$text\0");
    $self->_fill_block($size);
    return;
}

sub _fill_block {
    my ($self, $size) = @_;
    my $excess = $size % $BLOCK;
    $self->_write("\0" x ($BLOCK - $excess)) if $excess;
    return;
}

sub header {
    my ($name, $type, $size, $target, $mode, $uid, $gid, $changed) = @_;
    my $header = pack 'a100 a8 a8 a8 a12 a12 A8 a1 a100 a8 x247', $name, number(S_IMODE($mode), 8), number($uid, 8),
        number($gid, 8), number($size, 12), number($changed, 12), '', $type, $target, "ustar  \0";
    # The sum is that of all bytes, its own field taken as blanks.
    substr $header, 148, 8, sprintf "%06o\0 ", unpack '%32C*', $header;
    return $header;
}

# Octal digits, or where they do not fit a binary number behind a byte that says so.
sub number {
    my ($value, $width) = @_;
    return sprintf '%0*o', $width - 1, $value if $value >= 0 && $value < 8**($width - 1);
    my ($mark, $fill) = $value < 0 ? ("\xFF", "\xFF") : ("\x80", "\0");
    return $mark . substr $fill x $width . pack('q>', $value), 1 - $width;
}

# A name for messages, on one line whatever it is.
sub printable {
    my ($name) = @_;
    $name =~ s/([\x00-\x1F\x7F\\])/sprintf '\\x%02X', ord $1/ge;
    return $name;
}

1;
