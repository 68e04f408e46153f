#!/bin/sh
# SPDX-License-Identifier: MIT
# Fails when the library exports anything but its own classes and functions.
set -eu
exported=$(nm --dynamic --defined-only --demangle --format=just-symbols "$1")
echo "$exported" | grep -q '^Pellox::BinariesController::applyPatch(' || {
    echo "applyPatch is not exported"
    exit 1
}
strangers=$(echo "$exported" | grep -vE '(^|^(typeinfo|typeinfo name|vtable) for )(Pellox::|PelloxMor::|PelloxMOR|RulesExecutorFunctor|Compressor|Decompressor|(strip|getPercents|isEverythingIsOk|checkErrors)\()' || true)
[ -z "$strangers" ] || {
    echo "exported, but not ours to export:"
    echo "$strangers"
    exit 1
}
