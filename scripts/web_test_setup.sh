#!/usr/bin/env bash
# web_test_setup.sh [<dir>]
# Installs the node modules of the web page's browser test (puppeteer-core,
# pinned by tests/web/package-lock.json) with `npm ci`, only when they are
# missing or older than the lock file. <dir> is where they go: tests/web of
# the source tree (the default; node_modules there is ignored by git) or a
# build tree's tests/web. Without node or npm it says so and does nothing:
# the test then counts as skipped.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
SRC="$ROOT/tests/web"
DEST="${1:-$SRC}"

if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  echo "web_test_setup: node or npm is missing; the browser test will be skipped (bash scripts/bootstrap.sh installs them)"
  exit 0
fi

mkdir -p "$DEST"
stamp="$DEST/node_modules/.package-lock.json"
if [ -f "$DEST/node_modules/puppeteer-core/package.json" ] && [ "$stamp" -nt "$SRC/package-lock.json" ]; then
  exit 0
fi
if [ "$(cd "$DEST" && pwd)" != "$SRC" ]; then
  cp "$SRC/package.json" "$SRC/package-lock.json" "$DEST/"
fi
echo "web_test_setup: installing the browser test's node modules into $DEST/node_modules"
(cd "$DEST" && npm ci --no-audit --no-fund --loglevel=error)
