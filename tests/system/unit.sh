#!/usr/bin/env bash
# The service manager understands the unit of the link, and finds it shut off from what it needs not.
#
#   unit.sh <unit> <program that it starts>
set -euo pipefail

command -v systemd-analyze >/dev/null || {
    echo "no systemd-analyze: skipped"
    exit 77
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unit=$work/reflectorb-link.service
grep -q '^ExecStart=/.*/reflectorb-link$' "$1"
sed "s|^ExecStart=.*|ExecStart=$2|" "$1" >"$unit"
said=$(systemd-analyze verify --man=no "$unit" 2>&1) || { echo "$said" && exit 1; }
[[ $said != *reflectorb-link* ]] || { echo "$said" && exit 1; }
# In tenths of what an unprotected service has, which is 10.
systemd-analyze security --offline=true --threshold=20 --no-pager "$unit" >"$work/said" ||
    { cat "$work/said" && exit 1; }
