#!/usr/bin/env bash
# Two actors at work: `machine` publishes this machine's parts, and `panel` finds and shows them. The
# command `reflectorb` looks into them, uses them and watches them by name, without knowing their
# classes. The machine is stopped and started again while the panel runs.
#
#   demo.sh [<build folder> [--stay]]      (./run demo builds first)
#
# With --stay it goes on, to be looked at in a browser, until Ctrl-C.
# Ends with a verdict and 0, or 1 when anything went otherwise than it should. DEMO_RUNNER is put
# before each program (an emulator, for instance).
set -euo pipefail

build=${1:-build/release}
stay=${2:-}
programs=$build/examples/machine
tool=$build/tool/reflectorb
read -r -a runner <<<"${DEMO_RUNNER:-}"
refreshes=8

# ---- A folder of our own, in which the two find each other, and its end ------------------------
clean_up() {
    # shellcheck disable=SC2086  # those that are there
    kill_all $tool_pid $worker_pid $panel_pid $machine_pid
}
# shellcheck source=demo-functions.sh
. "$(dirname "$0")/demo-functions.sh"
export TRANSPORT_DIR=$work/rendezvous
export REFLECTORB_PROCESS_OBJECT=1 # they tell what they are
machine_pid='' panel_pid='' worker_pid='' tool_pid=''

fail() {
    say "demo: FAILED: $*"
    sed 's/^/    machine: /' "$work/machine.log" 2>/dev/null || true
    sed 's/^/    reflectorb: /' "$work/tool.log" 2>/dev/null || true
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
    : >"$work/machine.log" # at once, lest the words of the one before are found
    "${runner[@]}" "$programs/machine" --watch-process demo-worker >"$work/machine.log" 2>&1 &
    machine_pid=$!
    wait_for "$work/machine.log" "serving"
}

stop_machine() {
    kill -TERM "$machine_pid"
    ends_well "$machine_pid" "machine"
    machine_pid=''
}

# look <code> <text> <argument>...: runs the tool and shows what it prints. A line of that must have
# the text, and it must end with the code.
look() {
    local wanted=$1 text=$2 code=0
    shift 2
    printf '$ reflectorb %s\n' "$*"
    timeout "$patience" "${runner[@]}" "$tool" "$@" >"$work/shown" 2>&1 </dev/null || code=$?
    cat "$work/shown"
    ((code == wanted)) || fail "reflectorb $*: ended with $code"
    grep -qF -- "$text" "$work/shown" || fail "reflectorb $*: does not say \"$text\""
}

# start_tool <text> <argument>...: runs it in the background; it must say the text.
start_tool() {
    local text=$1
    shift
    printf '$ reflectorb %s &\n' "$*"
    : >"$work/tool.log"
    "${runner[@]}" "$tool" "$@" >"$work/tool.log" 2>&1 </dev/null &
    tool_pid=$!
    wait_for "$work/tool.log" "$text"
}

# end_tool: waits for that, and shows what it has said.
end_tool() {
    ends_well "$tool_pid" "reflectorb in the background"
    tool_pid=''
    sed 's/^/    /' "$work/tool.log"
}

# ---- The demo ----------------------------------------------------------------------------------
need_programs "$programs/machine" "$programs/panel" "$tool"

say "starting the actor machine, process one"
start_machine
cat "$work/machine.log"

say "the panel, process two, shows it once"
timeout "$patience" "${runner[@]}" "$programs/panel" --once </dev/null || fail "panel --once: $?"

say "reflectorb, which knows no class of the machine, shows what is there"
look 0 "/machine" list
look 0 "  cpu0 " tree /machine
look 0 "machine" processes

say "it looks into an object, changes attributes and calls operations, all by name"
look 0 "AlarmLimit" show /machine/cpu0
look 0 "80" set '/machine/cpu*/AlarmLimit' 80
look 0 "80" call /machine/cpu0/getAlarmLimit
look 0 "[\"cpu0\"" call /machine/parts cpu

say "it watches the call by which the panel, another process, sets the alarm limit"
start_tool '"begun"' watch /machine/cpu0/setAlarmLimit --count 1 --json
timeout "$patience" "${runner[@]}" "$programs/panel" --once --alarm 75 >/dev/null </dev/null ||
    fail "panel --once --alarm: $?"
end_tool
grep -qF '"arguments":[75]' "$work/tool.log" || fail "the call was not seen"
grep -qF '"event":"end"' "$work/tool.log" || fail "the end of the call was not seen"

say "it forbids that call to everybody, until it is ended itself"
start_tool '"begun"' veto /machine/cpu0/AlarmLimit --json
look 4 "an observer forbids it" set /machine/cpu0/AlarmLimit 60
kill -TERM "$tool_pid"
end_tool
grep -qF '"arguments":[60]' "$work/tool.log" || fail "the call was not forbidden"
look 0 "75" get /machine/cpu0/AlarmLimit
look 0 "60" set /machine/cpu0/AlarmLimit 60

say "it hears of objects and processes that come and go: of a process that the machine watches"
start_tool "+ /machine/cpu0" follow
cp "$(command -v sleep)" "$work/demo-worker"
"$work/demo-worker" 1000 &
worker_pid=$!
wait_for "$work/tool.log" "+ /machine/process/demo-worker-$worker_pid"
kill "$worker_pid"
wait "$worker_pid" 2>/dev/null || true
wait_for "$work/tool.log" "- /machine/process/demo-worker-$worker_pid"
worker_pid=''
kill -TERM "$tool_pid"
end_tool

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

say "a last look"
look 0 "ok: 1 processes" check

# stay_for_browsers: until Ctrl-C, which ends the page alone.
stay_for_browsers() {
    "$tool" web --help >/dev/null 2>&1 || fail "--stay: there is no reflectorb web here, see ./run setup"
    "${runner[@]}" "$programs/panel" --refreshes 1000000 --interval 1000 >/dev/null 2>&1 </dev/null &
    panel_pid=$!
    trap : INT
    say "open this address in a browser; Ctrl-C ends"
    "${runner[@]}" "$tool" web --listen 127.0.0.1:0 --allow-changes || fail "reflectorb web: $?"
    trap 'exit 1' INT
    kill "$panel_pid" 2>/dev/null || true
    wait "$panel_pid" 2>/dev/null || true
    panel_pid=''
}
if [[ $stay == --stay ]]; then
    stay_for_browsers
fi

say "stopping the machine"
[[ -z $stay ]] || kill -0 "$machine_pid" 2>/dev/null || start_machine # Ctrl-C goes to all
stop_machine
[[ -z $(find "$TRANSPORT_DIR" -type s 2>/dev/null) ]] || fail "a process left its address behind"
say "demo: ok: found by identifier and by name, called, watched, followed, lost, found again, ended" \
    "cleanly"
