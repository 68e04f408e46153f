#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Unpacks the tarball with the binaries into an empty folder and uses what lies there: the program
# updates a build, hosts are built against it by CMake and by pkg-config, and update one, too.
# Usage: scripts/try-tarball.sh TARBALL
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
    echo "try-tarball.sh: $*" >&2
    exit 1
}
[ -f "${1:-}" ] || fail "which tarball? scripts/package.sh makes it"

scratch=$(readlink -f "$(mktemp -d)")
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/unpacked
mkdir "$prefix"
tar -xzf "$1" -C "$prefix" --strip-components 1
libdir=$(dirname "$(dirname "$(find "$prefix" -name Pellox.pc)")")
documents=$prefix/share/doc/Pellox
package=$PWD/tests/package

# quietly NAME COMMAND...: what it prints is of interest only when it fails.
quietly() {
    name=$1
    shift
    "$@" >"$scratch/log" 2>&1 || {
        cat "$scratch/log" >&2
        fail "$name"
    }
    echo "$name: works"
}
# For nothing else that is installed.
uses_the_tarball() { # PROGRAM
    library=$(ldd "$1" | sed -n 's/^\tlibPellox\.so\.[0-9]* => \(.*\) (.*/\1/p')
    [ "$(dirname "$(readlink -f "$library")")" = "$libdir" ] || fail "$1 takes another library: $library"
}
build() { # SOURCE
    # "set -e" does not count here.
    cmake -S "$1" -B "$scratch/build-${1##*/}" -DCMAKE_PREFIX_PATH="$prefix" \
        && grep "^Pellox_DIR:PATH=$libdir/cmake/Pellox$" "$scratch/build-${1##*/}/CMakeCache.txt" \
        && cmake --build "$scratch/build-${1##*/}"
}

echo "== $(basename "$1"), unpacked in an empty folder"
cmp LICENSE "$documents/LICENSE"
quietly "what headers and guides point to" "$package/check_documents.py" \
    "$prefix/include/Pellox" "$documents" LICENSE README.md CHANGELOG.md
uses_the_tarball "$prefix/bin/pellox"
quietly "the program" "$package/update_by_program.sh" "$prefix/bin/pellox" "$scratch/game"

quietly "find_package, C++" build "$package/host"
uses_the_tarball "$scratch/build-host/host"
quietly "a host of that" "$scratch/build-host/host"
quietly "find_package, every header" build "$package/headers"
quietly "pkg-config, C++" "$package/build_with_pkgconfig.sh" \
    c++ "$libdir" "$package/host/host.cpp" "$scratch/host-by-pkgconfig"
quietly "pkg-config, C" "$package/build_c_with_pkgconfig.sh" \
    cc "$libdir" "$documents/examples/c-host/updater.c" "$scratch/updater-by-pkgconfig"

quietly "find_package, C" build "$documents/examples/c-host"
uses_the_tarball "$scratch/build-c-host/updater"
quietly "a host of that" "$package/run_by_host.sh" "$scratch/runs" "$scratch/build-c-host/updater"
