#!/usr/bin/env bash
# Builds everything and runs every test under Wine. Fails when the build fails, when a test
# fails, and when no test ran.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KITE_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh"
cd "$build"
ctest --output-on-failure --no-tests=error
