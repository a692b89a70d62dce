#!/usr/bin/env bash
# Measures us and the peers, alternating, and prints medians and ratios; last of all the table of
# what is required and what was measured.
set -euo pipefail

usage() {
    cat <<'END'
usage: scripts/bench.sh [--quick] [QUESTION...]
       scripts/bench.sh --endurance

  QUESTION      round_trip, trampoline, direct_request, request_memory, start, idle_memory, encode,
                decode or another bench/QUESTION_bench.cpp; without any: all of them (some five
                minutes)
  --quick       fewer and shorter repetitions: for a first look, not for a claim
  --endurance   100,000 calls through one agent, then failing ones: resident memory and open
                descriptors along the way, no peers

Run as root, the measured programs go ahead of all others on one processor, so that the figures
hold on a busy machine too, within some per cent; otherwise the machine should be idle.
Exit status: 0 every required ratio is kept, 1 one is missed or a step failed, 2 wrong usage.
END
}

wrong_usage() {
    echo "bench: $1 (try --help)" >&2
    exit 2
}

build() {
    local fresh=()
    [[ -f build/bench/build.ninja ]] || fresh=(--fresh)
    cmake --preset bench "${fresh[@]}" >&2
    cmake --build --preset bench --parallel "$(nproc)" >&2
}

cd "$(dirname "${BASH_SOURCE[0]}")/.."
programs=build/bench/bench
questions=()
flags=()
endurance=no
while (($# > 0)); do
    case $1 in
    --quick) flags=(--benchmark_repetitions=7 --benchmark_min_time=0.02) ;;
    --endurance) endurance=yes ;;
    -h | --help)
        usage
        exit 0
        ;;
    -*) wrong_usage "unknown argument: $1" ;;
    *)
        [[ -f bench/$1_bench.cpp ]] || wrong_usage "no such question: $1"
        questions+=("$1")
        ;;
    esac
    shift
done
if ((${#questions[@]} == 0)); then
    for source in bench/*_bench.cpp; do
        name=${source##*/}
        questions+=("${name%_bench.cpp}")
    done
elif [[ $endurance == yes ]]; then
    wrong_usage "--endurance takes no question"
fi

scripts/setup.sh bench
build
if [[ $endurance == yes ]]; then
    exec "$programs/endurance"
fi
results=()
for question in "${questions[@]}"; do
    echo "bench: $question" >&2
    result=$programs/$question.json
    rm -f "$result"
    "$programs/${question}_bench" "${flags[@]}" --benchmark_out="$result" \
        --benchmark_out_format=json
    results+=("$result")
done
echo
python3 bench/report.py bench/goals.txt "${results[@]}"
