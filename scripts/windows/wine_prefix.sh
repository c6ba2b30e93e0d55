#!/usr/bin/env bash
# Creates the Wine prefix ($WINEPREFIX) once and starts its server, so that the first test does
# not pay for either.
set -euo pipefail
if [[ ! -f $WINEPREFIX/system.reg ]]; then
  mkdir -p "$WINEPREFIX"
  wineboot --init >/dev/null 2>&1 || wine64 wineboot --init >/dev/null 2>&1
fi
wineserver --persistent=300 >/dev/null 2>&1 || true
