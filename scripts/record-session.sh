#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Records the terminal session of the README: docs/images/session.svg. The program runs for real; only
# the typing is played.
# Usage: scripts/record-session.sh [PROGRAM [OLD NEW]]
# PROGRAM is build/release/bin/pellox where it is not given, OLD and NEW are the two releases that
# scripts/demo.sh fetches.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
    echo "record-session.sh: $*" >&2
    exit 1
}

# --- what is recorded

type_and_run() {
    local i
    printf '\033[32m$\033[0m '
    for ((i = 0; i < ${#1}; ++i)); do
        printf '%s' "${1:i:1}"
        sleep 0.03
    done
    sleep 0.4
    echo
    eval "$1"
    sleep 1.2
    echo
}

play() {
    clear
    type_and_run 'pellox publish releases/1.1 --old-signatures signatures/1.0 --old-build releases/1.0 \
      --patch patches/1.0-1.1 --signatures signatures/1.1'
    type_and_run 'du -sh --apparent-size releases/1.1 patches/1.0-1.1'
    type_and_run 'pellox update installed/game patches/1.0-1.1 --keep-previous'
    type_and_run 'pellox check installed/game signatures/1.1'
    type_and_run 'pellox rollback installed/game'
    sleep 2
}

if [ "${1:-}" = --play ]; then
    cd "$2"
    play
    exit
fi

# --- recording

program=$(realpath "${1:-build/release/bin/pellox}")
old=${2:-build/demo/phaser-3.88.1}
new=${3:-build/demo/phaser-3.88.2}
[ -x "$program" ] || fail "$program is missing; scripts/demo.sh builds it"
for folder in "$old" "$new"; do
    [ -d "$folder" ] || fail "$folder is missing; scripts/demo.sh fetches it"
done
scripts/setup.sh docs

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
world=$scratch/world
mkdir -p "$world/releases" "$world/installed" "$scratch/bin" docs/images
cp -r "$old" "$world/releases/1.0"
cp -r "$new" "$world/releases/1.1"
cp -r "$old" "$world/installed/game"
find "$world" -name '.?*' -prune -exec rm -rf {} + # no part of a build
ln -s "$program" "$scratch/bin/pellox"
export PATH=$scratch/bin:$PATH LC_ALL=C.UTF-8 TERM=xterm-256color COLUMNS=110 LINES=28
(cd "$world" && pellox sign -q --fast releases/1.0 signatures/1.0)

# termtosvg wants a terminal of its own; "script" is one.
script -qec "stty cols 110 rows 28; termtosvg record '$scratch/session.cast' -g 110x28 \
    -c '$PWD/scripts/record-session.sh --play $world'" /dev/null >/dev/null </dev/null
# The folder's name is of no use to anybody.
sed -i "s#$world#/srv/game#g" "$scratch/session.cast"
termtosvg render "$scratch/session.cast" docs/images/session.svg -D 5000 -m 60 -M 2500 \
    -t window_frame >/dev/null
echo "docs/images/session.svg: $(stat -c %s docs/images/session.svg) bytes"
