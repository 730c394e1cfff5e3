#!/usr/bin/env bash
# What inspect says, and with which code it ends, when it is used wrongly or cannot do what it is
# told; and that it ends when the object that it watches goes. The demo runs what it can do.
#
#   inspect.sh <inspect> <machine> <station_actor> <hello> [<emulator> <argument>...]
set -euo pipefail

inspector=$1
machine=$2
station=$3
hello=$4
shift 4
runner=("$@")
work=$(mktemp -d)
export TRANSPORT_DIR=$work/rendezvous
machine_pid='' watch_pid='' station_pid='' hello_pid=''

clean_up() {
    local pid
    for pid in $watch_pid $machine_pid $station_pid $hello_pid; do
        kill -KILL "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

# expect <code> <text> <argument>...: ends with the code and says the text, the whole of a line.
expect() {
    local wanted=$1 text=$2 code=0
    shift 2
    timeout 60 "${runner[@]}" "$inspector" "$@" >"$work/said" 2>&1 </dev/null || code=$?
    if ((code != wanted)) || ! grep -qxF -- "$text" "$work/said"; then
        echo "inspect $*: ended with $code, not $wanted and \"$text\":"
        cat "$work/said"
        exit 1
    fi
}

# wait_for <file> <text>
wait_for() {
    for ((tenths = 600; tenths > 0; --tenths)); do
        ! grep -qF -- "$2" "$1" 2>/dev/null || return 0
        sleep 0.1
    done
    echo "waited in vain for \"$2\""
    exit 1
}

"${runner[@]}" "$machine" >"$work/machine.log" 2>&1 &
machine_pid=$!
wait_for "$work/machine.log" serving

more="(inspect --help tells more)"
expect 2 "       inspect OBJECT --tree                     the tree of names from it downwards"
expect 0 "       inspect OBJECT --tree                     the tree of names from it downwards" --help
expect 2 "inspect: the object comes first $more" --tree
expect 2 "inspect: there is no \"--leaves\" $more" /machine --leaves
expect 2 "inspect: nothing may follow --tree $more" /machine --tree 1
expect 2 "inspect: --set needs ATTRIBUTE=VALUE $more" /machine --set AlarmLimit
expect 2 "inspect: --call needs the name of an operation $more" /machine --call
expect 2 "inspect: --count needs a number from 1 to 1000000 $more" /machine --watch parts --count 0

for what in --brokers --follow /machine; do
    TRANSPORT_DIR=/proc/nowhere expect 1 \
        "inspect: this process could not join the group: is TRANSPORT_DIR usable?" "$what"
done

# An object of the whole node, of a class that is not known here.
mkfifo "$work/commands"
"${runner[@]}" "$station" <"$work/commands" >"$work/station.log" 2>&1 &
station_pid=$!
exec 9>"$work/commands"
echo "publish gate 2" >&9
wait_for "$work/station.log" published
expect 1 "inspect: the class of \"gate@node\" is unknown here" gate@node
expect 1 "inspect: nobody serves \"gate\"" gate
exec 9>&-
wait "$station_pid"
station_pid=''

# A class that is not known here, but told of.
mkfifo "$work/greetings"
REFLECTORB_PROCESS_OBJECT=1 "${runner[@]}" "$hello" <"$work/greetings" >"$work/hello.log" 2>&1 &
hello_pid=$!
exec 9>"$work/greetings"
wait_for "$work/hello.log" serving
expect 0 "  greet(string) -> string" hello.greeter
expect 0 '"Hello, Ada!"' hello.greeter --call greet Ada
expect 1 "inspect: arguments wanted: string; given: 0" hello.greeter --call greet
exec 9>&-
wait "$hello_pid"
hello_pid=''

expect 1 "inspect: nobody serves \"elsewhere\"" elsewhere
expect 1 "inspect: nobody serves \"elsewhere\"" /elsewhere/cpu0
expect 1 "inspect: /machine/net has no child \"no such\"" "/machine/net/no such"
expect 1 "inspect: \"/\" begins with no name" /
expect 1 "inspect: /machine/memory has no attribute \"Load\"" /machine/memory --set Load=1
expect 1 "inspect: the attribute Total is read-only" /machine/memory --set Total=1
expect 1 "inspect: \"much\" is no value of type unsigned" /machine/memory --set AlarmLimit=much
expect 1 "inspect: setAlarmLimit: refused with code 1" /machine/memory --set AlarmLimit=101
expect 1 "inspect: /machine has no operation \"stop\"" /machine --call stop
expect 1 "inspect: /machine has no operation \"stop\"" /machine --veto stop
expect 1 "inspect: arguments wanted: string; given: 0" /machine --call parts
expect 1 "inspect: arguments wanted: none; given: 1" /machine --call getHost 1

expect 0 "  WatchedPart  is a Part" machine.memory.memory
expect 0 "  Description      string               read-only  = \"main memory\"" /machine/memory
expect 0 "AlarmLimit = 100" /machine/memory --set AlarmLimit=0x64
expect 0 "{100, false}" /machine/memory --call getAlarm
expect 0 "[]" /machine --call parts "no such, in words"

# A value, without asking for it again and again.
"${runner[@]}" "$inspector" /machine/memory --watch AlarmLimit --count 3 >"$work/watch.log" 2>&1 </dev/null &
watch_pid=$!
wait_for "$work/watch.log" "AlarmLimit = 100"
expect 0 "AlarmLimit = 70" /machine/memory --set AlarmLimit=70
expect 0 "AlarmLimit = 70" /machine/memory --set AlarmLimit=70
expect 0 "AlarmLimit = 100" /machine/memory --set AlarmLimit=100
wait "$watch_pid"
watch_pid=''
printf '%s\n' "watching AlarmLimit of /machine/memory" "AlarmLimit = 100" "AlarmLimit = 70" \
    "AlarmLimit = 100" | diff - "$work/watch.log"

"${runner[@]}" "$inspector" /machine --watch parts >"$work/watch.log" 2>&1 </dev/null &
watch_pid=$!
wait_for "$work/watch.log" "watching parts of /machine"
expect 0 "[\"memory\"]" /machine --call parts memory
kill -TERM "$machine_pid"
wait "$machine_pid"
machine_pid=''
code=0
wait "$watch_pid" || code=$?
watch_pid=''
printf '%s\n' "watching parts of /machine" 'call parts("memory")' 'end  parts -> ["memory"]' \
    "inspect: the object has gone" | sort >"$work/wanted"
sort "$work/watch.log" | diff "$work/wanted" -
((code == 1))
