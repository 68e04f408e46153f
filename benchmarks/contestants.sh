#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Ways to ship a release, each in the few lines that somebody would write who uses it.
# Usage: contestants.sh keep|make|apply NAME
#
# Works in the current folder. Of the old release there is, made by "keep": before/NAME, what that
# way keeps. "make" reads old/ (only the ways that need it), new/ and before/ and writes out/patch,
# what players download, and elsewhere in out/ what the next release needs. "apply" brings
# install/, a copy of old/, to the new release.
# Environment: PELLOX, the program.
set -euo pipefail
cores=$(nproc)

main() {
    local step=$1 way=$2
    case $way in
    core | publish | rdiff | bsdiff) "${step}_$way" ;;
    effort-* | xdelta3-* | zstd-* | rsync) "${step}_${way%%-*}" "${way#*-}" ;;
    *)
        echo "contestants.sh: no such way: $way" >&2
        exit 2
        ;;
    esac
}

# --- Pellox

keep_core() {
    "$PELLOX" sign --quiet old before/core
}

make_core() {
    "$PELLOX" sign --quiet new out/signatures
    "$PELLOX" diff --quiet new before/core out/patch
}

apply_core() {
    "$PELLOX" apply --quiet install out/patch
    "$PELLOX" verify --quiet install out/patch
}

keep_publish() { [ -d before/core ] || keep_core; }

make_publish() {
    "$PELLOX" publish --quiet new --old-signatures before/core --patch out/patch \
        --signatures out/signatures
}

apply_publish() { apply_core; }

# With the old build at hand, EFFORT.
keep_effort() { keep_publish; }

make_effort() {
    "$PELLOX" publish --quiet new --old-signatures before/core --old-build old --effort "$1" \
        --patch out/patch --signatures out/signatures
}

apply_effort() { apply_core; }

# --- steps that the others share

parallel() { xargs -d '\n' -r -P "$cores" "$@"; }

files_of() { (cd "$1" && find . -type f -printf '%P\n'); }

# The same folders as in $1, in each of the others.
folders() {
    local from=$1 to
    shift
    for to; do
        mkdir -p "$to"
        (cd "$from" && find . -mindepth 1 -type d -printf '%P\n') | (cd "$to" && parallel mkdir -p)
    done
}

# Lines of SHA-512 and path. A process takes several files, but no core runs out of work early.
sums() {
    local batch
    batch=$(($(files_of "$1" | wc -l) / (cores * 16) + 1))
    files_of "$1" | (cd "$1" && parallel -n "$((batch < 256 ? batch : 256))" sha512sum)
}

# Compares two lists of sums: out/patch/rules says what becomes of each file, and out/changed and
# out/new list those to be sent.
compare() {
    : >out/changed
    : >out/new
    mkdir -p out/patch
    awk '
        { path = substr($0, 131) }
        NR == FNR { old[path] = $1; next }
        { seen[path] }
        !(path in old) { print "copy", $1, path; print path >"out/new"; next }
        old[path] != $1 { print "patch", $1, path; print path >"out/changed" }
        END { for (path in old) if (!(path in seen)) print "delete", "-", path }
    ' "$1" "$2" >out/patch/rules
}

sums_of_both() {
    mkdir -p out
    sums old >out/sums.old
    sums new >out/sums
    compare out/sums.old out/sums
}

copy_new() {
    mkdir -p out/patch/new
    (cd new && xargs -d '\n' -r cp --parents -t ../out/patch/new) <out/new
}

apply_copies_and_deletes() {
    [ ! -d out/patch/new ] || cp -r out/patch/new/. install/
    awk '$1 == "delete" { print "install/" substr($0, 10) }' out/patch/rules |
        xargs -d '\n' -r rm
}

# Puts the file "patched", which "$@ FILE" makes out of install/FILE and its delta, into place.
apply_deltas() {
    local path
    while read -r path; do
        "$@" "$path"
        mv -f patched "install/$path"
    done <out/changed
}

# --- rdiff: as the library, signatures and sums of the old release are at hand

keep_rdiff() {
    mkdir -p before/rdiff
    sign_by_rdiff old before/rdiff/signatures
    sums old >before/rdiff/sums
}

make_rdiff() {
    mkdir -p out
    sign_by_rdiff new out/signatures
    sums new >out/sums
    compare before/rdiff/sums out/sums
    folders new out/patch/deltas
    awk '{ print "before/rdiff/signatures/" $0; print "new/" $0; print "out/patch/deltas/" $0 }' \
        out/changed | parallel -n 3 rdiff delta
    copy_new
}

# With the settings of the library, so the files are the same to the byte.
sign_by_rdiff() {
    folders "$1" "$2"
    files_of "$1" | awk -v from="$1/" -v to="$2/" '{ print from $0; print to $0 }' |
        parallel -n 2 rdiff -b 2048 -H blake2 -R rollsum signature
}

apply_rdiff() {
    apply_copies_and_deletes
    apply_deltas patch_by_rdiff
}

patch_by_rdiff() { rdiff -f patch "install/$1" "out/patch/deltas/$1" patched; }

# --- xdelta3 LEVEL and zstd LEVEL: from file to file

keep_xdelta3() { :; }

make_xdelta3() {
    sums_of_both
    folders new out/patch/deltas
    awk '{ print "old/" $0; print "new/" $0; print "out/patch/deltas/" $0 }' out/changed |
        parallel -n 3 xdelta3 -e -q "-$1" -s
    copy_new
}

apply_xdelta3() {
    apply_copies_and_deletes
    apply_deltas patch_by_xdelta3
}

patch_by_xdelta3() { xdelta3 -d -q -f -s "install/$1" "out/patch/deltas/$1" patched; }

keep_zstd() { :; }

make_zstd() {
    local level=("-$1")
    [ "$1" -lt 19 ] || level+=(--long=31)
    sums_of_both
    folders new out/patch/deltas
    awk '{ print "--patch-from=old/" $0; print "new/" $0 }
        { print "-o"; print "out/patch/deltas/" $0 }' out/changed | parallel -n 4 zstd -q "${level[@]}"
    copy_new
}

apply_zstd() {
    apply_copies_and_deletes
    apply_deltas patch_by_zstd
}

patch_by_zstd() {
    zstd -d -q -f --long=31 "--patch-from=install/$1" "out/patch/deltas/$1" -o patched
}

# --- bsdiff: which needs 17 bytes of memory for each of the old file

keep_bsdiff() { :; }

make_bsdiff() {
    sums_of_both
    folders new out/patch/deltas
    awk '{ print "old/" $0; print "new/" $0; print "out/patch/deltas/" $0 }' out/changed |
        parallel -n 3 bsdiff
    copy_new
}

apply_bsdiff() {
    apply_copies_and_deletes
    apply_deltas patch_by_bsdiff
}

patch_by_bsdiff() { bspatch "install/$1" patched "out/patch/deltas/$1"; }

# --- rsync: a batch for the whole build, which it makes with processes of its own

keep_rsync() { :; }

make_rsync() {
    sums_of_both
    rsync -a --delete --only-write-batch=out/patch/batch new/ old/
}

apply_rsync() {
    rsync -a --delete --read-batch=out/patch/batch install/
}

main "$@"
