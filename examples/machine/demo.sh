#!/usr/bin/env bash
# Three actors at work: `machine` publishes this machine's parts, `panel` finds and shows them, and
# `inspect` looks into them, uses them and watches them by name, without knowing their classes. The
# machine is stopped and started again while the panel runs.
#
#   demo.sh [<build folder>]      (./run demo builds first)
#
# Ends with a verdict and 0, or 1 when anything went otherwise than it should. DEMO_RUNNER is put
# before each program (an emulator, for instance).
set -euo pipefail

build=${1:-build/release}
programs=$build/examples/machine
inspector=$build/examples/inspect/inspect
read -r -a runner <<<"${DEMO_RUNNER:-}"
refreshes=8
patience=${DEMO_PATIENCE:-60} # seconds for what must happen; a busy machine needs less

# ---- A folder of our own, in which the two find each other, and its end ------------------------
work=$(mktemp -d)
export TRANSPORT_DIR=$work/rendezvous
machine_pid='' panel_pid='' worker_pid='' inspect_pid=''

clean_up() {
    local pid
    for pid in $inspect_pid $worker_pid $panel_pid $machine_pid; do
        kill -KILL "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 1' INT TERM

say() { printf '\n--- %s\n' "$*"; }

fail() {
    say "demo: FAILED: $*"
    sed 's/^/    machine: /' "$work/machine.log" 2>/dev/null || true
    sed 's/^/    inspect: /' "$work/inspect.log" 2>/dev/null || true
    exit 1
}

# wait_for <file> <text>: until a line of the file has the text.
wait_for() {
    local tenths=$((patience * 10))
    until grep -qF -- "$2" "$1" 2>/dev/null; do
        ((tenths-- > 0)) || fail "waited in vain for \"$2\""
        sleep 0.1
    done
}

# ends_well <pid> <name>: waits for a program, which must end with 0.
ends_well() {
    local tenths=$((patience * 10)) code=0
    while kill -0 "$1" 2>/dev/null; do
        ((tenths-- > 0)) || fail "the $2 does not end"
        sleep 0.1
    done
    wait "$1" || code=$?
    ((code == 0)) || fail "the $2 ended with $code"
}

start_machine() {
    "${runner[@]}" "$programs/machine" --watch-process demo-worker >"$work/machine.log" 2>&1 &
    machine_pid=$!
    wait_for "$work/machine.log" "serving"
}

stop_machine() {
    kill -TERM "$machine_pid"
    ends_well "$machine_pid" "machine"
    machine_pid=''
}

# inspect <code> <text> <argument>...: runs it and shows what it prints. A line of that must be or
# begin with the text, and it must end with the code.
inspect() {
    local wanted=$1 text=$2 code=0
    shift 2
    printf '$ inspect %s\n' "$*"
    timeout "$patience" "${runner[@]}" "$inspector" "$@" >"$work/shown" 2>&1 </dev/null || code=$?
    cat "$work/shown"
    ((code == wanted)) || fail "inspect $*: ended with $code"
    awk -v text="$text" 'index($0, text) == 1 { found = 1 } END { exit !found }' "$work/shown" ||
        fail "inspect $*: does not say \"$text\""
}

# start_inspect <text> <argument>...: runs it in the background; it must say the text.
start_inspect() {
    local text=$1
    shift
    printf '$ inspect %s &\n' "$*"
    "${runner[@]}" "$inspector" "$@" >"$work/inspect.log" 2>&1 </dev/null &
    inspect_pid=$!
    wait_for "$work/inspect.log" "$text"
}

# end_inspect: waits for that, and shows what it has said.
end_inspect() {
    ends_well "$inspect_pid" "inspect in the background"
    inspect_pid=''
    sed 's/^/    /' "$work/inspect.log"
}

# ---- The demo ----------------------------------------------------------------------------------
for program in "$programs/machine" "$programs/panel" "$inspector"; do
    [[ -x $program ]] || fail "not built: $program"
done

say "starting the actor machine, process one"
start_machine
cat "$work/machine.log"

say "the panel, process two, shows it once"
timeout "$patience" "${runner[@]}" "$programs/panel" --once </dev/null || fail "panel --once: $?"

say "inspect, which knows no class of the machine, walks its tree of names"
inspect 0 "  cpu0 " /machine --tree

say "it looks into an object, changes an attribute and calls operations, all by name"
inspect 0 "  AlarmLimit " /machine/cpu0
inspect 0 "AlarmLimit = 80" /machine/cpu0 --set AlarmLimit=80
inspect 0 "80" /machine/cpu0 --call getAlarmLimit
inspect 0 "[\"cpu0\"" /machine --call parts cpu

say "it watches the call by which the panel, another process, sets the alarm limit"
start_inspect "watching setAlarmLimit" /machine/cpu0 --watch setAlarmLimit --count 1
timeout "$patience" "${runner[@]}" "$programs/panel" --once --alarm 75 >/dev/null </dev/null ||
    fail "panel --once --alarm: $?"
end_inspect
grep -qF "call setAlarmLimit(75)" "$work/inspect.log" || fail "the call was not seen"
grep -qF "end  setAlarmLimit" "$work/inspect.log" || fail "the end of the call was not seen"

say "it forbids that call to everybody, until it is ended itself"
start_inspect "forbidding setAlarmLimit" /machine/cpu0 --veto setAlarmLimit
inspect 1 "inspect: setAlarmLimit: an observer forbids it" /machine/cpu0 --set AlarmLimit=60
kill -TERM "$inspect_pid"
end_inspect
grep -qF "forbidden: setAlarmLimit(60)" "$work/inspect.log" || fail "the call was not forbidden"
inspect 0 "75" /machine/cpu0 --call getAlarmLimit
inspect 0 "AlarmLimit = 60" /machine/cpu0 --set AlarmLimit=60

say "inspect hears of objects and brokers that come and go: of a process that the machine watches"
start_inspect "+ Cpu /machine/cpu0" --follow
cp "$(command -v sleep)" "$work/demo-worker"
"$work/demo-worker" 1000 &
worker_pid=$!
wait_for "$work/inspect.log" "+ Process /machine/process/demo-worker-$worker_pid"
kill "$worker_pid"
wait "$worker_pid" 2>/dev/null || true
wait_for "$work/inspect.log" "- Process /machine/process/demo-worker-$worker_pid"
worker_pid=''
timeout "$patience" "${runner[@]}" "$inspector" --brokers >"$work/shown" 2>&1 </dev/null ||
    fail "inspect --brokers: $?"
printf '$ inspect --brokers\n'
cat "$work/shown"
grep -qE '^machine +broker 0x' "$work/shown" || fail "the machine's broker is not listed"
wait_for "$work/inspect.log" "- broker"
kill -TERM "$inspect_pid"
end_inspect

say "the panel shows it live, and sets the processors' alarm limit; the machine will be stopped"
redraw=()
if [[ -t 1 ]]; then
    sleep 2 # to be read before it is painted over
    redraw=(--redraw)
fi
shown=$work/panel.log
: >"$shown"
"${runner[@]}" "$programs/panel" --refreshes "$refreshes" --interval 500 --patience "$patience" \
    --alarm 50 "${redraw[@]}" >"$shown" 2>&1 </dev/null &
panel_pid=$!
tail -n +1 -f --pid="$panel_pid" "$shown" &
screen_pid=$!

wait_for "$shown" "refresh 3 of"
stop_machine
wait_for "$shown" "panel: the machine is gone"
start_machine
wait_for "$shown" "panel: the machine is back"
ends_well "$panel_pid" "panel"
panel_pid=''
wait "$screen_pid" 2>/dev/null || true
grep -qF "refresh $refreshes of $refreshes" "$shown" || fail "the panel did not show all it should"

say "stopping the machine"
stop_machine
[[ -z $(find "$TRANSPORT_DIR" -type s 2>/dev/null) ]] || fail "a process left its address behind"
say "demo: ok: found by identifier and by name, called, watched, followed, lost, found again, ended" \
    "cleanly"
