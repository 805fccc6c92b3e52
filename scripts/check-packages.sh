#!/usr/bin/env bash
# Builds the Debian packages, unpacks them with dpkg -x into a scratch root, and checks them as
# installed files: the installed zelsim starts, the services' units pass systemd-analyze verify,
# a client builds and runs against them, the libraries export only their public API, and lintian
# finds no error.
set -euo pipefail
cd "$(dirname "$0")/.."
unset LD_LIBRARY_PATH
rm -f build/package/*.deb
cmake --workflow --preset package >/dev/null
debs=(build/package/*.deb)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root
for deb in "${debs[@]}"; do
  dpkg-deb -f "$deb" Package Version Depends | tr '\n' ' '
  echo
  dpkg -x "$deb" "$root"
done
libdir=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)

"$root/usr/bin/zelsim" --help >/dev/null
echo "unpacked zelsim --help: ok"
"$root/usr/bin/zelctl" --help >/dev/null
echo "unpacked zelctl --help: ok"

# The services' units, as systemd reads them beside the distribution's own units (which they
# name: network-online.target, multi-user.target): any complaint, even one that systemd only
# warns of, fails the check.
cp -rn /usr/lib/systemd/system/. "$root/usr/lib/systemd/system/"
units=(zelctl-mirror@site.service zelctl-serve@site.service)
if ! complaints=$(systemd-analyze verify --root="$root" "${units[@]}" 2>&1) || [ -n "$complaints" ]; then
  echo "systemd-analyze verify: $complaints" >&2
  exit 1
fi
echo "systemd-analyze verify ${units[*]}: ok"

PYTHONPATH=$root/usr/lib/python3/dist-packages /usr/bin/python3 -c '
import zelcapi, zelcapi.aio
assert zelcapi.decode(zelcapi.encode({"a": 1})) == {"a": 1}'
echo "unpacked python3-zelcapi import: ok"

cmake -S tests/install -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$scratch/consumer" >/dev/null
"$scratch/consumer/consumer"
"$scratch/consumer/consumer_asio"

# The .pc file of a /usr install adds no run path (the dynamic linker searches /usr/lib/<arch>
# itself); the scratch root stands in for /usr, so the client names it here.
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra pc_flags <<<"$(pkg-config --cflags --libs zelcapi)"
g++ -std=c++17 tests/install/consumer.cpp "${pc_flags[@]}" -Wl,-rpath,"$libdir" \
  -o "$scratch/pc-consumer"
"$scratch/pc-consumer"

scripts/check-symbols.sh "$libdir"/lib*.so.*.*.*
lintian --fail-on error "${debs[@]}"
echo "lintian: no error on ${#debs[@]} packages"
