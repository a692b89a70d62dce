#!/usr/bin/env bash
# usage: with_pkgconfig.sh PREFIX WORK_FOLDER C_COMPILER
# Builds the host program and the routine by hand, and starts the host with immediate binding: no
# name of the library may be left without a definition, though OpenSSL is not there.
set -euo pipefail
consumer=$(dirname "${BASH_SOURCE[0]}")/consumer
prefix=$1
work=$2
compiler=$3
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zdepl.pc)")
export PKG_CONFIG_PATH
rm -rf "$work"
mkdir -p "$work"
read -ra compile_flags <<<"$(pkg-config --cflags zdepl)"
read -ra link_flags <<<"$(pkg-config --libs zdepl)"
# The warnings are those of a strict user; the headers must not set one off.
"$compiler" -std=c11 -Wall -Wextra -Wstrict-prototypes -Werror "${compile_flags[@]}" \
    "$consumer/host.c" -o "$work/host" "${link_flags[@]}"
"$compiler" -Wall -Wextra -Werror -fPIC -shared -fvisibility=hidden "${compile_flags[@]}" \
    "$consumer/routine.c" -o "$work/routine.so"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zdepl)
export LD_LIBRARY_PATH LD_BIND_NOW=1 ZD_HOME=$work/home
"$work/host" "$work/routine.so" | grep -qx 'all came back'
