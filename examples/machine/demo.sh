#!/usr/bin/env bash
# Two actors at work: `machine` publishes this machine's parts, `panel` finds and shows them. The
# machine is stopped and started again while the panel runs.
#
#   demo.sh [<build folder>]      (./run demo builds first)
#
# Ends with a verdict and 0, or 1 when anything went otherwise than it should. DEMO_RUNNER is put
# before each program (an emulator, for instance).
set -euo pipefail

build=${1:-build/release}
programs=$build/examples/machine
read -r -a runner <<<"${DEMO_RUNNER:-}"
refreshes=8
patience=${DEMO_PATIENCE:-60} # seconds for what must happen; a busy machine needs less

# ---- A folder of our own, in which the two find each other, and its end ------------------------
work=$(mktemp -d)
export TRANSPORT_DIR=$work/rendezvous
machine_pid='' panel_pid=''

clean_up() {
    local pid
    for pid in $panel_pid $machine_pid; do
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
    "${runner[@]}" "$programs/machine" >"$work/machine.log" 2>&1 &
    machine_pid=$!
    wait_for "$work/machine.log" "serving"
}

stop_machine() {
    kill -TERM "$machine_pid"
    ends_well "$machine_pid" "machine"
    machine_pid=''
}

# ---- The demo ----------------------------------------------------------------------------------
[[ -x $programs/machine && -x $programs/panel ]] || fail "not built: $programs"

say "starting the actor machine, process one"
start_machine
cat "$work/machine.log"

say "the panel, process two, shows it once"
timeout "$patience" "${runner[@]}" "$programs/panel" --once </dev/null || fail "panel --once: $?"

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
say "demo: ok: found by identifier, called, lost, found again, ended cleanly"
