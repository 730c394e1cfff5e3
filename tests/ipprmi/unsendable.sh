#!/bin/sh
# What cannot be sent does not compile, and the compiler says so in one line.
#
#   unsendable.sh <unsendable.cpp> <compiler> <its flags>...
file=$1
shift
failed=0
"$@" -fsyntax-only "$file" || exit 1 # without a piece it compiles
pieces=$(grep -c 'if PIECE' "$file")
for piece in $(seq "$pieces"); do
    wanted=$(sed -n "s,.*if PIECE == $piece  // ,,p" "$file")
    told=$(LC_ALL=C "$@" -DPIECE="$piece" -fsyntax-only "$file" 2>&1 | grep 'error:')
    if [ "$(printf '%s\n' "$told" | wc -l)" != 1 ] || ! printf '%s' "$told" | grep -qF "$wanted"; then
        printf 'piece %s: wanted "%s", told:\n%s\n' "$piece" "$wanted" "$told"
        failed=1
    fi
done
exit $failed
