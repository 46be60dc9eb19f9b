#!/usr/bin/env bash
# Lays out a ready VELMOR_HOME with generated sample logs (filled in as the
# tools land).
set -euo pipefail
BUILD=${1:-build}
HOME_DIR=${2:-$PWD/demo-home}
echo "demo: build in $BUILD, VELMOR_HOME would be $HOME_DIR"
