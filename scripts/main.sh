#!/usr/bin/env bash
# The main job: a sample Tallowmere installation and a critical-fix package in a Wine prefix of
# their own, and kitehost asking KITEUpdate.dll what a host updater asks; then the library's
# network side against loopback stand-ins for the product maker's servers (download server and
# telemetry collector): the telemetry configuration it fetched, the download of the restore
# policy, the events the collector received, and the log trail that all the calls left.
# The installation's program and libraries are the build's product files at version
# 33.0.4012.200 (release level 4, slipstream 12).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KITE_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh" >/dev/null

export WINEPREFIX=$build/demo-prefix WINEDEBUG=-all
wine64=/usr/lib/wine/wine64
servers=$build/demo-servers
bash "$root/tests/support/wineprefix.sh" start "$WINEPREFIX"
trap 'bash "$root/tests/support/kiteservers.sh" stop "$WINEPREFIX" "$servers"
      bash "$root/tests/support/wineprefix.sh" stop "$WINEPREFIX"' EXIT
bash "$root/tests/support/kiteservers.sh" start "$WINEPREFIX" "$servers" "$build/bin"
share=$WINEPREFIX/drive_c/kiteservers

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

# Through a file, not a pipe: Wine's desktop process, started on a program's first COM call,
# inherits the output and would hold a pipe open after kitehost ends.
host() {
    echo "> kitehost $*"
    "$wine64" "$build/bin/kitehost.exe" "$@" >"$servers/host.out"
    tr -d '\r' <"$servers/host.out" | sed 's/^/  /'
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

# The download server and the collector on loopback addresses; the registry points the library
# at them as it would at a mirror.
address() { sed -n "s/^$1=//p" "$share/addresses.ini" | tr -d '\r'; }
collector=$(address collector)
server_value() {
    "$wine64" reg add 'HKLM\Software\Tolvix\TallowmereCommon' /v "$1" /t REG_SZ /d "$2" /f \
        >/dev/null 2>&1
}
server_value KiteConfigServer "$(address config)"
server_value KiteRestoreServer "$(address restore)"
cat >"$share/config/SplunkConfig.xml" <<XML
<?xml version="1.0"?>
<SplunkConfig>
  <LED><enable>true</enable><token>demo-led-token</token>
    <prod><loc>$collector</loc><endpoint>/services/collector/raw</endpoint><header>Authorization: Splunk demo-led-token</header></prod></LED>
  <Track><enable>true</enable><token>demo-track-token</token>
    <prod><loc>$collector</loc><endpoint>/services/collector/raw</endpoint><header>Authorization: Splunk demo-track-token</header></prod></Track>
  <KILL_SWITCH>true</KILL_SWITCH>
</SplunkConfig>
XML
printf '[Restore]\r\nTakeBackup=1\r\n' >"$share/restore/restorekite.ini"
rm -f "$drive_c/KitePackages/CF33-12/restorekite.ini"

echo
echo "4. Is the product running from its folder? (it must not be while a fix is installed)"
host instances "$product"

echo
echo "5. The telemetry configuration the library fetches from the download server:"
host telemetry

echo
echo "6. The backup step's download of the restore policy (connectivity check first):"
host restore "$package\\restorekite.ini"
echo "  downloaded content:"
tr -d '\r' <"$drive_c/KitePackages/CF33-12/restorekite.ini" | sed 's/^/    /'

echo
echo "7. The events the collector received (HTTPS POST, as recorded byte for byte):"
for request in "$share"/requests/collector-*.http; do
    [ -e "$request" ] || { echo "  (none)"; break; }
    tr -d '\r' <"$request" | sed 's/^/  /'
    echo
done

echo
echo "8. The log trail these calls left in CRITICALFIXES.LOG:"
tr -d '\r' <"$log" | sed 's/^/  /'
