#!/bin/sh
# SPDX-License-Identifier: MIT
# Builds a host in C with what pkg-config tells, and nothing of Qt.
# Usage: COMPILER LIBDIR SOURCE PROGRAM
set -eu
PKG_CONFIG_PATH=$2/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs PelloxC)
case $flags in *-lQt* | *QtCore* | *include/qt* | *include/*/qt*)
    echo "flags of Qt: $flags"
    exit 1
    ;;
esac
# shellcheck disable=SC2086 # the flags are words
"$1" -std=c99 -Wall -Wextra -pedantic -Werror "$3" -o "$4" $flags
status=0
LD_LIBRARY_PATH=$2 "$4" 2>/dev/null || status=$?
[ "$status" = 2 ] # no arguments are wrong usage
