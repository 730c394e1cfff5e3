#!/usr/bin/env bash
# Runs the program of docs/guide.md as its reader would: a house, and a visitor that stays until the
# house has gone.
#
#   house.sh <house> <visitor> [<emulator> <argument>...]
set -euo pipefail

house=$1
visitor=$2
shift 2
work=$(mktemp -d)
export TRANSPORT_DIR=$work/rendezvous
trap 'rm -rf "$work"' EXIT

[[ $("$@" "$visitor" || true) == "nobody serves the house" ]]

coproc HOUSE { "$@" "$house"; }
serving=$HOUSE_PID
read -r line <&"${HOUSE[0]}"
[[ $line == serving* ]]

mkfifo "$work/keys"
exec {keys}<>"$work/keys"
"$@" "$visitor" <"$work/keys" >"$work/seen" &
visiting=$!
# await <text>: until the visitor has said it.
await() {
    until grep -q "$1" "$work/seen"; do
        kill -0 "$visiting"
        sleep 0.02
    done
}
await "press Enter"
echo >&"${HOUSE[1]}"
wait "$serving"
await "broker .* has gone"
echo >&"$keys"
wait "$visiting"

# The arrivals of brokers that the visitor has met already may be told before it hears of others, or
# while it does.
sed '/^broker 0x[0-9A-F]* is up$/d; s/broker 0x[0-9A-F]*/broker/' "$work/seen" | diff - <(
    cat <<'END'
level 10
101 is too bright, the limit is 100
it has blinked
3 steps
the second is 50
blink answers true
/house is a House
/house/hall is a Lamp
60 is forbidden
/house/hall is now at 50
at 50
at 75
at 20
house.hall has come
house.kitchen has come
house.kitchen has gone
house has sent to 1 others
visitor has sent to 1 others
waiting, press Enter to end
house.hall has gone
broker has gone
END
)
