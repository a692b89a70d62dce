#!/usr/bin/env bash
# usage: check_headers.sh C11|CXX20 COMPILER INCLUDE_FOLDER...
# Compiles every header below the include folders alone, included twice, with warnings as errors.
set -euo pipefail
language=$1
compiler=$2
shift 2
case $language in
C11) mode=(-x c -std=c11) ;;
CXX20) mode=(-x c++ -std=c++20) ;;
*)
    echo "check_headers: no such language: $language" >&2
    exit 2
    ;;
esac

include_flags=()
for folder in "$@"; do
    [[ -d $folder ]] && include_flags+=("-I$folder")
done

count=0
bad=0
for folder in "$@"; do
    [[ -d $folder ]] || continue
    while IFS= read -r header; do
        count=$((count + 1))
        printf '#include "%s"\n#include "%s"\n' "$header" "$header" |
            "$compiler" "${mode[@]}" -Wall -Wextra -Werror -fsyntax-only "${include_flags[@]}" - ||
            {
                echo "check_headers: does not compile alone as $language: $header" >&2
                bad=$((bad + 1))
            }
    done < <(cd "$folder" && find . -name CMakeFiles -prune -o -name '*.h' -printf '%P\n' | sort)
done
echo "$count headers, $bad of them not sound as $language"
((count > 0 && bad == 0))
