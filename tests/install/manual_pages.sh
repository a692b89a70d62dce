#!/usr/bin/env bash
# usage: manual_pages.sh FOLDER: formats each page; a warning is a failure.
set -euo pipefail
count=0
for page in "$1"/*.[1-8]; do
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
        man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    if [[ -n $warnings ]]; then
        echo "$page: $warnings" >&2
        exit 1
    fi
    count=$((count + 1))
done
echo "$count pages"
((count > 0))
