#!/usr/bin/env bash
# jobs_at_scale.sh [build-dir]
# Search jobs over REST at scale, in one run on scratch homes served by
# velmord on free loopback ports (plain HTTP):
#
#   1. post latency  20 posts of a small search to /services/search/jobs:
#                    curl's time_total from the POST to its 201, median, max
#   2. paging        `search index=main` over every event of JOBS_BENCH_MB of
#                    velmor-genlogs output (max_count=1000000, status_buckets=0):
#                    POST to done=1 (status polled every 0.1 s), then every row
#                    paged out of results, count=50000 a page, as csv and json:
#                    rows, seconds (sum of the pages' time_total), rows/s
#   3. peers         two reports, on one server holding every event and on a
#                    head with two peers, the three holding a third each (the
#                    hosts dealt round-robin): POST to done; the bytes the peers
#                    send, measured by asking each peer for the streaming part
#                    and map half the head sends it (the job's status does not
#                    show them); OK when both reports' rows are equal
#
#   JOBS_BENCH_MB=160   size of the generated logs, in 10^6 bytes (~1M events)
#   JOBS_BENCH_KEEP=1   keep the scratch directory (its path is printed)
#
# Every velmord started here is stopped on exit, also on failure.
# Needs curl (7.87 or later, for --url-query) and python3 (to count CSV rows,
# whose values may hold newlines).
set -euo pipefail

BUILD=${1:-build}
MB=${JOBS_BENCH_MB:-160}
export LC_ALL=C TZ=UTC
PAGE=50000
POSTS=20

case "$MB" in
  '' | *[!0-9]* | 0)
    echo "jobs_at_scale: JOBS_BENCH_MB must be a whole number of MB above 0, not '$MB'" >&2
    exit 2
    ;;
esac
for t in velmor-genlogs velmor-index velmord; do
  [ -x "$BUILD/bin/$t" ] || { echo "jobs_at_scale: $BUILD/bin/$t not found; build first" >&2; exit 1; }
done
for t in curl python3; do
  command -v "$t" >/dev/null || { echo "jobs_at_scale: $t not found" >&2; exit 1; }
done
BUILD="$(cd "$BUILD" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
VI="$BUILD/bin/velmor-index"
VD="$BUILD/bin/velmord"
WORK=$(mktemp -d /tmp/velmor-jobs-bench-XXXXXX)

# Homes: "all" holds every event; "head", "peer1", "peer2" a third each.
HOMES=(all head peer1 peer2)
declare -A PORT
PIDS=()
ADMIN_PW=bench-Admin-1
PEER_PW=bench-Peer-1

stopAll() {
  local pid i
  for pid in "${PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${PIDS[@]}"; do
    for i in $(seq 1 600); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
      kill -KILL "$pid" 2>/dev/null || true
      echo "jobs_at_scale: velmord (pid $pid) did not stop within 60 s of SIGTERM; killed" >&2
    fi
  done
  PIDS=()
}
cleanup() {
  stopAll
  if [ "${JOBS_BENCH_KEEP:-0}" = 1 ]; then echo "kept $WORK"; else rm -rf "$WORK"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM
fail() {
  echo "jobs_at_scale: $*" >&2
  exit 1
}

calc() {
  local expr=$1 a args=()
  shift
  for a in "$@"; do args+=(-v "$a"); done
  awk "${args[@]}" "BEGIN { print $expr }" </dev/null
}
since() { calc 'sprintf("%.2f", b - a)' a="$1" b="$EPOCHREALTIME"; }

# A loopback port nothing listens on and not handed out before.
USED_PORTS=" "
freePort() {
  local p i
  for i in $(seq 1 500); do
    p=$((20000 + RANDOM % 40000))
    case "$USED_PORTS" in *" $p "*) continue ;; esac
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null; then
      USED_PORTS+="$p "
      echo "$p"
      return 0
    fi
  done
  fail "no free loopback port found"
}

homeOf() { echo "$WORK/$1"; }
base() { echo "http://127.0.0.1:${PORT[$1]}/services"; }
withHome() {
  local h
  h=$(homeOf "$1")
  shift
  VELMOR_HOME="$h" VELMOR_DB="$h/var/lib/velmor/db" "$@"
}

echo "== Making $MB MB of sample logs"
"$BUILD/bin/velmor-genlogs" --seed 20261125 --size "${MB}MB" --days 7 --start 2026-11-01 --hosts 6 \
  --out "$WORK/logs" > "$WORK/manifest" 2>/dev/null
[ -s "$WORK/manifest" ] || fail "velmor-genlogs listed no files"
mapfile -t HOSTS < <(cut -f1 "$WORK/manifest" | while read -r f; do basename "$(dirname "$f")"; done | sort -u)

for name in "${HOMES[@]}"; do PORT[$name]=$(freePort); done
for name in "${HOMES[@]}"; do
  h=$(homeOf "$name")
  bash "$ROOT/scripts/mkhome.sh" "$h" >/dev/null
  : > "$h/etc/bundles/local/inputs.conf"
  {
    printf '[sslConfig]\nenableSsl = false\n'
    if [ "$name" = head ]; then
      printf '[distributedSearch]\nservers = http://127.0.0.1:%s, http://127.0.0.1:%s\n' "${PORT[peer1]}" "${PORT[peer2]}"
      printf 'username = searcher\npassword = %s\nconnectTimeout = 10\nreceiveTimeout = 600\n' "$PEER_PW"
    fi
  } > "$h/etc/bundles/local/server.conf"
  case "$name" in
    peer*) printf '[seed]\nname = searcher\npassword = %s\n' "$PEER_PW" ;;
    *) printf '[seed]\nname = admin\npassword = %s\n' "$ADMIN_PW" ;;
  esac > "$h/etc/bundles/local/user-seed.conf"
  # A job may keep every event; a REST page holds PAGE rows.
  printf '[search]\nmax_count = 1000000\n\n[restapi]\nmaxresultrows = %s\n' "$PAGE" > "$h/etc/bundles/local/limits.conf"
done

echo "== velmor-index add: every file into 'all', each host's files into one of head, peer1, peer2"
THIRDS=(head peer1 peer2)
t0=$EPOCHREALTIME
i=0
for host in "${HOSTS[@]}"; do
  third=${THIRDS[$((i % 3))]}
  i=$((i + 1))
  while IFS=$'\t' read -r f _ _ st _; do
    [ "$(basename "$(dirname "$f")")" = "$host" ] || continue
    for name in all "$third"; do
      withHome "$name" "$VI" add main "$f" --host "$host" --sourcetype "$st" >/dev/null 2>"$WORK/add.err" || {
        cat "$WORK/add.err" >&2
        fail "velmor-index add failed for $f into $name"
      }
    done
  done < "$WORK/manifest"
done
eventsIn() {
  { withHome "$1" "$VI" info main 2>/dev/null || true; } | awk '$1=="hot"||$1=="warm"||$1=="cold" {s+=$5} END {print s+0}'
}
INDEX_S=$(since "$t0")
TOTAL=$(eventsIn all)
echo "   $TOTAL events in 'all' ($(awk -F'\t' '{ s += $5 } END { print s }' "$WORK/manifest") by the generator); head $(eventsIn head)," \
  "peer1 $(eventsIn peer1), peer2 $(eventsIn peer2); $INDEX_S s"

echo "== Starting velmord x4"
for name in peer2 peer1 head all; do
  withHome "$name" "$VD" -p "${PORT[$name]}" > "$WORK/velmord.$name.out" 2>&1 || {
    cat "$WORK/velmord.$name.out" >&2
    fail "velmord for $name did not start"
  }
  PIDS+=("$(cat "$(homeOf "$name")/var/run/velmor/velmord.pid")")
done

# login <home> <user> <password>: prints a session key (retries while the port opens).
login() {
  local i out
  for i in $(seq 1 100); do
    out=$(curl -s "$(base "$1")/auth/login" -d "username=$2" -d "password=$3" || true)
    if [[ "$out" =~ \<sessionKey\>([0-9a-f]+)\</sessionKey\> ]]; then
      echo "${BASH_REMATCH[1]}"
      return 0
    fi
    sleep 0.2
  done
  fail "no login to $1: $out"
}
declare -A KEY
KEY[all]=$(login all admin "$ADMIN_PW")
KEY[head]=$(login head admin "$ADMIN_PW")
KEY[peer1]=$(login peer1 searcher "$PEER_PW")
KEY[peer2]=$(login peer2 searcher "$PEER_PW")

# post <home> <search> [curl args...]: sets SID and POST_S (time_total).
post() {
  local name=$1 search=$2 out
  shift 2
  out=$(curl -s -o "$WORK/post.out" -w '%{http_code} %{time_total}' -H "Authorization: Velmor ${KEY[$name]}" \
    "$(base "$name")/search/jobs" --data-urlencode "search=$search" "$@")
  [ "${out%% *}" = 201 ] || fail "POST of '$search' to $name answered ${out%% *}: $(cat "$WORK/post.out")"
  POST_S=${out#* }
  SID=$(sed -n 's:.*<sid>\([^<]*\)</sid>.*:\1:p' "$WORK/post.out")
  [ -n "$SID" ] || fail "no sid in $(cat "$WORK/post.out")"
}
# waitDone <home> <sid> <limit s>: polls the status every 0.1 s until done=1; ENTRY holds it.
waitDone() {
  local t0=$EPOCHREALTIME
  while :; do
    ENTRY=$(curl -s -H "Authorization: Velmor ${KEY[$1]}" "$(base "$1")/search/jobs/$2")
    case "$ENTRY" in *done=1*) break ;; esac
    [ "$(calc '(b - a >= l)' a="$t0" b="$EPOCHREALTIME" l="$3")" = 1 ] && fail "job $2 on $1 not done after $3 s: $ENTRY"
    sleep 0.1
  done
  grep -o '^\(error=.\|message=\)[^<]*' <<<"$ENTRY" | sed "s/^/   job $2: /" || true
}
# The count line of the last status entry.
entryCount() { sed -n 's/^count=\([0-9]*\)$/\1/p' <<<"$ENTRY" | head -1; }

# ---------------------------------------------------------------------------
SMALL='search index=main error | head 10'
echo "== 1. $POSTS posts of '$SMALL' (to 'all')"
: > "$WORK/posts"
SIDS=()
for i in $(seq 1 "$POSTS"); do
  post all "$SMALL"
  echo "$POST_S" >> "$WORK/posts"
  SIDS+=("$SID")
done
for s in "${SIDS[@]}"; do waitDone all "$s" 120; done
read -r P_MED P_MAX < <(sort -g "$WORK/posts" | awk '{ v[NR] = $1 } END {
  m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; printf "%.1f %.1f\n", m * 1000, v[NR] * 1000 }')

# ---------------------------------------------------------------------------
BIG='search index=main'
echo "== 2. '$BIG' max_count=1000000 status_buckets=0, paged out count=$PAGE"
t0=$EPOCHREALTIME
post all "$BIG" -d max_count=1000000 -d status_buckets=0
waitDone all "$SID" 3600
BIG_DONE_S=$(since "$t0")
BIG_COUNT=$(entryCount)
echo "   done in $BIG_DONE_S s, count=$BIG_COUNT"
declare -A ROWS SECS
for mode in csv json; do
  off=0 rows=0 secs=0
  while [ "$off" -lt "$BIG_COUNT" ]; do
    out=$(curl -s -o "$WORK/page" -w '%{http_code} %{time_total}' -H "Authorization: Velmor ${KEY[all]}" \
      "$(base all)/search/jobs/$SID/results?output_mode=$mode&offset=$off&count=$PAGE")
    secs=$(calc 'a + b' a="$secs" b="${out#* }")
    # 204: no rows from here on (the status count may run past the rows kept).
    [ "${out%% *}" = 204 ] && break
    [ "${out%% *}" = 200 ] || fail "results ($mode, offset $off) answered ${out%% *}: $(head -c 300 "$WORK/page")"
    if [ "$mode" = csv ]; then
      n=$(python3 -c 'import csv, sys; print(max(0, sum(1 for _ in csv.reader(open(sys.argv[1], newline="")))-1))' "$WORK/page")
    else
      n=$(grep -c $'^\t{$' "$WORK/page" || true)
    fi
    [ "$n" -gt 0 ] || fail "results ($mode, offset $off) gave no rows"
    rows=$((rows + n))
    off=$((off + PAGE))
    [ "$n" -eq "$PAGE" ] || break
  done
  ROWS[$mode]=$rows
  SECS[$mode]=$(calc 'sprintf("%.2f", s)' s="$secs")
  echo "   $mode: $rows rows in ${SECS[$mode]} s"
done

# ---------------------------------------------------------------------------
echo "== 3. one server vs a head with two peers"
REPORTS=('search index=main | stats count by host'
  'search index=main sourcetype=app_kv | stats count avg(duration_ms) by component')
# The part each peer runs: the streaming part and the map half of stats.
MAPS=('search index=main | prestats count by host'
  'search index=main sourcetype=app_kv | prestats count avg(duration_ms) by component')
declare -A WALL BYTES SAME PEER_S
for r in 0 1; do
  # The head runs each report twice: the second run shows what the first
  # paid for logging in to the peers.
  for name in all head head2; do
    t0=$EPOCHREALTIME
    [ "$name" = head2 ] && name=head
    post "$name" "${REPORTS[$r]}"
    waitDone "$name" "$SID" 3600
    [ -n "${WALL[$r.$name]:-}" ] && { WALL[$r.head2]=$(since "$t0"); continue; }
    WALL[$r.$name]=$(since "$t0")
    curl -s -H "Authorization: Velmor ${KEY[$name]}" \
      "$(base "$name")/search/jobs/$SID/results?output_mode=csv&count=0" > "$WORK/report.$r.$name"
  done
  if [ -s "$WORK/report.$r.all" ] && cmp -s "$WORK/report.$r.all" "$WORK/report.$r.head"; then
    SAME[$r]=OK
  else
    SAME[$r]=DIFFER
    diff "$WORK/report.$r.all" "$WORK/report.$r.head" | head -10 | sed 's/^/   /' || true
  fi
  b=0 pt=""
  for p in peer1 peer2; do
    out=$(curl -s -o /dev/null -w '%{size_download} %{time_total}' "$(base "$p")/streams/search" \
      --url-query "pipeline=${MAPS[$r]}" --url-query output=csv --url-query is_dispatch=1 \
      --data-urlencode "authtoken=${KEY[$p]}")
    b=$((b + ${out%% *}))
    pt+="$(calc 'sprintf("%.2f", t)' t="${out#* }") s, "
  done
  BYTES[$r]=$b
  PEER_S[$r]=${pt%, }
  echo "   ${REPORTS[$r]}: all ${WALL[$r.all]} s, head ${WALL[$r.head]} s then ${WALL[$r.head2]} s," \
    "$b bytes from peers (their map half alone: ${PEER_S[$r]}), ${SAME[$r]}"
done

# ---------------------------------------------------------------------------
echo
echo "== Search jobs, $MB MB of logs, $TOTAL events (indexing took $INDEX_S s)"
printf '%-64s %s\n' "figure" "value"
printf '%-64s %s\n' "POST -> 201, $POSTS posts of '$SMALL'" "median $P_MED ms, max $P_MAX ms"
printf '%-64s %s\n' "'$BIG' max_count=1000000 status_buckets=0: POST -> done" "$BIG_DONE_S s (status count=$BIG_COUNT)"
for mode in csv json; do
  printf '%-64s %s\n' "  results output_mode=$mode count=$PAGE, all pages" \
    "${ROWS[$mode]} rows, ${SECS[$mode]} s, $(calc 'sprintf("%.0f", r / (s > 0 ? s : 1))' r="${ROWS[$mode]}" s="${SECS[$mode]}") rows/s"
done
for r in 0 1; do
  printf '%s\n' "'${REPORTS[$r]}'"
  printf '%-64s %s\n' "  one server (all events): POST -> done" "${WALL[$r.all]} s"
  printf '%-64s %s\n' "  head + 2 peers (a third each): POST -> done, 1st and 2nd run" "${WALL[$r.head]} s, ${WALL[$r.head2]} s"
  printf '%-64s %s\n' "  each peer's map half alone (time_total)" "${PEER_S[$r]}"
  printf '%-64s %s\n' "  bytes from the peers ('${MAPS[$r]#search index=main}')" "${BYTES[$r]}"
  printf '%-64s %s\n' "  rows of both reports equal" "${SAME[$r]}"
done
echo
echo "Commands (KEY from POST /services/auth/login, the sid from the POST's <sid>):"
echo "  curl -s -w '%{time_total}' -H \"Authorization: Velmor \$KEY\" \$BASE/search/jobs --data-urlencode 'search=...' [-d max_count=1000000 -d status_buckets=0]"
echo "  curl -s -H \"Authorization: Velmor \$KEY\" \$BASE/search/jobs/\$SID        (every 0.1 s until done=1)"
echo "  curl -s -H \"Authorization: Velmor \$KEY\" \"\$BASE/search/jobs/\$SID/results?output_mode=csv|json&offset=N&count=$PAGE\""
echo "  curl -s -o /dev/null -w '%{size_download}' \$PEER/streams/search --url-query 'pipeline=<search> | prestats ...' \\"
echo "       --url-query output=csv --url-query is_dispatch=1 --data-urlencode authtoken=\$PEERKEY"
