#!/usr/bin/env bash
# search_vs_peers.sh [build-dir]
# Search over an index, side by side with other ways of finding the same
# events, all timed in the same run as whole processes (the median of three
# runs each, wall-clock milliseconds):
#
#   velmor-search   'search index=bench <term> | head 100 | outputxml' over
#                   one bucket holding SEARCH_BENCH_MB of velmor-genlogs
#                   output (newest first)
#   rg -iw          over the same lines as one plain file (first 100 hits)
#   zcat | rg -iw   over the same file gzipped
#   sqlite3 FTS5    a table built once from the same lines; MATCH with
#                   ORDER BY rowid DESC LIMIT 100
#
# for a rare term, a common one and one that is nowhere; then every hit of
# the common term, as events per second. Lines and events are the same thing
# here: the formats used (syslog, access, kv, json) write one event a line,
# every line starting with a time stamp.
#
#   SEARCH_BENCH_MB=200    size of the generated logs (1024 for a 1 GB run)
#   SEARCH_BENCH_LIMIT=300 seconds a timed process may run before its row
#                          is given up (shown as ">300 s")
#   SEARCH_BENCH_KEEP=1    keep the scratch directory (its path is printed)
#   SEARCH_BENCH_WORK=DIR  reuse the scratch directory a kept run left: no
#                          generating, indexing or FTS5 build (and it is kept)
#
# Needs rg and sqlite3 (scripts/bootstrap.sh installs them). The scratch
# directory lives under /tmp and is removed at the end.
set -euo pipefail

BUILD=${1:-build}
MB=${SEARCH_BENCH_MB:-200}
RARE=minecraft   # a user name of the failed logins: about 1 line in 1500
COMMON=session   # about 1 line in 8
NONE=qzxvbnmw
RUNS=3
LIMIT=${SEARCH_BENCH_LIMIT:-300}  # seconds any one timed process may take

for t in velmor-genlogs velmor-index velmor-search; do
  if [ ! -x "$BUILD/bin/$t" ]; then
    echo "search_vs_peers: $BUILD/bin/$t not found; build first" >&2
    exit 1
  fi
done
for t in rg sqlite3 gzip zcat; do
  if ! command -v "$t" >/dev/null; then
    echo "search_vs_peers: $t not found; run scripts/bootstrap.sh" >&2
    exit 1
  fi
done
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"

REUSE=0
if [ -n "${SEARCH_BENCH_WORK:-}" ]; then
  WORK=$SEARCH_BENCH_WORK
  REUSE=1
  [ -d "$WORK/home" ] && [ -f "$WORK/all.log" ] || { echo "search_vs_peers: $WORK is not a kept run" >&2; exit 1; }
else
  WORK=$(mktemp -d /tmp/velmor-search-bench-XXXXXX)
fi
cleanup() {
  if [ "${SEARCH_BENCH_KEEP:-0}" = 1 ] || [ "$REUSE" = 1 ]; then
    echo "kept $WORK"
  else
    rm -rf "$WORK"
  fi
}
trap cleanup EXIT

export TZ=UTC
export VELMOR_HOME="$WORK/home"
export VELMOR_DB="$VELMOR_HOME/var/lib/velmor/db"
PLAIN="$WORK/all.log"
FTS="$WORK/fts.db"

now_ms() { echo $(($(date +%s%N) / 1000000)); }

# Runs a shell command RUNS times; sets MS to the median wall time and HITS
# to the number the last run printed. A run that takes longer than LIMIT
# seconds ends the row: MS becomes ">LIMIT s" and HITS "-".
MS=0
HITS=0
timed() {
  local cmd=$1 i t0 out rc times=()
  for ((i = 0; i < RUNS; i++)); do
    t0=$(now_ms)
    rc=0
    out=$(timeout "$LIMIT" bash -c "$cmd") || rc=$?
    if [ "$rc" = 124 ]; then
      MS=">${LIMIT} s"
      HITS="-"
      return
    fi
    [ "$rc" = 0 ] || { echo "search_vs_peers: failed ($rc): $cmd" >&2; exit 1; }
    times+=($(($(now_ms) - t0)))
  done
  MS=$(printf '%s\n' "${times[@]}" | sort -n | sed -n "$(((RUNS + 1) / 2))p")
  HITS=${out:-0}
}

row() { printf '%-34s %-16s %10s %9s\n' "$1" "$2" "$3" "$4"; }

if [ "$REUSE" = 0 ]; then
echo "== Making $MB MB of sample logs"
"$BUILD/bin/velmor-genlogs" --seed 20261124 --size "${MB}M" --days 7 --start 2026-11-01 --hosts 6 \
  --formats syslog,access,kv,json --out "$WORK/logs" > "$WORK/manifest" 2>/dev/null
mapfile -t FILES < <(cut -f1 "$WORK/manifest")
cat "${FILES[@]}" > "$PLAIN"
gzip -1 -c "$PLAIN" > "$PLAIN.gz"
LINES=$(wc -l < "$PLAIN")
echo "   $LINES lines in ${#FILES[@]} files, $(($(stat -c %s "$PLAIN") / 1000000)) MB plain," \
  "$(($(stat -c %s "$PLAIN.gz") / 1000000)) MB gzipped"

echo "== Indexing them into one bucket of the index 'bench'"
bash "$ROOT/scripts/mkhome.sh" "$VELMOR_HOME" >/dev/null
cat >> "$VELMOR_HOME/etc/bundles/local/indexes.conf" <<'EOF'

[default]
defaultDatabase = bench

[bench]
homePath = $VELMOR_DB/bench/db
coldPath = $VELMOR_DB/bench/colddb
thawedPath = $VELMOR_DB/bench/thaweddb
maxResults = 100000000
compressRawdata = true
maxDataSize = 1000000
maxTotalDataSizeMB = 100000000
maxWarmDBCount = 1000
frozenTimePeriodInSecs = 2147483647
EOF
t0=$(now_ms)
"$BUILD/bin/velmor-index" add bench "${FILES[@]}" 2> "$WORK/index.err" || { cat "$WORK/index.err" >&2; exit 1; }
"$BUILD/bin/velmor-index" roll bench 2>> "$WORK/index.err"
t1=$(now_ms)
echo "   in $(((t1 - t0) / 1000)).$((((t1 - t0) % 1000) / 100)) s"
"$BUILD/bin/velmor-index" info bench | sed 's/^/   /'

echo "== Building the sqlite3 FTS5 table (once)"
t0=$(now_ms)
sqlite3 "$FTS" <<EOF
CREATE VIRTUAL TABLE lines USING fts5(line);
.mode ascii
.separator "\\037" "\\n"
.import $PLAIN lines
EOF
t1=$(now_ms)
echo "   $(sqlite3 "$FTS" 'SELECT count(*) FROM lines') rows in $(((t1 - t0) / 1000)) s," \
  "$(($(stat -c %s "$FTS") / 1000000)) MB"
else
  echo "== Reusing $WORK ($(wc -l < "$PLAIN") lines)"
  "$BUILD/bin/velmor-index" info bench | sed 's/^/   /'
  [ -f "$FTS" ] || { echo "search_vs_peers: $FTS missing" >&2; exit 1; }
fi

SEARCH="$BUILD/bin/velmor-search"
echo
echo "== The first 100 hits (median of $RUNS runs, whole processes)"
row "query" "tool" "ms" "hits"
for term in "$RARE" "$COMMON" "$NONE"; do
  timed "'$SEARCH' 'search index=bench $term | head 100 | outputxml' 2>/dev/null | grep -c '<result ' || true"
  row "$term" "velmor-search" "$MS" "$HITS"
  timed "rg -iw -m 100 -- '$term' '$PLAIN' | wc -l"
  row "$term" "rg -iw" "$MS" "$HITS"
  timed "zcat '$PLAIN.gz' | rg -iw -m 100 -- '$term' | wc -l"
  row "$term" "zcat | rg -iw" "$MS" "$HITS"
  timed "sqlite3 '$FTS' \"SELECT line FROM lines WHERE lines MATCH '$term' ORDER BY rowid DESC LIMIT 100\" | wc -l"
  row "$term" "sqlite3 FTS5" "$MS" "$HITS"
done

# From here on every hit of a search, not the first 10000 a search job keeps
# by default (the first-100 rows above ran with the shipped limits).
grep -q '^max_events = 100000000' "$VELMOR_HOME/etc/bundles/local/limits.conf" 2>/dev/null ||
  cat >> "$VELMOR_HOME/etc/bundles/local/limits.conf" <<'EOF'

[search]
max_count = 100000000
max_events = 100000000
EOF
echo
echo "== Every hit of '$COMMON' (median of $RUNS runs, whole processes)"
row "query" "tool" "ms" "events/s"
rate() {
  case "$MS" in
    ">"*) echo "-" ;;
    *) awk -v n="$HITS" -v ms="$MS" 'BEGIN { printf "%.0f", (ms > 0 ? n * 1000 / ms : 0) }' ;;
  esac
}
timed "'$SEARCH' 'search index=bench $COMMON | outputxml' 2>/dev/null | grep -c '<result ' || true"
all=$HITS
row "$COMMON ($HITS hits)" "velmor-search" "$MS" "$(rate)"
timed "rg -icw -- '$COMMON' '$PLAIN'"
row "$COMMON ($HITS hits)" "rg -icw" "$MS" "$(rate)"
timed "zcat '$PLAIN.gz' | rg -icw -- '$COMMON'"
row "$COMMON ($HITS hits)" "zcat | rg -icw" "$MS" "$(rate)"
timed "sqlite3 '$FTS' \"SELECT line FROM lines WHERE lines MATCH '$COMMON' ORDER BY rowid DESC\" | wc -l"
row "$COMMON ($HITS hits)" "sqlite3 FTS5" "$MS" "$(rate)"
grepped=$(grep -ciw -- "$COMMON" "$PLAIN" || true)
if [ "$all" = "-" ]; then
  echo "   (velmor-search ran out of time: its count was not checked)"
elif [ "$all" != "$grepped" ]; then
  echo "search_vs_peers: velmor-search found $all events holding '$COMMON', grep -ciw counts $grepped" >&2
  exit 1
else
  echo "   (velmor-search's count equals grep -ciw's)"
fi
