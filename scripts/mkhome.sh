#!/usr/bin/env bash
# mkhome.sh <VELMOR_HOME>
# Lays out a ready installation: the shipped configuration from etc/ and the
# run-time directories. Safe to run again: shipped files are refreshed, local
# settings (etc/bundles/local) and data are left alone.
set -euo pipefail

usage() { echo "usage: $0 <VELMOR_HOME>" >&2; exit 2; }
[ $# -eq 1 ] || usage
[ -n "$1" ] || usage

SRC_ETC="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/etc"
[ -d "$SRC_ETC" ] || { echo "mkhome: no etc/ directory at $SRC_ETC" >&2; exit 1; }

target="$1"
if [ -e "$target" ] && [ ! -d "$target" ]; then
  echo "mkhome: $target exists and is not a directory; refusing to lay out VELMOR_HOME there" >&2
  exit 1
fi
mkdir -p "$target"
home="$(cd "$target" && pwd)"

# Every directory the installation needs, below the home.
dirs=(etc etc/bundles/default etc/bundles/local var/run/velmor var/lib/velmor/queues
      var/lib/velmor/db var/log/velmor)
for d in "${dirs[@]}"; do
  if [ -e "$home/$d" ] && [ ! -d "$home/$d" ]; then
    echo "mkhome: $home/$d exists and is not a directory" >&2
    exit 1
  fi
  mkdir -p "$home/$d"
done

# Shipped configuration: everything in etc/ except the local bundle, which
# belongs to the site and is only seeded when empty.
copied=0
while IFS= read -r -d '' f; do
  rel="${f#"$SRC_ETC"/}"
  case "$rel" in bundles/local/*) continue ;; esac
  mkdir -p "$home/etc/$(dirname "$rel")"
  cp -p "$f" "$home/etc/$rel"
  copied=$((copied + 1))
done < <(find "$SRC_ETC" -type f -print0 | sort -z)
for f in "$SRC_ETC"/bundles/local/*; do
  [ -e "$f" ] || continue
  [ -e "$home/etc/bundles/local/$(basename "$f")" ] || cp -p "$f" "$home/etc/bundles/local/"
done

# The web search page velmord serves (web.conf: staticDir), refreshed like
# the shipped configuration.
SRC_WEB="$(dirname "$SRC_ETC")/share/web"
if [ -d "$SRC_WEB" ]; then
  mkdir -p "$home/share/web"
  cp -pR "$SRC_WEB/." "$home/share/web/"
fi

echo "mkhome: VELMOR_HOME laid out at $home"
echo "  etc/                     $copied shipped configuration files (bundles, install, modules, log configuration)"
echo "  etc/bundles/local/       site settings (kept as they are)"
echo "  var/run/velmor/          run-time files, search jobs, inputcsv/outputcsv files"
echo "  var/lib/velmor/queues/   saved queue contents"
echo "  var/lib/velmor/db/       index databases (VELMOR_DB)"
echo "  var/log/velmor/          the system's own logs"
echo "  share/web/               the web search page"
echo "To use it:"
echo "  export VELMOR_HOME=$home"
echo "  export VELMOR_DB=$home/var/lib/velmor/db"
