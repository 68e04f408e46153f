#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Publishes the patch from one build to the next, packed in volumes, unpacks it as a player would,
# updates an installed copy of the first build and compares it with the second.
# Usage: scripts/demo.sh [OLD NEW]
# Without folders it takes two releases of a game engine from the npm registry, or, where that
# is out of reach, two small builds that it makes up.
set -euo pipefail

PACKAGE=phaser
OLD_RELEASE=3.88.1
NEW_RELEASE=3.88.2

main() {
    [ $# -eq 0 ] || [ $# -eq 2 ] || fail "usage: scripts/demo.sh [OLD NEW]"
    if [ $# -eq 2 ]; then
        [ -d "$1" ] || fail "$1 is not a folder"
        [ -d "$2" ] || fail "$2 is not a folder"
        old=$(realpath "$1")
        new=$(realpath "$2")
    fi
    cd "$(dirname "$0")/.."
    scratch=$PWD/build/demo
    mkdir -p "$scratch"
    build_program
    [ $# -eq 2 ] || choose_builds
    publish_and_update
    print_table
}

fail() {
    echo "demo.sh: $*" >&2
    exit 1
}

build_program() {
    scripts/setup.sh build
    cmake --preset release >"$scratch/build.log" 2>&1 &&
        cmake --build --preset release --target pellox >>"$scratch/build.log" 2>&1 ||
        { cat "$scratch/build.log" >&2 && fail "the program does not build"; }
    pellox=$PWD/build/release/bin/pellox
}

choose_builds() {
    if scripts/setup.sh demo && fetch_release "$OLD_RELEASE" && fetch_release "$NEW_RELEASE"; then
        old=$scratch/$PACKAGE-$OLD_RELEASE
        new=$scratch/$PACKAGE-$NEW_RELEASE
        echo "Two releases of $PACKAGE from the npm registry: $OLD_RELEASE and $NEW_RELEASE"
    else
        old=$scratch/made-up-1
        new=$scratch/made-up-2
        make_up_builds
        echo "npm or its registry is out of reach: two made-up builds instead"
    fi
}

fetch_release() {
    local folder=$scratch/$PACKAGE-$1
    [ ! -d "$folder" ] || return 0
    (cd "$scratch" && npm pack --loglevel=error "$PACKAGE@$1" >/dev/null 2>npm.log) || return 1
    rm -rf "$scratch/package"
    tar -xzf "$scratch/$PACKAGE-$1.tgz" -C "$scratch" && mv "$scratch/package" "$folder"
}

make_up_builds() {
    rm -rf "$old" "$new"
    mkdir -p "$old/data/levels"
    local i
    for i in $(seq 1 200); do
        seq "$i" "$((i + 20000))" >"$old/data/levels/level $i.txt"
    done
    seq 1 2000000 >"$old/data/world.pak"
    echo "made up, release 1" >"$old/version.txt"
    cp -r "$old" "$new"
    sed -i 's/^500000$/half a million/' "$new/data/world.pak"
    echo "made up, release 2" >"$new/version.txt"
    rm "$new/data/levels/level 7.txt"
    seq 7 70007 >"$new/data/levels/level 201.txt"
}

# Runs the program, which must succeed, and notes in $seconds how long it took.
timed() {
    local start
    start=$(date +%s.%N)
    "$pellox" "$@" || fail "\"pellox $1\" failed"
    seconds=$(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.2f", b - a }')
}

publish_and_update() {
    signatures=$scratch/signatures
    patch=$scratch/patch
    upload=$scratch/upload
    download=$scratch/download
    install=$scratch/install
    rm -rf "$signatures" "$patch" "$upload" "$download" "$install"
    cp -a "$old" "$install"
    timed sign "$old" "$signatures"
    sign_time=$seconds
    timed diff "$new" "$signatures" "$patch"
    diff_time=$seconds
    timed pack "$patch" "$upload/patch.7z" --volume-size 10M
    pack_time=$seconds

    timed unpack "$upload/patch.7z" "$download"
    unpack_time=$seconds
    timed apply "$install" "$download"
    apply_time=$seconds
    timed verify "$install" "$download"
    verify_time=$seconds
}

# The files of a build: hidden ones are no part of it, links to folders are not followed.
files_of() {
    (cd "$1" && find . -name '.?*' -prune -o -xtype f "${@:2}")
}

checksums_of() {
    (cd "$1" && find . -name '.?*' -prune -o -xtype f -print0 | sort -z | xargs -0 -r sha512sum)
}

# Lines of "size path", sorted by path.
sizes_of() {
    files_of "$1" -printf '%P\t%s\n' | LC_ALL=C sort
}

print_table() {
    sizes_of "$old" >"$scratch/old.sizes"
    sizes_of "$new" >"$scratch/new.sizes"
    sizes_of "$patch" | grep -v '^patchRules\.json	' >"$scratch/patch.sizes" || true
    awk -F '\t' '
        function row(name, files, bytes) { printf "  %-28s %10d %15d\n", name, files, bytes }
        FILENAME ~ /old.sizes$/ { old[$1] = $2; next }
        FILENAME ~ /new.sizes$/ { new[$1] = $2; new_files++; new_bytes += $2; next }
        $1 in old { patched++; delta_bytes += $2; next }
        { copied++; copy_bytes += $2 }
        END {
            for (path in old) if (!(path in new)) deleted++
            printf "\n  %-28s %10s %15s\n", "", "files", "bytes"
            row("new build", new_files, new_bytes)
            row("patch: deltas", patched, delta_bytes)
            row("patch: copied whole", copied, copy_bytes)
            row("deleted", deleted, 0)
            row("unchanged", new_files - patched - copied, 0)
            size = delta_bytes + copy_bytes
            row("packed for download", volumes, packed)
            printf "  the patch is %.1f %% of the new build, packed %.1f %%\n\n", \
                percent(size, new_bytes), percent(packed, new_bytes)
        }
        function percent(part, whole) { return whole ? 100 * part / whole : 0 }
        ' volumes="$(find "$upload" -type f | wc -l)" \
        packed="$(find "$upload" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }')" \
        "$scratch/old.sizes" "$scratch/new.sizes" "$scratch/patch.sizes"
    printf '  publisher: sign %s s, diff %s s, pack %s s\n' "$sign_time" "$diff_time" "$pack_time"
    printf '  player: unpack %s s, apply %s s, verify %s s\n' \
        "$unpack_time" "$apply_time" "$verify_time"
    checksums_of "$new" >"$scratch/new.sums"
    checksums_of "$install" >"$scratch/install.sums"
    if ! cmp -s "$scratch/new.sums" "$scratch/install.sums"; then
        diff "$scratch/new.sums" "$scratch/install.sums" | head -20
        fail "the updated build DIFFERS from the new one"
    fi
    echo "  the updated build and the new one: identical (files compared: $(wc -l <"$scratch/new.sums"))"
    local hidden
    hidden=$(cd "$new" && find . -path '*/.?*' -type f | wc -l)
    [ "$hidden" -eq 0 ] || echo "  (hidden files, which are no part of a build: $hidden)"
}

main "$@"
