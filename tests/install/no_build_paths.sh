#!/usr/bin/env bash
# usage: no_build_paths.sh PREFIX FOLDER...
# A text file that is installed must not point back at the folder it was built in. The binaries'
# debug information may; packages are stripped.
set -euo pipefail
prefix=$1
shift
for folder in "$@"; do
    if grep -rIlF -- "$folder/" "$prefix" >&2; then
        echo "these installed files name $folder" >&2
        exit 1
    fi
done
