#!/usr/bin/env bash
# usage: debian.sh WORK_FOLDER C_COMPILER
# Builds the packages, unpacks both into one folder and builds the host program against that.
set -euo pipefail
here=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
work=$1
"$here/../../packaging/build-deb.sh" "$work" >/dev/null

runtime=$(echo "$work"/packages/zdepl_*.deb)
dev=$(echo "$work"/packages/libzdepl-dev_*.deb)
rm -rf "$work/unpacked"
mkdir -p "$work/unpacked"
dpkg-deb -x "$runtime" "$work/unpacked"
[[ -L $(echo "$work"/unpacked/usr/lib/*/libzdepl.so.1) ]]
[[ -f $work/unpacked/usr/lib/systemd/system/zdepa.socket ]]
[[ -f $work/unpacked/etc/default/zdepa ]]
if readelf -dW "$work/unpacked/usr/bin/zdepa" | grep -E 'RPATH|RUNPATH' >&2; then
    echo "a packaged program carries a search path" >&2
    exit 1
fi
if [[ -e $work/unpacked/usr/include ]]; then
    echo "the runtime package holds headers" >&2
    exit 1
fi
dpkg-deb --field "$runtime" Depends | grep -q 'libc6 (>= 2.36)'
dpkg-deb --field "$dev" Depends | grep -q '^zdepl (= '
dpkg-deb -x "$dev" "$work/unpacked"
"$here/with_pkgconfig.sh" "$work/unpacked" "$work/host" "$2"
