#!/usr/bin/env bash
# The addresses from where this machine gets the packages of Debian itself, a line each.
set -euo pipefail
for list in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
    [[ -f $list ]] || continue
    case $list in
    *.sources) awk '/^URIs:/ { place = $2 } /^Suites:.*bookworm( |$)/ { print place }' "$list" ;;
    *) awk '/^deb / { sub(/\[[^]]*\] */, ""); if ($3 == "bookworm" && / main( |$)/) print $2 }' "$list" ;;
    esac
done
