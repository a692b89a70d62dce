#!/usr/bin/env bash
# Builds the library and everything that tests it, and runs the tests. The last lines printed are
# CTest's summary of each preset that was run.
set -euo pipefail

usage() {
    cat <<'END'
usage: scripts/test.sh [--preset NAME]... [--all]

  --preset NAME   release (default), debug, asan, tsan, clang or fuzz; may be given more than once
  --all           release, asan and a short run of each fuzzer

Exit status: 0 every test passed, 1 a build or a test failed, 2 wrong usage.
END
}

wrong_usage() {
    echo "test: $1 (try --help)" >&2
    exit 2
}

# Runs one preset. Its output goes to standard output and to the build folder's ctest.log.
run_preset() {
    local preset=$1
    local fresh=()
    # A folder that an interrupted first configuration left behind is not built upon.
    [[ -f build/$preset/build.ninja ]] || fresh=(--fresh)
    echo "test: building preset $preset" >&2
    cmake --preset "$preset" "${fresh[@]}" >&2 || return
    cmake --build --preset "$preset" --parallel "$jobs" >&2 || return
    ctest --preset "$preset" --parallel "$jobs" --no-tests=error 2>&1 |
        tee "build/$preset/ctest.log"
}

# CTest's closing lines: from the percentage on.
print_summary() {
    local log=build/$1/ctest.log
    echo
    echo "preset $1:"
    if grep -q '% tests passed' "$log" 2>/dev/null; then
        sed -n '/% tests passed/,$p' "$log"
    else
        echo "no test was run"
    fi
}

presets=()
all=no
while (($# > 0)); do
    case $1 in
    --preset)
        (($# > 1)) || wrong_usage "--preset needs a name"
        presets+=("$2")
        shift
        ;;
    --preset=*) presets+=("${1#*=}") ;;
    --all) all=yes ;;
    -h | --help)
        usage
        exit 0
        ;;
    *) wrong_usage "unknown argument: $1" ;;
    esac
    shift
done

cd "$(dirname "${BASH_SOURCE[0]}")/.."
if [[ $all == yes ]]; then
    presets+=(release asan)
    if compgen -G 'tests/fuzz/*_fuzz.cpp' >/dev/null; then
        presets+=(fuzz)
    else
        echo "test: NOT RUN: preset fuzz, there is no tests/fuzz/*_fuzz.cpp" >&2
    fi
fi
((${#presets[@]} > 0)) || presets=(release)
jobs=$(nproc)
groups=(test)
for preset in "${presets[@]}"; do
    case $preset in
    release | debug | asan | tsan) ;;
    clang | fuzz) groups+=(fuzz) ;;
    *) wrong_usage "no such preset: $preset" ;;
    esac
    rm -f "build/$preset/ctest.log"
done
scripts/setup.sh "${groups[@]}"

failed=()
for preset in "${presets[@]}"; do
    run_preset "$preset" || failed+=("$preset")
done
if ((${#presets[@]} > 1)); then
    for preset in "${presets[@]}"; do
        print_summary "$preset"
    done
fi
if ((${#failed[@]} > 0)); then
    echo "test: failed: ${failed[*]}" >&2
    exit 1
fi
