#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests, the main job and the benchmarks need,
# when missing (wixl builds the MSI that benchmarks/install.sh measures next to an installation).
set -euo pipefail
packages=(
    cmake ninja-build g++-mingw-w64-x86-64 wine64 wine libboost-dev googletest
    python3 openssl mono-mcs clang lld wixl
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
