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
    wanted=$(sed -n "s,.*if PIECE == $piece  *// ,,p" "$file")
    all=$(LC_ALL=C "$@" -DPIECE="$piece" -fsyntax-only "$file" 2>&1)
    told=$(printf '%s\n' "$all" | grep 'error:')
    if [ "$(printf '%s\n' "$told" | wc -l)" != 1 ] || ! printf '%s' "$told" | grep -qF "$wanted"; then
        printf 'piece %s: wanted "%s", told:\n%s\n' "$piece" "$wanted" "$told"
        failed=1
    fi
    case $wanted in
    "T has"*)
        # As GCC and clang tell the type; the piece itself, which they show, has it in no such form.
        printf '%s\n' "$all" | grep -qE '(= |<)Opaque[]>]' || {
            printf 'piece %s: the type is not told:\n%s\n' "$piece" "$all"
            failed=1
        }
        ;;
    esac
done
exit $failed
