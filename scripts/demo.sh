#!/usr/bin/env bash
# Shows the system at work: builds it, starts a real agent, calls the example routines through it.
# What is printed is what came back over the agent's socket, and it is held against what should
# have come back.
set -euo pipefail

usage() {
    cat <<'END'
usage: scripts/demo.sh

Builds the agent and the examples, starts an agent process, calls routines through it and prints
each call with its reply.

Exit status: 0 every reply was the expected one, 1 one was not or something failed, 2 wrong usage.
END
}

case ${1-} in
'') ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    echo "demo: unknown argument: $1 (try --help)" >&2
    exit 2
    ;;
esac

build() {
    # A folder of its own: without the tests, so that their packages are not needed.
    local log=$root/build/demo.log
    local fresh=()
    # A folder that an interrupted first configuration left behind is not built upon.
    [[ -f build/demo/build.ninja ]] || fresh=(--fresh)
    mkdir -p build
    echo "Building the agent and the examples (the first time takes a minute or two) ..."
    if ! { cmake --preset release -B build/demo -DZDEPL_TESTS=OFF "${fresh[@]}" &&
        cmake --build build/demo --parallel "$(nproc)" --target zdepa zdepcall zdepl_examples; } \
        >"$log" 2>&1; then
        cat "$log" >&2
        echo "demo: the build failed" >&2
        exit 1
    fi
}

# play NAME OPTION...: makes the calls of scripts/demo/NAME.txt through one agent. In that file the
# reply that each call must get is indented below it. zdepcall gets the lines that are not indented,
# and what it prints must be the whole file.
play() {
    local name=$1
    local transcript=$root/scripts/demo/$1.txt
    shift
    # Some replies are errors: status 1 is as good as 0, anything else is not.
    local status=0
    grep -v '^  ' "$transcript" |
        "$root/build/demo/bin/zdepcall" --echo --script - "$@" | tee "$scratch/$name.actual" ||
        status=$?
    if ((status > 1)); then
        echo "demo: zdepcall ended with status $status" >&2
        exit 1
    fi
    # Besides the first line, which is about the process, three things vary from run to run.
    sed -e 1d -e "s,$examples/,,g" -e 's/^  time: [0-9.]* us$/  time: TIME us/' \
        -e 's/(epa_usr_util:[0-9]* /(epa_usr_util:LINE /' \
        "$scratch/$name.actual" >"$scratch/$name.compared"
    if ! diff -u --label expected --label received "$transcript" \
        "$scratch/$name.compared" >&2; then
        echo "demo: the replies differ from the expected ones (above)" >&2
        exit 1
    fi
    checked=$((checked + $(grep -c '^[^# ]' "$transcript")))
}

cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
examples=$root/build/demo/sdk/examples
checked=0
scripts/setup.sh build
build
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$examples"
export LC_ALL=C.UTF-8 # the loader's messages are translated

echo
play calls

# The loader writes down every request to open a library, also of one that is open already.
echo
LD_DEBUG=files LD_DEBUG_OUTPUT=$scratch/loader play cache --time
opened=$(cat "$scratch"/loader.* | grep -c "opening file=$examples/zdex_numbers.so " || true)
if ((opened != 1)); then
    echo "demo: the loader was asked $opened times to open the library, once is expected" >&2
    exit 1
fi
echo "# The loader was asked once to open zdex_numbers.so, for these 3 calls."

echo
echo "All $checked replies were the expected ones."
