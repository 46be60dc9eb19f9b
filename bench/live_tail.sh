#!/usr/bin/env bash
# live_tail.sh [build-dir]
# The live tail's delay: velmord follows a file on a scratch VELMOR_HOME, a
# live tail (/services/streams/tail, json lines) is opened with curl, and
# LIVE_TAIL_APPENDS lines with a unique token are appended to the followed
# file, 0.5 s apart. For each, the delay is the time from just before the
# append to the moment the tail's line holding the token is read. Prints
# each delay, then the median, the lowest and the highest.
#
# Part of every delay is the file input's poll interval (a followed file is
# looked at every 250 ms, so 125 ms on average); the rest is line merging,
# parsing, the index write and the write to the client.
#
#   LIVE_TAIL_APPENDS=20   appends measured
#   KEEP=1                 keep the scratch directory (its path is printed)
set -euo pipefail

BUILD=${1:-build}
APPENDS=${LIVE_TAIL_APPENDS:-20}
export LC_ALL=C TZ=UTC
case "$APPENDS" in
  '' | *[!0-9]* | 0)
    echo "live_tail: LIVE_TAIL_APPENDS must be a whole number above 0, not '$APPENDS'" >&2
    exit 2
    ;;
esac
[ -x "$BUILD/bin/velmord" ] || { echo "live_tail: $BUILD/bin/velmord not found; build first" >&2; exit 1; }
command -v curl >/dev/null || { echo "live_tail: curl not found" >&2; exit 1; }
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

WORK=$(mktemp -d /tmp/velmor-live-tail-bench-XXXXXX)
export VELMOR_HOME="$WORK/home"
export VELMOR_DB="$VELMOR_HOME/var/lib/velmor/db"
PIDFILE="$VELMOR_HOME/var/run/velmor/velmord.pid"
LOGS="$WORK/logs"
STAMPED="$WORK/tail.stamped"
CURL_PID=""

cleanup() {
  [ -n "$CURL_PID" ] && kill "$CURL_PID" 2>/dev/null || true
  if [ -f "$PIDFILE" ]; then
    local pid
    pid=$(cat "$PIDFILE")
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 1 300); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  fi
  if [ -n "${KEEP:-}" ]; then echo "kept $WORK"; else rm -rf "$WORK"; fi
}
trap cleanup EXIT

# A free port on 127.0.0.1.
PORT=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1]); s.close()')
PASSWORD="bench-$RANDOM-$RANDOM-pass"

bash "$ROOT/scripts/mkhome.sh" "$VELMOR_HOME" >/dev/null
mkdir -p "$LOGS"
: > "$LOGS/app.log"
printf '[tail:%s]\nsourcetype = bench\n' "$LOGS" > "$VELMOR_HOME/etc/bundles/local/inputs.conf"
printf '[sslConfig]\nenableSsl = false\n' >> "$VELMOR_HOME/etc/bundles/local/server.conf"
printf '[seed]\nname = admin\npassword = %s\n' "$PASSWORD" > "$VELMOR_HOME/etc/bundles/local/user-seed.conf"

VELMOR_BINDIP=127.0.0.1 "$BUILD/bin/velmord" --nodaemon -p "$PORT" >"$WORK/velmord.out" 2>&1 &
for _ in $(seq 1 300); do [ -f "$PIDFILE" ] && break; sleep 0.1; done
[ -f "$PIDFILE" ] || { echo "live_tail: velmord did not start" >&2; cat "$WORK/velmord.out" >&2; exit 1; }

BASE="http://127.0.0.1:$PORT/services"
KEY=$(curl -s --retry 20 --retry-connrefused --retry-delay 0 "$BASE/auth/login" -d username=admin \
      -d "password=$PASSWORD" | sed -n 's:.*<sessionKey>\(.*\)</sessionKey>.*:\1:p')
[ -n "$KEY" ] || { echo "live_tail: login failed" >&2; exit 1; }

# Every line of the tail, stamped with the time it was read.
curl -sN --max-time $((APPENDS + 60)) -H "Authorization: Velmor $KEY" "$BASE/streams/tail" \
     --data-urlencode 'search=search sourcetype=bench livetailbench' -d output_mode=json |
  while IFS= read -r line; do printf '%s %s\n' "$EPOCHREALTIME" "$line"; done > "$STAMPED" &
CURL_PID=$!
sleep 1  # the tail subscribes

delays=()
for i in $(seq 1 "$APPENDS"); do
  token="livetailbench-$i-$RANDOM"
  start=$EPOCHREALTIME
  printf '%s livetailbench token=%s\n' "$(date '+%Y-%m-%d %H:%M:%S')" "$token" >> "$LOGS/app.log"
  got=""
  for _ in $(seq 1 200); do  # at most 10 s
    got=$(grep -F "token=$token\"" "$STAMPED" | head -1 | cut -d' ' -f1 || true)
    [ -n "$got" ] && break
    sleep 0.05
  done
  if [ -z "$got" ]; then
    echo "append $i: not seen within 10 s" >&2
    delays+=(99)
  else
    d=$(awk -v a="$start" -v b="$got" 'BEGIN { printf "%.3f", b - a }')
    delays+=("$d")
    echo "append $i: ${d} s"
  fi
  sleep 0.5
done

printf '%s\n' "${delays[@]}" | sort -n | awk '
  { v[NR] = $1 }
  END {
    m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
    printf "live tail delay over %d appends: median %.3f s, lowest %.3f s, highest %.3f s\n", NR, m, v[1], v[NR]
  }'
