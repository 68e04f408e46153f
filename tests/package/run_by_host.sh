#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes a release with a host program of examples/ alone, and does with it what a player needs:
# unpacks it, updates, goes back, repairs. Usage: WORK_FOLDER HOST...
set -euo pipefail
work=$1
shift
host=("$@")
rm -rf "$work"
mkdir -p "$work/old/data" "$work/new/data"
cd "$work"
echo "release 1" >old/game
echo "release 2, which is better" >new/game
head -c 3000000 /dev/urandom >old/data/world.pak
{ cat old/data/world.pak; echo news; } >new/data/world.pak

# expect STATUS LAST_LINE ARGUMENTS...
expect() {
    wanted=$1 words=$2
    shift 2
    status=0
    "${host[@]}" "$@" >output 2>errors || status=$?
    [ "$status" = "$wanted" ] && [ "$(tail -n 1 output)" = "$words" ] && return
    echo "$*: status $status, not $wanted with \"$words\"" >&2
    cat output errors >&2
    exit 1
}

expect 0 "done" sign old "signatures 1"
expect 0 "done" publish new "signatures 1" patch "signatures 2"
[ "$(wc -c <patch/data/world.pak)" -lt 100000 ] || { ls -lR patch; exit 1; }
expect 0 "done" pack patch patch.7z
expect 1 failed pack patch patch.7z
expect 0 "done" unpack patch.7z.001 arrived
diff -r patch arrived

cp -r old build
expect 1 refused rollback build
expect 0 "done" update-keep build arrived
expect 0 "done" check build "signatures 2"
expect 0 "done" rollback build
diff -r old build
expect 0 "done" update build arrived
expect 1 refused rollback build
diff -r new build

echo damaged >build/game
rm build/data/world.pak
expect 1 not-intact check build "signatures 2"
printf 'missing /data/world.pak\nchanged /game\n0 intact\nnot-intact\n' | sort >wanted
sort output | diff wanted -
expect 0 "done" repair build "signatures 2" new
diff -r new build
expect 0 nothing-to-do repair build "signatures 2" new

# Wrong usage.
for arguments in "" nothing "update build" "check build a b" "rollback build a"; do
    status=0
    # shellcheck disable=SC2086 # words
    "${host[@]}" $arguments >output 2>errors || status=$?
    case $status in 1 | 2) ;; *) exit 1 ;; esac
    grep -q 'updater.* publish NEW_BUILD' errors
done
