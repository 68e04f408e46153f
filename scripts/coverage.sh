#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# How much of src/ the tests run, by lines; docs/reliability.md says what is left, and why.
# Usage: scripts/coverage.sh
#
# Prints a line a file and the sum; build/coverage/report/index.html shows every line. Fails when a
# test fails, or when less than 95 lines in a hundred are run.
set -euo pipefail
cd "$(dirname "$0")/.."

build=$(pwd -P)/build/coverage
report=$build/report

scripts/setup.sh build test coverage >&2
cmake --preset coverage >/dev/null
cmake --build --preset coverage >&2

# Each process adds what it has counted to the files of all objects: in memory, as thousands do, and
# tests that sync would wait for it. What a process counts that is killed is lost; where that broke
# a file, the others say so, but not on the output that the tests look at.
find "$build" -name '*.gcda' -delete
counts=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")")
trap 'rm -rf "$counts"' EXIT
export GCOV_PREFIX=$counts GCOV_ERROR_FILE=$build/gcov.log
rm -f "$GCOV_ERROR_FILE"
export QTEST_FUNCTION_TIMEOUT=3600000 # milliseconds
ctest --preset coverage --parallel "$(nproc)" >&2
cp -r "$counts$build/." "$build"
[ ! -s "$GCOV_ERROR_FILE" ] || sort -u "$GCOV_ERROR_FILE" >&2

# The library, and the files of it that tests compile themselves. The digest without libcrypto is
# other functions in the same lines, which gcovr cannot add up.
mapfile -t objects < <(find "$build/tests" -type d -path '*.dir/__*/src' ! -path '*/tst_digest_qt.dir/*')
rm -rf "$report"
mkdir -p "$report"
gcovr --root . --filter src/ --exclude-throw-branches --fail-under-line 95 \
    --html-details "$report/index.html" --txt --print-summary "$build/src" "${objects[@]}"
