#!/bin/sh
# check.sh cmake|pkgconfig <build tree> <work folder> <compiler> <library folder> <doc folder>
# Installs the build tree into the work folder, moves the result, and builds and runs the program of
# the guide against it from there, as somebody who has nothing else.
set -eu
way=$1 build=$2 work=$3 compiler=$4 lib=$5 doc=$6
here=$(dirname "$0")

rm -rf "$work"
mkdir -p "$work/build"
cmake --install "$build" --prefix "$work/installed" >"$work/install.log"
mv "$work/installed" "$work/prefix"
examples=$work/prefix/$doc/examples

case $way in
cmake)
    cmake -S "$examples/house" -B "$work/build" -G Ninja "-DCMAKE_PREFIX_PATH=$work/prefix" \
        "-DCMAKE_CXX_COMPILER=$compiler"
    cmake --build "$work/build"
    ;;
pkgconfig)
    PKG_CONFIG_PATH=$work/prefix/$lib/pkgconfig
    export PKG_CONFIG_PATH
    for program in house visitor; do
        # Unquoted on purpose: these are lists of flags.
        # shellcheck disable=SC2046
        "$compiler" -std=c++17 "-I$examples/house/generated" \
            "$examples/house/$program.cpp" "$examples/house/generated/home.cpp" -o "$work/build/$program" \
            $(pkg-config --cflags --libs reflectorb) "-Wl,-rpath,$work/prefix/$lib"
    done
    ;;
esac
"$here/../system/house.sh" "$work/build/house" "$work/build/visitor"
