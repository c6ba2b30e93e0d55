#!/usr/bin/env bash
# demo.sh: installs what is missing, builds, and runs the hub's self-demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh build
exec build/bin/lumaren-hub --demo
