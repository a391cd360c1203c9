# SPDX-License-Identifier: Apache-2.0
#
# One dump: an archive for each directory of each selected object, and dump.xml, which says what the objects
# are and which archives belong to them.
package SampleHosting::Dump;
use strict;
use warnings;
use 5.010;

use Agent::Xml qw(document element);

# $wanted: the options of the dumper. $results takes what is made, $status follows it.
sub new {
    my ($class, $server, $selection, $wanted, $results, $status) = @_;
    return bless { server => $server, selection => $selection, wanted => $wanted, results => $results,
        status => $status }, $class;
}

sub run {
    my ($self) = @_;
    my @objects = map { @{ $self->{selection}{$_} } } qw(reseller client domain application);
    $self->{status}->begin(scalar @objects);

    my @described = $self->_server;
    for my $object (@objects) {
        $self->{status}->begin_object($object->{name});
        my $describe = "_$object->{kind}";
        push @described, $self->$describe($object);
        $self->{status}->end_object;
    }
    my $dump = element('migration-dump', [agent => 'SampleHosting', version => 1], @described);
    $self->{results}->publish(document($dump));
    return;
}

# All of the server and of its administrator is part of everything; else they come when they are asked for.
sub _server {
    my ($self) = @_;
    my ($wanted, $server, $admin) = ($self->{wanted}, $self->{server}->server, $self->{server}->admin);
    my @described;
    if ($wanted->{'dump-all'} || $wanted->{server}) {
        my $license = !$wanted->{'no-license'} && $server->{license};
        push @described, element('server', [hostname => $server->{hostname}],
            $license ? element('license', [key => $license]) : ());
    }
    if ($wanted->{'dump-all'} || $wanted->{'admin-info'}) {
        push @described, element('admin', [contact => $admin->{contact}, email => $admin->{email}]);
    }
    return @described;
}

sub _reseller {
    my ($self, $reseller) = @_;
    return element('reseller', attributes($reseller, qw(id name contact email)),
        $self->_content($reseller, 'skeleton'));
}

sub _client {
    my ($self, $client) = @_;
    return element('client', attributes($client, qw(id name reseller contact email)));
}

sub _domain {
    my ($self, $domain) = @_;
    return element('domain', attributes($domain, qw(id name client reseller application)),
        (map { element('alias', [name => $_]) } split / /, $domain->{aliases} // ''),
        $self->_content($domain, 'site'),
        $self->_content($domain, 'mail'));
}

sub _application {
    my ($self, $application) = @_;
    return element('application', attributes($application, qw(id name version)),
        $self->_content($application, 'distribution'));
}

sub attributes {
    my ($object, @names) = @_;
    return [map { ($_ => $object->{$_}) } @names];
}

# The element of one directory of an object, with its archive unless no content is wanted; nothing when the
# object has no such directory or the filter leaves it out.
sub _content {
    my ($self, $object, $what) = @_;
    my ($wanted, $directory) = ($self->{wanted}, $self->{server}->directory($object, $what));
    return if !defined $directory || $wanted->{ $what eq 'mail' ? 'only-hosting' : 'only-mail' };
    return element($what, []) if $wanted->{'no-content'};

    my $archive = $self->{results}->archive(
        name     => "$object->{kind}-$object->{id}-$what.tar",    # ids, since names may be anything
        tree     => $directory,
        compress => !$wanted->{'no-compress'},
        advance  => sub { $self->{status}->advance(@_) },
        note     => sub { $self->{results}->note($object->{kind}, $object->{name}, @_) },
    );
    return element($what, [], element('archive', attributes($archive, qw(name size md5sum unpacked files))));
}

1;
