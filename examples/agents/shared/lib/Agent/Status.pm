# SPDX-License-Identifier: Apache-2.0
#
# dumping-status.xml, which the destination fetches every few seconds while a dump is made:
#
#   <dumping-status><dumping total="12" left="3" current="shop.example" files="812" bytes="7340032"/></dumping-status>
#
# and at the end <finished .../> or <failed message="..."/> in place of <dumping/>. Total and left count objects;
# files and bytes are those archived so far.
package Agent::Status;
use strict;
use warnings;
use 5.010;
use Time::HiRes qw(time);

use Agent::Files qw(write_file);
use Agent::Xml qw(document element);

my $SAVE_INTERVAL_S = 0.2;

sub new {
    my ($class, $path) = @_;
    return bless { path => $path, total => 0, left => 0, files => 0, bytes => 0, saved => 0 }, $class;
}

sub begin {
    my ($self, $total) = @_;
    $self->{total} = $self->{left} = $total;
    $self->_dumping;
    return;
}

sub begin_object {
    my ($self, $name) = @_;
    $self->{current} = $name;
    $self->_dumping;
    return;
}

sub advance {
    my ($self, $files, $bytes) = @_;
    $self->{files} += $files;
    $self->{bytes} += $bytes;
    # abs: a clock that is set back must not stop it
    $self->_dumping if abs(time - $self->{saved}) >= $SAVE_INTERVAL_S;
    return;
}

sub end_object {
    my ($self) = @_;
    $self->{left}--;
    return;
}

sub finish {
    my ($self) = @_;
    $self->_save('finished', [map { ($_ => $self->{$_}) } qw(total files bytes)]);
    return;
}

sub fail {
    my ($self, $message) = @_;
    chomp $message;
    $self->_save('failed', [message => $message]);
    return;
}

sub _dumping {
    my ($self) = @_;
    $self->_save('dumping', [map { ($_ => $self->{$_}) } qw(total left current files bytes)]);
    return;
}

sub _save {
    my ($self, $state, $attributes) = @_;
    write_file($self->{path}, document(element('dumping-status', [], element($state, $attributes))));
    $self->{saved} = time;
    return;
}

1;
