#!/usr/bin/env bash
# Installs the default build into a scratch prefix (then moves it, as a user may), and checks it
# as a user would, with no LD_LIBRARY_PATH: a client built through the CMake package and through
# pkg-config runs, the C++ examples of README.md and docs/ and the programs of examples/ compile,
# the installed zelsim starts, and the libraries export only their public API.
set -euo pipefail
cd "$(dirname "$0")/.."
unset LD_LIBRARY_PATH
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install build/default --prefix "$scratch/staged" >/dev/null
mv "$scratch/staged" "$scratch/prefix"
prefix=$scratch/prefix
libdir=$prefix/lib

"$prefix/bin/zelsim" --help >/dev/null
echo "installed zelsim --help: ok"
"$prefix/bin/zelctl" --help >/dev/null
echo "installed zelctl --help: ok"

cmake -S tests/install -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/consumer" >/dev/null
"$scratch/consumer/consumer"
"$scratch/consumer/consumer_sqlite"
"$scratch/consumer/consumer_postgres"
"$scratch/consumer/consumer_asio"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
read -ra pc_flags <<<"$(pkg-config --cflags --libs zelcapi)"
g++ -std=c++17 tests/install/consumer.cpp "${pc_flags[@]}" -o "$scratch/pc-consumer"
"$scratch/pc-consumer"
read -ra pc_sqlite_flags <<<"$(pkg-config --cflags --libs zelcapi_sqlite)"
g++ -std=c++17 tests/install/consumer_sqlite.cpp "${pc_sqlite_flags[@]}" -o "$scratch/pc-consumer-sqlite"
read -ra pc_postgres_flags <<<"$(pkg-config --cflags --libs zelcapi_postgres)"
g++ -std=c++17 tests/install/consumer_postgres.cpp "${pc_postgres_flags[@]}" -o "$scratch/pc-consumer-postgres"
"$scratch/pc-consumer-postgres"
"$scratch/pc-consumer-sqlite"
read -ra pc_postgres_flags <<<"$(pkg-config --cflags --libs zelcapi_postgres)"
g++ -std=c++17 tests/install/consumer_postgres.cpp "${pc_postgres_flags[@]}" -o "$scratch/pc-consumer-postgres"
"$scratch/pc-consumer-postgres"

# The Python module from the prefix, named in PYTHONPATH as for a prefix that Python does not search.
python_dirs=("$prefix"/lib/python3*/*-packages)
PYTHONPATH=${python_dirs[0]} /usr/bin/python3 -c '
import zelcapi
assert zelcapi.decode(zelcapi.encode({"a": [1, b"\xff"]})) == {"a": [1, b"\xff"]}
assert zelcapi.Connection().connect("no-such-host.invalid", "1", 1) == zelcapi.ResultCode.CONNECTION_FAILED
print("installed python module: ok")'

scripts/check-examples.sh "$scratch/examples" -I"$prefix/include"
scripts/check-symbols.sh "$libdir"/lib*.so.*.*.*

# Installed headers: one directory per installed library, nothing else.
for dir in "$prefix/include"/*; do
  if [ ! -e "$libdir/lib$(basename "$dir").so" ]; then
    echo "installed headers of no installed library: $dir"; exit 1
  fi
done
