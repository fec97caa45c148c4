#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests and the main job need, when missing.
set -euo pipefail
packages=(
    cmake ninja-build g++-mingw-w64-x86-64 wine64 wine libboost-dev googletest
    python3 openssl mono-mcs clang lld
)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
        missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi
