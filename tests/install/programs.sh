#!/usr/bin/env bash
# usage: programs.sh PREFIX WORK_FOLDER C_COMPILER
# The installed programs find the library and each other without being told where they are: a
# routine is called through an agent process.
set -euo pipefail
prefix=$1
work=$2
compiler=$3
unset LD_LIBRARY_PATH
mkdir -p "$work"
"$compiler" -fPIC -shared "-I$(dirname "$(find "$prefix" -name zdextproc.h)")" \
    "$(dirname "${BASH_SOURCE[0]}")/consumer/routine.c" -o "$work/routine.so"
"$prefix/bin/zdepa" --version | grep -q 'External Procedure Agent'
reply=$("$prefix/bin/zdepcall" "$work/routine.so" add_up int=40 int=2 --returns int)
if [[ $reply != "return: 42" ]]; then
    echo "the reply is: $reply" >&2
    exit 1
fi
