#!/usr/bin/env bash
# ingest_at_scale.sh [build-dir]
# Ingest cost at scale: how long indexing INGEST_BENCH_MB of velmor-genlogs
# output takes, in wall-clock and CPU seconds, and how many bytes the index
# keeps on disk per raw byte, side by side with two other ways of storing the
# same lines, all in the same run:
#
#   velmor-index add   one run per host over that host's files (the runs are
#                      summed), into the index "ingest", which keeps
#                      everything in one bucket; the time from its "merging
#                      the slices" line to its exit (the last optimiser run
#                      and the close) is shown apart
#   velmor-index roll  the hot bucket turned warm
#   sqlite3 FTS5       one table, the same lines as one file, .import
#   gzip -6 -c         the same file
#
# CPU seconds are user + system of the timed process and the children it
# waited for (/usr/bin/time). The logs are written just before, so every tool
# reads them from the page cache. Then the one bucket's bytes by section: raw
# data (rawdata/*.gz), slices (*.tsidx), metadata tables (*.data) and the
# rest, with bytes per event, and the slices by section (velmor-tsidx
# sections): values, attribute arrays, term tables, lexicons, postings.
#
#   INGEST_BENCH_MB=1000   size of the generated logs, in 10^6 bytes (a 1000
#                          MB run takes well over ten minutes)
#   INGEST_BENCH_KEEP=1    keep the scratch directory (its path is printed)
#   INGEST_BENCH_LOGS=DIR  keep the generated logs in DIR and use them again
#                          when DIR already holds them for this size
#   INGEST_BENCH_STANZA='maxValues = 262144'  settings added to the index's
#                          stanza (one per line), to try other sizes
#   INGEST_BENCH_PEERS=0   skip sqlite3 and gzip (while iterating on velmor)
#
# Needs sqlite3 (with FTS5), gzip and /usr/bin/time. The scratch directory
# lives under /tmp and is removed at the end.
set -euo pipefail

BUILD=${1:-build}
MB=${INGEST_BENCH_MB:-1000}
export LC_ALL=C TZ=UTC

case "$MB" in
  '' | *[!0-9]* | 0)
    echo "ingest_at_scale: INGEST_BENCH_MB must be a whole number of MB above 0, not '$MB'" >&2
    exit 2
    ;;
esac
for t in velmor-genlogs velmor-index velmor-tsidx; do
  if [ ! -x "$BUILD/bin/$t" ]; then
    echo "ingest_at_scale: $BUILD/bin/$t not found; build first" >&2
    exit 1
  fi
done
PEERS=${INGEST_BENCH_PEERS:-1}
for t in gzip /usr/bin/time $([ "$PEERS" = 0 ] || echo sqlite3); do
  if ! command -v "$t" >/dev/null; then
    echo "ingest_at_scale: $t not found; it is needed to compare with" >&2
    exit 1
  fi
done
if [ "$PEERS" != 0 ] && ! sqlite3 :memory: 'CREATE VIRTUAL TABLE t USING fts5(x)' >/dev/null 2>&1; then
  echo "ingest_at_scale: this sqlite3 has no FTS5" >&2
  exit 1
fi
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
VI="$BUILD/bin/velmor-index"

WORK=$(mktemp -d /tmp/velmor-ingest-bench-XXXXXX)
cleanup() {
  if [ "${INGEST_BENCH_KEEP:-0}" = 1 ]; then
    echo "kept $WORK"
  else
    rm -rf "$WORK"
  fi
}
trap cleanup EXIT

export VELMOR_HOME="$WORK/home"
export VELMOR_DB="$VELMOR_HOME/var/lib/velmor/db"
HOMEPATH="$VELMOR_DB/ingest/db"
PLAIN="$WORK/all.log"
FTS="$WORK/fts.db"
TIMES="$WORK/time"   # what /usr/bin/time writes: "wall user sys"

# Prefixes each line of standard input with the time it arrived.
stamp() {
  local l
  while IFS= read -r l; do printf '%s %s\n' "$EPOCHREALTIME" "$l"; done
}

# Floating-point arithmetic: calc '<awk expression>' [name=value...].
calc() {
  local expr=$1 a args=()
  shift
  for a in "$@"; do args+=(-v "$a"); done
  awk "${args[@]}" "BEGIN { print $expr }" </dev/null
}

# Adds the "wall user sys" of the last timed run to WALL and CPU.
WALL=0
CPU=0
addTimes() {
  local w u s
  read -r w u s < "$TIMES"
  WALL=$(calc 'a + w' a="$WALL" w="$w")
  CPU=$(calc 'a + u + s' a="$CPU" u="$u" s="$s")
}

# Runs one command under /usr/bin/time: WALL and CPU become its own, and
# its exit status is returned.
timeOne() {
  local rc=0
  /usr/bin/time -f '%e %U %S' -o "$TIMES" "$@" || rc=$?
  WALL=0
  CPU=0
  addTimes
  return "$rc"
}

dub() { du -sb "$1" | cut -f1; }

LOGS=${INGEST_BENCH_LOGS:-$WORK/logs}
if [ -s "$LOGS/manifest.$MB" ]; then
  echo "== Using the sample logs of $LOGS"
else
  echo "== Making $MB MB of sample logs"
  mkdir -p "$LOGS"
  "$BUILD/bin/velmor-genlogs" --seed 20261124 --size "${MB}MB" --days 7 --start 2026-11-01 --hosts 6 \
    --formats syslog,access,kv,json --out "$LOGS/$MB" > "$LOGS/manifest.$MB.tmp" 2>/dev/null
  mv "$LOGS/manifest.$MB.tmp" "$LOGS/manifest.$MB"
fi
mapfile -t FILES < <(cut -f1 "$LOGS/manifest.$MB")
[ "${#FILES[@]}" -gt 0 ] || { echo "ingest_at_scale: velmor-genlogs listed no files" >&2; exit 1; }
cat "${FILES[@]}" > "$PLAIN"
RAW=$(stat -c %s "$PLAIN")
LINES=$(wc -l < "$PLAIN")
# Files go to <out>/<host>/<name>.log: the host is the parent directory.
mapfile -t HOSTS < <(for f in "${FILES[@]}"; do basename "$(dirname "$f")"; done | sort -u)
echo "   $LINES lines, $RAW bytes in ${#FILES[@]} files of ${#HOSTS[@]} hosts"

echo "== Laying out the index 'ingest'"
bash "$ROOT/scripts/mkhome.sh" "$VELMOR_HOME" >/dev/null
cat >> "$VELMOR_HOME/etc/bundles/local/indexes.conf" <<'EOF'

[ingest]
homePath = $VELMOR_DB/ingest/db
coldPath = $VELMOR_DB/ingest/colddb
thawedPath = $VELMOR_DB/ingest/thaweddb
maxDataSize = 1000000
maxWarmDBCount = 1000
frozenTimePeriodInSecs = 2147483647
EOF
[ -z "${INGEST_BENCH_STANZA:-}" ] || printf '%s\n' "$INGEST_BENCH_STANZA" >> "$VELMOR_HOME/etc/bundles/local/indexes.conf"

echo "== velmor-index add, one run per host"
WALL=0
CPU=0
MERGE=0
: > "$WORK/add.err"
for h in "${HOSTS[@]}"; do
  mine=()
  for f in "${FILES[@]}"; do [ "$(basename "$(dirname "$f")")" = "$h" ] && mine+=("$f"); done
  # The run's stderr goes through stamp; /usr/bin/time writes to its own file.
  if ! { /usr/bin/time -f '%e %U %S' -o "$TIMES" "$VI" add ingest "${mine[@]}" --host "$h" 2>&1 >/dev/null; } |
    stamp > "$WORK/add.$h.err"; then
    cut -d' ' -f2- "$WORK/add.$h.err" >&2
    echo "ingest_at_scale: velmor-index add failed for host $h" >&2
    exit 1
  fi
  end=$EPOCHREALTIME
  addTimes
  # The final merge starts at its line and lasts until the run ends.
  m=$(awk '/velmor-index: merging the slices of / { print $1; exit }' "$WORK/add.$h.err")
  [ -z "$m" ] || MERGE=$(calc 'a + e - m' a="$MERGE" e="$end" m="$m")
  cat "$WORK/add.$h.err" >> "$WORK/add.err"
  printf '   %-10s %2d files  %7.1f s wall\n' "$h" "${#mine[@]}" "$(cut -d' ' -f1 "$TIMES")"
done
ADD_WALL=$WALL
ADD_CPU=$CPU
ADD_DISK=$(dub "$HOMEPATH")
MERGES=$(grep -c 'velmor-index: merging the slices of ' "$WORK/add.err" || true)

echo "== velmor-index roll"
if ! timeOne "$VI" roll ingest 2> "$WORK/roll.err"; then
  cat "$WORK/roll.err" >&2
  echo "ingest_at_scale: velmor-index roll failed" >&2
  exit 1
fi
sed 's/^/   /' "$WORK/roll.err"
ROLL_WALL=$WALL
ROLL_CPU=$CPU
DISK=$(dub "$HOMEPATH")
"$VI" info ingest > "$WORK/info"
sed 's/^/   /' "$WORK/info"

if [ "$PEERS" != 0 ]; then
  echo "== sqlite3 FTS5, one table, .import"
  cat > "$WORK/fts.sql" <<EOF
CREATE VIRTUAL TABLE lines USING fts5(line);
.mode ascii
.separator "\\037" "\\n"
.import $PLAIN lines
EOF
  timeOne sqlite3 "$FTS" < "$WORK/fts.sql"
  FTS_WALL=$WALL
  FTS_CPU=$CPU
  FTS_DISK=$(stat -c %s "$FTS")
  echo "   $(sqlite3 "$FTS" 'SELECT count(*) FROM lines') rows"

  echo "== gzip -6 -c"
  timeOne gzip -6 -c "$PLAIN" > "$PLAIN.gz"
  GZ_WALL=$WALL
  GZ_CPU=$CPU
  GZ_DISK=$(stat -c %s "$PLAIN.gz")
fi

# One row: tool, wall s, CPU s, MB per CPU second, bytes on disk per raw byte
# (the last given as bytes, or "-"). A rate over less than 0.1 CPU second
# says nothing and is shown as "-".
row() {
  local disk=$4 rate ratio
  rate=$(calc '(c >= 0.1) ? sprintf("%.1f", r / 1e6 / c) : "-"' r="$RAW" c="$3")
  ratio=-
  [ "$disk" = - ] || ratio=$(calc 'sprintf("%.3f", d / r)' d="$disk" r="$RAW")
  printf '%-32s %9.1f %9.1f %10s %12s\n' "$1" "$2" "$3" "$rate" "$ratio"
}

echo
echo "== Ingest of $RAW raw bytes ($LINES lines)"
printf '%-32s %9s %9s %10s %12s\n' "tool" "wall s" "CPU s" "MB/CPU s" "disk B/raw B"
row "velmor-index add (${#HOSTS[@]} runs)" "$ADD_WALL" "$ADD_CPU" "$ADD_DISK"
printf '%-32s %9.1f %9s %10s %12s\n' "  of which final merge ($MERGES)" "$MERGE" - - -
row "velmor-index roll" "$ROLL_WALL" "$ROLL_CPU" -
row "velmor-index add + roll" "$(calc 'a + b' a="$ADD_WALL" b="$ROLL_WALL")" \
  "$(calc 'a + b' a="$ADD_CPU" b="$ROLL_CPU")" "$DISK"
if [ "$PEERS" != 0 ]; then
  row "sqlite3 FTS5 (.import)" "$FTS_WALL" "$FTS_CPU" "$FTS_DISK"
  row "gzip -6 -c" "$GZ_WALL" "$GZ_CPU" "$GZ_DISK"
fi

# The one bucket holding events (the roll leaves an empty hot one beside it).
mapfile -t BUCKETS < <(awk 'NR > 1 && $5 > 0 { print $5, $NF }' "$WORK/info")
if [ "${#BUCKETS[@]}" != 1 ]; then
  echo "ingest_at_scale: expected one bucket holding events in $HOMEPATH, velmor-index info lists ${#BUCKETS[@]}" >&2
  exit 1
fi
read -r EVENTS name <<< "${BUCKETS[0]}"
BUCKET="$HOMEPATH/$name"
[ -d "$BUCKET/rawdata" ] || { echo "ingest_at_scale: $BUCKET has no rawdata directory" >&2; exit 1; }
echo
echo "== Velmor bucket $(basename "$BUCKET"): $EVENTS events, $DISK bytes on disk," \
  "$(calc 'sprintf("%.1f", d / e)' d="$DISK" e="$EVENTS") bytes per event" \
  "($(calc 'sprintf("%.1f", r / e)' r="$RAW" e="$EVENTS") raw)"
[ "$EVENTS" = "$LINES" ] || echo "   (note: $LINES lines but $EVENTS events)"
printf '%-30s %12s %8s %12s %10s\n' "section" "bytes" "share" "per raw byte" "per event"
find "$BUCKET" -type f -printf '%s %P\n' | awk -v raw="$RAW" -v ev="$EVENTS" '
  {
    if ($2 ~ /^rawdata\// && $2 ~ /\.gz$/) s = "raw gz (rawdata/*.gz)"
    else if ($2 ~ /\.tsidx$/) s = "slices (*.tsidx)"
    else if ($2 ~ /\.data$/) s = "metadata tables (*.data)"
    else s = "other"
    bytes[s] += $1
    total += $1
  }
  END {
    n = split("raw gz (rawdata/*.gz)|slices (*.tsidx)|metadata tables (*.data)|other", order, "|")
    for (i = 1; i <= n; i++) {
      b = bytes[order[i]] + 0
      printf "%-30s %12d %7.1f%% %12.4f %10.1f\n", order[i], b, (total ? 100 * b / total : 0), b / raw, b / ev
    }
    printf "%-30s %12d %7.1f%% %12.4f %10.1f\n", "files of the bucket", total, 100, total / raw, total / ev
  }'

echo
echo "== Slices of the bucket by section (velmor-tsidx sections)"
"$BUILD/bin/velmor-tsidx" sections "$BUCKET" | sed 's/^/   /'
