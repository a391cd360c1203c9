# SPDX-License-Identifier: Apache-2.0
#
# The options that a migration agent is called with, and the lists that come on standard input:
#
#   --get-status, --get-content-list       what the destination asks beside dumps; each stands alone
#   --migration-mode                       every dump has it
#   --dump-all                             dump everything
#   --dump-domains=LIST, --dump-clients=LIST, --dump-resellers=LIST
#                                          dump these; the names stand in standard input where LIST is "-"
#   --only-mail | --only-hosting           dump one half of each object
#   --no-content                           only describe, make no archives
#   --no-compress                          make archives that are not compressed
#   --include-app-distrib                  with the applications that domains use
#   --server, --admin-info, --no-license   with the server's own settings, its administrator, but no license
#   --content-transport=rsync              the destination could also be reached by rsync
package Agent::Options;
use strict;
use warnings;
use 5.010;
use Exporter qw(import);
use Getopt::Long qw(GetOptionsFromArray);

our @EXPORT_OK = qw(parse_options);

# The lists stand in standard input in this order, whatever the order of the options.
my @LISTS = qw(domains clients resellers);

# With --content-transport=rsync, four lines come first: host, login, password and port.
my $TRANSPORT_LINES = 4;

# A hash of the options by name; "domains", "clients" and "resellers" hold references to lists of names, which
# are read from standard input only when an option says so. Dies when the options make no sense.
sub parse_options {
    my (@arguments) = @_;
    my (%options, @complaints);
    Getopt::Long::Configure(qw(no_auto_abbrev no_ignore_case));
    {
        local $SIG{__WARN__} = sub { push @complaints, @_ };
        GetOptionsFromArray(\@arguments, \%options, qw(get-status get-content-list migration-mode dump-all
            only-mail only-hosting no-content no-compress include-app-distrib server admin-info no-license
            content-transport=s), map {"dump-$_=s"} @LISTS);
    }
    die @complaints if @complaints;
    die "\"$arguments[0]\" is no option\n" if @arguments;
    check(\%options);
    my @from_input = grep { ($options{"dump-$_"} // '') eq '-' } @LISTS;
    my @lines      = @from_input ? last_lines(\%options, scalar @from_input) : ();
    for my $list (@LISTS) {
        my $text = $options{"dump-$list"} // '';
        $text = shift @lines if $text eq '-';
        $options{$list} = [map { /^\s*(.*?)\s*$/ } grep {/\S/} split /,/, $text];
    }
    return \%options;
}

sub check {
    my ($options) = @_;
    my @actions = grep { $options->{$_} } qw(get-status get-content-list migration-mode);
    @actions == 1 or die "give exactly one of --get-status, --get-content-list and --migration-mode\n";
    die "--only-mail and --only-hosting exclude each other\n" if $options->{'only-mail'} && $options->{'only-hosting'};
    my $transport = $options->{'content-transport'} // 'rsync';
    $transport eq 'rsync' or die "the content transport \"$transport\" is unknown\n";
    return;
}

# The lists are the last lines of standard input, so they are counted from its end. What stands before them is
# not for us: where and with which password the destination could be reached, and the password of sudo too
# where sudo asked for none. It goes nowhere, not even into messages.
sub last_lines {
    my ($options, $count) = @_;
    my $least = $count + ($options->{'content-transport'} ? $TRANSPORT_LINES : 0);
    local $/;
    binmode STDIN;
    my $input = <STDIN> // '';
    $input =~ s/\n\z//;
    my @lines = split /\n/, $input, -1;
    @lines >= $least or die 'standard input has ' . @lines . " lines instead of $least\n";
    return @lines[-$count .. -1];
}

1;
