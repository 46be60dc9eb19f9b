#!/usr/bin/env bash
# service_at_scale.sh [build-dir]
# The service at scale, in one run on a scratch VELMOR_HOME:
#
#   1. throughput  SERVICE_BENCH_MB of 200-byte lines, already on disk, go
#                  through velmord (a [tail:] stanza into the index "bench")
#                  until every line is a searchable event: wall, lines/s, MB/s
#                  and velmord's CPU; then the same files with velmor-index
#                  add (one run per host directory) into "bench2", side by side
#   2. latency     a line with a unique token appended to a followed file, 20
#                  times 0.5 s apart, until velmor-index search finds it
#   3. restart     1000 small followed files indexed, velmord stopped with
#                  SIGTERM (timed), a line appended to the last file, velmord
#                  started again and timed until that line is found
#
# velmord's CPU is user + system of it and every process below it (its
# process runner, velmor-optimize, gzip), with the children each waited for,
# read from /proc. At the end every event "bench" counts must be read back by
# velmor-index search (else the run fails: raw data went missing), and the
# error and warning lines of the service's logs are summed up by kind.
#
#   SERVICE_BENCH_MB=200   size of the logs, in 10^6 bytes
#   KEEP=1                 keep the scratch directory (its path is printed)
set -euo pipefail

BUILD=${1:-build}
MB=${SERVICE_BENCH_MB:-200}
export LC_ALL=C TZ=UTC
LINE_BYTES=200
NFILES=1000

case "$MB" in
  '' | *[!0-9]* | 0)
    echo "service_at_scale: SERVICE_BENCH_MB must be a whole number of MB above 0, not '$MB'" >&2
    exit 2
    ;;
esac
for t in velmor-genlogs velmor-index velmord; do
  [ -x "$BUILD/bin/$t" ] || { echo "service_at_scale: $BUILD/bin/$t not found; build first" >&2; exit 1; }
done
[ -x /usr/bin/time ] || { echo "service_at_scale: /usr/bin/time not found" >&2; exit 1; }
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
VI="$BUILD/bin/velmor-index"
VD="$BUILD/bin/velmord"
TICK=$(getconf CLK_TCK)

WORK=$(mktemp -d /tmp/velmor-service-bench-XXXXXX)
export VELMOR_HOME="$WORK/home"
export VELMOR_DB="$VELMOR_HOME/var/lib/velmor/db"
PIDFILE="$VELMOR_HOME/var/run/velmor/velmord.pid"
VLOG="$VELMOR_HOME/var/log/velmor/velmord.log"
LOGS="$WORK/logs"
MANY="$WORK/many"
TIMES="$WORK/time"

calc() {
  local expr=$1 a args=()
  shift
  for a in "$@"; do args+=(-v "$a"); done
  awk "${args[@]}" "BEGIN { print $expr }" </dev/null
}
since() { calc 'sprintf("%.2f", b - a)' a="$1" b="$EPOCHREALTIME"; }

# Stops a running velmord with SIGTERM (SIGKILL after 60 s); STOP_S is how long it took.
STOP_S=0
stopService() {
  local pid t0 i
  STOP_S=0
  [ -f "$PIDFILE" ] || return 0
  pid=$(cat "$PIDFILE")
  t0=$EPOCHREALTIME
  kill -TERM "$pid" 2>/dev/null || return 0
  for i in $(seq 1 600); do
    kill -0 "$pid" 2>/dev/null || { STOP_S=$(since "$t0"); return 0; }
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
  echo "service_at_scale: velmord (pid $pid) did not stop within 60 s of SIGTERM; killed" >&2
  return 1
}
cleanup() {
  stopService || true
  if [ "${KEEP:-0}" = 1 ]; then echo "kept $WORK"; else rm -rf "$WORK"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM
fail() {
  echo "service_at_scale: $*" >&2
  [ -f "$VLOG" ] && { echo "-- last lines of $VLOG:" >&2; tail -5 "$VLOG" >&2; }
  exit 1
}

# Starts velmord (it returns once its pipelines run) and sets PID.
startService() {
  "$VD" -p 0 > "$WORK/velmord.out" 2>&1 || { cat "$WORK/velmord.out" >&2; fail "velmord did not start"; }
  PID=$(cat "$PIDFILE")
}
# Events of an index: the EVENTS column of its hot, warm and cold buckets.
eventsIn() {
  { "$VI" info "$1" 2>/dev/null || true; } | awk '$1=="hot"||$1=="warm"||$1=="cold" {s+=$5} END {print s+0}'
}
# waitEvents <index> <count> <limit s>: polls every 0.2 s until the index holds count events.
waitEvents() {
  local t0=$EPOCHREALTIME n=0
  while :; do
    n=$(eventsIn "$1")
    [ "$n" -ge "$2" ] && return 0
    [ "$(calc '(b - a >= l)' a="$t0" b="$EPOCHREALTIME" l="$3")" = 1 ] &&
      fail "index '$1' holds $n events, not $2, after $3 s"
    sleep 0.2
  done
}
# waitFound <index> <token> <limit s>: polls every 0.05 s until a search finds the token.
waitFound() {
  local t0=$EPOCHREALTIME
  until [ "$({ "$VI" search "$1" "$2" --count 1 2>/dev/null || true; } | wc -l)" -ge 1 ]; do
    [ "$(calc '(b - a >= l)' a="$t0" b="$EPOCHREALTIME" l="$3")" = 1 ] && fail "'$2' not found in '$1' after $3 s"
    sleep 0.05
  done
}
descendants() { local c; for c in $(pgrep -P "$1" || true); do echo "$c"; descendants "$c"; done; }
# CPU seconds of velmord and every process below it (its process runner, velmor-optimize,
# gzip): their own and that of the children they waited for.
cpuOf() {
  local p s ticks=0
  [ -r "/proc/$1/stat" ] || fail "velmord (pid $1) is gone"
  for p in "$1" $(descendants "$1"); do
    s=$(cat "/proc/$p/stat" 2>/dev/null) || continue
    s=${s##*) }
    ticks=$((ticks + $(awk '{print $12 + $13 + $14 + $15}' <<< "$s")))
  done
  calc 'sprintf("%.1f", t / k)' t="$ticks" k="$TICK"
}
# True while a velmor-optimize or gzip runs below velmord.
merging() {
  local p
  for p in $(descendants "$PID"); do
    case "$(cat "/proc/$p/comm" 2>/dev/null)" in velmor-optimiz* | gzip) return 0 ;; esac
  done
  return 1
}
stamped() { printf '%s %s\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$*"; }

echo "== Making $MB MB of ${LINE_BYTES}-byte lines"
NLINES=$((MB * 1000000 / LINE_BYTES))
"$BUILD/bin/velmor-genlogs" --seed 20261124 --lines "$NLINES" --days 7 --start 2026-11-01 --hosts 6 \
  --formats access,kv,json --out "$LOGS" > "$WORK/manifest" 2>/dev/null
mapfile -t FILES < <(cut -f1 "$WORK/manifest")
[ "${#FILES[@]}" -gt 0 ] || fail "velmor-genlogs listed no files"
MEAN=$(awk -F'\t' '{l += $2; b += $3} END {printf "%.0f", b / l}' "$WORK/manifest")
# velmor-genlogs has no line length: each line is cut to, or extended by its own text up to, 199 bytes + LF.
for f in "${FILES[@]}"; do
  awk -v w=$((LINE_BYTES - 1)) '{ l = $0; while (length(l) < w) l = l " " $0; print substr(l, 1, w) }' "$f" > "$f.fit"
  mv "$f.fit" "$f"
done
LINES=$(cat "${FILES[@]}" | wc -l)
RAW=$(cat "${FILES[@]}" | wc -c)
mapfile -t HOSTS < <(for f in "${FILES[@]}"; do basename "$(dirname "$f")"; done | sort -u)
echo "   velmor-genlogs lines (access, kv, json; mean $MEAN bytes as generated), each fitted to $LINE_BYTES bytes"
echo "   $LINES lines, $RAW bytes in ${#FILES[@]} files of ${#HOSTS[@]} hosts"

bash "$ROOT/scripts/mkhome.sh" "$VELMOR_HOME" >/dev/null
for ix in bench bench2 many; do
  # shellcheck disable=SC2016  # $VELMOR_DB is for the configuration to expand
  printf '\n[%s]\nhomePath = $VELMOR_DB/%s/db\ncoldPath = $VELMOR_DB/%s/colddb\nthawedPath = $VELMOR_DB/%s/thaweddb\nfrozenTimePeriodInSecs = 2147483647\n' \
    "$ix" "$ix" "$ix" "$ix" >> "$VELMOR_HOME/etc/bundles/local/indexes.conf"
done
mkdir -p "$MANY"
printf '[tail:%s]\nindex = bench\n\n[tail:%s]\nindex = many\n' "$LOGS" "$MANY" > "$VELMOR_HOME/etc/bundles/local/inputs.conf"

# The file the delay probes go to: followed from the start, not among the files added to bench2.
PROBE="$LOGS/probe.log"
stamped "bench-host probe file" > "$PROBE"

echo "== 1. velmord: files on disk to searchable events"
LIMIT=$((120 + MB * 3))
T0=$EPOCHREALTIME
startService
waitEvents bench $((LINES + 1)) "$LIMIT"
SVC_WALL=$(since "$T0")
SVC_CPU=$(cpuOf "$PID")
echo "   $((LINES + 1)) events in $SVC_WALL s; velmord pid $PID, $SVC_CPU CPU s"

echo "== 2. Delay from an appended line to the line found"
: > "$WORK/delays"
for i in $(seq 1 20); do
  tok="probe${i}x$(date +%s%N)"
  t0=$EPOCHREALTIME
  stamped "bench-host latency $tok" >> "$PROBE"
  waitFound bench "$tok" 30
  since "$t0" >> "$WORK/delays"
  sleep 0.5
done
read -r D_MED D_MAX < <(sort -n "$WORK/delays" | awk '{d[NR] = $1} END {printf "%.2f %.2f\n", (d[10] + d[11]) / 2, d[NR]}')
echo "   20 lines: median $D_MED s, max $D_MAX s"

# Background merges of velmord finish (bounded) before its CPU is read again and it stops.
for i in $(seq 1 600); do merging || break; sleep 0.1; done
SVC_CPU_ALL=$(cpuOf "$PID")
stopService || fail "velmord did not stop"

echo "== velmor-index add bench2, one run per host directory"
ADD_WALL=0
ADD_CPU=0
for h in "${HOSTS[@]}"; do
  /usr/bin/time -f '%e %U %S' -o "$TIMES" "$VI" add bench2 "$LOGS/$h"/*.log --host "$h" > /dev/null 2> "$WORK/add.err" ||
    { cat "$WORK/add.err" >&2; fail "velmor-index add failed for $h"; }
  read -r w u s < "$TIMES"
  ADD_WALL=$(calc 'a + w' a="$ADD_WALL" w="$w")
  ADD_CPU=$(calc 'a + u + s' a="$ADD_CPU" u="$u" s="$s")
done
N2=$(eventsIn bench2)
[ "$N2" = "$LINES" ] || echo "   (note: $LINES lines but bench2 holds $N2 events)"

echo "== 3. Restart with $NFILES followed files"
startService
awk -v dir="$MANY" -v n="$NFILES" -v ts="$(date -u +%Y-%m-%dT%H:%M:%SZ)" 'BEGIN {
  for (i = 0; i < n; i++) { f = sprintf("%s/f%04d.log", dir, i)
    for (j = 1; j <= 3; j++) printf "%s many-host file %d line %d of 3\n", ts, i, j > f
    close(f) } }'
waitEvents many $((NFILES * 3)) 120
stopService || fail "velmord did not stop"
STOP1=$STOP_S
LAST=$(printf '%s/f%04d.log' "$MANY" $((NFILES - 1)))
tok="restart$(date +%s%N)"
stamped "many-host after restart $tok" >> "$LAST"
T0=$EPOCHREALTIME
startService
UP=$(since "$T0")
waitFound many "$tok" 120
FOUND=$(since "$T0")
waitEvents many $((NFILES * 3 + 1)) 10
NMANY=$(eventsIn many)
echo "   stop $STOP1 s; start returned in $UP s, appended line found $FOUND s after start; 'many' holds $NMANY events"
[ "$NMANY" = $((NFILES * 3 + 1)) ] || echo "   (note: expected $((NFILES * 3 + 1)) events in 'many': some lines twice)"
stopService || fail "velmord did not stop"
NB=$(eventsIn bench)
[ "$NB" = $((LINES + 21)) ] || echo "   (note: 'bench' holds $NB events, expected $((LINES + 21)))"
# Every event counted must also be readable: its raw data must be there.
READ=$({ "$VI" search bench --count $((NB + 100)) 2> "$WORK/read.err" || true; } | wc -l)
echo "   'bench': $NB events counted, $READ read back by velmor-index search ($(grep -c . "$WORK/read.err" || true) read errors)"

row() { printf '%-40s %8.2f %8.1f %10s %8.1f\n' "$1" "$2" "$3" "$(calc 'sprintf("%.0f", l / w)' l="$LINES" w="$2")" \
  "$(calc 'r / 1e6 / w' r="$RAW" w="$2")"; }
echo
echo "== Results ($LINES lines of $LINE_BYTES bytes, $RAW bytes; $(nproc) cores)"
printf '%-40s %8s %8s %10s %8s\n' "files to searchable events" "wall s" "CPU s" "lines/s" "MB/s"
row "velmord" "$SVC_WALL" "$SVC_CPU"
printf '%-40s %8s %8.1f\n' "  velmord CPU with its background merges" - "$SVC_CPU_ALL"
row "velmor-index add (${#HOSTS[@]} runs)" "$ADD_WALL" "$ADD_CPU"
echo "   aim: 100,000 lines/s, at least as fast as velmor-index add"
printf '%-40s median %.2f s, max %.2f s (aim: under 2 s)\n' "appended line to found (20)" "$D_MED" "$D_MAX"
printf '%-40s %.2f s\n' "stop with $NFILES followed files (SIGTERM)" "$STOP1"
printf '%-40s %.2f s (velmord returned after %.2f s)\n' "start to a line of the last file found" "$FOUND" "$UP"
for l in "$VLOG" "$VELMOR_HOME/var/log/velmor/search.log"; do
  [ -f "$l" ] || continue
  echo "   $(basename "$l"): $(grep -cE ' (ERROR|WARN|FATAL) ' "$l" || true) error or warning lines, by kind:"
  grep -E ' (ERROR|WARN|FATAL) ' "$l" | sed -E 's/^[^ ]+ [^ ]+ //; s#/[^ ,]*#<path>#g; s/[0-9]+/N/g' | sort | uniq -c | sort -rn | head -5 |
    sed 's/^/     /' || true
done
[ "$READ" = "$NB" ] || fail "'bench' counts $NB events but search reads back $READ: raw data is missing"
