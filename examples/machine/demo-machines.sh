#!/usr/bin/env bash
# Three machines, each with the actor `machine`, and one panel that shows them all, over the links
# that run on each. A cable is pulled and put back, and a machine is killed.
#
#   demo-machines.sh [<build folder>]      (./run demo --machines builds first)
#
# The machines are network namespaces, for which root is needed; for others they are folders of one
# machine, whose links meet on its loopback interface, and a link that ends stands for a cable that
# is pulled. Ends with a verdict and 0, or 1 when anything went otherwise than it should.
set -euo pipefail

build=${1:-build/release}
programs=$build/examples/machine
link=$build/platform/transport/link/reflectorb-link
names=(none one two three) # by slot

clean_up() {
    exec 2>/dev/null # the shell tells of each that was killed
    # shellcheck disable=SC2086  # those that are there
    kill_all $panel_pid $screen_pid "${machine_pids[@]}" "${link_pids[@]}"
    [[ -z $made_namespaces ]] || delete_network
}
# shellcheck source=demo-functions.sh
. "$(dirname "$0")/demo-functions.sh"
shown=$work/panel.log
declare -a link_pids machine_pids
panel_pid='' screen_pid=''
namespaces=''       # not empty: they are the machines
made_namespaces='' # not empty: some may be there, whether they are the machines or not

space() { echo "reflectorb-demo-$$-$1"; }

fail() {
    say "demo: FAILED: $*"
    for slot in 1 2 3; do
        sed "s/^/    link ${names[slot]}: /" "$work/link$slot.log" 2>/dev/null || true
    done
    exit 1
}

# ---- Machines ----------------------------------------------------------------------------------

# Three namespaces, each with a cable to a bridge in a fourth one. The addresses are known in there
# only. Where they can be made but nothing can be run in them, as in some containers, this fails, too.
# What calls it looks at its result, so that no failure ends the shell: each is told of by itself.
make_network() {
    local slot
    [[ $(id -u) == 0 ]] || return 1
    made_namespaces=yes
    delete_network # what one of the same process id has left
    ip netns add "$(space hub)" 2>/dev/null || return 1
    ip -n "$(space hub)" link add bridge type bridge || return 1
    ip -n "$(space hub)" link set bridge up || return 1
    for slot in 1 2 3; do
        ip netns add "$(space $slot)" || return 1
        ip netns exec "$(space $slot)" true || return 1
        ip link add cable netns "$(space $slot)" type veth peer name "port$slot" \
            netns "$(space hub)" || return 1
        ip -n "$(space hub)" link set "port$slot" master bridge up || return 1
        ip -n "$(space $slot)" addr add "10.77.0.$slot/24" dev cable || return 1
        ip -n "$(space $slot)" link set lo up || return 1
        ip -n "$(space $slot)" link set cable up || return 1
    done
}

delete_network() {
    local slot
    for slot in hub 1 2 3; do
        ip netns del "$(space $slot)" 2>/dev/null || true
    done
}

# within <slot> <program> <argument>...: runs it in the place of this shell, on a machine.
within() {
    local slot=$1
    shift
    export TRANSPORT_DIR=$work/machine$slot TRANSPORT_SLOT=$slot
    [[ -z $namespaces ]] || exec ip netns exec "$(space "$slot")" "$@"
    exec "$@"
}

start_link() {
    local where=(--interface lo --domain $((50 + $$ % 100)))
    [[ -z $namespaces ]] || where=(--interface cable --open)
    (within "$1" "$link" "${where[@]}" --machine "${names[$1]}") 2>>"$work/link$1.log" &
    link_pids[$1]=$!
}

pull_cable() {
    if [[ -n $namespaces ]]; then
        ip -n "$(space "$1")" link set cable down
    else
        {
            kill -KILL "${link_pids[$1]}"
            wait "${link_pids[$1]}" || true
        } 2>/dev/null
    fi
}

put_back_cable() {
    if [[ -n $namespaces ]]; then
        ip -n "$(space "$1")" link set cable up
    else
        start_link "$1"
    fi
}

# ---- The panel ---------------------------------------------------------------------------------
seen=0 # lines of the panel that have been looked at

# panel_shows <text>: waits until it does, in a line that has not been looked at before.
panel_shows() {
    local tenths=$((patience * 10))
    until grep -qF -- "$1" < <(tail -n "+$((seen + 1))" "$shown"); do
        ((tenths-- > 0)) || fail "the panel did not show \"$1\""
        sleep 0.1
    done
    seen=$(wc -l <"$shown")
}

# ---- The demo ----------------------------------------------------------------------------------
need_programs "$programs/machine" "$programs/panel" "$link"

if make_network; then
    namespaces=yes
    say "three network namespaces stand for three machines"
else
    say "without the right to make network namespaces: three folders stand for three machines," \
        "and their links meet on the loopback interface"
fi

say "on each a link, and the actor machine"
for slot in 1 2 3; do
    mkdir -m 700 "$work/machine$slot"
    start_link $slot
    (within $slot "$programs/machine" --node "${names[slot]}") >"$work/machine$slot.log" 2>&1 &
    machine_pids[slot]=$!
done

say "the panel, on machine one, shows them all"
: >"$shown"
(within 1 "$programs/panel" --node --refreshes 100000 --interval 500 --patience "$patience") \
    >"$shown" 2>&1 </dev/null &
panel_pid=$!
tail -n +1 -f --pid="$panel_pid" "$shown" &
screen_pid=$!
panel_shows "3 machines"

say "the cable of machine two is pulled"
pull_cable 2
panel_shows "two has gone with its process"
panel_shows "2 machines"

say "the cable is put back"
put_back_cable 2
panel_shows "two has come"
panel_shows "3 machines"

say "machine three is killed: all its processes, at once"
{
    kill -KILL "${machine_pids[3]}" "${link_pids[3]}"
    wait "${machine_pids[3]}" "${link_pids[3]}" || true
} 2>/dev/null
panel_shows "three has gone with its process"
panel_shows "2 machines"

say "demo: ok: three machines found, called, lost, found again"
