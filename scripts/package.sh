#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes the packages: three for Debian, a tarball with the binaries and one with the source.
# Usage: scripts/package.sh [--qt6] [--try]
# They come to build/package/, with --qt6 those with Qt 6 to build/package-qt6/. lintian must find
# nothing wrong with those for Debian, and the tarball with the binaries must work where it is
# unpacked. With --try all are then used in a fresh Debian; scripts/try-packages.sh tells what that
# needs.
set -euo pipefail
cd "$(dirname "$0")/.."

qt=5 preset=package try=
for argument; do
    case $argument in
    --qt6) qt=6 preset=package-qt6 ;;
    --try) try=yes ;;
    *)
        sed -n '3,8s/^# //p' "$0" >&2
        exit 2
        ;;
    esac
done

scripts/setup.sh build package
[ $qt = 5 ] || scripts/setup.sh "qt$qt"
out=$PWD/build/$preset
# The date in the packages, so that the same source makes the same ones.
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
fi
export SOURCE_DATE_EPOCH
umask 022
# The tarball's source is the same as this one: ccache need not compile it twice.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1

rm -f "$out"/*.deb "$out"/*.tar.gz

echo "== Debian packages"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
(cd "$out" && cpack -G DEB)

echo "== Source tarball"
(cd "$out" && cpack --config CPackSourceConfig.cmake)
source_tarball=$(ls "$out"/pellox-*[0-9].tar.gz)
name=$(basename "$source_tarball" .tar.gz)
if git rev-parse --git-dir >/dev/null 2>&1; then
    strangers=$(diff <(git ls-files | sort) \
        <(tar -tzf "$source_tarball" | sed "s,^$name/,,; /\/$/d; /^$/d" | sort) || true)
    [ -z "$strangers" ] || {
        echo "package.sh: the source tarball is not what git has (< only git, > only the tarball):" >&2
        echo "$strangers" >&2
        exit 1
    }
fi

# Of the source tarball, which is thereby known to be whole.
echo "== Tarball with the binaries"
unpacked=$out/unpacked
mkdir -p "$unpacked/$name"
# What was built there before is of use to the next build, old source is not.
find "$unpacked/$name" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
tar -xzf "$source_tarball" -C "$unpacked"
(
    cd "$unpacked/$name"
    cmake --preset tarball -DPELLOX_QT_MAJOR_VERSION=$qt >/dev/null
    cmake --build --preset tarball
    cd build/tarball
    cpack -G TGZ -B "$out"
)
scripts/try-tarball.sh "$out/$name"-Linux-*.tar.gz

echo "== lintian"
lintian --fail-on error,warning "$out"/*.deb

echo "== Made"
ls -l "$out"/*.deb "$out"/*.tar.gz
if [ -n "$try" ]; then
    scripts/try-packages.sh "$out"
fi
