#!/bin/sh
# SPDX-License-Identifier: MIT
# Fails when the library exports anything but its own classes and functions. Weak symbols do not
# count: without optimisation they hold instantiations of the standard library's templates.
set -eu
exported=$(nm --dynamic --defined-only --demangle "$1" | sed -n 's/^[0-9a-f]* [TDBR] //p')
echo "$exported" | grep -q '^Pellox::BinariesController::applyPatch(' || {
    echo "applyPatch is not exported"
    exit 1
}
ours='(Pellox::|PelloxMor::|PelloxMOR|RulesExecutorFunctor|Compressor|Decompressor|pellox_[a-z_]+$|(strip|getPercents|isEverythingIsOk|checkErrors)\()'
strangers=$(echo "$exported" | grep -vE "^((typeinfo|typeinfo name|vtable) for )?$ours" || true)
[ -z "$strangers" ] || {
    echo "exported, but not ours to export:"
    echo "$strangers"
    exit 1
}
