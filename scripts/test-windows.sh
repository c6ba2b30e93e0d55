#!/usr/bin/env bash
# test-windows.sh [ctest arguments...]: installs the cross tools and Wine, cross-builds the
# dependencies (cached outside the clone) and the project for Windows x86-64 with mingw-w64
# (build directory `build-win`), and runs the suites under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh --windows
deps=$(bash scripts/windows/build_deps.sh | tail -1)
bash scripts/build.sh build-win -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64-x86_64.cmake \
  -DLUMAREN_WIN_DEPS="$deps"
# One Wine prefix for the whole run, kept outside the clone; its server stays up between tests
# and goes with the run.
export WINEPREFIX=${WINEPREFIX:-/var/cache/lumaren-mingw/wine} WINEDEBUG=-all
bash scripts/windows/wine_prefix.sh
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
ctest --test-dir build-win --output-on-failure -j2 "$@"
