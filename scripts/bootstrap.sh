#!/usr/bin/env bash
# Installs the Debian packages that building and testing Velmor needs, and
# only those that are missing. Quiet when everything is there; runs
# `apt-get update` only when something has to be installed.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config ccache
  libpcre2-dev libxml2-dev libxslt1-dev libsqlite3-dev sqlite3 libssl-dev openssl
  zlib1g-dev libdeflate-dev libarchive-dev libbz2-dev libldap2-dev slapd ldap-utils curl
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  tzdata python3 gzip miller ripgrep
)

# The browser test of the web page: chromium, and node with npm only when the
# machine has no node of its own (its modules: scripts/web_test_setup.sh).
PACKAGES+=(chromium)
if ! command -v node >/dev/null 2>&1; then PACKAGES+=(nodejs npm); fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "bootstrap: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "bootstrap: done"
