#!/usr/bin/env bash
# Creates the Wine prefix ($WINEPREFIX) once, then starts its server and the services every
# Wine program needs, with their output away from the caller: whichever program starts them
# would otherwise pass them its standard output and error, and ctest waits for those to close.
# `wineserver -k` ends them all.
set -euo pipefail
if [[ ! -f $WINEPREFIX/system.reg ]]; then
  mkdir -p "$WINEPREFIX"
  wineboot --init >/dev/null 2>&1
fi
wineserver -p >/dev/null 2>&1 </dev/null || true
wine cmd /c exit >/dev/null 2>&1 </dev/null || true
