#!/usr/bin/perl
# SPDX-License-Identifier: Apache-2.0
#
# A scout: reports, as one XML document on standard output, what a source host is and has, so that the
# destination host can tell what there is to migrate.
#
# It comes to "perl" through standard input, on hosts that may be old, with nothing but perl's core (5.8 or
# later), as any login or as root. So it needs no file of its own, asks no module that a minimal perl lacks,
# runs programs from the system's directories only, and leaves out what it cannot find out. Everything is
# printed at the very end: a report is whole, or there is a message on standard error and a status other than 0.
use strict;
use warnings;
use Fcntl qw(O_RDONLY O_NONBLOCK);
use POSIX ();

my @PROGRAM_DIRECTORIES = (qw(/usr/local/sbin /usr/local/bin /usr/sbin /usr/bin /sbin /bin),
    glob('/usr/local/*/bin /usr/local/*/sbin /usr/lib/postgresql/*/bin /usr/pgsql-*/bin'));
my $COMMAND_LIMIT_S = 5;          # a program that answers later than this does not count as found
my $FILE_LIMIT      = 4 << 20;    # bytes read of any one file
my $INCLUDE_LIMIT   = 2000;       # configuration files read for one web server

# File systems that hold data of the host, as opposed to views of the kernel and of memory.
my $DATA_FILE_SYSTEM = qr/^(?:ext[234]|xfs|btrfs|zfs|jfs|reiserfs|ufs|vfat|nfs4?|cifs|simfs|overlay|f2fs|glusterfs|ceph)$/;

# What to look for: the name to report, the names of its program, the option that makes it say its version.
my @INTERPRETERS = (
    { name => 'perl',   program => qr/^perl[\d.]*$/,     option => '--version' },
    { name => 'php',    program => qr/^php[\d.]*$/,      option => '--version' },
    { name => 'python', program => qr/^python[\d.]*$/,   option => '--version' },
    { name => 'ruby',   program => qr/^ruby[\d.]*$/,     option => '--version' },
    { name => 'node',   program => qr/^node(?:js)?$/,    option => '--version' },
    { name => 'lua',    program => qr/^lua[\d.]*$/,      option => '-v' },
);
my @DATABASES = (
    { name => 'mysql', program => qr/^(?:mysqld|mariadbd)$/, option => '--version', server => 1,
        data => ['/var/lib/mysql'] },
    { name => 'postgresql', program => qr/^postgres$/, option => '--version', server => 1,
        data => ['/var/lib/postgresql', '/var/lib/pgsql'] },
    { name => 'mongodb', program => qr/^mongod$/, option => '--version', server => 1,
        data => ['/var/lib/mongodb', '/var/lib/mongo'] },
    { name => 'redis', program => qr/^redis-server$/, option => '--version', server => 1,
        data => ['/var/lib/redis'] },
    { name => 'sqlite', program => qr/^sqlite3?$/, option => '-version' },
);
my @WEB_SERVERS = (
    { name => 'apache',   program => qr/^(?:apache2|httpd2?)$/, option => '-v',      server => 1 },
    { name => 'nginx',    program => qr/^nginx$/,               option => '-v',      server => 1 },
    { name => 'lighttpd', program => qr/^lighttpd$/,            option => '-v',      server => 1 },
    { name => 'caddy',    program => qr/^caddy$/,               option => 'version', server => 1 },
);
my @APACHE_FILES = qw(/etc/apache2/apache2.conf /etc/apache2/httpd.conf /etc/httpd/conf/httpd.conf
    /usr/local/apache2/conf/httpd.conf /usr/local/apache/conf/httpd.conf);
my @NGINX_FILES = qw(/etc/nginx/nginx.conf /usr/local/nginx/conf/nginx.conf /usr/local/etc/nginx/nginx.conf);

$ENV{PATH}   = '/usr/sbin:/usr/bin:/sbin:/bin';
$ENV{LC_ALL} = 'C';
delete @ENV{qw(IFS CDPATH ENV BASH_ENV PERL5LIB PERL5OPT PYTHONPATH RUBYLIB RUBYOPT PHPRC LD_PRELOAD LD_LIBRARY_PATH)};

my %running = running_programs();

my $report = qq(<?xml version="1.0" encoding="UTF-8"?>\n) . element('scout', [version => 1],
    system_report(),
    memory_report(),
    element('disks', [], disk_reports()),
    element('interpreters', [], map { program_reports('interpreter', $_) } @INTERPRETERS),
    element('databases', [], map { program_reports('database', $_) } @DATABASES),
    element('web-servers', [], map { program_reports('web-server', $_) } @WEB_SERVERS),
    element('accounts', [], account_reports()),
    element('sites', [], (map { apache_sites($_) } @APACHE_FILES), (map { nginx_sites($_) } @NGINX_FILES)));

binmode STDOUT;
print STDOUT $report or die "scout: cannot print the report: $!\n";
close STDOUT or die "scout: cannot print the report: $!\n";
exit 0;

# ---- The parts of the report ----

sub system_report {
    my ($kernel, $hostname, $release, undef, $arch) = POSIX::uname();
    my %os = os_release();
    my ($uptime) = map { /^(\d+)/ } read_file('/proc/uptime');
    my $cpus   = read_file('/proc/cpuinfo');
    my @count  = $cpus =~ /^processor\s*:/mg;
    my ($model) = $cpus =~ /^model name\s*:\s*(.*?)\s*$/m;
    return element('system', [hostname => $hostname],
        element('os', [name => $os{NAME}, id => $os{ID}, version => $os{VERSION_ID}, title => $os{PRETTY_NAME}]),
        element('kernel', [name => $kernel, release => $release, arch => $arch]),
        defined $uptime ? element('uptime', [seconds => $uptime]) : (),
        @count ? element('cpus', [count => scalar @count, model => $model]) : (),
        element('perl', [version => sprintf '%vd', $^V]),
        element('user', [uid => $>, name => scalar getpwuid $>, root => yes_no($> == 0)]));
}

sub os_release {
    my %os;
    for (split /\n/, read_file('/etc/os-release') || read_file('/usr/lib/os-release')) {
        $os{$1} = unquoted($2) if /^([A-Z_]+)=(.*)$/;
    }
    if (!%os) {    # before there was such a file
        my ($title) = split /\n/, read_file('/etc/redhat-release') || read_file('/etc/SuSE-release');
        $os{PRETTY_NAME} = $title;
        my ($version) = read_file('/etc/debian_version') =~ /^(\S+)/;
        @os{qw(NAME VERSION_ID)} = ('Debian GNU/Linux', $version) if defined $version && !defined $title;
    }
    return %os;
}

sub memory_report {
    my %kib = read_file('/proc/meminfo') =~ /^(\w+):\s+(\d+) kB$/mg;
    return %kib
        ? element('memory', ['total-kib' => $kib{MemTotal}, 'free-kib' => $kib{MemFree},
            'available-kib' => $kib{MemAvailable}, 'swap-total-kib' => $kib{SwapTotal}, 'swap-free-kib' => $kib{SwapFree}])
        : ();
}

# One element for each file system, however often it is mounted.
sub disk_reports {
    my (@reports, %seen);
    for (split /\n/, read_file('/proc/mounts')) {
        my ($device, $directory, $type, $options) = map { unescaped_octal($_) } split / /;
        next if !defined $options || $type !~ $DATA_FILE_SYSTEM || $seen{$device}++ && $type ne 'overlay';
        my ($size, $used, $free) = output_of('df', '-P', '-k', $directory) =~ /\s(\d+)\s+(\d+)\s+(\d+)\s+\S+%\s/;
        push @reports, element('disk', [device => $device, mount => $directory, type => $type,
            'read-only' => yes_no($options =~ /^ro(?:,|$)/), 'size-kib' => $size, 'used-kib' => $used, 'free-kib' => $free]);
    }
    return @reports;
}

# People, and nothing that could help to become one of them.
sub account_reports {
    my %limits = read_file('/etc/login.defs') =~ /^\s*(UID_M(?:IN|AX))\s+(\d+)/mg;
    my $first  = defined $limits{UID_MIN} ? $limits{UID_MIN} : 1000;
    my $last   = defined $limits{UID_MAX} ? $limits{UID_MAX} : 60000;
    my @reports;
    for (split /\n/, read_file('/etc/passwd')) {
        my ($login, undef, $uid, $gid, undef, $home, $shell) = split /:/, $_, -1;
        next if !defined $shell || $uid !~ /^\d+$/ || $uid < $first || $uid > $last || $shell =~ m{/(?:nologin|false|sync)$};
        push @reports, element('account', [login => $login, uid => $uid, gid => $gid, home => $home,
            'home-exists' => yes_no(-d $home), shell => $shell]);
    }
    return @reports;
}

# ---- Programs ----

# One element for each program of the given kind, with the first version number that it says; a program that
# goes by several names is told once. No word about running where the kernel does not show who runs.
sub program_reports {
    my ($element, $kind) = @_;
    my ($data) = grep { -d } @{ $kind->{data} || [] };
    my (@reports, %seen);
    for my $path (programs($kind->{program})) {
        next if $seen{ join ':', (stat $path)[0, 1] }++;
        my ($version) = output_of($path, $kind->{option}) =~ /(\d+(?:\.\d+)+[-\w.]*)/ or next;
        my ($program) = $path =~ m{([^/]+)$};
        push @reports, element($element, [name => $kind->{name}, path => $path, version => $version,
            running => $kind->{server} && %running ? yes_no($running{$program}) : undef, data => $data]);
    }
    return @reports;
}

my %names_in;

sub programs {
    my ($pattern) = @_;
    my @found;
    for my $directory (@PROGRAM_DIRECTORIES) {
        $names_in{$directory} = [entries($directory)] if !$names_in{$directory};
        push @found, map {"$directory/$_"} grep { $_ =~ $pattern && -f "$directory/$_" && -x _ } @{ $names_in{$directory} };
    }
    return @found;
}

# Names of the programs that run now; empty where the kernel does not tell.
sub running_programs {
    return map { /^(.+)\n/ ? ($1 => 1) : () } map { read_file("/proc/$_/comm") } grep {/^\d+$/} entries('/proc');
}

# What a program prints on both of its outputs, or nothing if it cannot be run or takes too long. It gets no
# input: what perl's own standard input still holds is not for it.
sub output_of {
    my ($program, @arguments) = @_;
    pipe my $from_child, my $to_parent or return '';
    binmode $from_child;
    my $child = fork;
    return '' if !defined $child;
    if ($child == 0) {
        open STDIN,  '<',  '/dev/null';
        open STDOUT, '>&', $to_parent;
        open STDERR, '>&', $to_parent;
        { no warnings 'exec'; exec {$program} $program, @arguments }
        POSIX::_exit(127);
    }
    close $to_parent;
    my $output  = '';
    my $in_time = eval {
        local $SIG{ALRM} = sub { die "late\n" };
        alarm $COMMAND_LIMIT_S;
        while (length $output < $FILE_LIMIT && sysread $from_child, $output, 65536, length $output) { }
        waitpid $child, 0;
        alarm 0;
        1;
    };
    alarm 0;
    return $output if $in_time;
    # It need not end soon even so, for example when it hangs on a lost network file system.
    kill 'KILL', $child;
    waitpid $child, POSIX::WNOHANG();
    return '';
}

# ---- Web sites ----

# One element for each "VirtualHost" of Apache's configuration, and one for what stands outside of all.
sub apache_sites {
    my ($main) = @_;
    my ($root) = $main =~ m{^(.*?)(?:/conf)?/[^/]+$};
    my $state = { root => $root, define => {}, files => 0, main => new_site($main), sites => [] };
    read_apache($main, $state, 0);
    unshift @{ $state->{sites} }, $state->{main} if defined $state->{main}{root};
    return map { site_report('apache', $_) } @{ $state->{sites} };
}

sub new_site {
    my ($file, @listen) = @_;
    return { file => $file, listen => \@listen, names => [], root => undef };
}

sub read_apache {
    my ($file, $state, $depth) = @_;
    return if $depth > 16 || $state->{files}++ > $INCLUDE_LIMIT;
    (my $text = read_file($file)) =~ s/\\\r?\n//g;
    for (split /\r?\n/, $text) {
        next if !m{^\s*([<\w/]+)\s*(.*?)\s*$};
        my ($directive, $rest) = (lc $1, $2);
        $rest =~ s/\$\{(\w+)\}/defined $state->{define}{$1} ? $state->{define}{$1} : "\${$1}"/ge;
        my @words = map { unquoted($_) } $rest =~ /("(?:[^"\\]|\\.)*"|'[^']*'|[^\s>]+)/g;
        apache_directive($file, $state, $depth, $directive, @words);
    }
}

sub apache_directive {
    my ($file, $state, $depth, $directive, @words) = @_;
    my $site = $state->{open} || $state->{main};
    if ($directive eq '</virtualhost') { delete $state->{open} }
    elsif (!@words) { }
    elsif ($directive eq '<virtualhost') {
        $state->{open} = new_site($file, @words);
        push @{ $state->{sites} }, $state->{open};
    }
    elsif ($directive =~ /^include(?:optional)?$/) {
        read_apache($_, $state, $depth + 1) for map { files_of($state->{root}, $_) } @words;
    }
    elsif ($directive eq 'serverroot')   { $state->{root} = $words[0] }
    elsif ($directive eq 'define')       { $state->{define}{ $words[0] } = defined $words[1] ? $words[1] : '' }
    elsif ($directive eq 'listen')       { push @{ $site->{listen} }, $words[0] }
    elsif ($directive eq 'servername')   { unshift @{ $site->{names} }, site_name($words[0]) }
    elsif ($directive eq 'serveralias')  { push @{ $site->{names} }, @words }
    elsif ($directive eq 'documentroot') { $site->{root} = $words[0] }
}

# "http://name:80" as Apache allows it, down to the name.
sub site_name {
    my ($name) = @_;
    $name =~ s{^\w+://}{};
    $name =~ s{:\d+$}{};
    return $name;
}

# One element for each "server" of nginx's configuration.
sub nginx_sites {
    my ($main) = @_;
    my ($root) = $main =~ m{^(.*)/};
    my $state = { root => $root, files => 0, blocks => [], sites => [] };
    read_nginx($main, $state, 0);
    return map { site_report('nginx', $_) } @{ $state->{sites} };
}

# Directives end in ";", blocks stand in braces; a block that an included file leaves open goes on after it.
sub read_nginx {
    my ($file, $state, $depth) = @_;
    return if $depth > 16 || $state->{files}++ > $INCLUDE_LIMIT;
    my $text = read_file($file);
    my @words;
    while ($text =~ /\G(?>(?:\s+|#[^\n]*)*)("(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)*'|[;{}]|[^\s;{}]+)/gs) {
        my $word = $1;
        if ($word !~ /^[;{}]$/) { push @words, unquoted($word); next }
        if    ($word eq '{')    { push @{ $state->{blocks} }, { %{ new_site($file) }, kind => $words[0] || '' } }
        elsif ($word eq ';')    { nginx_directive($state, $depth, @words) }
        else {
            push @{ $state->{sites} }, $state->{blocks}[-1] if in_site($state);
            pop @{ $state->{blocks} };
        }
        @words = ();
    }
}

# Whether what is read now stands directly in a "server" of "http": neither mail servers nor places are sites.
sub in_site {
    my ($state) = @_;
    return join(' ', map { $_->{kind} } @{ $state->{blocks} }) eq 'http server';
}

sub nginx_directive {
    my ($state, $depth, $directive, @words) = @_;
    my $site = $state->{blocks}[-1];
    if    (!@words) { }
    elsif ($directive eq 'include') {
        read_nginx($_, $state, $depth + 1) for map { files_of($state->{root}, $_) } @words;
    }
    elsif (!in_site($state))            { }
    elsif ($directive eq 'server_name') { push @{ $site->{names} }, @words }
    elsif ($directive eq 'listen')      { push @{ $site->{listen} }, $words[0] }
    elsif ($directive eq 'root')        { $site->{root} = $words[0] }
}

sub site_report {
    my ($server, $site) = @_;
    my ($name, @aliases) = @{ $site->{names} };
    my $root = $site->{root};
    return element('site', [server => $server, name => $name, file => $site->{file}],
        (map { element('listen', [address => $_]) } @{ $site->{listen} }),
        (map { element('alias', [name => $_]) } @aliases),
        defined $root ? element('document-root', [path => $root, exists => yes_no(-d $root)]) : ());
}

# The files that an include names: a file, a pattern, or (for Apache) a directory with all that it holds.
sub files_of {
    my ($root, $name) = @_;
    $name = "$root/$name" if $name !~ m{^/};
    (my $pattern = $name) =~ s/([\s\\{}~"'])/\\$1/g;
    return map { my $path = $_; -d $path ? (map { files_of($path, $_) } entries($path)) : $path } sort glob $pattern;
}

# ---- Files and text ----

# At most $FILE_LIMIT bytes of a plain file; nothing at all if it cannot be read.
sub read_file {
    my ($path) = @_;
    # Opening a FIFO would wait for its writer.
    sysopen my $in, $path, O_RDONLY | O_NONBLOCK or return '';
    return '' if !-f $in;
    binmode $in;    # bytes, whatever PERL_UNICODE would make of them
    my $text = '';
    while (length $text < $FILE_LIMIT && sysread $in, $text, 65536, length $text) { }
    return $text;
}

sub entries {
    my ($directory) = @_;
    opendir my $handle, $directory or return;
    return sort grep { !/^\./ } readdir $handle;
}

sub yes_no { return $_[0] ? 'yes' : 'no' }

sub unquoted {
    my ($text) = @_;
    $text =~ s/^(["'])(.*)\1$/$2/s;
    return $text;
}

# /proc/mounts writes a blank as \040.
sub unescaped_octal {
    my ($text) = @_;
    $text =~ s/\\([0-7]{3})/chr oct $1/ge;
    return $text;
}

# An element with its attributes, a list of names and values of which the undefined ones are left out, and its
# children, which are elements already.
sub element {
    my ($name, $attributes, @children) = @_;
    my $tag     = $name;
    my @remains = @$attributes;
    while (my ($attribute, $value) = splice @remains, 0, 2) {
        $tag .= sprintf ' %s="%s"', $attribute, xml_text($value) if defined $value;
    }
    return "<$tag/>\n" if !@children;
    my $inside = join '', @children;
    $inside =~ s/^/  /mg;
    return "<$tag>\n$inside</$name>\n";
}

# Any bytes as text of an attribute: what is not UTF-8, or no character of XML 1.0, becomes U+FFFD.
sub xml_text {
    my ($bytes) = @_;
    my $text = '';
    while ($bytes =~ /\G(?:(
          [\x09\x0A\x0D\x20-\x7F]
        | [\xC2-\xDF][\x80-\xBF]
        | \xE0[\xA0-\xBF][\x80-\xBF]
        | [\xE1-\xEC\xEE][\x80-\xBF]{2}
        | \xED[\x80-\x9F][\x80-\xBF]
        | \xEF(?:[\x80-\xBE][\x80-\xBF] | \xBF[\x80-\xBD])
        | \xF0[\x90-\xBF][\x80-\xBF]{2}
        | [\xF1-\xF3][\x80-\xBF]{3}
        | \xF4[\x80-\x8F][\x80-\xBF]{2}
        )|.)/gsx) {
        my $character = defined $1 ? $1 : "\xEF\xBF\xBD";
        $character =~ s/([&<>"\x09\x0A\x0D])/'&#' . ord($1) . ';'/e;
        $text .= $character;
    }
    return $text;
}
