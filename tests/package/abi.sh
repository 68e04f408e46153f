#!/bin/sh
# SPDX-License-Identifier: MIT
# Compares the library's binary interface with its dump, or makes the dump.
# Usage: check|dump LIBRARY HEADERS DUMP
set -eu
what=$1 library=$2 headers=$3 dump=$4

dump_to() { # FILE
    # Nothing about the machine, and nothing that moves with the lines of the source.
    abidw --exported-interfaces-only --headers-dir "$headers" --drop-private-types \
        --suppressions "$(dirname "$dump")/others.abignore" --no-corpus-path --no-comp-dir-path \
        --no-show-locs --no-elf-needed --type-id-style hash --out-file "$1" "$library"
    # Names alone would not be worth comparing with: the types must be there.
    for told in "class-decl name='UpdatePlan' size-in-bits" "enum-decl name='UpdateResult'" \
        "var-decl name='bytesToRead'"; do
        grep -q "$told" "$1" || {
            echo "Nothing is known of types ($told): was the library built without debug information?" >&2
            exit 1
        }
    done
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
dump_to "$scratch/now.abi"
if [ "$what" = dump ]; then
    cp "$scratch/now.abi" "$dump"
    exit 0
fi

# Dump with dump: compared with the library itself, a class that grows goes unnoticed.
status=0
abidiff --harmless "$dump" "$scratch/now.abi" || status=$?
[ "$status" -ne 0 ] || exit 0
cat >&2 <<EOF

The binary interface is not that of $dump (abidiff: $status).
An addition: renew the dump, and let the next version be a minor one at least.
Anything else breaks hosts that are built already: undo it, or make the next version a major one.
docs/versions.md tells how.
EOF
exit 1
