#!/usr/bin/env bash
# Builds Debian packages of these sources.
#
#   packaging/build.sh <output folder> [<architecture>]
#
# A copy of the sources is built in the output folder, where the packages then lie. Those for another
# architecture are the ones with machine code. The version is that of CMakeLists.txt.
set -euo pipefail
[[ $# -ge 1 ]] || {
    echo "usage: packaging/build.sh <output folder> [<architecture>]"
    exit 2
}
cd "$(dirname "${BASH_SOURCE[0]}")/.."

mkdir -p "$1"
output=$(cd "$1" && pwd)
architecture=${2:-$(dpkg --print-architecture)}
source=$output/source-$architecture
version=$(sed -n '/^project(ReflectOrb/,/)/s/^ *VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

# What is in the tree of sources and no product: as git has it, or all of it where there is no git.
list_sources() {
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files -z --cached --others --exclude-standard
    else
        find . \( -path ./build -o -path ./.git \) -prune -o \( -type f -o -type l \) -print0
    fi
}

copy_sources() {
    rm -rf "$source"
    mkdir -p "$source"
    list_sources | while IFS= read -r -d '' file; do
        if [[ -e $file ]]; then printf '%s\0' "$file"; fi
    done | xargs -0 cp --parents -p -t "$source"
    cp -r packaging/debian "$source/debian"
}

# The time of the last change, so that the same sources give the same packages.
write_changelog() {
    local when
    when=$(git log -1 --format=%cD 2>/dev/null || date -R -r CHANGELOG.md)
    cat >"$source/debian/changelog" <<CHANGES
reflectorb ($version) unstable; urgency=medium

  * What has changed is told in CHANGELOG.md.

 -- $(sed -n 's/^Maintainer: //p' packaging/debian/control)  $when
CHANGES
}

build() {
    local place=$PWD
    rm -f "$output"/*.deb
    export DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:+$DEB_BUILD_OPTIONS }noautodbgsym parallel=${REFLECTORB_JOBS:-$(nproc)}"
    if [[ $architecture == "$(dpkg --print-architecture)" ]]; then
        cd "$source"
        dpkg-buildpackage --no-sign --build=binary
        cd "$place"
    else
        packaging/cross.sh "$source" "$architecture"
    fi
}

copy_sources
write_changelog
build
lintian --fail-on error --tag-display-limit 0 --info "$output/reflectorb_${version}_$architecture.changes"
