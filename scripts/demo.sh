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

# The calls, and indented below each the reply that it must get. zdepcall gets the lines that are
# not indented; what it prints must be this text.
transcript() {
    cat <<'END'
# Each call names a shared library, a function in it, and the arguments with their types; the
# indented line is the reply.
zdex_numbers.so zdex_add int=2 int=40 --returns int
  return: 42
zdex_numbers.so zdex_mean double=1 double=2.5 --returns double
  return: 1.75

# More integers than the six, more doubles than the eight registers hold: the rest is on the stack.
zdex_numbers.so zdex_sum8 int=1 long=20 short=300 int=4000 uint=50000 char=60 int=700000 long=8000000000 --returns long
  return: 8000754381
zdex_numbers.so zdex_polynomial double=2 double=1 double=1 double=1 double=1 double=1 double=1 double=1 double=1 double=1 --returns double
  return: 511

# Text by reference: in, out (into a buffer of 40 bytes), in and out.
zdex_text.so zdex_word_count 'string=three short words' --returns int
  return: 3
zdex_text.so zdex_greet string=World out:string(40) int=40
  argument 2: "Hello, World!"
zdex_text.so zdex_upper 'inout:string(40)=shout it out'
  argument 1: "SHOUT IT OUT"

# Raw bytes, written in hexadecimal; a database number, whose first byte is a length.
zdex_bytes.so zdex_reverse inout:raw(4)=0a0b0c0d uint=4
  argument 1: 0d0c0b0a
zdex_bytes.so zdex_number_copy zdnumber=03c10203 --returns zdnumber
  return: 03c10203

# A routine with context: it gets memory for its result from the agent.
zdex_context.so zdex_repeat string=ab int=3 --context --returns string
  return: "ababab"

# And it can raise a database error: here 20001, with a text.
zdex_context.so zdex_withdraw double=100 double=30 --context --returns double
  return: 70
zdex_context.so zdex_withdraw double=10 double=25.5 --context --returns double
  error: -20001 ERROR_PSM_USER_RAISE_APPLICATION [ERRPS]: cannot withdraw 25.50 from 10.00. (epa_usr_util:LINE SQLExtProcDirectRaiseErrorWithMsg)

# A routine in C++.
zdex_stats.so zdex_median 'string=3 1 2 10' --context --returns double
  return: 2.5

# What cannot be called is an error too, and the agent goes on.
zdex_numbers.so zdex_subtract int=2 int=1 --returns int
  error: -140009 ERROR_EPA_FUNCTION_OPEN_FAILED [ERREP]: Function ('zdex_subtract') call failed - zdex_numbers.so: undefined symbol: zdex_subtract. (epa_dl_call:605 epa_dl_call)
no_such_library.so zdex_add int=2 int=1 --returns int
  error: -140004 ERROR_EPA_LIBRARY_OPEN_FAILED [ERREP]: Failed to open library ('no_such_library.so') - no_such_library.so: cannot open shared object file: No such file or directory. (epa_dl_call:1092 epa_dlopen)
END
}

cache_transcript() {
    cat <<'END'
# The first call opens the library; the next ones find it in the agent's cache.
zdex_numbers.so zdex_add int=1 int=2 --returns int
  return: 3
  time: TIME us
zdex_numbers.so zdex_add int=3 int=4 --returns int
  return: 7
  time: TIME us
zdex_numbers.so zdex_mean double=3 double=4 --returns double
  return: 3.5
  time: TIME us
END
}

build() {
    # A folder of its own: without the tests, so that their packages are not needed.
    local log=$root/build/demo.log
    mkdir -p build
    echo "Building the agent and the examples (the first time takes a minute or two) ..."
    if ! { cmake --preset release -B build/demo -DZDEPL_TESTS=OFF &&
        cmake --build build/demo --parallel "$(nproc)" --target zdepa zdepcall zdepl_examples; } \
        >"$log" 2>&1; then
        cat "$log" >&2
        echo "demo: the build failed" >&2
        exit 1
    fi
}

# play NAME OPTION...: makes the calls of the transcript $scratch/NAME.expected through one agent.
# Prints what comes back, then compares it.
play() {
    local name=$1
    shift
    # Some replies are errors: status 1 is as good as 0, anything else is not.
    local status=0
    grep -v '^  ' "$scratch/$name.expected" |
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
    if ! diff -u --label expected --label received "$scratch/$name.expected" \
        "$scratch/$name.compared" >&2; then
        echo "demo: the replies differ from the expected ones (above)" >&2
        exit 1
    fi
    checked=$((checked + $(grep -c '^[^# ]' "$scratch/$name.expected")))
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
transcript >"$scratch/calls.expected"
play calls

# The loader writes down every request to open a library, also of one that is open already.
echo
cache_transcript >"$scratch/cache.expected"
LD_DEBUG=files LD_DEBUG_OUTPUT=$scratch/loader play cache --time
opened=$(cat "$scratch"/loader.* | grep -c "opening file=$examples/zdex_numbers.so " || true)
if ((opened != 1)); then
    echo "demo: the loader was asked $opened times to open the library, once is expected" >&2
    exit 1
fi
echo "# The loader was asked once to open zdex_numbers.so, for these 3 calls."

echo
echo "All $checked replies were the expected ones."
