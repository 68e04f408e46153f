#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds everything and runs all tests. Usage: scripts/test.sh [PRESET]   (default: release)
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-release}
case $preset in
clang) scripts/setup.sh build test ci ;;
qt6) scripts/setup.sh build test qt6 ;;
*) scripts/setup.sh build test ;;
esac
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)"
