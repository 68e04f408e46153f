#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs what is missing on a Debian machine.
# Usage: scripts/setup.sh [build|test|browser|demo|bench|fuzz|qt6|docs|package|abi|coverage|ci|web]...   (default: build test)
set -euo pipefail

packages_for() {
    case $1 in
    build) echo g++ cmake ninja-build make ccache pkg-config qtbase5-dev librsync-dev libssl-dev libcli11-dev p7zip ;;
    test) echo git rdiff python3 python3-jsonschema curl groff-base jq mandoc openssl xxd xvfb ;;
    browser) echo chromium fonts-inter pngquant ;; # tests and picture of the report
    demo) command -v npm >/dev/null || echo npm ;;
    package) echo lintian dpkg-dev file debootstrap python3 ;;
    abi) echo abigail-tools ;; # the dump of the library's interface
    coverage) echo gcovr ;;
    bench) echo libbenchmark-dev bsdiff rdiff openssl time python3 gnuplot-nox rsync xdelta3 zstd ;;
    fuzz) echo clang libclang-rt-dev llvm ;; # its runtimes, and names in stacks
    qt6) echo qt6-base-dev qt6-5compat-dev ;; # beside Qt 5, for the preset of that name
    docs) echo doxygen graphviz qttools5-dev-tools termtosvg ;; # the reference, pictures
    ci) echo clang clang-format clang-tidy zsh fish ;; # both shells for the completions
    web) echo nginx ;; # tries the sample for it; Debian starts the server, where there is an init
    *)
        echo "setup.sh: unknown part '$1' (build, test, browser, demo, bench, fuzz, qt6, docs, package, abi, coverage, ci, web)" >&2
        exit 2
        ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null || true)" = installed ]
}

if ! command -v dpkg-query >/dev/null; then
    echo "setup.sh: this is not Debian; install by hand: $(packages_for build) $(packages_for test)" >&2
    exit 0
fi

[ $# -gt 0 ] || set -- build test
missing=()
for part in "$@"; do
    wanted=$(packages_for "$part")
    for package in $wanted; do
        is_installed "$package" || missing+=("$package")
    done
done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" -eq 0 ]; then
    run=()
elif command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
    run=(sudo) # which may ask for the password, where somebody is there
else
    echo "setup.sh: these packages are missing and only root can install them:" >&2
    echo "    sudo apt-get install --no-install-recommends ${missing[*]}" >&2
    exit 1
fi

echo "setup.sh: installing ${missing[*]}" >&2
"${run[@]}" apt-get update -qq
"${run[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
