#!/usr/bin/env bash
# What packaging/check.sh does inside of the fresh system: its packages lie beside this file.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
# What the builds of whoever runs this take up from the environment is not in here.
unset "${!CMAKE_@}" CC CXX CPPFLAGS CFLAGS CXXFLAGS LDFLAGS
work=$(mktemp -d)
ours=(libreflectorb1 libreflectorb-dev reflectorb-tools reflectorb-link reflectorb-idl reflectorb-doc)
examples=/usr/share/doc/reflectorb-doc/examples

say() { printf -- '--- %s\n' "$*"; }
fail() {
    say "FAILED: $*"
    exit 1
}

# Everything that is on the disk, but for what package management itself notes, and what is left of
# the making of a user: a lock, and the lists of users as they were before.
list_files() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path "$work" -o -path /var/lib/dpkg \
        -o -path /var/lib/apt -o -path /var/cache -o -path /var/log -o -path /run/adduser \
        -o -path /etc/passwd- -o -path /etc/group- -o -path /etc/shadow- -o -path /etc/gshadow- \
        \) -prune -o -print | sort
}

# What ours need is there before, so that what is there later is ours.
install_needed() {
    local needed
    needed=$(apt-get install -s --no-install-recommends ./*.deb | sed -n 's/^Inst \([^ ]*\) .*/\1/p' |
        grep -vxF "$(printf '%s\n' "${ours[@]}")")
    # shellcheck disable=SC2086
    apt-get install -q -y --no-install-recommends g++ cmake ninja-build pkg-config $needed
}

# The guide's program, built in two ways, and run.
use_cmake() {
    cmake -S "$examples/$1" -B "$work/$1" -G Ninja
    cmake --build "$work/$1"
}
use_pkg_config() {
    local program
    mkdir -p "$work/pkgconfig"
    for program in house visitor; do
        # Unquoted on purpose: these are lists of flags.
        # shellcheck disable=SC2046
        g++ -std=c++17 "-I$examples/house/generated" "$examples/house/$program.cpp" \
            "$examples/house/generated/home.cpp" -o "$work/pkgconfig/$program" \
            $(pkg-config --cflags --libs reflectorb)
    done
}

# An interface of one's own.
use_idl() {
    mkdir -p "$work/motor"
    cd "$work/motor"
    echo 'interface Motor { attribute long speed; };' >motor.idl
    echo '#include "motor.h"' >own.cpp
    cat >CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(motor CXX)
find_package(ReflectOrb 0.1 REQUIRED)
add_library(motor STATIC own.cpp)
reflectorb_idl(motor motor.idl)
target_link_libraries(motor PUBLIC ReflectOrb::reflectorb)
CMAKE
    cmake -S . -B build -G Ninja
    cmake --build build
    cd - >/dev/null
}

use_tool() {
    local listed
    # It tells what it is to who asks.
    export TRANSPORT_DIR=$work/rendezvous REFLECTORB_PROCESS_OBJECT=1
    coproc HOUSE { "$work/house/house"; }
    # The variable goes with the process.
    local serving=$HOUSE_PID
    read -r _ <&"${HOUSE[0]}"
    listed=$(reflectorb list)
    echo "$listed"
    grep -q house <<<"$listed" || fail "reflectorb list shows no house"
    [[ $(reflectorb get /house/hall/Level --json) == *Level* ]] || fail "reflectorb get tells nothing"
    echo >&"${HOUSE[1]}"
    wait "$serving"
    unset TRANSPORT_DIR REFLECTORB_PROCESS_OBJECT
}

use_documents() {
    local page
    for page in usr/share/man/man1/reflectorb.1 usr/share/man/man7/reflectorb.7 \
        usr/share/man/man1/reflectorb-idl.1 usr/share/man/man1/reflectorb-link.1; do
        dpkg -S "/$page.gz" >/dev/null
    done
    dpkg -S /usr/share/doc/reflectorb-doc/docs/guide.md >/dev/null
    dpkg -S /usr/share/doc/reflectorb-doc/api/index.html >/dev/null
    dpkg -S /usr/share/bash-completion/completions/reflectorb >/dev/null
}

say "installing what the packages need"
install_needed
list_files >"$work/before"

say "installing the packages"
dpkg -i ./*.deb
reflectorb --version
reflectorb-link --help >/dev/null
reflectorb-idl --help >/dev/null

say "building the examples"
for example in hello house machine; do
    use_cmake "$example"
done
use_pkg_config
use_idl

say "running them"
./hello.sh "$work/hello/hello"
./house.sh "$work/house/house" "$work/house/visitor"
./house.sh "$work/pkgconfig/house" "$work/pkgconfig/visitor"
use_tool
use_documents

getent passwd reflectorb >/dev/null || fail "there is no user for the unit of reflectorb-link"

say "removing the packages"
dpkg --remove "${ours[@]}"
dpkg --purge "${ours[@]}"
list_files >"$work/after"
diff "$work/before" "$work/after" || fail "this is left of the packages (>), or has gone with them (<)"
rm -rf "$work"
say "installed, used, and gone again"
