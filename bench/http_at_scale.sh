#!/usr/bin/env bash
# http_at_scale.sh [build-dir]
# The HTTP side of the service on this machine, in one run of
# bench/framework/bench_http: the real server, REST dispatcher, session
# manager and local-user back end in one process (a scratch home with one
# user), clients as threads over loopback, a new connection per request:
#
#   login        POST /services/auth/login              1, 16, 64 clients
#   info+auth    GET /services/server/info with the     1, 16, 64 clients
#                session key ("Authorization: Velmor <key>")
#   info-noauth  the same handler on a stanza that asks  1, 16, 64 clients
#                for no authentication
#   list         GET /services (no authentication)       1, 16, 64 clients
#   tls          new connection, full TLS handshake      1, 16 clients
#                (RSA 2048, made by the program), GET /services
#
# For each: requests answered 200 (with the expected content), req/s, mean
# and p99 latency in microseconds, and errors (by kind, below the table).
# The cost of authentication per request is printed as the difference of
# the mean latencies (info+auth - list, and info+auth - info-noauth). The
# warnings and errors the service logged during the run are summed up last.
#
# Clients and server share the machine's CPUs; the load average before the
# run is printed so that a busy machine shows.
#
#   HTTP_BENCH_SECONDS=3   seconds per case and client count
#   HTTP_BENCH_CLIENTS="1 16 64"  client counts of the plain cases
#   KEEP=1                 keep the scratch home (its path is printed)
set -euo pipefail

BUILD=${1:-build}
export LC_ALL=C TZ=UTC
BIN="$BUILD/bench/framework/bench_http"
[ -x "$BIN" ] || {
  echo "http_at_scale: $BIN not found; build it first (ninja -C $BUILD bench_http; needs -DVELMOR_BENCH=ON)" >&2
  exit 1
}
SECS=${HTTP_BENCH_SECONDS:-3}
case "$SECS" in
  '' | *[!0-9.]* | *.*.*)
    echo "http_at_scale: HTTP_BENCH_SECONDS must be a number of seconds, not '$SECS'" >&2
    exit 2
    ;;
esac
export HTTP_BENCH_SECONDS=$SECS

echo "http_at_scale: $(uname -sr), $(nproc) cpus, load average $(cut -d' ' -f1-3 /proc/loadavg) before the run"
exec "$BIN"
