#!/usr/bin/env bash
# usage: readme_routine.sh README PREFIX WORK_FOLDER C_COMPILER
# The routine that README.md shows is what a reader copies first: it compiles without a warning and
# its function can be called by the database.
set -euo pipefail
readme=$1
prefix=$2
work=$3
compiler=$4
mkdir -p "$work"
sed -n '/^```c$/,/^```$/{/^```/!p}' "$readme" >"$work/greet.c"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zdepl.pc)")
export PKG_CONFIG_PATH
read -ra compile_flags <<<"$(pkg-config --cflags zdepl)"
"$compiler" -Wall -Wextra -Werror -fPIC -shared -fvisibility=hidden "${compile_flags[@]}" \
    "$work/greet.c" -o "$work/greet.so"
nm -D --defined-only "$work/greet.so" | grep -qw greet
