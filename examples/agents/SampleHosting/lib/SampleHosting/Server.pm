# SPDX-License-Identifier: Apache-2.0
#
# The sample hosting server as its configuration file describes it: resellers with clients, clients with
# domains, domains with a site, with mail and perhaps with an application. This is the part to replace with the
# tables, files or commands of another kind of server.
#
#   [server]                     [client anna]           [domain shop.example]
#   hostname source.example      id 3                    id 12
#   license SH-1234              reseller webworks       client anna
#                                                        site sites/shop.example
#
# Empty lines and lines that begin with "#" mean nothing. Ids are unique among objects of one kind; directories
# are relative to the directory of the file, links to it followed.
package SampleHosting::Server;
use strict;
use warnings;
use 5.010;
use Cwd qw(realpath);
use File::Basename qw(dirname);

my @KINDS = qw(reseller client domain application);

sub new {
    my ($class, $path) = @_;
    my $file = realpath($path) // $path;
    my $self = bless { server => {}, admin => {}, map { ($_ => {}) } @KINDS }, $class;
    open my $in, '<:raw', $file or die "cannot read the server's configuration $path: $!\n";
    my $object;
    while (my $line = <$in>) {
        chomp $line;
        next if $line =~ /^(?:#|\s*$)/;
        if    ($line =~ /^\[(\w+)(?: (.+))?\]$/)       { $object = $self->_object($1, $2) }
        elsif ($object && $line =~ /^([a-z-]+) (.*)$/) { $object->{$1} = $2 }
        else                                           { undef $object }
        $object or die "$path:$.: cannot be understood\n";
    }
    close $in or die "cannot read the server's configuration $path: $!\n";
    $self->_check($path);
    $self->{root} = dirname($file);
    return $self;
}

sub _object {
    my ($self, $kind, $name) = @_;
    return $self->{$kind} if !defined $name && $kind =~ /^(?:server|admin)$/;
    return if !defined $name || !grep { $_ eq $kind } @KINDS;
    return $self->{$kind}{$name} ||= { kind => $kind, name => $name };
}

# Archives are named by kind and id, so two objects with one id would overwrite each other.
sub _check {
    my ($self, $path) = @_;
    for my $kind (@KINDS) {
        my %seen;
        for my $object (values %{ $self->{$kind} }) {
            my $id = $object->{id} // '';
            $id =~ /^[0-9]+$/ && !$seen{ $id + 0 }++ or die "$path: $kind $object->{name} has no id of its own\n";
        }
    }
    return;
}

sub server { return $_[0]{server} }
sub admin  { return $_[0]{admin} }

# The directory that an object names by the given key, or undef when it has none.
sub directory {
    my ($self, $object, $key) = @_;
    return defined $object->{$key} ? "$self->{root}/$object->{$key}" : undef;
}

# What is to be dumped: for each kind the objects in the order of their ids. A reseller comes with clients and
# domains, a client with domains, and with --include-app-distrib a domain with its application.
sub selection {
    my ($self, $options) = @_;
    return { map { ($_ => [$self->_sorted($_)]) } @KINDS } if $options->{'dump-all'};
    my %resellers = $self->_named('reseller', $options->{resellers});
    my %clients   = ($self->_named('client', $options->{clients}), $self->_owned('client', reseller => \%resellers));
    my %domains   = (
        $self->_named('domain', $options->{domains}),
        $self->_owned('domain', reseller => \%resellers),
        $self->_owned('domain', client   => \%clients),
    );
    my %applications = map { ($_ => 1) } grep { defined } map { $_->{application} } values %domains;
    %applications = () if !$options->{'include-app-distrib'};
    return {
        reseller    => [$self->_sorted('reseller',    \%resellers)],
        client      => [$self->_sorted('client',      \%clients)],
        domain      => [$self->_sorted('domain',      \%domains)],
        application => [$self->_sorted('application', \%applications)],
    };
}

sub _named {
    my ($self, $kind, $names) = @_;
    my @unknown = grep { !$self->{$kind}{$_} } @$names;
    die "this server has no $kind " . join(', ', map {qq("$_")} @unknown) . "\n" if @unknown;
    return map { ($_ => $self->{$kind}{$_}) } @$names;
}

sub _owned {
    my ($self, $kind, $owner_kind, $owners) = @_;
    return map { ($_->{name} => $_) }
        grep { defined $_->{$owner_kind} && $owners->{ $_->{$owner_kind} } } values %{ $self->{$kind} };
}

sub _sorted {
    my ($self, $kind, $names) = @_;
    return sort { $a->{id} <=> $b->{id} } grep { !$names || $names->{ $_->{name} } } values %{ $self->{$kind} };
}

1;
