#!/usr/bin/env bash
# Runs the sample of README.md as its reader would: one process serves, another one calls.
#
#   hello.sh <program> [<emulator> <argument>...]
set -euo pipefail

program=$1
shift
work=$(mktemp -d)
export TRANSPORT_DIR=$work/rendezvous
trap 'rm -rf "$work"' EXIT

coproc SERVER { "$@" "$program"; }
server=$SERVER_PID
read -r line <&"${SERVER[0]}"
[[ $line == serving* ]]
answer=$("$@" "$program" Ada)
echo "$answer"
[[ $answer == "Hello, Ada!" ]]
echo >&"${SERVER[1]}"
wait "$server"
# Nobody serves any more.
[[ $("$@" "$program" Ada || true) == "nobody greets" ]]
