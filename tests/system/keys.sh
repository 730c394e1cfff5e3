#!/usr/bin/env bash
# Certificates of machines are of who was given them, whatever has become of the folders.
#
#   keys.sh <reflectorb-link-keys>
set -euo pipefail

keys=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# does <argument>...: it succeeds; refuses <text> <argument>...: it fails, and says that.
does() {
    "$keys" "$@" >said 2>&1 || { echo "failed: $*" && cat said && exit 1; }
}
refuses() {
    local text=$1
    shift
    ! "$keys" "$@" >said 2>&1 || { echo "did not fail: $*" && exit 1; }
    shows "$text"
}
shows() {
    grep -q -- "$1" said || { echo "does not say $1:" && cat said && exit 1; }
}

does authority node --days 30
does machine node 1 one --days 2
refuses 'authority ends before that' machine node 2 two --days 31
refuses '--days needs a value' machine node 2 two --days ''
does machine node 2 1e1 # for three years, if the authority were good for so long
does list node
[[ $(sed -n -E '/authority|1e1/s/.*until//p' said | uniq | wc -l) == 1 ]]

# Killed between two steps of a renewal.
mv node/machines/one node/machines/.former.one
mkdir node/machines/.building.XXX
does list node
[[ -f node/machines/one/machine.key && ! -e node/machines/.building.XXX ]]

rm -r node/machines/one node/machines/1e1
refuses 'slot 1 is of machine one' machine node 1 another
refuses 'there is a machine one' machine node 3 one
does renew node 1e1
does machine node 3 10
does revoke node 10 # which is the same number, and another name
does list node
shows '^1e1 *slot 2 *good'
shows '^10 *slot 3 *revoked'
does revoke node one
refuses 'one is revoked' renew node one
does machine node 1 another

# One that fails half way leaves no key behind, wherever it is.
mkdir bin
# shellcheck disable=SC2016  # of that script
printf '#!/bin/sh\ncase "$*" in *-selfsign*) exit 1 ;; esac\nPATH=${PATH#*:} exec openssl "$@"\n' >bin/openssl
chmod +x bin/openssl
PATH=$work/bin:$PATH refuses 'openssl ca failed' authority "o'neill"
[[ -z $(find . -name "o'neill*") ]]
