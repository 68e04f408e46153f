#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fuzzes what is read from outside, see fuzz/; an input that breaks a promise stops its target.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET]...   (default: 10 seconds, all targets)
#
# Prints one line a target. Fails when anything was found: the inputs are in build/fuzz/findings,
# with what was said of them; "build/fuzz/bin/fuzz_TARGET INPUT" tries one again. What has reached
# new code stays in build/fuzz/corpus, for the next run to go on from.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/fuzz
findings=$build/findings
interrupted=72 # libFuzzer's status after Ctrl-C

main() {
    local seconds=10
    if [[ ${1:-} =~ ^[0-9]+$ ]]; then
        seconds=$1
        shift
    fi
    [ $# -gt 0 ] || set -- rules seal journal outputparsers signatures delta contentdelta update core
    local target
    for target; do
        [ -d "fuzz/seeds/$target" ] || { echo "fuzz.sh: no target '$target'" >&2; exit 2; }
    done

    scripts/setup.sh build fuzz >&2
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz --target "${@/#/fuzz_}" >&2

    mkdir -p "$findings"
    scratch=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")")
    trap 'rm -rf "$scratch"' EXIT # a target that is stopped leaves its files
    local status=0
    for target; do
        fuzz "$target" "$seconds" || status=1
    done
    return "$status"
}

fuzz() { # TARGET SECONDS
    local target=$1 seconds=$2 corpus=$build/corpus/$1 log=$findings/$1.log
    local dictionary=fuzz/dictionaries/$1.dict begin=$SECONDS found=0 options=()
    [ ! -f "$dictionary" ] || options+=(-dict="$dictionary")
    mkdir -p "$corpus" "$scratch/$target"
    TMPDIR=$scratch/$target UBSAN_OPTIONS=print_stacktrace=1 \
        "$build/bin/fuzz_$target" "${options[@]}" -max_total_time="$seconds" -timeout=60 \
        -print_final_stats=1 -artifact_prefix="$findings/$target-" \
        "$corpus" "fuzz/seeds/$target" >"$log" 2>&1 || found=$?
    [ "$found" -ne "$interrupted" ] || exit 130
    [ "$found" -eq 0 ] || found=1 # it stops at the first
    printf '%-14s %10d executions %5d seconds %6d in the corpus %3d findings\n' "$target" \
        "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" $((SECONDS - begin)) \
        "$(find "$corpus" -type f | wc -l)" "$found"
    if [ "$found" -eq 0 ]; then
        rm "$log"
        return
    fi
    grep -vE '^#[0-9]+[[:space:]]+(INITED|NEW|REDUCE|RELOAD|pulse)' "$log" | tail -n 40 >&2
    return 1
}

main "$@"
