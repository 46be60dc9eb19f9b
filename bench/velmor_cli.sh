#!/usr/bin/env bash
# velmor_cli.sh [build-dir]
# Whole-process time of `velmor search` for a needle (a rare term, and one
# that is nowhere) over one bucket of VELMOR_CLI_BENCH_MB of velmor-genlogs
# output, side by side with velmor-search for the same needle (its first
# 100 hits through `| head 100 | outputxml`): the median of 5 runs each,
# wall-clock milliseconds, the same run.
#
#   VELMOR_CLI_BENCH_MB=1000  size of the generated logs (MiB)
#   VELMOR_CLI_BENCH_KEEP=1   keep the scratch directory (its path is printed)
#   VELMOR_CLI_BENCH_WORK=DIR reuse a kept scratch directory (no generating
#                             or indexing)
#
# The files are added with `velmor add` (timed too). The scratch directory
# lives under /tmp and is removed at the end.
set -euo pipefail

BUILD=${1:-build}
MB=${VELMOR_CLI_BENCH_MB:-1000}
RARE=minecraft   # a user name of the failed logins: about 1 line in 1500
NONE=qzxvbnmw
RUNS=5

for t in velmor velmor-genlogs velmor-search; do
  [ -x "$BUILD/bin/$t" ] || { echo "velmor_cli: $BUILD/bin/$t not found; build first" >&2; exit 1; }
done
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

REUSE=0
if [ -n "${VELMOR_CLI_BENCH_WORK:-}" ]; then
  WORK=$VELMOR_CLI_BENCH_WORK
  REUSE=1
  [ -d "$WORK/home" ] || { echo "velmor_cli: $WORK is not a kept run" >&2; exit 1; }
else
  WORK=$(mktemp -d /tmp/velmor-cli-bench-XXXXXX)
fi
cleanup() {
  if [ "${VELMOR_CLI_BENCH_KEEP:-0}" = 1 ] || [ "$REUSE" = 1 ]; then echo "kept $WORK"; else rm -rf "$WORK"; fi
}
trap cleanup EXIT

export TZ=UTC NO_COLOR=1
export VELMOR_HOME="$WORK/home"
export VELMOR_DB="$VELMOR_HOME/var/lib/velmor/db"
now_ms() { echo $(($(date +%s%N) / 1000000)); }

if [ "$REUSE" = 0 ]; then
  echo "== Making $MB MB of sample logs"
  "$BUILD/bin/velmor-genlogs" --seed 20261124 --size "${MB}M" --days 7 --start 2026-11-01 --hosts 6 \
    --formats syslog,access,kv,json --out "$WORK/logs" > "$WORK/manifest" 2>/dev/null
  mapfile -t FILES < <(cut -f1 "$WORK/manifest")
  echo "   $(cat "${FILES[@]}" | wc -l) lines in ${#FILES[@]} files"
  echo "== Adding them with velmor add to one bucket of the index 'bench'"
  bash "$ROOT/scripts/mkhome.sh" "$VELMOR_HOME" >/dev/null
  cat >> "$VELMOR_HOME/etc/bundles/local/indexes.conf" <<'CONF'

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
CONF
  t0=$(now_ms)
  "$BUILD/bin/velmor" add "${FILES[@]}" --index bench 2> "$WORK/add.err" || { cat "$WORK/add.err" >&2; exit 1; }
  t1=$(now_ms)
  echo "   in $(((t1 - t0) / 1000)).$((((t1 - t0) % 1000) / 100)) s"
fi
"$BUILD/bin/velmor" status | sed 's/^/   /'

MS=0
HITS=0
timed() {
  local cmd=$1 i t0 out times=()
  for ((i = 0; i < RUNS; i++)); do
    t0=$(now_ms)
    out=$(bash -c "$cmd") || { echo "velmor_cli: failed: $cmd" >&2; exit 1; }
    times+=($(($(now_ms) - t0)))
  done
  MS=$(printf '%s\n' "${times[@]}" | sort -n | sed -n "$(((RUNS + 1) / 2))p")
  HITS=${out:-0}
}
row() { printf '%-12s %-16s %8s %6s\n' "$1" "$2" "$3" "$4"; }

echo
echo "== The first 100 hits of a needle (median of $RUNS runs, whole processes)"
row "needle" "tool" "ms" "hits"
for term in "$RARE" "$NONE"; do
  timed "'$BUILD/bin/velmor' search '$term' -o raw 2>/dev/null | wc -l"
  row "$term" "velmor search" "$MS" "$HITS"
  timed "'$BUILD/bin/velmor-search' 'search $term | head 100 | outputxml' 2>/dev/null | grep -c '<result ' || true"
  row "$term" "velmor-search" "$MS" "$HITS"
done
