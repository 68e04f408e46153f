#!/bin/sh
# SPDX-License-Identifier: MIT
# Fails when the library exports anything but its own classes and functions, each under a version.
set -eu
exported_as() { # LIBRARY KINDS
    nm --dynamic --defined-only --demangle --with-symbol-versions "$1" |
        sed -n "s/^[0-9a-f]* $2 //p" | grep -v '^PELLOX_[0-9.]*$'
}
exported=$(exported_as "$1" .)
echo "$exported" | grep -q '^Pellox::BinariesController::applyPatch(.*@@PELLOX_1\.0$' || {
    echo "applyPatch is not exported under its version"
    exit 1
}
complain() { # WHAT SYMBOLS
    [ -z "$2" ] && return
    echo "exported, but $1:"
    echo "$2"
    exit 1
}

classes='(Pellox::|PelloxMor::|PelloxMOR|RulesExecutorFunctor|Compressor|Decompressor)'
functions='((strip|getPercents|isEverythingIsOk|checkErrors)\(|pellox_[a-z0-9_]+@)'
ours="^(((typeinfo|typeinfo name|vtable) for )?$classes|$functions)"
complain "not ours to export" "$(echo "$exported" | grep -vE "$ours" || true)"
complain "without a version" "$(echo "$exported" | grep -vE '@@PELLOX_[0-9]+\.[0-9]+$' || true)"
complain "private" "$(echo "$exported" | grep '::Private' || true)"
# Without optimisation the weak ones have what templates make of lambdas in headers.
complain "private" "$(exported_as "$1" '[TDBR]' | grep '{lambda' || true)"
