#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds with. Run as root; does nothing when
# everything is there already.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  libuv1-dev libglib2.0-dev zlib1g-dev libminizip-dev libsqlite3-dev libfmt-dev
  nlohmann-json3-dev libsodium-dev libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
  python3 python3-msgpack
  dbus-daemon iproute2 util-linux
)
# --windows: the cross compilers, Wine, and what scripts/windows/build_deps.sh needs to fetch
# and build Debian's sources (a deb-src entry for the same archive as the binary packages).
if [[ ${1:-} == --windows ]]; then
  packages+=(g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix libz-mingw-w64-dev wine wine64
    dpkg-dev tcl autoconf automake libtool)
  sources=/etc/apt/sources.list.d/lumaren-src.sources
  if ! grep -rqs "deb-src" /etc/apt/sources.list /etc/apt/sources.list.d/; then
    mirror=$(grep -hom1 'http[^ ]*/debian$' /etc/apt/sources.list.d/debian.sources 2>/dev/null ||
      echo http://deb.debian.org/debian)
    printf 'Types: deb-src\nURIs: %s\nSuites: bookworm bookworm-updates\nComponents: main\n%s\n' \
      "$mirror" "Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg" >"$sources"
    apt-get update -qq
  fi
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
