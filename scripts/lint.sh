#!/usr/bin/env bash
# The checks of the source text: format, layering, words, and clang-tidy.
set -euo pipefail

usage() {
    cat <<'END'
usage: scripts/lint.sh [CHECK...]

  format   every C and C++ file is as clang-format 14 would write it
  layers   every #include of the library points at its own layer or below, in no circle
  words    no path of one machine, no open notes, no tabs, trailing blanks or over-long lines
  tidy     clang-tidy over src/ and programs/ (some minutes; configures the clang preset)

Without CHECK: all of them. Exit status: 0 clean, 1 findings, 2 wrong usage.
END
}

# Another major version formats differently, so the exact one is taken where it is to be had.
tool() {
    command -v "$1-14" || command -v "$1"
}

tracked() {
    git ls-files -- "$@"
}

check_format() {
    tracked '*.c' '*.cpp' '*.h' | xargs -r "$(tool clang-format)" --dry-run --Werror
}

check_layers() {
    scripts/check_layers.py src
}

check_words() {
    scripts/check_words.py
}

check_tidy() {
    # With Clang's own command lines; and the headers that the build writes must exist before any
    # file can be parsed.
    cmake --preset clang >&2
    cmake --build --preset clang --parallel "$(nproc)" --target zdepl_objects >&2
    tracked 'src/*.cpp' 'programs/*.cpp' |
        xargs -r -P "$(nproc)" -n 4 "$(tool clang-tidy)" -p build/clang --quiet
}

checks=()
for argument in "$@"; do
    case $argument in
    format | layers | words | tidy) checks+=("$argument") ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "lint: no such check: $argument (try --help)" >&2
        exit 2
        ;;
    esac
done
((${#checks[@]} > 0)) || checks=(format layers words tidy)

cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/setup.sh lint
failed=()
for check in "${checks[@]}"; do
    if "check_$check"; then
        echo "lint: $check: clean" >&2
    else
        failed+=("$check")
    fi
done
if ((${#failed[@]} > 0)); then
    echo "lint: findings in: ${failed[*]}" >&2
    exit 1
fi
