#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds with. Run as root; does nothing when
# everything is there already.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  libuv1-dev libglib2.0-dev zlib1g-dev libminizip-dev libsqlite3-dev libfmt-dev
  nlohmann-json3-dev libsodium-dev libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
  python3 python3-msgpack
  dbus-daemon iproute2 util-linux libsystemd-dev
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
