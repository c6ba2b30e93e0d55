#!/usr/bin/env bash
# build.sh [BUILD_DIR] [extra cmake arguments...]: configures (once) and builds.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
cmake --build "$dir"
