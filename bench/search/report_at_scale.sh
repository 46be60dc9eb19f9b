#!/usr/bin/env bash
# report_at_scale.sh [build-dir]
# Reports over a large index: how long velmor-search takes to run a report
# over every event of REPORT_BENCH_MB of velmor-genlogs output, side by side
# with other tools counting the same thing in the same run:
#
#   count by host        velmor-search 'search index=report * | stats count by host'
#                        mawk over the plain text, counting lines per file's
#                        host; sqlite3 over a table (host, sourcetype, hour,
#                        status) loaded beforehand (load time not counted)
#   timechart by type    velmor-search 'search index=report * | timechart
#                        span=1h count by sourcetype'; mawk counting lines per
#                        hour and file kind; sqlite3 group by hour, sourcetype
#   count by status      a field that lives only in the text: velmor-search
#                        over the web requests, the status cut out with eval;
#                        mawk '$9' over the plain access logs and over their
#                        gzip copies (zcat | mawk); sqlite3 group by status
#
# The two counts by stored fields are timed again after velmor-optimize -f
# has merged each bucket's slices into one (the roll leaves a bucket with
# the slices its adds made).
#
# Each velmor-search run is also timed with readlevel=0 where it applies,
# and its peak memory (max RSS) is shown. Counts are printed so that they
# can be compared: the index counts events (a Java trace of many lines is
# one), the text tools count lines.
#
# Then memory at many groups: `stats count by x` over REPORT_BENCH_GROUPS
# (default 1000000; 0 skips this part) distinct values, with the peak
# memory and the warning the search gives when it stops adding groups.
#
#   REPORT_BENCH_MB=1000     size of the generated logs, in 10^6 bytes
#   REPORT_BENCH_KEEP=1      keep the scratch directory (its path is printed)
#   REPORT_BENCH_REUSE=<dir> reuse the scratch directory of an earlier kept
#                            run: no generation, no indexing
#
# Needs mawk, sqlite3, gzip and /usr/bin/time.
set -euo pipefail

BUILD=${1:-build}
MB=${REPORT_BENCH_MB:-1000}
GROUPS_N=${REPORT_BENCH_GROUPS:-1000000}
export LC_ALL=C TZ=UTC

case "$MB" in
  '' | *[!0-9]* | 0)
    echo "report_at_scale: REPORT_BENCH_MB must be a whole number of MB above 0, not '$MB'" >&2
    exit 2
    ;;
esac
for t in velmor-genlogs velmor-index velmor-search; do
  if [ ! -x "$BUILD/bin/$t" ]; then
    echo "report_at_scale: $BUILD/bin/$t not found; build first" >&2
    exit 1
  fi
done
for t in mawk sqlite3 gzip /usr/bin/time; do
  if ! command -v "$t" >/dev/null; then
    echo "report_at_scale: $t not found; it is needed to compare with" >&2
    exit 1
  fi
done
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
VS="$BUILD/bin/velmor-search"

if [ -n "${REPORT_BENCH_REUSE:-}" ]; then
  WORK=$REPORT_BENCH_REUSE
  [ -d "$WORK/home" ] || { echo "report_at_scale: $WORK holds no earlier run" >&2; exit 1; }
else
  WORK=$(mktemp -d /tmp/velmor-report-bench-XXXXXX)
fi
cleanup() {
  if [ "${REPORT_BENCH_KEEP:-0}" = 1 ] || [ -n "${REPORT_BENCH_REUSE:-}" ]; then
    echo "kept $WORK"
  else
    rm -rf "$WORK"
  fi
}
trap cleanup EXIT

export VELMOR_HOME="$WORK/home"
export VELMOR_DB="$VELMOR_HOME/var/lib/velmor/db"
PLAIN="$WORK/all.log"
TIMES="$WORK/time"

if [ -z "${REPORT_BENCH_REUSE:-}" ]; then
  echo "== Making $MB MB of sample logs"
  "$BUILD/bin/velmor-genlogs" --seed 20261124 --size "${MB}MB" --days 7 --start 2026-11-01 --hosts 6 \
    --out "$WORK/logs" > "$WORK/manifest" 2>/dev/null
  mapfile -t FILES < <(cut -f1 "$WORK/manifest")
  [ "${#FILES[@]}" -gt 0 ] || { echo "report_at_scale: velmor-genlogs listed no files" >&2; exit 1; }
  mapfile -t HOSTS < <(for f in "${FILES[@]}"; do basename "$(dirname "$f")"; done | sort -u)

  echo "== Laying out the index 'report'"
  bash "$ROOT/scripts/mkhome.sh" "$VELMOR_HOME" >/dev/null
  cat >> "$VELMOR_HOME/etc/bundles/local/indexes.conf" <<'EOF'

[report]
homePath = $VELMOR_DB/report/db
coldPath = $VELMOR_DB/report/colddb
thawedPath = $VELMOR_DB/report/thaweddb
frozenTimePeriodInSecs = 2147483647
EOF
  # The group limit of stats is raised to the groups asked for below.
  [ "$GROUPS_N" = 0 ] || cat >> "$VELMOR_HOME/etc/bundles/local/limits.conf" <<EOF

[stats]
maxresultrows = $GROUPS_N
EOF

  echo "== velmor-index add, one run per host"
  t0=$EPOCHREALTIME
  for h in "${HOSTS[@]}"; do
    mine=()
    for f in "${FILES[@]}"; do [ "$(basename "$(dirname "$f")")" = "$h" ] && mine+=("$f"); done
    "$BUILD/bin/velmor-index" add report "${mine[@]}" --host "$h" > /dev/null 2> "$WORK/add.$h.err" || {
      cat "$WORK/add.$h.err" >&2
      echo "report_at_scale: velmor-index add failed for host $h" >&2
      exit 1
    }
  done
  "$BUILD/bin/velmor-index" roll report 2> /dev/null
  echo "   $(awk -v a="$t0" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.0f", b - a }') s"

  echo "== The same lines for the other tools"
  # Each line with its host and file kind, for mawk and sqlite3.
  : > "$PLAIN"
  for f in "${FILES[@]}"; do cat "$f" >> "$PLAIN"; done
  mkdir -p "$WORK/access"
  for f in "${FILES[@]}"; do
    case "$f" in */access*.log) cp "$f" "$WORK/access/$(basename "$(dirname "$f")").log" ;; esac
  done
  for f in "$WORK"/access/*.log; do gzip -6 -c "$f" > "$f.gz"; done
  # One row per line: host, file kind, hour, and the status of a web request.
  for f in "${FILES[@]}"; do
    mawk -v h="$(basename "$(dirname "$f")")" -v k="$(basename "$f" .log)" 'BEGIN { OFS = "," }
      { st = ""; if (k == "access") st = $9; print h, k, "", st }' "$f"
  done > "$WORK/rows.csv"
  rm -f "$WORK/rows.db"
  sqlite3 "$WORK/rows.db" "CREATE TABLE t(host TEXT, kind TEXT, hour TEXT, status TEXT);" ".mode csv" ".import $WORK/rows.csv t"
  # The hour of each line, as the index has it, comes from the index itself.
fi
mapfile -t FILES < <(cut -f1 "$WORK/manifest")
RAW=$(stat -c %s "$PLAIN")
LINES=$(wc -l < "$PLAIN")
echo "   $LINES lines, $RAW bytes in ${#FILES[@]} files"
"$BUILD/bin/velmor-index" info report | sed 's/^/   /'

# timeOne <label> <command...>: runs it under /usr/bin/time, prints the wall
# seconds and the peak memory, and keeps the output in $WORK/out.
timeOne() {
  local label=$1
  shift
  /usr/bin/time -f '%e %M' -o "$TIMES" "$@" > "$WORK/out" 2> "$WORK/err" || {
    cat "$WORK/err" >&2
    echo "report_at_scale: $label failed" >&2
    exit 1
  }
  read -r W M < "$TIMES"
  printf '   %-44s %7.2f s  %8d KB\n' "$label" "$W" "$M"
}
# The sum of the values of a report's field (velmor-search prints XML).
vsum() {
  mawk -v want="$1" '/^<field k=/ { k = $0; sub(/^<field k=./, "", k); sub(/.>.*$/, "", k); next }
    /<text>/ && (want == "*" ? k != "_time" && k != "host" && k != "status" : k == want) {
      v = $0; sub(/^.*<text>/, "", v); sub(/<\/text>.*$/, "", v); s += v }
    END { print s + 0 }' "$WORK/out"
}

echo "== count by host"
timeOne "velmor-search stats count by host" "$VS" 'search index=report * | stats count by host | outputxml'
echo "      events counted: $(vsum count)"
timeOne "velmor-search readlevel=0" "$VS" 'search index=report readlevel=0 * | stats count by host | outputxml'
timeOne "mawk over the plain text (per file)" mawk '{ c[FILENAME]++ } END { for (f in c) print f, c[f] }' "${FILES[@]}"
echo "      lines counted: $(mawk '{ s += $2 } END { print s }' "$WORK/out")"
timeOne "sqlite3 group by host (loaded)" sqlite3 "$WORK/rows.db" 'SELECT host, count(*) FROM t GROUP BY host'

echo "== timechart span=1h count by sourcetype"
timeOne "velmor-search timechart" "$VS" 'search index=report * | timechart span=1h count by sourcetype | outputxml'
echo "      events counted: $(vsum '*')"
timeOne "mawk: hour of each syslog/access line" mawk '
  /^[A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9]:/ { c[$1 " " $2 " " substr($3, 1, 2) " syslog"]++; next }
  { if (match($0, /\[[0-9][0-9]\/[A-Z][a-z][a-z]\/[0-9]+:[0-9][0-9]/)) c[substr($0, RSTART + 1, RLENGTH - 1) " access"]++
    else c[substr($0, 1, 13) " other"]++ }
  END { for (k in c) n++; print n }' "$PLAIN"
timeOne "sqlite3 group by kind (loaded)" sqlite3 "$WORK/rows.db" 'SELECT kind, count(*) FROM t GROUP BY kind'

echo "== count by HTTP status (a field only in the text)"
timeOne "velmor-search eval + stats by status" "$VS" \
  "search index=report sourcetype=access | eval status=substr(_raw, instr(_raw, ' HTTP/') + 11, 3) | stats count by status | outputxml"
echo "      requests counted: $(vsum count)"
timeOne "mawk '\$9' over the access logs" mawk '{ c[$9]++ } END { for (s in c) print s, c[s] }' "$WORK"/access/*.log
echo "      lines counted: $(mawk '{ s += $2 } END { print s }' "$WORK/out")"
timeOne "zcat | mawk '\$9' over their gzip copies" bash -c "zcat '$WORK'/access/*.log.gz | mawk '{ c[\$9]++ } END { for (s in c) print s, c[s] }'"
timeOne "sqlite3 group by status (loaded)" sqlite3 "$WORK/rows.db" "SELECT status, count(*) FROM t WHERE kind = 'access' GROUP BY status"

echo "== the counts again after velmor-optimize -f (one slice per bucket)"
for b in "$VELMOR_DB"/report/db/db_*; do "$BUILD/bin/velmor-optimize" -f "$b" >/dev/null 2>&1 || true; done
timeOne "velmor-search stats count by host" "$VS" 'search index=report * | stats count by host | outputxml'
echo "      events counted: $(vsum count)"
timeOne "velmor-search timechart" "$VS" 'search index=report * | timechart span=1h count by sourcetype | outputxml'

[ "$GROUPS_N" != 0 ] || exit 0
echo "== memory at $GROUPS_N distinct groups"
timeOne "velmor-search stats count by _raw" "$VS" 'search index=report * | stats count by _raw | stats count | outputxml'
echo "      groups: $(vsum count)"
grep -E '^(WARN|INFO|ERROR):' "$WORK/err" | cut -c1-160 | sed 's/^/      /' || true
