#!/usr/bin/perl
# Tells Doxygen what the public headers say to people, each line where it was:
#
# - A doc comment is about all functions that follow it without a gap, but for constructors and
#   destructors, which speak for themselves.
# - A comment behind a field or an enumerator is about that.
# - What is deleted or defaulted, and a destructor without a comment, does what one thinks, and is left
#   out; so is the announcement of an instance of a template.
use strict;
use warnings;

my @lines = <>;
my ($doc, $indent, $comment, $open) = ('', -1, undef, 0);

# The constructors and destructors of the classes of these headers begin so.
sub is_special { return $_[0] =~ /^\s*(?:explicit |constexpr |virtual )*~?[A-Z]\w*\(/; }

for my $at (0 .. $#lines) {
    local $_ = $lines[$at];
    my $previous = $at ? $lines[$at - 1] : '';
    if (/ = (?:delete|default);$/ || /^extern template\b.*;$/ || (/^\s*(?:virtual )?~\w+\(\).*;$|^\s*(?:virtual )?~\w+\(\) .*\}$|^\s*~\w+\(\) override;$/
            && $previous !~ m{\*/\s*$|^\s*///})) {
        $lines[$at] = "\n";
        next;
    }
    if (defined $comment) {    # within a doc comment
        $comment .= $_;
        if (m{\*/}) { ($doc, $comment, $open) = ($comment, undef, 0); }
        next;
    }
    if (m{^(\s*)/\*\*}) {
        $indent = length $1;
        if (m{\*/}) { ($doc, $open) = ($_, 0); }
        else { $comment = $_; }
        next;
    }
    if (m{^(\s*)///(?!<)}) {
        my $here = length $1;
        $doc = $previous =~ m{^\s*///} ? $doc . $_ : $_;
        ($indent, $open) = ($here, 0);
        next;
    }
    $lines[$at] =~ s{^(\s+[\w:\~].*?[;,\w)]|\s+\w+) {2,}// (?=\S)}{$1  ///< } if !/^\s*(?:return|case|if|for|while)\b/;
    next if !$doc;
    # $open: 0 awaits the first declaration, 1 is between two, 2 within one, 3 within one's body
    my ($own) = /^(\s*)/;
    if (/^\s*$/) { $doc = '' if $open != 3; next; }
    if (length($own) < $indent) { $doc = ''; next; }
    if (length($own) == $indent && $open != 2) {
        if ($open == 3) { $open = 1 if /^\s*\}/; next; }
        if (/^\s*(?:class|struct|enum|union|namespace|friend class|public:|private:|protected:|#|\/\/|\}|using|static_assert)\b?/
            && !/^\s*struct \w+ (?:const|\*|&)/) { $doc = ''; next; }
        if ($open == 1 && !is_special($_) && !/\boverride\b/) {
            my $text = $doc;
            $text =~ s{^\s*/\*\*|\*/\s*$|^\s*///}{}mg;
            $text =~ s{^\s*\*}{}mg;
            $text =~ s/\s+/ /g;
            $lines[$at] = (' ' x $indent) . "/**$text */ " . $lines[$at] =~ s/^\s+//r;
        }
    }
    if (/^\s*template\b.*>\s*$/ && length($own) == $indent) { $open = $open == 0 ? 0 : 4; next; }
    $open = /\{\s*(?:\/\/.*)?$/ ? 3 : /[;}]\s*(?:\/\/.*)?$/ ? ($open == 3 ? 3 : 1) : $open == 3 ? 3 : 2;
}
print @lines;
