# Sourced by the scripts that run the built library in a Wine prefix of their own, next to the
# loopback servers of the tests:
#   source scripts/session.sh <prefix folder> <servers folder>    (both below the build folder)
# Builds, starts the prefix's wineserver, and stops the servers and the prefix when the script
# exits (a script with more to clean calls end_session from its own trap). Gives: root, build,
# wine64, share (the folder shared with the servers), start_servers, address NAME (an address
# that the servers listen on) and reg_set NAME VALUE (a value of the product's common key).
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KITE_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh" >/dev/null

export WINEPREFIX=$build/$1 WINEDEBUG=-all
wine64=/usr/lib/wine/wine64
servers=$build/$2
share=$WINEPREFIX/drive_c/kiteservers

end_session() {
    bash "$root/scripts/kiteservers.sh" stop "$WINEPREFIX" "$servers" || true
    bash "$root/scripts/wineprefix.sh" stop "$WINEPREFIX"
}
bash "$root/scripts/wineprefix.sh" start "$WINEPREFIX"
trap end_session EXIT

start_servers() {
    bash "$root/scripts/kiteservers.sh" start "$WINEPREFIX" "$servers" "$build/bin"
}
address() { sed -n "s/^$1=//p" "$share/addresses.ini" | tr -d '\r'; }
reg_set() {
    "$wine64" reg add 'HKLM\Software\Tolvix\TallowmereCommon' /v "$1" /t REG_SZ /d "$2" /f \
        >/dev/null 2>&1
}
