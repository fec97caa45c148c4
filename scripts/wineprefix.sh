#!/usr/bin/env bash
# Starts or stops the Wine prefix that the tests run in: wineprefix.sh start|stop PREFIX
# The prefix lives in the build tree; ~/.wine is never touched.
set -euo pipefail
action=$1
export WINEPREFIX=$2 WINEDEBUG=-all
wine64=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

case $action in
start)
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        mkdir -p "$WINEPREFIX"
        # Keeps the Mono and Gecko installers from asking; only while the prefix is made.
        WINEDLLOVERRIDES="mscoree,mshtml=" "$wine64" wineboot -i </dev/null >/dev/null 2>&1
        "$wineserver" -w
    fi
    # One server for the whole run, started with its output detached so that no test's output
    # pipe is held open by it (CTest waits for those pipes to close). One that already runs for
    # this prefix (an earlier run that was cut short) serves as well.
    "$wineserver" -p </dev/null >/dev/null 2>&1 || true
    "$wine64" reg add 'HKLM\Software\Tolvix\TallowmereCommon' /v CommonFilesDataPath /t REG_SZ \
        /d 'C:\kitetest\commondata' /f </dev/null >/dev/null 2>&1
    mkdir -p "$WINEPREFIX/drive_c/kitetest/commondata/twupdate/log"
    # A second drive, K:, for the paths of programs run from another drive than C:.
    mkdir -p "$WINEPREFIX/drive_k"
    ln -sfn ../drive_k "$WINEPREFIX/dosdevices/k:"
    ;;
stop)
    "$wineserver" -k 2>/dev/null || true
    ;;
*)
    echo "usage: $0 start|stop PREFIX" >&2
    exit 2
    ;;
esac
