#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Long tests, each at all its points; docs/reliability.md says what they show.
# Usage: scripts/campaigns.sh [crash|power|cancel|hostile|trees|deltas|threads]...   (default: all)
# Environment: CANCELS (1000), TREES (1000).
set -euo pipefail
cd "$(dirname "$0")/.."

bin=build/release/bin
export QTEST_FUNCTION_TIMEOUT=7200000 # milliseconds

main() {
    scripts/setup.sh build test >&2
    cmake --preset release >/dev/null
    cmake --build --preset release >&2
    [ $# -gt 0 ] || set -- crash power cancel hostile trees deltas threads
    local campaign
    for campaign; do
        printf '\n== %s\n' "$campaign"
        "campaign_$campaign"
    done
}

# Only what a person wants to know of a test program's output.
run() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    grep -E '^(QINFO|FAIL|XPASS|Totals)' "$log" || true
    [ "$status" -eq 0 ] || cat "$log"
    rm -f "$log"
    return "$status"
}

campaign_crash() {
    PELLOX_ALL_CRASH_POINTS=1 run $bin/tst_updatecrash
    PELLOX_ALL_CRASH_POINTS=1 run $bin/tst_recordcrash
    PELLOX_ALL_CRASH_POINTS=1 run $bin/tst_failinglooks
    PELLOX_ALL_CRASH_POINTS=1 run $bin/tst_publishfaults
    PELLOX_ALL_CRASH_POINTS=1 run $bin/tst_integritycontroller
}
campaign_power() { PELLOX_ALL_CRASH_POINTS=1 run $bin/tst_updatepowerloss; }
campaign_cancel() { PELLOX_CANCELS=${CANCELS:-1000} run $bin/tst_updatecontroller cancelAtAnyInstant; }
campaign_hostile() { run $bin/tst_rulechecks; }
campaign_trees() { PELLOX_TREES=${TREES:-1000} run $bin/tst_publishequalscore; }
campaign_deltas() {
    PELLOX_HUGE=1 PELLOX_TREES=$((${TREES:-1000} / 4)) run $bin/tst_smalldeltas
}

campaign_threads() {
    cmake --preset tsan >/dev/null
    cmake --build --preset tsan >&2
    ctest --preset tsan -L threads --no-tests=error | tail -n 40
}

main "$@"
