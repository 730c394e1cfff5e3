#!/usr/bin/perl
# The samples of the guide are pieces of programs that are built: each block of C++ comes after a
# comment <!-- from <file> --> and is text of that file, without gaps but where a line of the block
# is "...". Blanks and line ends do not count.
#
#   guide_samples.pl <source tree> <guide.md>
use strict;
use warnings;

my ($tree, $guide) = @ARGV;
my $faults = 0;

sub complain {
    print STDERR "$guide:$_[0]: $_[1]\n";
    $faults++;
}

sub read_file {
    open(my $file, '<', $_[0]) or die "$_[0]: $!\n";
    local $/;
    return <$file>;
}

sub dense { return $_[0] =~ s/\s+//gr; }

# The pieces of a sample stand in the file in their order.
sub check {
    my ($line, $file, $sample) = @_;
    my ($text, $at) = (dense(read_file("$tree/$file")), 0);
    for my $piece (split /^ *\.\.\.$/m, $sample) {
        my $found = index($text, dense($piece), $at);
        if ($found < 0) {
            my ($first) = $piece =~ /(\S.*)/;
            return complain($line, "\"$first\" and what follows is not in $file");
        }
        $at = $found + length dense($piece);
    }
}

my $text = read_file($guide);
my $samples = 0;
while ($text =~ /^(?:<!-- from (\S+) -->\n)?```cpp\n(.*?)^```$/msg) {
    my ($file, $sample) = ($1, $2);
    my $line = 1 + (substr($text, 0, $-[0]) =~ tr/\n//);
    $samples++;
    if ($file) { check($line, $file, $sample); }
    else { complain($line, 'a sample must say which file it is from'); }
}
complain(1, 'there are no samples') if !$samples;
exit($faults ? 1 : 0);
