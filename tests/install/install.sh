#!/usr/bin/env bash
# usage: install.sh CMAKE BUILD_FOLDER PREFIX
set -euo pipefail
rm -rf "$3"
"$1" --install "$2" --prefix "$3" >/dev/null
