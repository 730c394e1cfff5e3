#!/usr/bin/env bash
# Runs the benchmarks of a build tree: bench.sh <build tree> [<part of a scenario's title>]
set -euo pipefail
tree=$1
shift
"$tree/bench/reflectorb-bench" "$@"
if [[ $# -eq 0 ]]; then
    printf '\n'
    "$tree/bench/reflectorb-bench-library" --benchmark_min_time=0.2
    "$tree/bench/reflectorb-bench-tree"
    "$tree/bench/reflectorb-bench-scale"
    if [[ -x $tree/bench/reflectorb-bench-recording ]]; then
        "$tree/bench/reflectorb-bench-recording"
    fi
fi
