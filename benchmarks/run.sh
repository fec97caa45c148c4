#!/usr/bin/env bash
# What telemetry events cost under Wine, against the loopback collector, in a prefix of its own:
#   1. 200 events one after another, to a collector that answers and closes the connection;
#   2. one event to a collector that answers and keeps the connection open (idle up to 30 s);
#   3. one event to a collector that accepts the connection and never answers (it gives up after
#      120 s).
# Takes about three minutes; the figures are kept in benchmarks/README.md.
set -euo pipefail
source "$(dirname "$0")/../scripts/session.sh" bench-prefix bench-servers
start_servers

reg_set KiteConfigServer "$(address config)"
printf '<SplunkConfig><LED><enable>true</enable><token>BENCH</token><prod><loc>%s</loc>%s%s</prod></LED></SplunkConfig>' \
    "$(address collector)" '<endpoint>/services/collector/raw</endpoint>' \
    '<header>Authorization: Splunk BENCH</header>' >"$share/config/SplunkConfig.xml"

bench() {
    "$wine64" "$build/bin/kitebench.exe" "$@" >"$servers/bench.out"
    tr -d '\r' <"$servers/bench.out" | sed 's/^/   /'
}
collected() { find "$share/requests" -name 'collector-*.http' | wc -l; }

echo "1. 200 events to a collector that answers and closes the connection"
bench events 200
echo "   the collector received $(collected) requests"
echo "2. one event to a collector that answers and keeps the connection open"
: >"$share/control/collector-keepalive"
bench one
rm "$share/control/collector-keepalive"
echo "3. one event to a collector that accepts the connection and never answers (gives up after 120 s)"
echo 120 >"$share/control/collector-silent"
bench one
rm "$share/control/collector-silent"
