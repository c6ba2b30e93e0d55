#!/usr/bin/env bash
# consumer_check.sh [BUILD_DIR]: builds the project (BUILD_DIR, default build), installs it
# into a temporary prefix, builds examples/consumer against that prefix alone and runs it.
# Also compiles every installed header with only the package's usage requirements, and fails
# when one includes a private dependency: libsodium, nlohmann-json and SQLite are not among
# the package's dependencies, and their headers in /usr/include would hide that from a compiler.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

bash scripts/build.sh "$dir"
cmake --install "$dir" --prefix "$prefix" >/dev/null

echo "-- installed programs"
# The programs must find the installed libraries through their RPATH, not the build tree.
for program in lumaren-hub lumaren-ctl Lumaren.ModuleLoader Orbisant.ModuleLoader; do
  if ldd "$prefix/bin/$program" | grep -E 'not found|'"$PWD/$dir"; then
    echo "$program does not resolve its libraries from $prefix"; exit 1
  fi
done
"$prefix/bin/lumaren-ctl" --help >/dev/null

echo "-- every installed header on its own usage requirements"
if grep -rnE '#include\s*[<"](sodium|nlohmann|sqlite3)' "$prefix/include"; then
  echo "An installed header includes a private dependency; the package does not provide it."
  exit 1
fi
mkdir -p "$work/headers"
(cd "$prefix/include" && find foundation core -name '*.h' | sort) |
  sed 's/.*/#include "&"/' >"$work/headers/all_headers.cpp"
cat >"$work/headers/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(lumaren_headers LANGUAGES CXX)
find_package(LumarenCore REQUIRED)
add_library(all_headers OBJECT all_headers.cpp)
target_link_libraries(all_headers PRIVATE Lumaren::core)
CMAKE
cmake -S "$work/headers" -B "$work/headers/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  >/dev/null
cmake --build "$work/headers/build" >/dev/null

echo "-- examples/consumer"
cmake -S examples/consumer -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
timeout 30 "$work/consumer/lumaren-consumer"
echo "consumer check passed"
