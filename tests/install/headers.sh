#!/usr/bin/env bash
# usage: headers.sh INSTALLED_FOLDER C_COMPILER HEADER_FOLDER...
# Every header of the tree is installed under its name, and compiles alone from there.
set -euo pipefail
installed=$1
compiler=$2
shift 2
for folder in "$@"; do
    while IFS= read -r header; do
        if ! cmp -s "$folder/$header" "$installed/$header"; then
            echo "not installed as it is: $header" >&2
            exit 1
        fi
    done < <(cd "$folder" && find . -name CMakeFiles -prune -o -name '*.h' -printf '%P\n')
done
"$(dirname "${BASH_SOURCE[0]}")/../abi/check_headers.sh" C11 "$compiler" "$installed"
