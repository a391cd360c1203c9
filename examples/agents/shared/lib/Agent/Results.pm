# SPDX-License-Identifier: Apache-2.0
#
# What a dump leaves in the agent's directory for the destination to fetch:
#
#   *.tar.gz, *.tar    archives of the content
#   dump.xml           what the dump consists of; it is made last and removed first
#   migration.result   what went wrong with single objects, an "execution-result" document
#   content.list       names, sizes and sums of all of these, for content_list()
#
# The destination removes each file that it has fetched. It looks for a copy that it has already by the last
# part of a listed path alone; so all files lie in the directory itself, under names that no other has.
package Agent::Results;
use strict;
use warnings;
use 5.010;
use Digest::MD5 qw(md5_hex);
use Fcntl qw(:flock);
use FindBin qw($RealBin $RealScript);

use Agent::Archive;
use Agent::Files qw(write_file remove_file);
use Agent::Tar;
use Agent::Xml qw(document element text_element);

my $ARCHIVE = qr/^[a-z]+-[0-9]+-[a-z]+\.tar(?:\.gz)?\z/;
my $LIST    = 'content.list';
my $DUMP    = 'dump.xml';
my $REPORT  = 'migration.result';

sub new {
    my ($class, $directory) = @_;
    return bless { directory => $directory, entries => [], notes => [] }, $class;
}

# Waits until no other dump is made in this directory: one whose connection was lost goes on, and two would mix
# their files. The lock is on the script itself, and goes with this process however it ends.
sub lock {
    my ($self) = @_;
    open $self->{lock}, '<', "$RealBin/$RealScript" or die "cannot open $RealScript: $!\n";
    flock $self->{lock}, LOCK_EX or die "cannot lock $RealScript: $!\n";
    return;
}

# Dies when the agent was removed, and perhaps sent anew, while it worked: the directory is not ours any more.
sub check_place {
    my ($self) = @_;
    (stat $self->{lock})[3] > 0 or die "the agent was removed while it worked\n";
    return;
}

# Makes room for a new dump: removes what an earlier one left.
sub begin {
    my ($self) = @_;
    $self->{begun} = 1;
    $self->_clear;
    return;
}

# Removes what a failed dump made; what was there before begin() stays.
sub abandon {
    my ($self) = @_;
    $self->_clear if $self->{begun};
    return;
}

sub _clear {
    my ($self) = @_;
    opendir my $handle, $self->{directory} or die "cannot read $self->{directory}: $!\n";
    remove_file("$self->{directory}/$_") for $DUMP, grep { of_a_dump($_) } readdir $handle;
    return;
}

sub of_a_dump {
    my ($name) = @_;
    $name =~ s/\.new\z//;
    return $name =~ $ARCHIVE || grep { $_ eq $name } $LIST, $DUMP, $REPORT;
}

# Archives the directory $how{tree} as $how{name}, with ".gz" behind it if $how{compress}. Calls
# $how{advance}(files, bytes) as it goes on and $how{note}(text) for what is not as it should be. Returns the
# archive's name, size, md5sum, the bytes that are unpacked from it and the number of its files.
sub archive {
    my ($self, %how) = @_;
    my $name = $how{name} . ($how{compress} ? '.gz' : '');
    $name =~ $ARCHIVE or die "\"$name\" is no name for an archive\n";
    my $archive = Agent::Archive->new("$self->{directory}/$name", $how{compress});

    my $files_told = 0;
    my $tar        = Agent::Tar->new(note => $how{note}, write => sub {
        my ($bytes, $files) = @_;
        $self->check_place;
        $archive->write($bytes);
        $how{advance}->($files - $files_told, length $bytes);
        $files_told = $files;
    });
    $tar->add_tree($how{tree});
    $tar->finish;
    my $entry = { name => $name, files => $tar->files, $archive->finish };
    push @{ $self->{entries} }, $entry;
    return $entry;
}

# Keeps in mind what is wrong with an object, for migration.result and for whoever reads standard error.
sub note {
    my ($self, $kind, $name, $text) = @_;
    push @{ $self->{notes} }, [$kind, $name, $text];
    print STDERR "warning: $kind $name: $text\n";
    return;
}

# All archives are made: now the dump comes into being.
sub publish {
    my ($self, $dump) = @_;
    my $report  = $self->_report;
    my @entries = (@{ $self->{entries} }, map { entry_of(@$_) } [$REPORT, $report], [$DUMP, $dump]);
    my @lines   = map { join("\t", @$_{qw(name size md5sum unpacked)}) . "\n" } @entries;
    $self->check_place;
    write_file("$self->{directory}/$LIST", join '', @lines);
    write_file("$self->{directory}/$REPORT", $report);
    write_file("$self->{directory}/$DUMP", $dump);
    return;
}

sub entry_of {
    my ($name, $bytes) = @_;
    return { name => $name, size => length $bytes, md5sum => md5_hex($bytes), unpacked => length $bytes };
}

sub _report {
    my ($self) = @_;
    return document(element('execution-result', [status => 'success'], map {
        my ($kind, $name, $text) = @$_;
        my $id = join '-', unpack 'a8 a4 a4 a4 a12', md5_hex("$kind $name $text");
        element('object', [name => $name, type => $kind],
            element('message', [code => 'ContentIncomplete', id => $id, severity => 'warning'],
                text_element('description', [], $text)));
    } @{ $self->{notes} }));
}

# The "contentlist" document of what is still there. Dies when there has been no dump.
sub content_list {
    my ($self) = @_;
    open my $in, '<', "$self->{directory}/$LIST" or die "there is no dump here ($LIST: $!)\n";
    my ($size, $unpacked, @files) = (0, 0);
    while (my $line = <$in>) {
        chomp $line;
        my ($name, $bytes, $md5sum, $unpacked_bytes) = split /\t/, $line;
        next if !-e "$self->{directory}/$name";
        $size     += $bytes;
        $unpacked += $unpacked_bytes;
        push @files, text_element('file', [size => $bytes, md5sum => $md5sum], $name);
    }
    return document(element('contentlist', [size => $size, unpacked => $unpacked], @files));
}

1;
