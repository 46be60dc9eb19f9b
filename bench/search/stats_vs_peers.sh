#!/usr/bin/env bash
# stats_vs_peers.sh [build-dir]
# `stats count sum(x) avg(x) by g` (and the same with median(x)) over one
# million rows at 10 and at 100,000 groups: bench_stats (the reduce side of
# stats over rows in memory) beside Miller and sqlite3 doing the same over
# a CSV of the same shape, in the same run. Miller's time includes reading
# the CSV; sqlite3's is the query alone, over a table loaded beforehand.
#
# Needs mlr and sqlite3.
set -euo pipefail

BUILD=${1:-build}
export LC_ALL=C
for t in mlr sqlite3; do
  command -v "$t" >/dev/null || { echo "stats_vs_peers: $t not found; it is needed to compare with" >&2; exit 1; }
done
[ -x "$BUILD/bench/search/bench_stats" ] || { echo "stats_vs_peers: $BUILD/bench/search/bench_stats not built" >&2; exit 1; }

WORK=$(mktemp -d /tmp/velmor-stats-bench-XXXXXX)
trap 'rm -rf "$WORK"' EXIT

secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", b - a }'; }

echo "== bench_stats (velmor)"
"$BUILD/bench/search/bench_stats" --benchmark_min_time=3 2>/dev/null | grep '^BM_' | sed 's/^/   /'

for G in 10 100000; do
  mawk -v G=$G 'BEGIN { srand(7); print "g,x"; for (i = 0; i < 1000000; i++) printf "g%d,%d\n", int(rand() * G), int(rand() * 100000) }' \
    > "$WORK/rows.csv"
  sqlite3 "$WORK/rows.db" "DROP TABLE IF EXISTS t" ".mode csv" ".import $WORK/rows.csv t"
  echo "== $G groups"
  t0=$EPOCHREALTIME
  mlr --icsv --ocsv stats1 -a count,sum,mean -f x -g g "$WORK/rows.csv" > /dev/null
  t1=$EPOCHREALTIME
  mlr --icsv --ocsv stats1 -a count,sum,mean,median -f x -g g "$WORK/rows.csv" > /dev/null
  t2=$EPOCHREALTIME
  sqlite3 "$WORK/rows.db" "SELECT g, count(*), sum(x), avg(x) FROM t GROUP BY g" > /dev/null
  t3=$EPOCHREALTIME
  printf '   mlr stats1 count,sum,mean            %s s\n' "$(secs "$t0" "$t1")"
  printf '   mlr stats1 count,sum,mean,median     %s s\n' "$(secs "$t1" "$t2")"
  printf '   sqlite3 GROUP BY (table loaded)      %s s\n' "$(secs "$t2" "$t3")"
done
