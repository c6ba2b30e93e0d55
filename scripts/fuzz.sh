#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets with clang and runs each for SECONDS
# (default 60), starting from the seeds in fuzz/corpus/<target>. A crash fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
bash scripts/setup.sh
CC=clang CXX=clang++ bash scripts/build.sh build-fuzz -DLUMAREN_BUILD_FUZZ=ON \
  -DLUMAREN_BUILD_TESTS=OFF -DLUMAREN_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
for target in build-fuzz/bin/fuzz_*; do
  name=$(basename "$target")
  corpus=$(mktemp -d)
  [[ -d fuzz/corpus/$name ]] && cp -r fuzz/corpus/$name/. "$corpus/"
  echo "fuzzing $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 "$corpus" 2>&1 | tail -n 12
  rm -rf "$corpus"
done
