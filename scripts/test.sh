#!/usr/bin/env bash
# test.sh [--sanitize]: installs what is missing, builds and runs every test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if [[ "${1:-}" == "--sanitize" ]]; then
  bash scripts/build.sh build-asan -DLUMAREN_SANITIZE=address,undefined -DLUMAREN_BUILD_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=Debug
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1
  ctest --test-dir build-asan --output-on-failure -j2
else
  bash scripts/build.sh build
  ctest --test-dir build --output-on-failure -j2
fi
