#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures the peak memory of each command, and fails when it grows with the build.
# Usage: scripts/memory.sh   (a few minutes, 8 GiB in $TMPDIR)
#
# On one 4 GiB file: 64 MiB for sign, apply, verify, copy, check, repair, update and recover; for diff
# the signature and 64 MiB.
# publish, on made-up builds: 64 MiB and the signatures in memory, up to 80 bytes for each 2,048
# bytes of the old file; and what does not belong to them may grow by no more than 8 MiB from a file
# of 1 GiB to one of 4 GiB, and by 640 bytes for each file, whose path and checksums are kept. With
# the old build: 64 MiB and what --memory says.
set -euo pipefail
cd "$(dirname "$0")/.."

limit=$((64 * 1024)) # KiB, like all sizes below
growth=$((8 * 1024))
per_file=640 # bytes
set_of_gibibyte=$((80 * (1 << 30) / 2048 / 1024))
failed=0

main() {
    scripts/setup.sh build bench >&2
    cmake --preset release -DPELLOX_BUILD_BENCHMARKS=ON >/dev/null
    cmake --build --preset release --target pellox bench_makebuild faults >&2
    pellox=$PWD/build/release/bin/pellox
    makebuild=$PWD/build/release/bin/bench_makebuild
    faults=$(find "$PWD/build/release" -name libfaults.so)
    scratch=$(mktemp -d)
    trap 'rm -rf "$scratch"' EXIT

    cd "$(mktemp -d -p "$scratch")"
    single_steps
    installed_build
    rm -rf "${scratch:?}"/*

    publish huge 1 GiB $((1 << 30)) "$set_of_gibibyte"
    local small=$peak
    publish huge 4 GiB $((4 << 30)) $((4 * set_of_gibibyte))
    check_growth "$small" "$peak" $((3 * set_of_gibibyte + growth))
    publish_from_build huge $((1 << 30)) 64M $((64 * 1024))
    publish_from_build huge $((1 << 30)) 1G $((1024 * 1024))
    publish small 5,000 files 5000 0
    small=$peak
    publish small 80,000 files 80000 0
    check_growth "$small" "$peak" $((75000 * per_file / 1024))
    exit $failed
}

# Runs the program and notes in $peak what it takes.
measure() { # NAME MAXIMUM COMMAND...
    local name=$1 maximum=$2
    shift 2
    peak=$(/usr/bin/time -f %M "$pellox" "$@" --quiet 2>&1 | tail -n 1)
    printf '%-22s %6d KiB (at most %d)\n' "$name" "$peak" "$maximum"
    [ "$peak" -le "$maximum" ] || failed=1
}

single_steps() {
    mkdir old new install
    truncate -s 4G old/file new/file install/file
    printf 'an edit in the middle' | dd of=new/file bs=1 seek=2000000000 conv=notrunc status=none

    measure sign $limit sign old signatures
    local signature
    signature=$(($(stat -c %s signatures/file) / 1024))
    measure diff $((limit + signature)) diff new signatures patch
    measure apply $limit apply install patch
    measure verify $limit verify install patch
    measure copy $limit copy new/file copy
    cmp new/file install/file
    rm copy
}

# What single_steps has left is brought back to the old build, and to the new one again.
installed_build() {
    measure repair $limit repair install signatures --from old
    measure check $limit check install signatures
    measure update $limit update install patch
    cmp new/file install/file

    truncate -s 0 install/file
    truncate -s 4G install/file
    die_putting_in_place
    measure recover $limit recover install
    cmp new/file install/file
}

# An update that is killed when all is staged.
die_putting_in_place() {
    if LD_PRELOAD=$faults FAULTS_PATH=$PWD/install/file FAULTS_CALLS=rename FAULTS_AT=1 \
        FAULTS_DO=kill "$pellox" update install patch --quiet; then
        echo 'the update was not killed' >&2
        exit 1
    fi
    [ -e install/.pellox/journal ]
}

# The old build makes room for the new one: only its signatures are needed.
publish() { # PROFILE NUMBER UNIT SIZE KIB_OF_SIGNATURES
    cd "$scratch"
    rm -rf old new signatures released patch
    "$makebuild" "$1" "$4" old - >/dev/null
    "$pellox" sign --quiet old signatures
    rm -rf old
    "$makebuild" "$1" "$4" - new >/dev/null
    measure "publish, $2 $3" $((limit + $5)) publish new --old-signatures signatures \
        --patch patch --signatures released
}

# With the old build at hand, and of a file that is larger than the memory for it.
publish_from_build() { # PROFILE SIZE MEMORY KIB_OF_MEMORY
    cd "$scratch"
    rm -rf old new signatures released patch
    "$makebuild" "$1" "$2" old new >/dev/null
    "$pellox" sign --quiet old signatures
    measure "publish, old build $3" $((limit + $4)) publish new --old-signatures signatures \
        --old-build old --memory "$3" --patch patch --signatures released
}

check_growth() { # KIB_OF_THE_SMALL KIB_OF_THE_LARGE KIB_ALLOWED
    local grown=$(($2 - $1))
    printf '%-22s %6d KiB (at most %d)\n' '  growth' "$grown" "$3"
    [ "$grown" -le "$3" ] || failed=1
}

main "$@"
