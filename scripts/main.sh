#!/usr/bin/env bash
# The main job: a sample Tallowmere installation and a critical-fix package in a Wine prefix of
# their own, and kitehost asking KITEUpdate.dll what a host updater asks, with the log trail
# that the calls left. The installation's program and libraries are the build's product files
# at version 33.0.4012.200 (release level 4, slipstream 12).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KITE_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh" >/dev/null

export WINEPREFIX=$build/demo-prefix WINEDEBUG=-all
wine64=/usr/lib/wine/wine64
bash "$root/tests/support/wineprefix.sh" start "$WINEPREFIX"
trap 'bash "$root/tests/support/wineprefix.sh" stop "$WINEPREFIX"' EXIT

drive_c=$WINEPREFIX/drive_c
data='C:\ProgramData\Tolvix\TallowmereCommon'
product='C:\Program Files\Tolvix\Tallowmere 33'
installed="$drive_c/Program Files/Tolvix/Tallowmere 33"
package='C:\KitePackages\CF33-12'
log=$drive_c/ProgramData/Tolvix/TallowmereCommon/twupdate/log/CRITICALFIXES.LOG

# The product's setup records its common data folder; the log lives below it.
"$wine64" reg add 'HKLM\Software\Tolvix\TallowmereCommon' /v CommonFilesDataPath /t REG_SZ \
    /d "$data" /f >/dev/null 2>&1
mkdir -p "$(dirname "$log")" "$installed" "$drive_c/KitePackages/CF33-12"
rm -f "$log" "$installed/CriticalFixes/force_apply_kite.dat"
cp "$build/bin/fixtures/tw-program-4012.exe" "$installed/tww.exe"
cp "$build/bin/fixtures/tw-library-4012.dll" "$installed/BASECORE.DLL"
cp "$build/bin/fixtures/tw-library-4012.dll" "$installed/Options.DLL"
printf '[KITEApplicability]\r\nSlipstreams=R10,R12\r\n' >"$drive_c/KitePackages/CF33-12/kite.ini"

host() {
    echo "> kitehost $*"
    "$wine64" "$build/bin/kitehost.exe" "$@" | tr -d '\r' | sed 's/^/  /'
}

cat <<EOF
KITEUpdate main job
===================
Product folder: $product  (tww.exe, BASECORE.DLL, Options.DLL at 33.0.4012.200)
Package:        $package\\kite.ini  (Slipstreams=R10,R12)
Log:            $data\\twupdate\\log\\CRITICALFIXES.LOG

1. Which release level is installed? (the three product files must agree)
EOF
host slipstream "$product"

echo
echo "2. Does the package apply to the installed release level?"
host applicable 12 "$package\\kite.ini"
host applicable 11 "$package\\kite.ini"

echo
echo "3. Must the package be forced? (a failed installation leaves a marker)"
host force "$product"
mkdir -p "$installed/CriticalFixes"
: >"$installed/CriticalFixes/force_apply_kite.dat"
echo "  (an empty CriticalFixes\\force_apply_kite.dat is put in place)"
host force "$product"

echo
echo "4. Is the product running from its folder? (it must not be while a fix is installed)"
host instances "$product"

echo
echo "5. The log trail these calls left in CRITICALFIXES.LOG:"
tr -d '\r' <"$log" | sed 's/^/  /'
