#!/bin/sh
# SPDX-License-Identifier: MIT
# Checks what update_by_host.sh has left. Usage: WORK_FOLDER CHECK_COMMAND...
set -eu
work=$1
shift
"$@" "$work/build" "$work/signatures 2" >"$work/output"
printf '2 intact\ndone\n' | diff - "$work/output"

echo damaged >"$work/build/game"
status=0
"$@" "$work/build" "$work/signatures 2" >"$work/output" || status=$?
[ "$status" = 1 ]
printf 'changed /game\n1 intact\nnot-intact\n' | diff - "$work/output"
