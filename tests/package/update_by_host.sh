#!/bin/sh
# SPDX-License-Identifier: MIT
# Publishes a release and lets a host program of examples/ bring a build to it, also with Ctrl-C.
# Usage: PELLOX FAULTS_LIBRARY WORK_FOLDER UPDATE_COMMAND...
set -eu
pellox=$1 faults=$2 work=$3
shift 3
rm -rf "$work"
mkdir -p "$work/old/data" "$work/new/data"
work=$(readlink -f "$work")
echo "release 1" >"$work/old/game"
echo "release 2, which is better" >"$work/new/game"
echo "gone" >"$work/old/data/gone"
head -c 3000000 /dev/zero | tr '\0' 'x' >"$work/new/data/Käfig.pak"
"$pellox" sign --quiet "$work/old" "$work/signatures 1"
"$pellox" publish --quiet "$work/new" --old-signatures "$work/signatures 1" \
    --patch "$work/patch" --signatures "$work/signatures 2"
cp -r "$work/old" "$work/build"

# expect STATUS LAST_LINE COMMAND...
expect() {
    wanted=$1 words=$2
    shift 2
    status=0
    "$@" >"$work/output" 2>"$work/errors" || status=$?
    [ "$status" = "$wanted" ] && [ "$(tail -n 1 "$work/output")" = "$words" ] && return
    echo "$*: status $status, not $wanted with \"$words\"" >&2
    cat "$work/output" "$work/errors" >&2
    exit 1
}
errors_have() {
    grep -q "$1" "$work/errors" && return
    echo "no \"$1\" in:" >&2
    cat "$work/errors" >&2
    exit 1
}

expect 1 refused "$@" "$work/build" "$work/not there"
errors_have bad-folder
diff -r "$work/old" "$work/build"

# At the first write to the build, so that the run is in the midst of it.
expect 1 cancelled env LD_PRELOAD="$faults" FAULTS_PATH="$work/build" FAULTS_CALLS=write FAULTS_AT=1 \
    FAULTS_DO=interrupt "$@" "$work/build" "$work/patch"
diff -r "$work/old" "$work/build"

expect 0 "done" "$@" "$work/build" "$work/patch"
errors_have "100 %"
diff -r "$work/new" "$work/build"
expect 0 nothing-to-do "$@" "$work/build" "$work/patch"

if "$pellox" keygen --quiet "$work/release.key" "$work/release.pub" 2>/dev/null; then
    expect 1 refused "$@" "$work/build" "$work/patch" "$work/release.pub"
    errors_have not-trusted
fi
