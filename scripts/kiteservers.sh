#!/usr/bin/env bash
# Starts or stops the loopback servers that KITEUpdate's network code talks to:
#   kiteservers.sh start PREFIX STATE BINDIR    kiteservers.sh stop PREFIX STATE
# STATE keeps the test certificate authority, the server's certificate, the pid and the log.
# start makes the authority on first use, adds it to the Root store of the Wine prefix (with
# kitetrustca.exe from BINDIR), and starts kiteservers.py with C:\kiteservers in the prefix as the
# folder that the servers and the Windows programs share. The prefix's wineserver must be running.
set -euo pipefail
action=$1
prefix=$(realpath -m "$2")
state=$(realpath -m "$3")
here=$(cd "$(dirname "$0")" && pwd)
share=$prefix/drive_c/kiteservers
collector_hosts=$(seq -s, -f '127.0.44.%g' 1 16)

stop() {
    local pid
    pid=$(cat "$state/pid" 2>/dev/null) || return 0
    rm -f "$state/pid"
    if grep -q kiteservers.py "/proc/$pid/cmdline" 2>/dev/null; then
        kill "$pid"
    fi
}

make_certificates() {
    [ -f "$state/chain.pem" ] && return 0
    mkdir -p "$state"
    local san="DNS:localhost" host
    # Wine matches the host name that the client used against the DNS entries only, so each
    # address is named both ways.
    for host in 127.0.0.1 ${collector_hosts//,/ }; do san+=",IP:$host,DNS:$host"; done
    openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj "/CN=KITEUpdate test CA" \
        -keyout "$state/ca.key" -out "$state/ca.pem" \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign \
        2>/dev/null
    openssl req -newkey rsa:2048 -nodes -subj "/CN=localhost" -keyout "$state/server.key" \
        -out "$state/server.csr" 2>/dev/null
    printf 'subjectAltName=%s\nextendedKeyUsage=serverAuth\n' "$san" >"$state/server.ext"
    openssl x509 -req -in "$state/server.csr" -CA "$state/ca.pem" -CAkey "$state/ca.key" \
        -CAcreateserial -days 3650 -extfile "$state/server.ext" -out "$state/server.pem" 2>/dev/null
    openssl x509 -in "$state/ca.pem" -outform der -out "$state/ca.der"
    cat "$state/server.pem" "$state/ca.pem" >"$state/chain.pem"
}

case $action in
start)
    stop
    make_certificates
    bindir=$(realpath "$4")
    rm -rf "$share"
    mkdir -p "$share"
    cp "$state/ca.der" "$share/ca.der"
    WINEPREFIX=$prefix WINEDEBUG=-all /usr/lib/wine/wine64 "$bindir/kitetrustca.exe" \
        'C:\kiteservers\ca.der' </dev/null
    # A long run (the 10,000-case fuzz) sets KITE_SERVERS_LIFETIME above the 15 minutes that
    # keep orphaned servers from outliving a test run for long.
    setsid python3 "$here/kiteservers.py" --lifetime "${KITE_SERVERS_LIFETIME:-900}" \
        --share "$share" --chain "$state/chain.pem" \
        --key "$state/server.key" --collector-hosts "$collector_hosts" --pidfile "$state/pid" \
        </dev/null >"$state/servers.log" 2>&1 &
    for _ in $(seq 100); do
        [ -f "$share/addresses.ini" ] && exit 0
        sleep 0.1
    done
    echo "the servers did not start:" >&2
    cat "$state/servers.log" >&2
    stop
    exit 1
    ;;
stop)
    stop
    ;;
*)
    echo "usage: $0 start PREFIX STATE BINDIR | stop PREFIX STATE" >&2
    exit 2
    ;;
esac
