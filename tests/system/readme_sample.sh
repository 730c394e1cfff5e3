#!/usr/bin/env bash
# The sample in README.md is the program that is built: compares the two.
#
#   readme_sample.sh <README.md> <source>
set -euo pipefail

sed -n '/<!-- sample: begin/,/<!-- sample: end/p' "$1" | sed -n '/^```cpp$/,/^```$/p' |
    sed '1d;$d' | diff - "$2"
