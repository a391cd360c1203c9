# SPDX-License-Identifier: Apache-2.0
#
# Files for the destination host. Each is made under another name and renamed when it is whole, because the
# destination may read it at any moment. Each belongs to the login: that is who fetches files, even where an
# agent runs as root.
package Agent::Files;
use strict;
use warnings;
use 5.010;
use Exporter qw(import);
use Fcntl qw(O_WRONLY O_CREAT O_EXCL);
use FindBin qw($RealBin $RealScript);

our @EXPORT_OK = qw(create_file add_to_file finish_file write_file remove_file);

# Opens a new file that will be $path.
sub create_file {
    my ($path) = @_;
    remove_file("$path.new");
    # O_EXCL: as root, never through a link that somebody put there.
    sysopen my $out, "$path.new", O_WRONLY | O_CREAT | O_EXCL, 0600 or die "cannot create $path.new: $!\n";
    binmode $out;
    if ($> == 0) {
        # This script was sent by the login and so belongs to it.
        my ($uid, $gid) = (stat "$RealBin/$RealScript")[4, 5];
        defined $gid && chown $uid, $gid, $out or die "cannot give $path.new to the login: $!\n";
    }
    return $out;
}

sub add_to_file {
    my ($out, $path, $bytes) = @_;
    return if print $out $bytes;
    my $reason = $!;
    close $out;    # fails too, and perl would say so on its own account
    die "cannot write $path.new: $reason\n";
}

# The file that create_file() opened is whole.
sub finish_file {
    my ($out, $path) = @_;
    close $out or die "cannot write $path.new: $!\n";
    rename "$path.new", $path or die "cannot rename $path.new to $path: $!\n";
    return;
}

sub write_file {
    my ($path, $bytes) = @_;
    my $out = create_file($path);
    add_to_file($out, $path, $bytes);
    finish_file($out, $path);
    return;
}

sub remove_file {
    my ($path) = @_;
    unlink $path or $!{ENOENT} or die "cannot remove $path: $!\n";
    return;
}

1;
