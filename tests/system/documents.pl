#!/usr/bin/perl
# What the documents say of the sources holds. Each check is a test of its own:
#
#   documents.pl samples <source tree>        the samples of README.md and of the guide
#   documents.pl log_lines <source tree>      the guide's tables of log lines
#   documents.pl architecture <source tree>   names, files, floors and threads
use strict;
use warnings;
use File::Find;

my ($check, $tree) = @ARGV;
my ($guide, $architecture) = ("$tree/docs/guide.md", "$tree/docs/architecture.md");
my $faults = 0;

sub complain {
    print STDERR "$_[0]\n";
    $faults++;
}

sub read_file {
    open(my $in, '<', $_[0]) or die "$_[0]: $!\n";
    local $/;
    return scalar <$in>;
}

# "reflect/broker/Backlog.h" => its text, of the sources below these folders
sub sources {
    my %text;
    find({no_chdir => 1,
          wanted => sub { $text{s{^\Q$tree\E/}{}r} = read_file($_) if /\.(?:cpp|h|sh)$/ }},
         map { "$tree/$_" } @_);
    return %text;
}

sub line_of {
    my ($text, $at) = @_;
    return 1 + (substr($text, 0, $at) =~ tr/\n//);
}

# ---- Samples are pieces of programs that are built ----
# Each block of C++ or IDL comes after a comment <!-- from <file> --> and is text of that file, without
# gaps but where a line of the block is "...". Blanks and line ends do not count. That of README.md is
# its file to the letter.

sub dense { return $_[0] =~ s/\s+//gr; }

sub check_sample {
    my ($line, $file, $sample) = @_;
    my ($text, $at) = (dense(read_file("$tree/$file")), 0);
    for my $piece (split /^ *\.\.\.$/m, $sample) {
        my $found = index($text, dense($piece), $at);
        if ($found < 0) {
            my ($first) = $piece =~ /(\S.*)/;
            return complain("$guide:$line: \"$first\" and what follows is not in $file");
        }
        $at = $found + length dense($piece);
    }
}

sub check_samples {
    my $text = read_file($guide);
    my $samples = 0;
    while ($text =~ /^(?:<!-- from (\S+) -->\n)?```(?:cpp|idl)\n(.*?)^```$/msg) {
        my ($file, $sample, $line) = ($1, $2, line_of($text, $-[0]));
        $samples++;
        if ($file) { check_sample($line, $file, $sample); }
        else { complain("$guide:$line: a sample must say which file it is from"); }
    }
    complain("$guide: there are no samples") if !$samples;
    my ($file, $sample) = read_file("$tree/README.md")
        =~ /<!-- sample: begin \(a test keeps it equal to (\S+)\) -->\n```cpp\n(.*?)^```$/ms;
    complain('README.md: its sample is not the program')
        if !$file || $sample ne read_file("$tree/$file");
}

# ---- The guide tells every log line of levels 0 to 4, and none that is not logged ----
# The tables below its headings "### `SOURCE`": a row begins with the level and the text; "..." stands
# for what the program puts in.

sub plain {
    my ($text) = @_;
    $text =~ s/\\(.)/$1/g;
    $text =~ s/%[-+ #0]*\d*(?:\.\*)?(?:hh|h|ll|l|z)?[diuxXpscf]/.../g;
    return $text =~ s/\s+/ /gr =~ s/^ | $//gr;
}

# The log calls of a file: "SOURCE: text" => what is known of it.
sub read_log_calls {
    my ($logged, $file, $code) = @_;
    # The arguments of a call that begins at the current place of a text: its strings joined.
    my $string = qr/"((?:[^"\\]|\\.)*)"/;
    # A call up to its level.
    my $call = qr/\b(?:(?:REFLECTORB|TRANSPORT)_LOG\(|(?:REFLECTORB|TRANSPORT)_LOG_LIMITED\(\s*[\w.>()\[\]-]+,)/;
    my ($source) = $code =~ /\bkSource(?:\[\])?\s*=\s*$string/;
    while ($code =~ /$call\s*(\w+),\s*(?:$string|kSource),\s*((?:"(?:[^"\\]|\\.)*"\s*)+)/g) {
        my ($level, $name, $format, $line) = ($1, $2 // $source, $3, line_of($code, $-[0]));
        next if $level eq '5' || $level eq '6' || $level eq 'kBacktraceLevel';
        my $text = plain(join('', $format =~ /$string/g));
        push @{$logged->{"$name: $text"}}, {level => $level, place => "$file:$line"};
    }
    # Each call must have been understood.
    my $calls = () = $code =~ /\b(?:REFLECTORB|TRANSPORT)_LOG(?:_LIMITED)?\(/g;
    my $definitions = () = $code =~ /#define (?:REFLECTORB|TRANSPORT)_LOG\(/g;
    my $understood = () = $code =~ /$call\s*\w+,\s*(?:$string|kSource),\s*"/g;
    complain("$file: a log call that this check does not understand")
        if $file !~ /DelayedLog\.h$/ && $calls - $definitions != $understood;
}

sub check_log_lines {
    my (%logged, %told, @sources);
    my %text = sources(qw(reflect ipprmi handler_threads platform));
    read_log_calls(\%logged, $_, $text{$_}) for keys %text;
    my $number = 0;
    for (split /\n/, read_file($guide)) {
        $number++;
        @sources = /`(\w+)`/g if /^###? /;
        next unless @sources && /^\| ([0-4](?:, [0-4])*) \| `([^`]+)` \|/;
        $told{"$_: $2"} = {levels => $1, place => "$guide:$number"} for @sources;
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
}

# ---- Architecture ----
# Files, folders, names and commands of ./run in backticks exist, threads bear the names of its table,
# and each folder includes only what stands below it, but for the files that the document names in
# its list of exceptions.

sub check_names {
    my ($text, @lines) = @_;
    my %word = map { $_ => 1 } map { /\w+/g } values %$text;
    my $commands = read_file("$tree/run");
    my $known = sub {
        my ($name) = @_;
        return $commands =~ /^run_\Q$1\E\(\)/m if $name =~ m{^\./run (\w+)$};
        my $pattern = quotemeta($name) =~ s/\\\*/\\w*/gr;
        return 1 if -e "$tree/$name" || grep { m{(?:^|/)$pattern(?:$|(?<=/))} } keys %$text;
        return 0 if $name =~ m{/|\.(?:h|cpp|md|sh)$};
        return 1 if $name =~ /^[A-Z_]+$|^lib.*\.so/;  # constants of the system, libraries
        return !grep { !$word{$_} } $name =~ /\w+/g;
    };
    my $line = 0;
    for (@lines) {
        $line++;
        for my $name (/`([^`]+)`/g) {
            complain("$architecture:$line: there is no $name") if !$known->($name);
        }
        complain("$architecture:$line: no thread bears the name $1")
            if /^\| [a-z ]+ \| `(\w+)` \| .* \| .* \| .* \|/ && !grep { /"\Q$1\E"/ } values %$text;
    }
}

sub check_floors {
    my ($text, @lines) = @_;
    my (%floor, %excepted);
    for (@lines) {
        if (/^\| (\d) \| (.*?) \|/) {
            my ($number, $folders, $headers) = ($1, split(/, and of/, $2));
            $floor{$_} = $number for $folders =~ m{`(?:platform/)?(\w+)/`}g;
            $floor{$_} = $number for ($headers // '') =~ m{`(\w+\.h)`}g;
        }
        $excepted{$1} = 1 if m{^- `((?:include/)?(?:ipprmi|platform/transport/link)/\w+\.\w+)`};
    }
    for my $file (sort keys %$text) {
        my ($folder) = $file =~ m{^(?:include/|platform/)?(\w+)/};
        my $upwards = 0;
        my ($header) = $file =~ m{/(\w+\.h)$};
        my $own = $floor{$header // ''} // $floor{$folder // ''} // 9;
        while ($text->{$file} =~ m{^#include "(?:platform/)?((\w+)/.*?(\w+\.h))"}mg) {
            $upwards = $1 if ($floor{$3} // $floor{$2} // 0) > $own;
        }
        complain("$file: includes $upwards, which stands above it")
            if $upwards && !$excepted{$file};
        complain("$file: is excepted, but includes nothing from above")
            if !$upwards && $excepted{$file};
    }
    complain('no floors were found') if keys %floor < 6;
}

sub check_architecture {
    my %text = sources(qw(include platform handler_threads ipprmi reflect examples));
    my @lines = split /\n/, read_file($architecture);
    check_names(\%text, @lines);
    check_floors(\%text, @lines);
}

my %checks = (samples => \&check_samples, log_lines => \&check_log_lines,
              architecture => \&check_architecture);
$checks{$check}->();
exit($faults ? 1 : 0);
