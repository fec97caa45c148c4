#!/usr/bin/env bash
# What a collector's behaviour costs an installation: kitehost update (the DLL, as a host updater
# calls it) of a 1-file package and of a 3-file package whose third file is missing (undone),
# against the loopback collector in each of its modes, in a prefix of its own. Prints seconds per
# installation, the whole host process included.   bash benchmarks/collectors.sh
set -euo pipefail
source "$(dirname "$0")/../scripts/session.sh" bench-prefix bench-servers
start_servers
reg_set KiteConfigServer "$(address config)"
reg_set KiteRestoreServer "$(address restore)"
product=$WINEPREFIX/drive_c/kitecollect/product
package=$WINEPREFIX/drive_c/kitecollect/package
rm -rf "$(dirname "$product")" && mkdir -p "$product/CriticalFixes" "$package"
printf '[KITEApplicability]\r\nSlipstreams=\r\n' >"$package/kite.ini"
printf 'a' >"$package/a.txt"
config() { # host
    printf '<SplunkConfig><LED><enable>true</enable><token>B</token><prod><loc>%s</loc><endpoint>/r</endpoint><header>A: b</header></prod></LED><Track><enable>true</enable><token>B</token><prod><loc>%s</loc><endpoint>/r</endpoint></prod></Track></SplunkConfig>' "$1" "$1" >"$share/config/SplunkConfig.xml"
}
manifest() { # files
    local c=''
    for f in "$@"; do
        local src='C:\kitecollect\package\a.txt'
        [ "$f" = c.txt ] && src='C:\kitecollect\package\missing'
        c+="<command><src>$src</src><dst>C:\\kitecollect\\product\\$f</dst><register>0</register></command>"
    done
    echo "<commands><appdir>C:\\kitecollect\\product</appdir>$c</commands>" >"$package/manifest.xml"
}
run() { # files...
    manifest "$@"
    : >"$product/CriticalFixes/force_apply_kite.dat"
    local start end
    start=$(date +%s.%N)
    "$wine64" "$build/bin/kitehost.exe" update 'C:\kitecollect\package' >"$servers/host.out" || true
    end=$(date +%s.%N)
    echo "$end - $start" | bc
}
printf '%-34s %10s %14s\n' collector "1 file s" "failing 3 s"
for mode in healthy keepalive error500 refuse silent notls unresolvable; do
    host=$(address collector)
    [ $mode = unresolvable ] && host=$(printf 'x%.0s' $(seq 64)).invalid
    config "$host"
    echo "${mode/healthy/}" >"$share/control/collector-mode"
    [ $mode = unresolvable ] && echo >"$share/control/collector-mode"
    echo 60 >"$share/control/collector-hold"
    one=$(run a.txt)
    three=$(run a.txt b.txt c.txt)
    printf '%-34s %10.2f %14.2f\n' "$mode" "$one" "$three"
done
rm -rf "$(dirname "$product")"
