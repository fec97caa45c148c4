#!/usr/bin/env bash
# Builds everything and runs every test under Wine; builds the library and the DLL with clang as
# well, where any warning is an error. Fails when a build fails, when a test fails, and when no
# test ran.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KITE_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh"
cmake -S "$root" -B "$build/clang" -G Ninja -DBUILD_TESTING=OFF \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/clang-mingw-w64-x86_64.cmake" >/dev/null
cmake --build "$build/clang" --target kite KITEUpdate
cd "$build"
ctest --output-on-failure --no-tests=error
