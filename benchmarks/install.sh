#!/usr/bin/env bash
# What an installation through KITEUpdate.dll costs, next to the plain CopyFileA loop, the
# rename-aside loop, Wine's xcopy and Windows Installer (an MSI built with wixl, installed by
# Wine's msiexec), in a Wine prefix of its own (build/bench-prefix), against the loopback servers
# of the tests. Prints one table with telemetry disabled and one with it enabled, the host's
# memory and the cost of the pieces of one traced file. Two undos are measured: the package with
# its last destination held open (the installation fails at that file), and the whole
# installation undone ("undo-all": every file placed and made durable, then the write of the
# commit mark fails; timed from that failure to InstallKite's return), next to the installation.
# With telemetry disabled, one more installation of each package has its file calls counted and
# timed (kiteinstallbench calls).
#
#   bash benchmarks/install.sh           5 runs each; 64 KiB files at 10, 100 and 1000 files,
#                                        20 files of 8 MiB, mixed sizes at 10 and 100; the MSI
#                                        peer (wixl, which scripts/deps.sh installs); about
#                                        12 minutes
#   bash benchmarks/install.sh --quick   3 runs, 64 KiB files only, no MSI; about 5 minutes
#
#   KITE_BENCH_SHAPES="1000:64k" KITE_BENCH_TELEMETRY=off bash benchmarks/install.sh
#                                        only the packages (count:64k|8m|mixed) and telemetry
#                                        settings named
#   KITE_BENCH_RUNS=1 bash benchmarks/install.sh
#                                        that many runs each instead of 5 (3 with --quick)
#   KITE_BENCH_DIGESTS=1 bash benchmarks/install.sh
#                                        also an installation whose commands carry each source's
#                                        sha256 (computed before timing), next to every plain one
#
# Everything it generates under the prefix is deleted at the end.
set -euo pipefail
quick=0
[ "${1:-}" = "--quick" ] && quick=1
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2}
source "$(dirname "$0")/../scripts/session.sh" bench-prefix bench-servers
work=$WINEPREFIX/drive_c/kitebench
results=$build/bench-results.txt
bench() { "$wine64" "$build/bin/kiteinstallbench.exe" "$@" </dev/null | tr -d '\r'; }

cleanup() {
    rm -rf "$work"
    rm -f "$WINEPREFIX/drive_c/kitetest/commondata/twupdate/log/CRITICALFIXES.LOG"
    end_session
}
trap cleanup EXIT

# The servers live at most 15 minutes; each telemetry setting gets its own start. Both server
# values point at loopback, so that nothing leaves the machine: the configuration document
# enables or disables both channels, and no restore policy is served (the built-in table turns
# backups on for release 27.0.4008).
start_bench_servers() {
    start_servers
    reg_set KiteConfigServer "$(address config)"
    reg_set KiteRestoreServer "$(address restore)"
    local enable=$1 loc
    loc="<loc>$(address collector)</loc>"
    printf '%s' "<SplunkConfig><LED><enable>$enable</enable><token>BENCH</token><prod>$loc" \
        "<endpoint>/led/prod</endpoint><header>Authorization: Splunk led</header></prod></LED>" \
        "<Track><enable>$enable</enable><token>BENCH</token><prod>$loc" \
        "<endpoint>/track/prod</endpoint><header></header></prod></Track></SplunkConfig>" \
        >"$share/config/SplunkConfig.xml"
}

# An MSI of the package's files, installed into INSTALLDIR.
make_msi() {
    local folder=$1 name=$2
    {
        echo '<?xml version="1.0" encoding="utf-8"?>'
        echo '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">'
        echo '<Product Id="*" Name="KiteBench" Language="1033" Version="1.0.0"'
        echo '  Manufacturer="Tolvix" UpgradeCode="6C1A3C8E-2B7D-4F0A-9E51-3D0B7A1C2E44">'
        echo '<Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"/>'
        echo '<Media Id="1" Cabinet="bench.cab" EmbedCab="yes"/>'
        echo '<Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="ProgramFilesFolder">'
        echo '<Directory Id="INSTALLDIR" Name="KiteBench">'
        local i=0 file
        for file in "$folder"/package/*; do
            echo "<Component Id=\"c$i\" Guid=\"*\"><File Id=\"f$i\" Source=\"package/${file##*/}\"" \
                'KeyPath="yes"/></Component>'
            i=$((i + 1))
        done
        echo '</Directory></Directory></Directory>'
        echo '<Feature Id="all" Level="1">'
        for ((j = 0; j < i; j++)); do echo "<ComponentRef Id=\"c$j\"/>"; done
        echo '</Feature></Product></Wix>'
    } >"$folder/$name.wxs"
    # wixl takes file sources relative to the folder it runs in.
    (cd "$folder" && wixl -o "$name.msi" "$name.wxs")
}

if [ $quick = 1 ]; then
    runs=3
    shapes="10:64k 100:64k 1000:64k"
else
    runs=5
    shapes="10:64k 100:64k 1000:64k 20:8m 10:mixed 100:mixed"
fi
shapes=${KITE_BENCH_SHAPES:-$shapes}
runs=${KITE_BENCH_RUNS:-$runs}
msi=0
if [ $quick = 0 ] && command -v wixl >/dev/null; then msi=1; fi
[ $quick = 0 ] && [ $msi = 0 ] && echo "wixl is not installed: no MSI peer (apt-get install wixl)"

: >"$results"
for telemetry in ${KITE_BENCH_TELEMETRY:-off on}; do
    [ $telemetry = on ] && enable=true || enable=false
    start_bench_servers $enable
    for shape in $shapes; do
        count=${shape%%:*} sizes=${shape#*:}
        folder="$work/n$count-$sizes"
        windows="C:\\kitebench\\n$count-$sizes"
        bench prepare "$windows" "$count" "$sizes"
        peer=()
        # Windows Installer does not depend on the library's telemetry: measured once.
        if [ $msi = 1 ] && [ $telemetry = off ]; then
            make_msi "$folder" peer
            peer=("$windows\\peer.msi")
        fi
        echo "telemetry $telemetry: $count files ($sizes), $runs runs" >&2
        bench run "$windows" "$runs" "${peer[@]}" | sed "s/^/telemetry=$telemetry /" >>"$results"
        if [ $telemetry = off ]; then
            # The largest resident size of the host process over one installation, as Linux saw
            # it (Wine's own share included); also when the host ends before the commit.
            /usr/bin/time -o "$servers/rss" -f %M "$wine64" "$build/bin/kiteinstallbench.exe" \
                memory "$windows" </dev/null >/dev/null 2>&1 || true
            echo "memory-rss files=$count bytes=$(awk '{s+=$1} END {print s}' "$folder/sizes.txt")" \
                "maxrss-kib=$(tail -1 "$servers/rss")" >>"$results"
        fi
        # Where one installation's time goes: its file calls, counted and timed.
        if [ $telemetry = off ]; then bench calls "$windows" >>"$results"; fi
        if [ $telemetry = off ] && [ "$shape" = "1000:64k" ]; then
            bench profile "$windows" 1000 >>"$results"
        fi
        bench clean "$windows"
    done
    bash "$root/scripts/kiteservers.sh" stop "$WINEPREFIX" "$servers"
done
python3 "$root/benchmarks/table.py" "$results"
