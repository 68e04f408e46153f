#!/bin/sh
# SPDX-License-Identifier: MIT
# Builds and runs a host with what pkg-config tells. Usage: COMPILER LIBDIR SOURCE PROGRAM
set -eu
PKG_CONFIG_PATH=$2/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs Pellox)
# shellcheck disable=SC2086 # the flags are words
"$1" -std=c++17 -fPIC "$3" -o "$4" $flags
LD_LIBRARY_PATH=$2 "$4"
