#!/usr/bin/env bash
# The main job: a sample Tallowmere installation and a critical-fix package in a Wine prefix of
# their own, and kitehost asking KITEUpdate.dll what a host updater asks, with the log trail
# that the calls left.
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
package='C:\KitePackages\CF33-12'
log=$drive_c/ProgramData/Tolvix/TallowmereCommon/twupdate/log/CRITICALFIXES.LOG

# The product's setup records its common data folder; the log lives below it.
"$wine64" reg add 'HKLM\Software\Tolvix\TallowmereCommon' /v CommonFilesDataPath /t REG_SZ \
    /d "$data" /f >/dev/null 2>&1
mkdir -p "$(dirname "$log")" "$drive_c/Program Files/Tolvix/Tallowmere 33" "$drive_c/KitePackages/CF33-12"
rm -f "$log" "$drive_c/Program Files/Tolvix/Tallowmere 33/CriticalFixes/force_apply_kite.dat"
printf '[KITEApplicability]\r\nSlipstreams=R10,R12\r\n' >"$drive_c/KitePackages/CF33-12/kite.ini"

host() {
    echo "> kitehost $*"
    "$wine64" "$build/bin/kitehost.exe" "$@" | tr -d '\r' | sed 's/^/  /'
}

cat <<EOF
KITEUpdate main job
===================
Product folder: $product
Package:        $package\\kite.ini  (Slipstreams=R10,R12)
Log:            $data\\twupdate\\log\\CRITICALFIXES.LOG

1. Does the package apply to the installed release level?
EOF
host applicable 12 "$package\\kite.ini"
host applicable 11 "$package\\kite.ini"

echo
echo "2. Must the package be forced? (a failed installation leaves a marker)"
host force "$product"
mkdir -p "$drive_c/Program Files/Tolvix/Tallowmere 33/CriticalFixes"
: >"$drive_c/Program Files/Tolvix/Tallowmere 33/CriticalFixes/force_apply_kite.dat"
echo "  (an empty CriticalFixes\\force_apply_kite.dat is put in place)"
host force "$product"

echo
echo "3. The log trail these calls left in CRITICALFIXES.LOG:"
tr -d '\r' <"$log" | sed 's/^/  /'
