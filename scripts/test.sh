#!/usr/bin/env bash
# test.sh [--sanitize | --thread-sanitize]: installs what is missing, builds and runs the suites.
#   (no option)         every suite, build directory `build`
#   --sanitize          every suite under AddressSanitizer and UndefinedBehaviorSanitizer
#   --thread-sanitize   the suites labelled "threads" under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
case "${1:-}" in
  --sanitize)
    bash scripts/build.sh build-asan -DLUMAREN_SANITIZE=address,undefined -DLUMAREN_BUILD_BENCH=OFF \
      -DCMAKE_BUILD_TYPE=Debug
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1
    ctest --test-dir build-asan --output-on-failure -j2
    ;;
  --thread-sanitize)
    bash scripts/build.sh build-tsan -DLUMAREN_SANITIZE=thread -DLUMAREN_BUILD_BENCH=OFF \
      -DCMAKE_BUILD_TYPE=Debug
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    ctest --test-dir build-tsan --output-on-failure -j2 -L threads
    ;;
  "")
    bash scripts/build.sh build
    ctest --test-dir build --output-on-failure -j2
    ;;
  *)
    echo "usage: test.sh [--sanitize | --thread-sanitize]" >&2
    exit 2
    ;;
esac
