#!/usr/bin/env bash
# usage: packaging/build-deb.sh [BUILD_FOLDER]
# Builds the Debian packages zdepl and libzdepl-dev in BUILD_FOLDER (default: build/deb) and prints
# their paths.
set -euo pipefail
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
folder=$(realpath -m "${1:-$root/build/deb}")
"$root/scripts/setup.sh" package

cd "$root"
cmake --preset release -B "$folder" -DZDEPL_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" \
    -DCMAKE_INSTALL_SYSCONFDIR=/etc -DCMAKE_SKIP_INSTALL_RPATH=ON >&2
cmake --build "$folder" --parallel "$(nproc)" >&2
rm -rf "$folder/packages"
cpack --config "$folder/CPackConfig.cmake" -B "$folder/packages" >&2
rm -rf "$folder/packages/_CPack_Packages"
ls "$folder"/packages/*.deb
