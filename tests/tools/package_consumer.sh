#!/usr/bin/env bash
# The zip a host developer gets, unpacked, found by find_package, linked in one line, built with
# the DLL's toolchain, and run; the DLL in it is stripped and names its debug file beside it.
set -euo pipefail
build=$1 source=$2 toolchain=$3 work=$1/package-test run=$WINEPREFIX/drive_c/kitetest/package-consumer
rm -rf "$work" "$run" && mkdir -p "$work/unpacked" "$run"
(cd "$build" && cpack -G ZIP -B "$work" >/dev/null)
(cd "$work/unpacked" && cmake -E tar xf "$work"/KITEUpdate-*-win64.zip)
prefix=$(echo "$work"/unpacked/KITEUpdate-*-win64)
dll=$(x86_64-w64-mingw32-objdump -h "$prefix/bin/KITEUpdate.dll")
grep -q '\.gnu_debuglink' <<<"$dll" && ! grep -q '\.debug_info' <<<"$dll" &&
    grep -q '\.debug_info' <<<"$(x86_64-w64-mingw32-objdump -h "$prefix/bin/KITEUpdate.dll.debug")" ||
    { echo "no stripped DLL with its debug file"; exit 1; }
cmake -S "$source/examples" -B "$work/example" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/example" >/dev/null
cp "$prefix/bin/KITEUpdate.dll" "$work/example/"
/usr/lib/wine/wine64 "$work/example/kiteforcecheck.exe" 'C:\kitetest\package-consumer' | tr -d '\r'
