#!/usr/bin/env bash
# Configures and builds into build/ (or $KITE_BUILD_DIR) with the mingw-w64 toolchain.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KITE_BUILD_DIR:-$root/build}
bash "$root/scripts/deps.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" >/dev/null
cmake --build "$build"
