# shellcheck shell=bash
# What the demos share; they source it. Makes `work`, a folder that is removed at their end, for which
# they define `clean_up` and `fail`.
patience=${DEMO_PATIENCE:-60} # seconds for what must happen; a busy machine needs less
work=$(mktemp -d)
trap 'clean_up; rm -rf "$work"' EXIT
trap 'exit 1' INT TERM

# kill_all <pid>...: and waits for what this shell has started.
kill_all() {
    local pid
    for pid in "$@"; do
        kill -KILL "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
}

say() { printf '\n--- %s\n' "$*"; }

# need_programs <program>...
need_programs() {
    local program
    for program in "$@"; do
        [[ -x $program ]] || fail "not built: $program"
    done
}
