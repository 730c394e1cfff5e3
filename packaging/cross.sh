#!/usr/bin/env bash
# Builds Debian packages for another architecture, in a fresh Debian that has its libraries beside
# those of this machine's own.
#
#   packaging/cross.sh <folder of the sources> <architecture>
#
# The packages lie beside the folder of the sources then. The system comes from where this machine
# gets its own packages, and is gone at the end.
set -euo pipefail
[[ $# -eq 2 ]] || {
    echo "usage: packaging/cross.sh <folder of the sources> <architecture>"
    exit 2
}
cd "$(dirname "${BASH_SOURCE[0]}")"
source=$(cd "$1" && pwd)
architecture=$2
own=$(dpkg --print-architecture)
profiles=cross,nocheck

mapfile -t places < <(./place-of-packages.sh)
place=${places[0]:-}
[[ -n $place ]] || {
    echo "this machine tells no place of Debian packages"
    exit 1
}

# The release alone: what is of two architectures must be of one version.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $place bookworm main" >"$work/list"
mkdir "$work/build"
cp -a "$source" "$work/build/source"
cat >"$work/build/inside.sh" <<INSIDE
set -eu
cd /build/source
apt-get -q -y --no-install-recommends --host-architecture $architecture -P$profiles build-dep ./
DEB_BUILD_OPTIONS="$DEB_BUILD_OPTIONS" dpkg-buildpackage --no-sign --build=any --host-arch $architecture -P$profiles
INSIDE

mmdebstrap --variant=apt --architectures="$own,$architecture" --format=null \
    --include="build-essential,crossbuild-essential-$architecture" \
    --customize-hook="copy-in $work/build /" \
    --customize-hook='chroot "$1" sh /build/inside.sh' \
    --customize-hook="rm -rf \"\$1/build/source\"" \
    --customize-hook="sync-out /build $work/build" \
    bookworm /dev/null "$work/list"
cp "$work"/build/*.deb "$work"/build/*.buildinfo "$work"/build/*.changes "$(dirname "$source")"
