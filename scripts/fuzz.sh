#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets with clang and runs each for SECONDS
# (default 60), starting from the seeds in fuzz/corpus/<target>. A crash fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
bash scripts/setup.sh
CC=clang CXX=clang++ bash scripts/build.sh build-fuzz -DLUMAREN_BUILD_FUZZ=ON \
  -DLUMAREN_BUILD_TESTS=OFF -DLUMAREN_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
# A crashing input is kept in build-fuzz/artifacts and the sanitizer's report is printed.
mkdir -p build-fuzz/artifacts
status=0
for target in build-fuzz/bin/fuzz_*; do
  name=$(basename "$target")
  corpus=$(mktemp -d)
  log=$(mktemp)
  [[ -d fuzz/corpus/$name ]] && cp -r fuzz/corpus/$name/. "$corpus/"
  echo "fuzzing $name for ${seconds}s"
  if "$target" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 \
      -artifact_prefix=build-fuzz/artifacts/"$name"- "$corpus" >"$log" 2>&1; then
    grep -E '^stat::(number_of_executed_units|new_units_added)' "$log"
  else
    sed -n '/ERROR\|runtime error\|==.*deadly/,$p' "$log" | head -n 80
    status=1
  fi
  rm -rf "$corpus" "$log"
done
exit $status
