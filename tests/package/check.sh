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

# Configures a project of this folder with the package.
configure() {
    cmake -S "$1" -B "$2" -G Ninja "-DCMAKE_PREFIX_PATH=$work/prefix" "-DCMAKE_CXX_COMPILER=$compiler"
}

# The package's interface compiler writes a header anew when an IDL that it includes is touched.
check_touched_include() {
    mkdir -p "$work/touched"
    cd "$work/touched"
    cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.16)
project(touched CXX)
find_package(ReflectOrb 0.1 REQUIRED)
add_library(touched STATIC own.cpp)
reflectorb_idl(touched motor.idl HEADER_ONLY)
END
    echo 'int own = 1;' >own.cpp
    echo 'struct Speed { long before; };' >extra.idl
    printf '#include "extra.idl"\ninterface Motor { Speed speed(); };\n' >motor.idl
    configure . build
    cmake --build build
    grep -q before build/reflectorb_idl/touched/motor.h
    echo 'struct Speed { long after; };' >extra.idl
    cmake --build build
    grep -q after build/reflectorb_idl/touched/motor.h || {
        echo "motor.h was not written anew"
        exit 1
    }
}

case $way in
cmake)
    configure "$examples/house" "$work/build"
    cmake --build "$work/build"
    if command -v omniidl >/dev/null; then
        (check_touched_include)
    fi
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
