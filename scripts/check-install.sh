#!/usr/bin/env bash
# Installs the default build into a scratch prefix and builds a client project against it,
# once through the CMake package and once through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install build/default --prefix "$prefix" >/dev/null
cmake -S tests/install -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer/consumer"
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer/consumer_sqlite"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" g++ -std=c++17 tests/install/consumer.cpp \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs zelcapi) -o "$prefix/pc-consumer"
LD_LIBRARY_PATH="$prefix/lib" "$prefix/pc-consumer"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" g++ -std=c++17 tests/install/consumer_sqlite.cpp \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs zelcapi_sqlite) \
  -o "$prefix/pc-consumer-sqlite"
LD_LIBRARY_PATH="$prefix/lib" "$prefix/pc-consumer-sqlite"
if ls "$prefix/include" | grep -qv -E '^(zelbase|zelcore|zelnet|zelworkflow|zelcapi|zelcapi_sqlite|zelsim)$'; then
  echo "unexpected installed headers:"; ls "$prefix/include"; exit 1
fi
