#!/usr/bin/perl
# SPDX-License-Identifier: Apache-2.0
#
# The entry point of the agent "SampleHosting". The destination host sends what agents share and this agent
# (all but "control") into one directory on the source host and calls there, as the login user or through sudo:
#
#   bin/agent.pl --get-status                 can the agent work here? prints an "agentstatus" document
#   bin/agent.pl --migration-mode [OPTION...] dumps; see Agent::Options
#   bin/agent.pl --get-content-list           prints what waits to be fetched, a "contentlist" document
#
# Ends with 0, with 1 and a message on standard error when something fails, with 2 when it is called wrongly.
# Standard output is for whole documents alone.
use strict;
use warnings;
use 5.010;
use File::Basename qw(dirname);
use FindBin qw($RealBin);
use lib "$RealBin/../lib";

use Agent::Options qw(parse_options);
use Agent::Results;
use Agent::Status;
use Agent::Xml qw(document element text_element);
use SampleHosting::Dump;
use SampleHosting::Server;

# Everything that the destination fetches lies here.
my $DIRECTORY   = dirname($RealBin);
my $STATUS_FILE = 'dumping-status.xml';

# Through sudo there is no way to name another file, since sudo clears the environment.
my $SERVER_FILE = $ENV{SAMPLE_HOSTING_CONF} // '/etc/sample-hosting.conf';

# What a dump holds is nobody's business but the login's, who fetches it.
umask 077;

# A dump that is ended from outside tidies up and says so, as for any other failure.
$SIG{$_} = sub { die "ended by SIG$_[0]\n" } for qw(HUP INT TERM);
# One whose connection was lost is not to end in the middle because nobody reads its warnings.
$SIG{PIPE} = 'IGNORE';

my $options = eval { parse_options(@ARGV) } or give_up(2, $@);
eval {
    if    ($options->{'get-status'})       { say_document(agent_status()) }
    elsif ($options->{'get-content-list'}) { say_document(Agent::Results->new($DIRECTORY)->content_list) }
    else                                   { make_dump($options) }
    1;
} or give_up(1, $@);
exit 0;

sub give_up {
    my ($exit_status, $message) = @_;
    print STDERR "SampleHosting: $message";
    exit $exit_status;
}

sub say_document {
    my ($text) = @_;
    binmode STDOUT;
    print STDOUT $text or die "cannot print: $!\n";
    close STDOUT or die "cannot print: $!\n";
    return;
}

# An agent that cannot read its server should fail when it is deployed, not in the middle of a migration.
sub agent_status {
    SampleHosting::Server->new($SERVER_FILE);
    return document(element('agentstatus', [], text_element('statusfile', [], $STATUS_FILE)));
}

sub make_dump {
    my ($wanted) = @_;
    my $results = Agent::Results->new($DIRECTORY);
    $results->lock;
    my $status = Agent::Status->new("$DIRECTORY/$STATUS_FILE");
    eval {
        my $server    = SampleHosting::Server->new($SERVER_FILE);
        my $selection = $server->selection($wanted);    # unknown names fail before an earlier dump is touched
        $results->begin;
        SampleHosting::Dump->new($server, $selection, $wanted, $results, $status)->run;
        $status->finish;
        1;
    } and return;

    my $failure = $@;
    if (eval { $results->check_place; 1 }) {
        # The failure itself is what matters; that a full disk takes no status either adds nothing to it.
        eval { $status->fail($failure) };
        eval { $results->abandon };
    }
    die $failure;
}
