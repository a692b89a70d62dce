#!/usr/bin/env bash
# Installs the Debian packages that the tree needs and that are not there yet. Prints nothing and
# asks no package server when all are there.
set -euo pipefail

usage() {
    cat <<'END'
usage: scripts/setup.sh [GROUP...]

Installs what is missing of the named groups, as root or through sudo.

  build     compiler, CMake, Ninja, Python, flex (part of every other group; the default)
  test      GoogleTest, debugger, OpenSSL, unwinder, ELF tools, ps, tshark: for scripts/test.sh
  lint      clang-format and clang-tidy: for scripts/lint.sh
  fuzz      Clang and its fuzzer run-time
  bench     the peers that scripts/bench.sh measures against
  package   what packaging/build-deb.sh needs

Exit status: 0 all is there, 1 something is missing and could not be installed, 2 wrong usage.
END
}

packages_of() {
    case $1 in
    build) echo g++ cmake ninja-build python3 flex ;;
    test)
        echo libgtest-dev libgmock-dev libunwind-dev gdb libssl-dev
        echo binutils pkg-config man-db dpkg-dev file procps tshark
        ;;
    lint) echo clang clang-format clang-tidy git ;;
    fuzz) echo clang libclang-rt-14-dev ;;
    bench)
        echo libbenchmark-dev libffi-dev libtalloc-dev libapr1-dev libpg-query-dev pkg-config
        echo flatbuffers-compiler libflatbuffers-dev capnproto libcapnp-dev
        echo protobuf-compiler libprotobuf-dev
        ;;
    package) echo dpkg-dev file ;;
    *) return 1 ;;
    esac
}

is_installed() {
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

install_packages() {
    local as_root=()
    if ((EUID != 0)); then
        as_root=(sudo)
        [[ -t 0 ]] || as_root+=(--non-interactive)
        if ! command -v sudo >/dev/null || ! "${as_root[@]}" true; then
            printf 'setup: packages are missing and this is not root; run:\n  %s\n' \
                "apt-get update && apt-get install --yes --no-install-recommends $*" >&2
            return 1
        fi
    fi
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get --quiet=2
        --option DPkg::Lock::Timeout=300)
    echo "setup: installing $*" >&2
    "${apt[@]}" update >&2
    "${apt[@]}" install --yes --no-install-recommends "$@" >&2
}

case ${1-} in
-h | --help)
    usage
    exit 0
    ;;
esac

wanted=$(packages_of build)
for group in "$@"; do
    if ! packages=$(packages_of "$group"); then
        echo "setup: no such group: $group (try --help)" >&2
        exit 2
    fi
    wanted+=" $packages"
done

if ! command -v dpkg-query >/dev/null; then
    echo "setup: this is no Debian system; make sure that it has: $wanted" >&2
    exit 1
fi
missing=()
for package in $wanted; do
    if ! is_installed "$package" && [[ " ${missing[*]-} " != *" $package "* ]]; then
        missing+=("$package")
    fi
done
((${#missing[@]} == 0)) || install_packages "${missing[@]}"
