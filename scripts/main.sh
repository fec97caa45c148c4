#!/usr/bin/env bash
# The main job: a real update of a sample Tallowmere installation in a Wine prefix of its own,
# as a host updater runs it (kitehost update), against loopback stand-ins for the product maker's
# download server and telemetry collector. A first package applies and is committed; a second
# fails half-way and is undone. Then the log trail and the events the collector received.
set -euo pipefail
source "$(dirname "$0")/session.sh" demo-prefix demo-servers
start_servers
fixtures=$build/bin/fixtures

drive_c=$WINEPREFIX/drive_c
data='C:\ProgramData\Tolvix\TallowmereCommon'
log=$drive_c/ProgramData/Tolvix/TallowmereCommon/twupdate/log/CRITICALFIXES.LOG
product='C:\Program Files\Tolvix\Tallowmere 27'
installed="$drive_c/Program Files/Tolvix/Tallowmere 27"
packages=$drive_c/KitePackages

# The product's setup records its common data folder; the log lives below it. The registry
# points the library at the download server as it would at a mirror.
reg_set CommonFilesDataPath "$data"
reg_set KiteConfigServer "$(address config)"
reg_set KiteRestoreServer "$(address restore)"
collector=$(address collector)
cat >"$share/config/SplunkConfig.xml" <<XML
<?xml version="1.0"?>
<SplunkConfig>
  <LED><enable>true</enable><token>demo-led-token</token>
    <prod><loc>$collector</loc><endpoint>/services/collector/raw</endpoint><header>Authorization: Splunk demo-led-token</header></prod></LED>
  <Track><enable>true</enable><token>demo-track-token</token>
    <prod><loc>$collector</loc><endpoint>/services/collector/raw</endpoint><header>Authorization: Splunk demo-track-token</header></prod></Track>
</SplunkConfig>
XML
printf '[takebackup]\r\n27=4100\r\n' >"$share/restore/restorekite.ini"
"$wine64" reg delete 'HKLM\Software\KiteTest' /f >/dev/null 2>&1 || true

# The sample installation at release 27.0.4008 (level 8), and two packages for it.
rm -rf "$installed" "$packages" "$(dirname "$log")"
mkdir -p "$installed" "$(dirname "$log")" "$packages/CF27-09" "$packages/CF27-10"
cp "$fixtures/tw27-program-4008.exe" "$installed/tww.exe"
cp "$fixtures/tw27-library-4008.dll" "$installed/BASECORE.DLL"
cp "$fixtures/tw27-library-4008.dll" "$installed/Options.DLL"
printf '[BuildInfo]\r\nBuildNo=2708\r\n' >"$installed/BuildInfo.ini"

command() { # src in the package, dst in the product, server type
    printf '  <command><src>%s</src><dst>%s\\%s</dst><register>%s</register></command>\n' \
        "C:\\KitePackages\\$1" "$product" "$2" "$3"
}
package() { # name, applicable levels, commands...
    local name=$1 levels=$2
    shift 2
    printf '[KITEApplicability]\r\nSlipstreams=%s\r\n' "$levels" >"$packages/$name/kite.ini"
    { echo "<commands><appdir>$product</appdir>"; printf '%s' "$@"; echo "</commands>"; } \
        >"$packages/$name/manifest.xml"
}
cp "$fixtures/tw27-program-4009.exe" "$packages/CF27-09/tww.exe"
cp "$fixtures/tw27-library-4009.dll" "$packages/CF27-09/BASECORE.DLL"
cp "$fixtures/tw27-library-4009.dll" "$packages/CF27-09/Options.DLL"
cp "$fixtures/kitecom_ok.dll" "$packages/CF27-09/TwReports.dll"
package CF27-09 R8 "$(command CF27-09\\tww.exe tww.exe 0)" \
    "$(command CF27-09\\BASECORE.DLL BASECORE.DLL 0)" "$(command CF27-09\\Options.DLL Options.DLL 0)" \
    "$(command CF27-09\\TwReports.dll 'Reports\TwReports.dll' 2)"
printf 'fixed ledger totals\r\n' >"$packages/CF27-10/TwLedger.txt"
package CF27-10 R9 "$(command CF27-10\\TwLedger.txt TwLedger.txt 0)" \
    "$(command CF27-09\\Options.DLL Options.DLL 0)" \
    "$(command CF27-10\\TwLedgerCore.dll TwLedgerCore.dll 0)"

# Through a file, not a pipe: Wine's desktop process, started on a program's first COM call,
# inherits the output and would hold a pipe open after kitehost ends.
host() {
    echo "> kitehost $*"
    "$wine64" "$build/bin/kitehost.exe" "$@" >"$servers/host.out" || true
    tr -d '\r' <"$servers/host.out" | sed 's/^/  /'
}
folder() {
    (cd "$installed" && find . -type f | sort | sed 's|^\./||' | while read -r f; do
        printf '    %-40s %6d bytes\n' "$f" "$(stat -c %s "$f")"
    done)
}
registered() {
    "$wine64" reg query 'HKLM\Software\KiteTest\Servers' 2>/dev/null | tr -d '\r' |
        grep -i twreports | sed 's/^ */    registry: /' || echo "    registry: TwReports.dll not registered"
}

cat <<EOF
KITEUpdate main job
===================
Sample installation: $product
  tww.exe, BASECORE.DLL, Options.DLL at 27.0.4008.100 (release level 8)
Download server: https://$(address config) (configuration), http://$(address restore) (restore policy)
Collector:       https://$collector:443
Log:             $data\\twupdate\\log\\CRITICALFIXES.LOG

1. Package CF27-09 for release 8: the three product files at 4009 and a new COM server
EOF
host update 'C:\KitePackages\CF27-09'
echo "  Product folder afterwards:"
folder
registered
host slipstream "$product"

echo
echo "2. Package CF27-10 for release 9: its third file is missing, so it fails half-way"
host update 'C:\KitePackages\CF27-10'
echo "  Product folder after the undo (as before, plus the force-apply marker):"
folder
host force "$product"

echo
echo "3. The installations' trail in CRITICALFIXES.LOG ($(wc -l <"$log") lines in all; the"
echo "   driver, commit and undo scopes shown):"
tr -d '\r' <"$log" | awk -v shown='Install$|Commit$|Abort$|DeleteFile_S$' '
    / : Entering / { s = $0; sub(/.* : Entering /, "", s); stack[++depth] = s; if (s ~ shown) print "  " $0; next }
    / : Exiting /  { if (stack[depth--] ~ shown) print "  " $0; next }
    stack[depth] ~ shown { print "  " $0 }'

echo
count=$(ls "$share"/requests/collector-*.http 2>/dev/null | wc -l)
echo "4. The $count events the collector received (kind, message):"
for request in "$share"/requests/collector-*.http; do
    [ -e "$request" ] || break
    body=$(tr -d '\r' <"$request" | sed -n '/^$/,$p' | tail -n +2)
    kind=$(sed -n 's/.*messagetype="\([A-Za-z]*\)".*/\1/p' <<<"$body")
    message=$(sed -n 's/.*Message="\(.*\)"& SlipStream=.*/\1/p' <<<"$body")
    printf '  %-5s %s\n' "$kind" "$message"
done
echo
echo "  The first of them as received, byte for byte:"
first=$(ls "$share"/requests/collector-*.http | head -1)
tr -d '\r' <"$first" | sed 's/^/    /'
echo
