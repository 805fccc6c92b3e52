#!/usr/bin/env bash
# Compiles every ```cpp block of README.md and docs/*.md, and every program of examples/, as a
# client would, against the headers given by the compiler flags after the scratch directory:
# check-examples.sh DIR FLAGS...
set -euo pipefail
cd "$(dirname "$0")/.."
out=$1
shift
mkdir -p "$out"
count=0
for doc in README.md docs/*.md; do
  # Writes block N of $doc to $out/<doc>-N.cpp.
  awk -v out="$out" -v base="$(basename "$doc" .md)" '
    /^```cpp$/ { n++; file = out "/" base "-" n ".cpp"; inside = 1; next }
    /^```$/ && inside { inside = 0; close(file); next }
    inside { print > file }' "$doc"
done
for example in "$out"/*.cpp examples/*.cpp; do
  [ -e "$example" ] || continue
  g++ -std=c++17 -Wall -Wextra -Werror -fsyntax-only "$@" "$example"
  count=$((count + 1))
done
echo "examples compiled: $count"
