#!/usr/bin/env bash
# usage: dissector.sh SHARED_DATA_FOLDER
# Wireshark can load the dissector from where it is installed.
set -euo pipefail
script=$1/zdepl/wireshark/zdmsg.lua
[[ -f $script ]] || {
    echo "not installed: $script" >&2
    exit 1
}
if ! command -v tshark >/dev/null; then
    echo "SKIPPED: there is no tshark (scripts/setup.sh test installs it)" >&2
    exit 77
fi
fields=$(tshark -G fields -X "lua_script:$script")
grep -q 'zdmsg\.extproc_execute\.library_path' <<<"$fields"
