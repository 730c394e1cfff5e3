#!/bin/sh
# check.sh cmake|pkgconfig <build tree> <work folder> <compiler> <library folder>
# Installs the build tree into the work folder, moves the result, and builds and runs a program
# against it from there.
set -eu
way=$1 build=$2 work=$3 compiler=$4 lib=$5
source=$(dirname "$0")/consumer

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/installed" >"$work/install.log"
mv "$work/installed" "$work/prefix"

case $way in
cmake)
    cmake -S "$source" -B "$work/build" -G Ninja "-DCMAKE_PREFIX_PATH=$work/prefix" \
        "-DCMAKE_CXX_COMPILER=$compiler"
    cmake --build "$work/build"
    "$work/build/consumer"
    ;;
pkgconfig)
    PKG_CONFIG_PATH=$work/prefix/$lib/pkgconfig
    export PKG_CONFIG_PATH
    # Unquoted on purpose: these are lists of flags.
    # shellcheck disable=SC2046
    "$compiler" -std=c++17 "$source/main.cpp" -o "$work/consumer" \
        $(pkg-config --cflags --libs reflectorb)
    LD_LIBRARY_PATH=$work/prefix/$lib "$work/consumer"
    ;;
esac
