#!/usr/bin/env bash
# demo.sh <build-dir> <home>
# Lays out a ready VELMOR_HOME and fills it with a week of generated sample
# logs (and a CSV of the web requests among them), then says what it made.
# Each step is a function, so later steps (indexing, searching) can be added
# after generate_samples.
set -euo pipefail
# With pipefail a writer cut off by an early reader (head) fails the demo
# through SIGPIPE: pipelines here read to the end (sed -n 1,Np) instead.

BUILD=${1:-build}
HOME_DIR=${2:-$PWD/demo-home}
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

# The sample data: fixed seed and span, so every demo sees the same logs.
SAMPLE_SEED=20261116
SAMPLE_SIZE=50M
SAMPLE_DAYS=7
SAMPLE_START=2026-11-16
SAMPLE_HOSTS=6

GENLOGS=""
SAMPLES_DIR=""
CSV_FILE=""
MANIFEST=""

find_tools() {
  GENLOGS="$BUILD/bin/velmor-genlogs"
  if [ ! -x "$GENLOGS" ]; then
    echo "demo: $GENLOGS not found; build first (make build)" >&2
    exit 1
  fi
}

layout_home() {
  echo "== Laying out VELMOR_HOME"
  bash "$ROOT/scripts/mkhome.sh" "$HOME_DIR" | grep -v -e '^To use it' -e '^  export ' | sed 's/^/   /'
  HOME_DIR="$(cd "$HOME_DIR" && pwd)"
  export VELMOR_HOME="$HOME_DIR"
  export VELMOR_DB="$HOME_DIR/var/lib/velmor/db"
  SAMPLES_DIR="$VELMOR_HOME/var/log/samples"
  CSV_FILE="$VELMOR_HOME/var/run/velmor/sample_access.csv"
  MANIFEST="$SAMPLES_DIR/MANIFEST"
}

# The HTTP side of the demo home: a self-signed certificate for the
# management port (made once with the openssl command) and the first user,
# "admin", seeded through user-seed.conf on velmord's first start. The
# password is drawn once, kept in etc/auth/demo-admin-password (mode 0600)
# and printed, so that later demos log in with the same one.
HTTP_PORT=${VELMOR_DEMO_PORT:-8089}
HTTPS_PORT=${VELMOR_DEMO_SSL_PORT:-8090}
ADMIN_PASSWORD=""

setup_logins() {
  local auth="$VELMOR_HOME/etc/auth" pwfile
  mkdir -p "$auth"
  chmod 700 "$auth"
  if [ ! -s "$auth/server.pem" ]; then
    openssl req -x509 -newkey rsa:2048 -nodes -days 825 -subj "/CN=localhost" \
      -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" \
      -keyout "$auth/server.key" -out "$auth/server.crt" 2>/dev/null
    cat "$auth/server.crt" "$auth/server.key" > "$auth/server.pem"
    chmod 600 "$auth/server.key" "$auth/server.pem"
  fi
  pwfile="$auth/demo-admin-password"
  if [ ! -s "$pwfile" ]; then
    (umask 077 && openssl rand -base64 18 | tr -d '/+=\n' > "$pwfile")
  fi
  ADMIN_PASSWORD=$(cat "$pwfile")
  if [ ! -s "$VELMOR_HOME/etc/passwd" ]; then
    (umask 077 && printf '[seed]\nname = admin\npassword = %s\n' "$ADMIN_PASSWORD" \
      > "$VELMOR_HOME/etc/bundles/local/user-seed.conf")
  fi
  # Plain HTTP on the management port, HTTPS on a port of its own.
  cat > "$VELMOR_HOME/etc/bundles/local/server.conf" <<EOF2
# Written by the demo: HTTP on the management port (velmord -p), HTTPS on sslPort.
[sslConfig]
enableSsl = false
sslPort = $HTTPS_PORT
EOF2
  # A role for the web team: ordinary search rights, and only the web hosts.
  cat > "$VELMOR_HOME/etc/bundles/local/authorize.conf" <<'EOF2'
# Written by the demo: the web team sees only the events of the web hosts.
[role_webteam]
importRoles = user
srchFilter = host=web-01 OR host=web-02
EOF2
  echo "== Logins: http://127.0.0.1:$HTTP_PORT/ and https://127.0.0.1:$HTTPS_PORT/ (self-signed certificate $auth/server.pem)"
  echo "   user admin, password $ADMIN_PASSWORD (kept in $pwfile)"
}

# Logs in to the running velmord over HTTPS with curl and calls its REST
# paths: the services list with the session key, a wrong password (401),
# and the same list with HTTP digest authentication.
http_demo() {
  local base="https://127.0.0.1:$HTTPS_PORT" plain="http://127.0.0.1:$HTTP_PORT" reply key code
  echo "== Logging in to velmord over HTTPS with curl"
  echo "   curl -k $base/services/auth/login -d username=admin -d password=..."
  reply=$(curl -sk --max-time 10 "$base/services/auth/login" --data-urlencode username=admin \
    --data-urlencode "password=$ADMIN_PASSWORD")
  key=$(printf '%s' "$reply" | sed -n 's:.*<sessionKey>\(.*\)</sessionKey>.*:\1:p')
  if [ -z "$key" ]; then
    echo "demo: login failed: $reply" >&2
    exit 1
  fi
  echo "   session key: ${key:0:8}... ($(printf '%s' "$key" | wc -c) characters)"
  echo "   curl -k -H 'Authorization: Velmor <key>' $base/services"
  curl -sk --max-time 10 -H "Authorization: Velmor $key" "$base/services" | grep -o '<title>[^<]*</title>' \
    | sed 's/^/     /'
  echo "   curl -H 'Authorization: Velmor <key>' $plain/services/server/info   (plain HTTP, the same session)"
  curl -s --max-time 10 -H "Authorization: Velmor $key" "$plain/services/server/info" | sed 's/^/     /'
  code=$(curl -sk --max-time 10 -o /dev/null -w '%{http_code}' "$base/services/auth/login" \
    -d username=admin -d password=wrong)
  echo "   a wrong password: HTTP $code"
  code=$(curl -sk --max-time 10 -o /dev/null -w '%{http_code}' --digest -u "admin:$ADMIN_PASSWORD" "$base/services/server/info")
  echo "   digest authentication (curl --digest -u admin:...) on /services/server/info: HTTP $code"
  local sid i done_ search='search index=live error | stats count by host'
  echo "== A search job over REST"
  echo "   curl -k -H 'Authorization: Velmor <key>' $base/services/search/jobs -d search='$search'"
  sid=$(curl -sk --max-time 10 -H "Authorization: Velmor $key" "$base/services/search/jobs" \
    --data-urlencode "search=$search" | sed -n 's:.*<sid>\(.*\)</sid>.*:\1:p')
  if [ -z "$sid" ]; then
    echo "demo: the search job was not created" >&2
    exit 1
  fi
  echo "   201 Created, sid $sid; its status until done:"
  for i in $(seq 1 100); do
    done_=$(curl -sk --max-time 10 -H "Authorization: Velmor $key" "$base/services/search/jobs/$sid" \
      | sed -n 's/^done=//p')
    [ "$done_" = 1 ] && break
    sleep 0.2
  done
  curl -sk --max-time 10 -H "Authorization: Velmor $key" "$base/services/search/jobs/$sid" \
    | grep -E '^(done|count|error|ttl)=' | tr '\n' ' ' | sed 's/^/     /; s/$/\n/'
  echo "   curl -k -H 'Authorization: Velmor <key>' '$base/services/search/jobs/$sid/results?output_mode=json'"
  curl -sk --max-time 10 -H "Authorization: Velmor $key" "$base/services/search/jobs/$sid/results?output_mode=json" \
    | python3 -c 'import json, sys
rows = json.load(sys.stdin)
print("     %d rows, %d events holding \"error\":" % (len(rows), sum(int(r["count"]) for r in rows)))
for r in rows: print("       %-8s %s" % (r["host"], r["count"]))'
}

generate_samples() {
  echo "== Generating sample logs ($SAMPLE_SIZE over $SAMPLE_DAYS days from $SAMPLE_START, seed $SAMPLE_SEED)"
  rm -rf "$SAMPLES_DIR"
  mkdir -p "$SAMPLES_DIR"
  "$GENLOGS" --seed "$SAMPLE_SEED" --size "$SAMPLE_SIZE" --days "$SAMPLE_DAYS" --start "$SAMPLE_START" \
    --hosts "$SAMPLE_HOSTS" --out "$SAMPLES_DIR" --csv "$CSV_FILE" > "$MANIFEST.tmp" 2> "$SAMPLES_DIR/genlogs.err" || {
    cat "$SAMPLES_DIR/genlogs.err" >&2
    exit 1
  }
  mv "$MANIFEST.tmp" "$MANIFEST"
  sed 's/^velmor-genlogs: /   /' "$SAMPLES_DIR/genlogs.err"
  rm -f "$SAMPLES_DIR/genlogs.err"
}

summarise() {
  echo "== Sample data"
  awk -F'\t' -v root="$SAMPLES_DIR/" '
    { sub(root, "", $1); n++; lines += $2; bytes += $3; type[$4] += $3; files[$4]++ }
    END {
      printf "   %d files, %d lines, %.1f MB under %s\n", n, lines, bytes / 1e6, root
      for (t in type) printf "     %-12s %2d files  %7.1f MB\n", t, files[t], type[t] / 1e6 | "sort"
      close("sort")
    }' "$MANIFEST"
  local last_day
  last_day=$(date -u -d "$SAMPLE_START + $((SAMPLE_DAYS - 1)) days" +%Y-%m-%d 2>/dev/null || echo "?")
  echo "   time span: $SAMPLE_START 00:00:00 to $last_day 23:59:59 UTC, busiest in the afternoons"
  echo "   hosts: $(cut -f1 "$MANIFEST" | xargs -n1 dirname | xargs -n1 basename | sort -u | tr '\n' ' ')"
  echo "   web requests as CSV: $CSV_FILE ($(($(wc -l < "$CSV_FILE") - 1)) rows)"
  echo "   file list with line counts, sizes and source types: $MANIFEST"
  echo "== To use this installation"
  echo "   export VELMOR_HOME=$VELMOR_HOME"
  echo "   export VELMOR_DB=$VELMOR_DB"
}

# The merged view of one property file, as every component reads it.
show_config() {
  echo "== Layered configuration: limits, stanza [search] (local > other bundles > default > learned)"
  "$BUILD/bin/velmor-conf" --layers limits search | sed 's/^/   /'
}

# Indexes every sample log into the index "demo" with velmor-index (small
# buckets, so that some roll), rolls the hot bucket, lists the buckets and
# searches a few words, each counted both by the index and by grep.
index_demo() {
  local tool="$BUILD/bin/velmor-index" conf="$VELMOR_HOME/etc/bundles/local/indexes.conf"
  local log="$VELMOR_HOME/var/log/velmor/index_demo.log"
  if [ ! -x "$tool" ]; then
    echo "demo: $tool not found; build first (make build)" >&2
    exit 1
  fi
  if ! grep -qx '\[demo\]' "$conf" 2>/dev/null; then
    cat >> "$conf" <<'EOF'

[default]
# queries that name no index search the demo's
defaultDatabase = demo

[demo]
homePath = $VELMOR_DB/demo/db
coldPath = $VELMOR_DB/demo/colddb
thawedPath = $VELMOR_DB/demo/thaweddb
maxResults = 100000
compressRawdata = true
# small buckets, so that the demo shows some rolling
maxDataSize = 16
maxTotalDataSizeMB = 500000
maxWarmDBCount = 100
# the sample events are days old: keep them
frozenTimePeriodInSecs = 2147483647
EOF
  fi
  rm -rf "$VELMOR_DB/demo"
  echo "== Indexing the sample logs into the index 'demo' with velmor-index"
  local start end path lines bytes type events host files=0 total=0 want=0 got
  start=$(date +%s.%N)
  : > "$log"
  while IFS=$'\t' read -r path lines bytes type events; do
    case "$path" in /*) ;; *) path="$SAMPLES_DIR/$path" ;; esac
    host=$(basename "$(dirname "$path")")
    "$tool" add demo "$path" --host "$host" --sourcetype "$type" 2>> "$log" || {
      cat "$log" >&2
      exit 1
    }
    files=$((files + 1))
    total=$((total + lines))
    want=$((want + events))
  done < "$MANIFEST"
  end=$(date +%s.%N)
  awk -v a="$start" -v b="$end" -v n="$total" -v f="$files" -v e="$want" \
    'BEGIN { printf "   %d lines (%d events) of %d files in %.1f s (%.0f lines/s)\n", n, e, f, b - a, n / (b - a) }'
  got=$(events_in demo)
  if [ "$got" -ne "$want" ]; then
    echo "demo: the index 'demo' holds $got events; velmor-genlogs wrote $want" >&2
    exit 1
  fi
  echo "   the index holds $got events, as many as velmor-genlogs wrote: stack traces joined the line above them"
  java_demo
  echo "== Rolling the hot bucket and listing the buckets"
  "$tool" roll demo 2>&1 | sed 's/^velmor-index: /   /'
  "$tool" info demo | sed 's/^/   /'
  echo "== Searching: events found by the index and lines counted by grep -ciw"
  local w all
  all=$(cut -f1 "$MANIFEST" | sed "s|^\([^/]\)|$SAMPLES_DIR/\1|")
  for w in failed error timeout refused; do
    # shellcheck disable=SC2086
    printf '   %-9s index: %7s   grep: %7s\n' "$w" "$(query_count "$w")" \
      "$(cat $all | grep -ciw -- "$w" || true)"
  done
  echo "== The three newest events holding both 'failed' and 'password'"
  "$tool" search demo failed password --count 3 | cut -c1-150 | sed 's/^/   /'
  echo "== Events of one hour on one host: --earliest/--latest and a host:: term"
  printf '   web-01, 2026-11-18 14:00-15:00: %s events\n' \
    "$("$tool" search demo host::web-01 --earliest 2026-11-18T14:00:00Z --latest 2026-11-18T14:59:59Z --count 100000 | wc -l)"
}

# The number of events an inner query finds in the demo index.
query_count() {
  "$BUILD/bin/velmor-index" query "SEARCH $1 maxresults::1000000 GET events::0-0 OUTPUT velmorui::2.2" |
    sed -n 's/.*<results type="events" c="[0-9]*" tc="\([0-9]*\)".*/\1/p' | sed -n 1p
}

# Java logs: each stack trace is one event with the ERROR line above it.
# Counts the events of the Java logs against what velmor-genlogs wrote and
# shows the newest trace whole.
java_demo() {
  local want got
  want=$(awk -F'\t' '$4 == "java_log" { e += $5 } END { print e + 0 }' "$MANIFEST")
  got=$(query_count 'sourcetype::java_log')
  echo "== Java stack traces are single events"
  printf '   events of the Java logs: %s in the index, %s written by velmor-genlogs\n' "$got" "$want"
  if [ "$got" != "$want" ]; then
    echo "demo: the Java logs gave $got events, not $want" >&2
    exit 1
  fi
  echo "   the newest event holding 'Caused by':"
  "$BUILD/bin/velmor-index" search demo caused sourcetype::java_log --count 1 | sed -n 1,14p | cut -c1-150 | sed 's/^/     /'
}

# Runs inner queries over the demo index with velmor-index query: the ten
# newest events holding "error" but not "debug", as a result document, and
# the counts of a few queries next to grep's.
query_demo() {
  local tool="$BUILD/bin/velmor-index" all q doc
  all=$(cut -f1 "$MANIFEST" | sed "s|^\([^/]\)|$SAMPLES_DIR/\1|")
  q='SEARCH error NOT debug GET events::0-9 OUTPUT velmorui::2.2'
  echo "== Inner query: velmor-index query '$q'"
  doc=$("$tool" query "$q")
  printf '%s\n' "${doc:0:1500}" | sed 's/^/   /'
  echo
  echo "   ... ($(printf '%s\n' "$doc" | grep -c '<r ' || true) events in the document)"
  echo "== Counts of inner queries against grep"
  local count
  count() { query_count "$1"; }
  # shellcheck disable=SC2086
  printf '   %-32s index: %7s   grep: %7s\n' "error NOT debug" "$(count 'error NOT debug')" \
    "$(cat $all | grep -iw error | grep -civw debug || true)"
  # shellcheck disable=SC2086
  printf '   %-32s index: %7s   grep: %7s\n' "failed password" "$(count 'failed password')" \
    "$(cat $all | grep -iw failed | grep -ciw password || true)"
  # shellcheck disable=SC2086
  printf '   %-32s index: %7s   grep: %7s\n' "timeout OR refused" "$(count 'timeout OR refused')" \
    "$(cat $all | grep -ciwE 'timeout|refused' || true)"
}

# Searches the demo index with velmor-search: terms with a host:: term, a
# time range, OR and NOT, and a pipeline into sort, dedup and head. Each
# search is printed, then how many events it gave and the first three of
# them (the _raw texts, taken out of the XML that outputxml prints). Two
# terms are counted both ways: all the events velmor-search finds, and the
# lines grep -icw finds in the sample logs; they must agree.
search_demo() {
  local tool="$BUILD/bin/velmor-search" out="$VELMOR_HOME/var/run/velmor/search_demo.out" all
  if [ ! -x "$tool" ]; then
    echo "demo: $tool not found; build first (make build)" >&2
    exit 1
  fi
  all=$(cut -f1 "$MANIFEST" | sed "s|^\([^/]\)|$SAMPLES_DIR/\1|")
  local t0 t1
  t0=$(date -u -d 2026-11-18T14:00:00Z +%s)
  t1=$(date -u -d 2026-11-18T15:00:00Z +%s)
  # Runs one search; sets ROWS to the number of events it printed.
  local ROWS
  run_search() {
    "$tool" "$1" > "$out" 2> "$out.err" || {
      echo "demo: velmor-search failed on: $1" >&2
      cat "$out.err" >&2
      exit 1
    }
    if grep -q '^search processor exception' "$out"; then
      echo "demo: velmor-search refused: $1" >&2
      cat "$out" >&2
      exit 1
    fi
    ROWS=$(grep -c '^<result ' "$out" || true)
  }
  # The first lines of the raw texts of the first three events of the last
  # search.
  first_three() {
    sed -n "/^<field k='_raw'>/{s|^<field k='_raw'><v xml:space='preserve'>||;s|</v></field>\$||;p}" "$out" | sed -n 1,3p |
      sed -e 's/&lt;/</g' -e 's/&gt;/>/g' -e 's/&amp;/\&/g' | cut -c1-150 | sed 's/^/     /'
  }
  echo "== Searching the demo index with velmor-search"
  local s
  for s in \
    "search index=demo failed host::web-01 | head 10 | outputxml" \
    "search index=demo failed password starttimeu::$t0 endtimeu::$t1 | outputxml" \
    "search index=demo ( timeout OR refused ) NOT host::web-01 | head 20 | outputxml" \
    "search index=demo failed password | dedup host | sort host | head 5 | outputxml"; do
    echo "   velmor-search '$s'"
    run_search "$s"
    echo "   $ROWS events; the first three:"
    first_three
  done
  echo "== Counts of velmor-search against grep -icw"
  local w found grepped
  for w in refused timeout; do
    run_search "search index=demo $w | outputxml"
    found=$ROWS
    # shellcheck disable=SC2086
    grepped=$(cat $all | grep -icw -- "$w" || true)
    printf '   %-9s velmor-search: %7s   grep: %7s\n' "$w" "$found" "$grepped"
    if [ "$found" != "$grepped" ]; then
      echo "demo: velmor-search found $found events holding '$w', grep -icw counts $grepped" >&2
      exit 1
    fi
  done
  echo "   counts equal grep"
  rm -f "$out" "$out.err"
}

# Reports with velmor-search. Over the demo index: the key=value logs'
# requests counted by host and status (a field found in the text at search
# time), and a timechart of the events holding "error" by hour and host; both
# read every event they select, chunk by chunk, and their totals are checked
# against grep over the sample logs. Over the CSV of web requests: failed
# requests by host and status, the same by hour (a timechart), the busiest
# URIs (top) and durations by method. Each report's rows are printed as a
# table.
# Helpers of the reports below. REPORT_OUT holds the rows of the last
# report, as outputxml prints them.
REPORT_OUT=""
REPORT_SECS=""
# The rows of the last report as a table: a header of the field names,
# then one line per row.
table() {
  awk '
    /^<result / { n++; next }
    /^<field k=/ {
      k = $0; sub(/^<field k=./, "", k); sub(/.>.*$/, "", k)
      if (!(k in seen)) { seen[k] = 1; cols[++nc] = k }
      v = $0
      if (sub(/^.*<v[^>]*>/, "", v)) { sub(/<\/v>.*$/, "", v); cell[n, k] = v }
      next
    }
    /<text>/ { v = $0; sub(/^.*<text>/, "", v); sub(/<\/text>.*$/, "", v); cell[n, k] = cell[n, k] v }
    END {
      for (c = 1; c <= nc; c++) {
        w[c] = length(cols[c])
        for (r = 1; r <= n && r <= 12; r++) if (length(cell[r, cols[c]]) > w[c]) w[c] = length(cell[r, cols[c]])
      }
      line = ""; for (c = 1; c <= nc; c++) line = line sprintf("%-*s  ", w[c], cols[c]); print line
      for (r = 1; r <= n && r <= 12; r++) {
        line = ""; for (c = 1; c <= nc; c++) line = line sprintf("%-*s  ", w[c], cell[r, cols[c]]); print line
      }
      if (n > 12) print "... (" n " rows)"
    }' "$REPORT_OUT" | sed 's/^/     /'
}
# The sum of every value in the report's rows, except those of the fields
# given (the labels).
total() {
  awk -v skip=" $* " '
    /^<field k=/ { k = $0; sub(/^<field k=./, "", k); sub(/.>.*$/, "", k); next }
    /<text>/ { v = $0; sub(/^.*<text>/, "", v); sub(/<\/text>.*$/, "", v); if (index(skip, " " k " ") == 0) s += v }
    END { print s + 0 }' "$REPORT_OUT"
}
# The values of the fields given, one line per row of the last report.
fieldvalues() {
  awk -v want=" $* " '
    /^<result / { if (line != "") print line; line = ""; next }
    /^<field k=/ { k = $0; sub(/^<field k=./, "", k); sub(/.>.*$/, "", k); next }
    /<text>/ {
      if (index(want, " " k " ") == 0) next
      v = $0; sub(/^.*<text>/, "", v); sub(/<\/text>.*$/, "", v)
      line = line == "" ? v : line " " v
    }
    END { if (line != "") print line }' "$REPORT_OUT"
}
report() {
  echo "   velmor-search '$1'"
  local t0 t1
  t0=$(date +%s.%N)
  "$BUILD/bin/velmor-search" "$1" > "$REPORT_OUT" 2> "$REPORT_OUT.err" || {
    echo "demo: velmor-search failed on: $1" >&2
    cat "$REPORT_OUT.err" >&2
    exit 1
  }
  t1=$(date +%s.%N)
  if grep -q '^search processor exception' "$REPORT_OUT"; then
    echo "demo: velmor-search refused: $1" >&2
    cat "$REPORT_OUT" >&2
    exit 1
  fi
  REPORT_SECS=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.2f", b - a }')
}

report_demo() {
  local all sum want
  REPORT_OUT="$VELMOR_HOME/var/run/velmor/report_demo.out"
  all=$(cut -f1 "$MANIFEST" | sed "s|^\([^/]\)|$SAMPLES_DIR/\1|")
  echo "== Reports over the demo index with velmor-search"
  report "search index=demo sourcetype=app_kv | stats count by host status | outputxml"
  table
  sum=$(total host status)
  # shellcheck disable=SC2086
  want=$(cat $all | grep -cE '^[0-9-]+T[0-9:.]+Z level=[A-Z]+ .* status=' || true)
  printf '   %s requests counted in %.2f s; grep counts %s key=value lines with a status\n' "$sum" "$REPORT_SECS" "$want"
  if [ "$sum" != "$want" ]; then
    echo "demo: the report counted $sum requests, grep finds $want" >&2
    exit 1
  fi
  report "search index=demo error | timechart span=1h count by host | convert ctime(_time) | outputxml"
  table
  sum=$(total _time)
  # shellcheck disable=SC2086
  want=$(cat $all | grep -icw error || true)
  printf '   %s events holding "error" charted in %.2f s; grep -icw counts %s\n' "$sum" "$REPORT_SECS" "$want"
  if [ "$sum" != "$want" ]; then
    echo "demo: the timechart counted $sum events holding error, grep -icw finds $want" >&2
    exit 1
  fi
  echo "== Reports over the CSV of web requests with velmor-search"
  for s in \
    "| inputcsv sample_access.csv | where status >= 500 | stats count by host status | outputxml" \
    "| inputcsv sample_access.csv | where status >= 500 | timechart span=1h count by host | head 8 | convert ctime(_time) | outputxml" \
    "| inputcsv sample_access.csv | top limit=5 uri | outputxml" \
    "| inputcsv sample_access.csv | stats count avg(duration) perc95(duration) max(bytes) by method | outputxml"; do
    report "$s"
    table
  done
  rm -f "$REPORT_OUT" "$REPORT_OUT.err"
}

# Fields found in the text at search time: the access logs' status (a
# REPORT- rule of the shipped props.conf), checked against awk over the same
# files; the key=value logs' durations by component; a rex typed in the
# search; and the web sessions of the access logs as transactions (the
# shipped type web_session: one client, no pause over ten minutes), their
# count checked against awk's own grouping of the same lines.
field_demo() {
  local access sum want rows
  REPORT_OUT="$VELMOR_HOME/var/run/velmor/field_demo.out"
  access=$(awk -F'\t' -v root="$SAMPLES_DIR/" '$1 ~ /\/access\.log$/ { p = $1; if (p !~ /^\//) p = root p; print p }' "$MANIFEST")
  echo "== Fields from the text at search time"
  report "search index=demo sourcetype=web_access | stats count by status | sort status | outputxml"
  table
  rows=$(fieldvalues status count | sort)
  # shellcheck disable=SC2086
  want=$(cat $access | awk '{ n[$9]++ } END { for (s in n) print s, n[s] }' | sort)
  if [ "$rows" != "$want" ]; then
    echo "demo: requests by status differ from awk's:" >&2
    diff <(echo "$rows") <(echo "$want") >&2 || true
    exit 1
  fi
  printf '   every status count equals awk'"'"'s over the access logs (%s requests, %.2f s)\n' "$(total status)" "$REPORT_SECS"
  report "search index=demo sourcetype=app_kv | stats count avg(duration_ms) max(duration_ms) by component | sort -count | outputxml"
  table
  report 'search index=demo sourcetype=web_access | rex "\"[A-Z]+ /(?<section>[a-z]+)" | top limit=5 section | outputxml'
  table
  echo "== Web sessions as transactions (transactiontypes.conf [web_session]: by clientip, pauses under 10 minutes)"
  report "search index=demo sourcetype=web_access | transaction web_session | stats count as sessions avg(count) as requests_per_session avg(duration) as seconds_per_session max(count) as longest | outputxml"
  table
  sum=$(fieldvalues sessions)
  # The same grouping by awk: a client's request more than 600 s after its
  # previous one, or 4 hours after the session's first, or after 1000
  # requests, starts a session.
  # shellcheck disable=SC2086
  want=$(cat $access | TZ=UTC awk '{
      split(substr($4, 2), t, /[\/:]/)
      m = (index("JanFebMarAprMayJunJulAugSepOctNovDec", t[2]) + 2) / 3
      print $1, mktime(t[3] " " m " " t[1] " " t[4] " " t[5] " " t[6])
    }' | sort -k1,1 -k2,2n | awk '$1 != ip || $2 - last > 600 || $2 - first > 14400 || k == 1000 { n++; first = $2; k = 0 }
           { ip = $1; last = $2; k++ } END { print n + 0 }')
  printf '   %s sessions in %.2f s; awk groups the same lines into %s\n' "$sum" "$REPORT_SECS" "$want"
  if [ "$sum" != "$want" ]; then
    echo "demo: transaction found $sum web sessions, awk $want" >&2
    exit 1
  fi
  report "search index=demo sourcetype=web_access | transaction web_session | sort -count | head 3 | fields clientip count duration | fields - _raw _time | outputxml"
  table
  rm -f "$REPORT_OUT" "$REPORT_OUT.err"
}

# Searches the CSV of web requests with velmor-search: the server errors,
# their size in KB, the slowest first, one per client, the top ten, written
# back with outputcsv (usexml=true, so the tool prints the rows as XML).
search_csv_demo() {
  local search out
  search='| inputcsv sample_access.csv | where status >= 500 | eval kb = round(bytes / 1024.0, 1) | sort -duration'
  search="$search | dedup clientip | head 10 | fields clientip status method uri kb duration"
  search="$search | outputcsv usexml=true top_errors"
  out="$VELMOR_HOME/var/run/velmor/top_errors.csv"
  echo "== Searching the web requests with velmor-search"
  echo "   velmor-search '$search'"
  rm -f "$out"
  "$BUILD/bin/velmor-search" "$search" nointernal > "$VELMOR_HOME/var/run/velmor/top_errors.out" 2>&1 || true
  if [ ! -s "$out" ]; then
    echo "demo: the search wrote no $out; its output was:" >&2
    sed 's/^/   /' "$VELMOR_HOME/var/run/velmor/top_errors.out" >&2
    exit 1
  fi
  echo "   first lines of $out ($(($(wc -l < "$out") - 1)) rows):"
  head -n 4 "$out" | cut -c1-150 | sed 's/^/     /'
  echo "   rows printed by velmor-search (the _xml of outputcsv):"
  grep -v -e '^INFO - ' -e '^DEBUG - ' -e '^WARN - ' -e '^Using logging configuration' -e '^$' \
    "$VELMOR_HOME/var/run/velmor/top_errors.out" | sed -n 1,14p | cut -c1-150 | sed 's/^/     /'
  rm -f "$VELMOR_HOME/var/run/velmor/top_errors.out"
}

# The number of events an index holds, from velmor-index info.
events_in() {
  "$BUILD/bin/velmor-index" info "$1" 2>/dev/null | awk '$1=="hot"||$1=="warm"||$1=="cold"{s+=$5} END{print s+0}'
}

# Stops a velmord of the demo home still running from an earlier demo.
stop_service() {
  local pidfile="$VELMOR_HOME/var/run/velmor/velmord.pid" pid i
  [ -f "$pidfile" ] || return 0
  pid=$(cat "$pidfile")
  kill -TERM "$pid" 2>/dev/null || return 0
  for i in $(seq 1 300); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  echo "demo: velmord (pid $pid) did not stop in 30 s; killing it" >&2
  kill -KILL "$pid" 2>/dev/null || true
}

# Starts velmord on the demo home following the sample logs into the index
# "live", shows the events arriving, compares counts with grep, measures
# how soon an appended line is found, rotates a file, and stops the
# service.
service_demo() {
  local conf="$VELMOR_HOME/etc/bundles/local/indexes.conf" inputs="$VELMOR_HOME/etc/bundles/local/inputs.conf"
  local props="$VELMOR_HOME/etc/bundles/local/props.conf"
  local total start now n i w file token t0 t1 pid routed want_routed routed_files
  if ! grep -qx '\[live\]' "$conf" 2>/dev/null; then
    cat >> "$conf" <<'EOF2'

[live]
homePath = $VELMOR_DB/live/db
coldPath = $VELMOR_DB/live/colddb
thawedPath = $VELMOR_DB/live/thaweddb
# the sample events are days old: keep them
frozenTimePeriodInSecs = 2147483647
EOF2
  fi
  if ! grep -qx '\[alerts\]' "$conf" 2>/dev/null; then
    cat >> "$conf" <<'EOF2'

[alerts]
homePath = $VELMOR_DB/alerts/db
coldPath = $VELMOR_DB/alerts/colddb
thawedPath = $VELMOR_DB/alerts/thaweddb
frozenTimePeriodInSecs = 2147483647
EOF2
  fi
  cat > "$inputs" <<EOF2
# Written by the demo: velmord follows the sample logs into the index "live".
[tail:$SAMPLES_DIR]
index = live
blacklist = /MANIFEST\$
EOF2
  cat > "$props" <<'EOF2'
# Written by the demo: the shipped rule route_alerts (transforms.conf) sends
# the errors of the key=value logs (level=ERROR) and the web requests that
# failed on the server side (status 5xx) to the index "alerts".
[app]
TRANSFORMS-routing = route_alerts

[access]
TRANSFORMS-routing = route_alerts
EOF2
  stop_service
  rm -rf "$VELMOR_DB/live" "$VELMOR_DB/alerts" "$VELMOR_DB/fileseeks" "$VELMOR_HOME/var/lib/velmor/queues"
  # The events velmor-genlogs wrote (the samples were just made): a stack
  # trace is one event with the line above it.
  total=$(awk -F'\t' '{ e += $5 } END { print e + 0 }' "$MANIFEST")
  routed_files=$(awk -F'\t' -v root="$SAMPLES_DIR/" '$1 ~ /\/(app|access)\.log$/ { p = $1; if (p !~ /^\//) p = root p; print p }' "$MANIFEST")
  # shellcheck disable=SC2086
  want_routed=$(cat $routed_files | grep -cP '\blevel=ERROR\b|"\s+5\d\d\s' || true)
  echo "== Starting velmord, which follows $SAMPLES_DIR into the index 'live'"
  start=$(date +%s.%N)
  "$BUILD/bin/velmord" -p "$HTTP_PORT" > "$VELMOR_HOME/var/log/velmor/velmord.start" 2>&1 || {
    cat "$VELMOR_HOME/var/log/velmor/velmord.start" >&2
    exit 1
  }
  pid=$(cat "$VELMOR_HOME/var/run/velmor/velmord.pid")
  echo "   velmord runs (pid $pid); log: $VELMOR_HOME/var/log/velmor/velmord.log"
  n=0
  for i in $(seq 1 600); do
    sleep 0.5
    n=$(($(events_in live) + $(events_in alerts)))
    now=$(date +%s.%N)
    if [ $((i % 2)) -eq 0 ] || [ "$n" -ge "$total" ]; then
      awk -v a="$start" -v b="$now" -v n="$n" -v t="$total" 'BEGIN { printf "   %5.1f s: %7d of %d events searchable\n", b - a, n, t }'
    fi
    [ "$n" -ge "$total" ] && break
  done
  awk -v a="$start" -v b="$now" -v n="$n" 'BEGIN { printf "   %d events from files to searchable in %.1f s (%.0f events/s)\n", n, b - a, n / (b - a) }'
  echo "== Counted by the service's index and by grep -ciw"
  local all
  all=$(cut -f1 "$MANIFEST" | sed "s|^\([^/]\)|$SAMPLES_DIR/\1|")
  for w in failed error; do
    # shellcheck disable=SC2086
    printf '   %-9s index: %7s   grep: %7s\n' "$w" "$(($(query_count "index::live $w") + $(query_count "index::alerts $w")))" \
      "$(cat $all | grep -ciw -- "$w" || true)"
  done
  routed=$(events_in alerts)
  echo "== Routed by the rule route_alerts into the index 'alerts' (level=ERROR, HTTP status 5xx)"
  printf '   alerts: %d events   grep -cP over the key=value and access logs: %d\n' "$routed" "$want_routed"
  if [ "$routed" -ne "$want_routed" ]; then
    echo "demo: the index 'alerts' holds $routed events, not $want_routed" >&2
    exit 1
  fi
  "$BUILD/bin/velmor-index" search alerts --count 2 | cut -c1-150 | sed 's/^/     /'
  file=$(cut -f1 "$MANIFEST" | sed -n 1p)
  case "$file" in /*) ;; *) file="$SAMPLES_DIR/$file" ;; esac
  token="demo$(date +%s%N)"
  echo "== Appending a line to $file and searching for it"
  t0=$(date +%s.%N)
  echo "$(date -u +%Y-%m-%dT%H:%M:%SZ) demo-host appended line $token" >> "$file"
  for i in $(seq 1 200); do
    [ "$("$BUILD/bin/velmor-index" search live "$token" --count 1 | wc -l)" -ge 1 ] && break
    sleep 0.05
  done
  t1=$(date +%s.%N)
  awk -v a="$t0" -v b="$t1" 'BEGIN { printf "   found %.2f s after it was written\n", b - a }'
  echo "== Rotating $file (rename, then a new file with 100 lines)"
  mv "$file" "$file.$(date +%Y%m%d%H%M%S)"
  for i in $(seq 1 100); do echo "$(date -u +%Y-%m-%dT%H:%M:%SZ) demo-host rotated line $i"; done > "$file"
  for i in $(seq 1 100); do
    n=$(($(events_in live) + $(events_in alerts)))
    [ "$n" -ge $((total + 101)) ] && break
    sleep 0.1
  done
  printf '   events: %d (expected %d: the samples, the appended line, 100 new lines; none twice)\n' "$n" $((total + 101))
  http_demo
  saved_demo
  echo "== Stopping velmord (SIGTERM: shutdown by levels)"
  t0=$(date +%s.%N)
  stop_service
  t1=$(date +%s.%N)
  awk -v a="$t0" -v b="$t1" 'BEGIN { printf "   stopped in %.1f s\n", b - a }'
  grep -o 'shutdown level "[A-Za-z0-9]*" finished in .*' "$VELMOR_HOME/var/log/velmor/velmord.log" | tail -8 | sed 's/^/   /'
  if [ "$n" -ne $((total + 101)) ]; then
    echo "demo: the indexes 'live' and 'alerts' hold $n events, not $((total + 101))" >&2
    exit 1
  fi
}

# REST calls of the saved-search demo: curl with the admin's session key.
api() {
  curl -sk --max-time 20 -H "Authorization: Velmor $1" "${@:2}"
}

# Runs a search job for the session key $1 and prints its rows as
# "<host> <count>" lines (the search counts by host).
job_counts_by_host() {
  local key=$1 sid=$2 i done_
  for i in $(seq 1 300); do
    done_=$(api "$key" "https://127.0.0.1:$HTTPS_PORT/services/search/jobs/$sid" | sed -n 's/^done=//p')
    [ "$done_" = 1 ] && break
    sleep 0.2
  done
  api "$key" "https://127.0.0.1:$HTTPS_PORT/services/search/jobs/$sid/results?output_mode=json&count=0" \
    | python3 -c 'import json, sys
for r in json.load(sys.stdin): print(r["host"], r["count"])' | sort
}

login_key() {
  curl -sk --max-time 10 "https://127.0.0.1:$HTTPS_PORT/services/auth/login" --data-urlencode "username=$1" \
    --data-urlencode "password=$2" | sed -n 's:.*<sessionKey>\(.*\)</sessionKey>.*:\1:p'
}

# Stores an event type and a saved search through REST, runs the saved
# search as a job and checks its counts against awk over the access logs;
# then a user of the role "webteam" runs a search over every host and sees
# only the web hosts.
saved_demo() {
  local base="https://127.0.0.1:$HTTPS_PORT/services" key akey sid rows want access code admin_rows
  key=$(login_key admin "$ADMIN_PASSWORD")
  echo "== An event type and a saved search, stored through REST and run by name"
  api "$key" -X DELETE "$base/saved/searches/web_failures_by_host" -o /dev/null
  api "$key" -X DELETE "$base/saved/eventtypes/web_failure" -o /dev/null
  echo "   POST $base/saved/eventtypes name=web_failure query='%http_error% OR %http_not_found%'"
  code=$(api "$key" -o /dev/null -w '%{http_code}' "$base/saved/eventtypes" -d name=web_failure \
    --data-urlencode 'query=%http_error% OR %http_not_found%' -d 'description=server errors and missing pages')
  echo "     HTTP $code"
  echo "   POST $base/saved/searches name=web_failures_by_host query='search index=demo eventtype=web_failure | stats count by host'"
  code=$(api "$key" -o /dev/null -w '%{http_code}' "$base/saved/searches" -d name=web_failures_by_host \
    --data-urlencode 'query=search index=demo eventtype=web_failure | stats count by host')
  echo "     HTTP $code"
  code=$(api "$key" -o /dev/null -w '%{http_code}' "$base/saved/searches" \
    --data-urlencode 'query=search error')
  echo "   the same without a name: HTTP $code, \"$(api "$key" "$base/saved/searches" --data-urlencode 'query=search error' \
    | sed -n 's:.*<msg type="[A-Z]*">\(.*\)</msg>.*:\1:p')\""
  echo "   POST $base/saved/searches/web_failures_by_host/dispatch"
  sid=$(api "$key" -X POST "$base/saved/searches/web_failures_by_host/dispatch" | sed -n 's:.*<sid>\(.*\)</sid>.*:\1:p')
  if [ -z "$sid" ]; then
    echo "demo: the saved search was not dispatched" >&2
    exit 1
  fi
  rows=$(job_counts_by_host "$key" "$sid")
  access=$(awk -F'\t' -v root="$SAMPLES_DIR/" '$1 ~ /\/access\.log$/ { p = $1; if (p !~ /^\//) p = root p; print p }' "$MANIFEST")
  # shellcheck disable=SC2086
  want=$(for f in $access; do
    awk -v h="$(basename "$(dirname "$f")")" '$9 >= 500 || $9 == 404 { n++ } END { if (n) print h, n }' "$f"
  done | sort)
  echo "$rows" | sed 's/^/     /'
  if [ "$rows" != "$want" ]; then
    echo "demo: the saved search's counts differ from awk's:" >&2
    diff <(echo "$rows") <(echo "$want") >&2 || true
    exit 1
  fi
  echo "   job $sid: every count equals awk's (status >= 500 or 404) over the access logs"
  echo "== A restricted role: user alice of the role webteam (srchFilter = host=web-01 OR host=web-02)"
  api "$key" -X DELETE "$base/authentication/users/alice" -o /dev/null
  code=$(api "$key" -o /dev/null -w '%{http_code}' "$base/authentication/users" -d name=alice \
    -d password=alice-demo-pass -d roles=webteam)
  echo "   POST $base/authentication/users name=alice roles=webteam: HTTP $code"
  akey=$(login_key alice alice-demo-pass)
  if [ -z "$akey" ]; then
    echo "demo: alice cannot log in" >&2
    exit 1
  fi
  local search='search index=demo failed | stats count by host'
  sid=$(api "$key" "$base/search/jobs" --data-urlencode "search=$search" | sed -n 's:.*<sid>\(.*\)</sid>.*:\1:p')
  admin_rows=$(job_counts_by_host "$key" "$sid")
  sid=$(api "$akey" "$base/search/jobs" --data-urlencode "search=$search" | sed -n 's:.*<sid>\(.*\)</sid>.*:\1:p')
  rows=$(job_counts_by_host "$akey" "$sid")
  echo "   '$search' as admin:   $(echo "$admin_rows" | tr '\n' ' ')"
  echo "   the same as alice:   $(echo "$rows" | tr '\n' ' ')"
  want=$(echo "$admin_rows" | grep -E '^web-0[12] ' || true)
  if [ -z "$rows" ] || [ "$rows" != "$want" ]; then
    echo "demo: alice should see exactly the web-01 and web-02 rows" >&2
    exit 1
  fi
  code=$(api "$akey" -o /dev/null -w '%{http_code}' "$base/authentication/users")
  echo "   alice lists the users: HTTP $code (the role has no list_users)"
}

# The address of the web page and how to log in.
web_page_hint() {
  echo "== The web search page"
  echo "   VELMOR_HOME=$VELMOR_HOME VELMOR_DB=$VELMOR_DB $BUILD/bin/velmord -p $HTTP_PORT"
  echo "   then open http://127.0.0.1:$HTTP_PORT/ (or https://127.0.0.1:$HTTPS_PORT/, self-signed)"
  echo "   log in as admin, password $ADMIN_PASSWORD (kept in $VELMOR_HOME/etc/auth/demo-admin-password)"
  echo "   pick 'All time': the samples start on $SAMPLE_START; try: index=demo eventtype=web_failure"
  echo "   or from a terminal: $BUILD/bin/velmor search 'index=demo eventtype=web_failure | stats count by host'"
}

find_tools
layout_home
setup_logins
generate_samples
summarise
show_config
index_demo
query_demo
search_demo
search_csv_demo
report_demo
field_demo
service_demo
web_page_hint
