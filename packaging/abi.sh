#!/usr/bin/env bash
# Compares what the libraries offer to programs, symbols and layouts of the types in public headers,
# with the interface that is kept in packaging/abi.
#
#   packaging/abi.sh [--update] <build tree with libraries with debug information>
#
# Ends with 1 when a program that was built with the kept one might not run with this one, and
# packaging/abi/noted.suppr does not note the change. What is new is told, and is no fault. --update
# keeps the present interface instead. The kept one is that of x86-64.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

update=
if [[ ${1:-} == --update ]]; then
    update=1
    shift
fi
build=$1
kept=packaging/abi
[[ $(uname -m) == x86_64 ]] || {
    echo "the interface that is kept is that of x86-64"
    exit 1
}

# describe <library>: its interface as XML, without what differs from one machine to another.
describe() {
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --no-parameter-names \
        --drop-private-types --exported-interfaces-only --headers-dir include \
        --suppressions "$kept/foreign.suppr" --out-file "$build/$1.abi" "$build/$1"
}

# compare <library> <argument>...: abidiff's answer, a sum of 1 and 2 for its own failures, 4 for a
# change, 8 for one that breaks programs.
compare() {
    local library=$1
    shift
    abidiff --suppressions "$kept/foreign.suppr" --suppressions "$kept/noted.suppr" "$@" \
        "$build/$library.kept.abi" "$build/$library.abi"
}

# check <library>: tells all changes; whether none needs to be noted.
check() {
    xz -dc "$kept/$1.abi.xz" >"$build/$1.kept.abi"
    if compare "$1"; then
        echo "$1: as it was"
        return 0
    fi
    compare "$1" --no-added-syms >"$build/$1.changes" || {
        echo "$1: CHANGED"
        return 1
    }
    echo "$1: has grown"
}

verdict=0
for library in libreflectorb-platform.so.1 libreflectorb.so.1; do
    describe "$library"
    if [[ $update ]]; then
        xz -9 -c "$build/$library.abi" >"$kept/$library.abi.xz"
        echo "$library: its interface is kept in $kept/$library.abi.xz"
    else
        check "$library" || verdict=1
    fi
done
if [[ $update ]]; then
    sed -i '3,$d' "$kept/noted.suppr"  # its head stays
fi
exit $verdict
