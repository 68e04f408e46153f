#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Records anew what the installed 7zr prints, one line a write, for tst_recordedoutput. Needs strace,
# and root for the full disk. All paths are relative, so that none of this machine gets recorded.
set -euo pipefail

data=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'umount "$work/small" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"

record() { # NAME SWITCH...
    local name=$1 status=0
    shift
    strace -f -e trace=write -s 1000000 -o trace 7zr "$@" </dev/null >/dev/null || status=$?
    {
        # The processor's name is this machine's affair.
        sed -n 's/^[0-9]* *write(1, "\(.*\)", [0-9]*) *= .*/out \1/p' trace |
            sed -E 's/CPUs [^()]*\([0-9A-F]+\) +\(LP\)/CPUs (LP)/'
        echo "exit $status"
    } >"$data/$name.txt"
}
create() { record "$1" a -y -ssw -bse1 -bso1 -bsp1 -sccUTF-8 "${@:2}"; }
extract() { record "$1" x -y -bse1 -bso1 -bsp1 -sccUTF-8 "${@:2}"; }

mkdir -p source/data/empty large named
head -c 250000 /dev/urandom >source/data/random.pak
echo hello >'source/grüße.txt'
ln -s grüße.txt source/link
: >source/zero
head -c 40000000 /dev/urandom >large/film.bin
head -c 40000000 /dev/urandom >'named/ERROR: x'

create create -v100000b build.7z 'source/*'
extract extract -ounpacked build.7z.001
create create-large -v524288000b large.7z 'large/*'
extract extract-large -ounpacked large.7z.001
create create-file-named-like-an-error -v524288000b named.7z 'named/*'
create create-again -v100000b build.7z 'source/*'
create create-from-nothing -v100000b nothing.7z 'missing/*'
create create-with-password -v100000b secret.7z 'source/*' "-p'x'"
extract extract-without-password -ounpacked-secret secret.7z.001
extract extract-missing-archive -ounpacked missing.7z

mkdir damaged truncated incomplete
cp build.7z.* damaged && printf 'damaged' | dd of=damaged/build.7z.002 bs=1 seek=5000 conv=notrunc status=none
extract extract-damaged -ounpacked-damaged damaged/build.7z.001
cp build.7z.* truncated && truncate -s 1000 truncated/build.7z.003
extract extract-truncated-volume -ounpacked-truncated truncated/build.7z.001
cp build.7z.* incomplete && rm incomplete/build.7z.002
extract extract-missing-volume -ounpacked-incomplete incomplete/build.7z.001

mkdir small
mount -t tmpfs -o size=128k tmpfs small
create create-on-full-disk -v100000b small/build.7z 'source/*'
rm -f small/*
extract extract-to-full-disk -osmall build.7z.001
