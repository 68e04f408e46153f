#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures the peak memory of each command on one 4 GiB file, and fails when it grows with the
# file: 64 MiB for sign, apply, verify and copy; for diff the signature and 64 MiB.
# Usage: scripts/memory.sh   (a minute or two, 8 GiB in $TMPDIR)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build bench >&2
cmake --preset release >/dev/null
cmake --build --preset release --target pellox >&2
pellox=$PWD/build/release/bin/pellox

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir old new install
truncate -s 4G old/file new/file install/file
printf 'an edit in the middle' | dd of=new/file bs=1 seek=2000000000 conv=notrunc status=none

limit=$((64 * 1024)) # KiB
failed=0

measure() { # MAXIMUM COMMAND...
    local maximum=$1 peak
    shift
    peak=$(/usr/bin/time -f %M "$pellox" "$@" --quiet 2>&1 | tail -n 1)
    printf '%-8s %6d KiB (at most %d)\n' "$1" "$peak" "$maximum"
    [ "$peak" -le "$maximum" ] || failed=1
}

measure $limit sign old signatures
measure $((limit + $(stat -c %s signatures/file) / 1024)) diff new signatures patch
measure $limit apply install patch
measure $limit verify install patch
measure $limit copy new/file copy
cmp new/file install/file
exit $failed
