#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Ways to bring an installed build to a release, from the same patch.
# Usage: updaters.sh prepare|update|update-synced|bare|rdiff|check
#
# Works in the current folder: old/, new/, before/core, the signatures of the old build, and
# install/, a copy of old/ that is to become new/. "prepare" makes out/patch and out/signatures, and
# lists of what is changed, new and gone, which the way without Pellox takes for granted.
# Environment: PELLOX, the program; BIN, where bench_limits is.
set -euo pipefail
cores=$(nproc)

parallel() { xargs -d '\n' -r -P "$cores" "$@"; }

prepare() {
    rm -rf out
    "$PELLOX" publish --quiet new --old-signatures before/core --patch out/patch \
        --signatures out/signatures
    python3 -c '
import json
lists = {name: open("list." + name, "w") for name in ("patch", "copy", "delete")}
for rule in json.load(open("out/patch/patchRules.json")):
    print(rule["relative_path"].lstrip("/"), file=lists[rule["rule"]])'
    cat list.patch list.copy >list.written
    (cd new && parallel sha512sum <../list.written) | sort -k 2 >list.sums
    sed -n 's|/[^/]*$||p' list.copy | sort -u >list.folders
}

update() { "$PELLOX" update --quiet --no-sync install out/patch; }

update-synced() { "$PELLOX" update --quiet install out/patch; }

# What none of them can do without.
bare() { "$BIN/bench_limits" update out/patch list.patch list.copy install; }

# Each file beside the old one, its sum compared, then all put into place.
rdiff() {
    (cd install && parallel mkdir -p) <list.folders
    awk '{ print "install/" $0; print "out/patch/" $0; print "install/" $0 ".temp" }' list.patch |
        parallel -n 3 rdiff patch
    awk '{ print "out/patch/" $0; print "install/" $0 ".temp" }' list.copy | parallel -n 2 cp
    sed 's/$/.temp/' list.written | (cd install && parallel -n 64 sha512sum) |
        sed 's/\.temp$//' | sort -k 2 | cmp - list.sums
    awk '{ print "install/" $0 ".temp"; print "install/" $0 }' list.written | parallel -n 2 mv -f
    (cd install && parallel rm) <list.delete
}

check() { "$PELLOX" check --quiet install out/signatures; }

"$@"
