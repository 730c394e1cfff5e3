#!/usr/bin/env bash
# The addresses from where this machine gets the packages of Debian itself, a line each.
set -euo pipefail
for list in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
    [[ -f $list ]] || continue
    case $list in
    *.sources)  # a paragraph for each place, whose lines stand in any order
        awk -v RS= '/(^|\n)Suites:[^\n]*bookworm( |\n|$)/ && match($0, /(^|\n)URIs:[^\n]*/) {
            split(substr($0, RSTART, RLENGTH), word); print word[2] }' "$list"
        ;;
    *) awk '/^deb / { sub(/\[[^]]*\] */, ""); if ($3 == "bookworm" && / main( |$)/) print $2 }' "$list" ;;
    esac
done
