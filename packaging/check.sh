#!/usr/bin/env bash
# Installs the packages in a fresh Debian that has nothing else, uses them as their users would, and
# takes them away again.
#
#   packaging/check.sh <folder of the packages>
#
# The system comes from where this machine gets its own packages, and is gone at the end.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
packages=$(cd "$1" && pwd)

# The lists of Debian itself; what else a machine has may ask for keys that the fresh one lacks.
sources=()
for list in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
    if [[ -f $list ]] && grep -qE 'debian-archive-keyring|^deb[^#]*(bookworm|stable)[^#]* main' "$list"; then
        sources+=("$list")
    fi
done
[[ ${#sources[@]} -gt 0 ]] || {
    echo "this machine tells no place of Debian packages"
    exit 1
}

inside=$(mktemp -d)
trap 'rm -rf "$inside"' EXIT
cp packaging/check-inside.sh tests/system/house.sh tests/system/hello.sh "$inside"
cp "$packages"/*_"$(dpkg --print-architecture)".deb "$packages"/*_all.deb "$inside"
rm -f "$inside"/*-dbgsym_*
chmod -R a+rX "$inside"

mmdebstrap --variant=minbase --format=null --skip=cleanup/tmp \
    --customize-hook="copy-in $inside /opt" \
    --customize-hook="mv \"\$1/opt/$(basename "$inside")\" \"\$1/opt/check\"" \
    --customize-hook="chroot \"\$1\" /opt/check/check-inside.sh" \
    bookworm /dev/null "${sources[@]}"
