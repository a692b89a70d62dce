#!/usr/bin/env bash
# usage: tests/abi/update_exported_symbols.sh [LIBRARY]
# Writes the list of exported names anew, from the release build unless told otherwise. Look at the
# difference before it is committed: a name that vanishes breaks programs that are out there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
library=${1:-build/release/src/libzdepl.so}
LC_ALL=C nm -D --defined-only "$library" |
    awk '$2 != "A" { sub("@.*", "", $3); print $3 }' |
    LC_ALL=C sort -u >tests/abi/exported_symbols.new
mv tests/abi/exported_symbols.new tests/abi/exported_symbols.txt
