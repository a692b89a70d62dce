#!/usr/bin/env bash
# usage: run_short.sh FUZZER SEEDS: runs the seeds and then twenty seconds of what grows from them.
# Finds go to the current folder as crash-*, to be kept as a seed once mended.
set -euo pipefail
fuzzer=$1
seeds=$2
if [[ -z $(ls -A "$seeds" 2>/dev/null) ]]; then
    echo "no seeds in $seeds" >&2
    exit 1
fi
grown=$(mktemp -d)
trap 'rm -rf "$grown"' EXIT
"$fuzzer" -seed=1 -max_total_time=20 -max_len=8192 -timeout=10 -print_final_stats=1 \
    "$grown" "$seeds"
