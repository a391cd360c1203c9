# SPDX-License-Identifier: Apache-2.0
#
# A file that is compressed, counted and summed up while it is written, so that nobody has to read it again.
package Agent::Archive;
use strict;
use warnings;
use 5.010;
use Compress::Raw::Zlib qw(Z_OK Z_BEST_SPEED WANT_GZIP);
use Digest::MD5;

use Agent::Files qw(create_file add_to_file finish_file);

sub new {
    my ($class, $path, $compress) = @_;
    my $self = bless { path => $path, size => 0, unpacked => 0, md5 => Digest::MD5->new, out => create_file($path) },
        $class;
    if ($compress) {
        # The source host is to be burdened little, and most of what sites hold is compressed already.
        my ($packer, $status) = Compress::Raw::Zlib::Deflate->new(-WindowBits => WANT_GZIP, -Level => Z_BEST_SPEED);
        $self->{packer} = $packer or die "cannot compress: $status\n";
    }
    return $self;
}

sub write {
    my ($self, $bytes) = @_;
    $self->{unpacked} += length $bytes;
    return $self->_save($bytes) if !$self->{packer};
    $self->{packer}->deflate($bytes, my $packed) == Z_OK or die "cannot compress $self->{path}\n";
    $self->_save($packed);
    return;
}

# The file is whole. Returns its size, its md5sum and the bytes that are unpacked from it.
sub finish {
    my ($self) = @_;
    if ($self->{packer}) {
        $self->{packer}->flush(my $packed) == Z_OK or die "cannot compress $self->{path}\n";
        $self->_save($packed);
    }
    finish_file($self->{out}, $self->{path});
    return (size => $self->{size}, md5sum => $self->{md5}->hexdigest, unpacked => $self->{unpacked});
}

sub _save {
    my ($self, $bytes) = @_;
    add_to_file($self->{out}, $self->{path}, $bytes);
    $self->{md5}->add($bytes);
    $self->{size} += length $bytes;
    return;
}

1;
