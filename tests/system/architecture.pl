#!/usr/bin/perl
# What docs/architecture.md says of the sources holds: files, folders, names and commands of ./run in
# backticks exist, threads bear the names of its table, and each folder includes only what stands
# below it, but for the files that the document names in its list of exceptions.
#
#   architecture.pl <source tree> <architecture.md>
use strict;
use warnings;
use File::Find;

my ($tree, $document) = @ARGV;
my $faults = 0;

sub complain {
    print STDERR "$_[0]\n";
    $faults++;
}

# "reflect/broker/Backlog.h" => its text; and all words of the sources.
my (%text, %word);

sub read_file {
    my ($file) = @_;
    open(my $in, '<', $file) or die "$file: $!\n";
    my $code = do { local $/; <$in> };
    $word{$_} = 1 for $code =~ /\w+/g;
    $text{$file =~ s{^\Q$tree\E/}{}r} = $code;
}

my @folders = qw(include platform handler_threads ipprmi reflect examples);
find({no_chdir => 1, wanted => sub { read_file($_) if /\.(?:cpp|h|sh)$/ }},
     map { "$tree/$_" } @folders);

open(my $in, '<', $document) or die "$document: $!\n";
my @lines = <$in>;

# ---- Names ----
open(my $front_door, '<', "$tree/run") or die "$tree/run: $!\n";
my $commands = do { local $/; <$front_door> };

sub known {
    my ($name) = @_;
    return $commands =~ /^run_\Q$1\E\(\)/m if $name =~ m{^\./run (\w+)$};
    my $pattern = quotemeta($name) =~ s/\\\*/\\w*/gr;
    return 1 if -e "$tree/$name" || grep { m{(?:^|/)$pattern(?:$|(?<=/))} } keys %text;
    return 0 if $name =~ m{/|\.(?:h|cpp|md|sh)$};
    return 1 if $name =~ /^[A-Z_]+$|^lib.*\.so/;  # constants of the system, libraries
    return !grep { !$word{$_} } $name =~ /\w+/g;
}

my $line = 0;
for (@lines) {
    $line++;
    for my $name (/`([^`]+)`/g) {
        complain("$document:$line: there is no $name") if !known($name);
    }
    complain("$document:$line: no thread bears the name $1")
        if /^\| [a-z ]+ \| `(\w+)` \| .* \| .* \| .* \|/ && !grep { /"\Q$1\E"/ } values %text;
}

# ---- Floors ----
my (%floor, %excepted);
for (@lines) {
    if (/^\| (\d) \| (.*?) \|/) {
        my ($number, $folders, $headers) = ($1, split(/, and of/, $2));
        $floor{$_} = $number for $folders =~ m{`(?:platform/)?(\w+)/`}g;
        $floor{$_} = $number for ($headers // '') =~ m{`(\w+\.h)`}g;
    }
    $excepted{$1} = 1 if m{^- `((?:include/)?ipprmi/\w+\.\w+)`};
}
for my $file (sort keys %text) {
    my ($folder) = $file =~ m{^(?:include/|platform/)?(\w+)/};
    my $upwards = 0;
    my ($header) = $file =~ m{/(\w+\.h)$};
    my $own = $floor{$header // ''} // $floor{$folder // ''} // 9;
    while ($text{$file} =~ m{^#include "(?:platform/)?((\w+)/.*?(\w+\.h))"}mg) {
        $upwards = $1 if ($floor{$3} // $floor{$2} // 0) > $own;
    }
    complain("$file: includes $upwards, which stands above it") if $upwards && !$excepted{$file};
    complain("$file: is excepted, but includes nothing from above") if !$upwards && $excepted{$file};
}
complain('no floors were found') if keys %floor < 6;
exit($faults ? 1 : 0);
