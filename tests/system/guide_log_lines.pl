#!/usr/bin/perl
# The guide tells every log line of levels 0 to 4, and none that is not logged: compares the tables
# below its headings "### `SOURCE`" with the log calls of the library. A row begins with the level
# and the text; "..." stands for what the program puts in.
#
#   guide_log_lines.pl <source tree> <guide.md>
use strict;
use warnings;
use File::Find;

my ($tree, $guide) = @ARGV;
my $faults = 0;

sub complain {
    print STDERR "$_[0]\n";
    $faults++;
}

sub plain {
    my ($text) = @_;
    $text =~ s/\\(.)/$1/g;
    $text =~ s/%[-+ #0]*\d*(?:hh|h|ll|l|z)?[diuxXpscf]/.../g;
    return $text =~ s/\s+/ /gr =~ s/^ | $//gr;
}

# "SOURCE: text" => what is known of it
my (%logged, %told);

# The arguments of a call that begins at the current place of a text: its strings joined.
my $string = qr/"((?:[^"\\]|\\.)*)"/;
# A call up to its level.
my $call = qr/\b(?:(?:REFLECTORB|TRANSPORT)_LOG\(|(?:REFLECTORB|TRANSPORT)_LOG_LIMITED\(\s*[\w.>()\[\]-]+,)/;
sub read_file {
    my ($file) = @_;
    open(my $in, '<', $file) or die "$file: $!\n";
    my $code = do { local $/; <$in> };
    my ($source) = $code =~ /\bkSource(?:\[\])?\s*=\s*$string/;
    while ($code =~ /$call\s*(\w+),\s*(?:$string|kSource),\s*((?:"(?:[^"\\]|\\.)*"\s*)+)/g) {
        my ($level, $name, $format) = ($1, $2 // $source, $3);
        next if $level eq '5' || $level eq '6' || $level eq 'kBacktraceLevel';
        my $line = 1 + (substr($code, 0, $-[0]) =~ tr/\n//);
        my $text = plain(join('', $format =~ /$string/g));
        push @{$logged{"$name: $text"}}, {level => $level, place => "$file:$line"};
    }
    # Each call must have been understood.
    my $calls = () = $code =~ /\b(?:REFLECTORB|TRANSPORT)_LOG(?:_LIMITED)?\(/g;
    my $definitions = () = $code =~ /#define (?:REFLECTORB|TRANSPORT)_LOG\(/g;
    my $understood = () = $code =~ /$call\s*\w+,\s*(?:$string|kSource),\s*"/g;
    complain("$file: a log call that this check does not understand")
        if $file !~ /DelayedLog\.h$/ && $calls - $definitions != $understood;
}

find(
    {no_chdir => 1, wanted => sub { read_file($_) if /\.(?:cpp|h)$/ }},
    map { "$tree/$_" } qw(reflect ipprmi handler_threads platform));

open(my $in, '<', $guide) or die "$guide: $!\n";
my @sources;
while (<$in>) {
    @sources = /`(\w+)`/g if /^###? /;
    next unless @sources && /^\| ([0-4](?:, [0-4])*) \| `([^`]+)` \|/;
    $told{"$_: $2"} = {levels => $1, place => "$guide:$."} for @sources;
}

for my $line (sort keys %logged) {
    for my $call (@{$logged{$line}}) {
        if (!$told{$line}) {
            complain("$call->{place}: the guide does not tell of: $line");
        } elsif ($call->{level} =~ /^\d$/ && $told{$line}{levels} !~ /$call->{level}/) {
            complain("$told{$line}{place}: is logged at level $call->{level}: $line");
        }
    }
}
for my $line (sort keys %told) {
    complain("$told{$line}{place}: is not logged by the library: $line") if !$logged{$line};
}
complain('no log calls were found') if !%logged;
exit($faults ? 1 : 0);
