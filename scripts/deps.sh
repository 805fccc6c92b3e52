#!/usr/bin/env bash
# Installs the Debian packages that building, testing, benchmarking and packaging need, if any
# is missing.
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config clang-format
  libboost-dev libmsgpack-cxx-dev libssl-dev libsqlite3-dev sqlite3 nlohmann-json3-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev dpkg-dev file lintian libuv1-dev libxxhash-dev
  python3-dev pybind11-dev python3-pytest python3-pytest-asyncio python3-msgpack
  postgresql libpq-dev chromium libyaml-cpp-dev libsystemd-dev systemd prometheus)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" = 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi
