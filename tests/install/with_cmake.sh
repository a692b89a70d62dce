#!/usr/bin/env bash
# usage: with_cmake.sh CMAKE PREFIX WORK_FOLDER C_COMPILER
set -euo pipefail
consumer=$(dirname "${BASH_SOURCE[0]}")/consumer
rm -rf "$3"
"$1" -S "$consumer" -B "$3" -G Ninja "-DCMAKE_PREFIX_PATH=$2" "-DCMAKE_C_COMPILER=$4" >/dev/null
"$1" --build "$3"
export ZD_HOME=$3/home
"$3/host" "$3/routine.so" | grep -qx 'all came back'
