#!/usr/bin/env bash
# Fails when a shared library of the project exports more than its public API: a symbol of a
# private namespace (detail, internal, an anonymous one) or of a type that only src/ defines.
# A function of a private namespace that a public header declares with an export macro is
# exempt: inline code of that header calls it, so it is part of the ABI on purpose.
# Usage: check-symbols.sh LIBRARY...
set -euo pipefail
cd "$(dirname "$0")/.."
# Names of the classes and structs defined (with a body) in files under include/ and under src/.
defined_types() {
  find code -path "*/$1/*" \( -name '*.h' -o -name '*.cpp' \) -print0 |
    xargs -0 grep -hoP '^\s*(class|struct)\s+(\w+_EXPORT\s+)?\K[A-Za-z_][\w:]*(?=\s*(final\s*)?(:[^:][^;{]*)?\{)' |
    sort -u
}
public_types=$(defined_types include)
private_types=$(comm -23 <(defined_types src) <(echo "$public_types"))
# One alternation: a private namespace, or a private type named as a scope or a whole name.
pattern='\(anonymous namespace\)|\bzel\w*::(\w+::)*(detail|internal)::'
for t in $private_types; do
  pattern+="|::${t}\\b"
done
# Private functions exported on purpose, as one alternation of "detail::name(".
deliberate=$(find code -path '*/include/*' -name '*.h' -print0 |
  xargs -0 grep -hoP '\w+_EXPORT\s+[^();]*?\b\K\w+(?=\()' | sort -u |
  sed 's/.*/::(detail|internal)::&\\(/' | paste -sd'|')
status=0
for lib in "$@"; do
  leaks=$(nm -D --defined-only "$lib" | c++filt | cut -d' ' -f3- | grep -E "$pattern" |
    grep -vE "${deliberate:-^$}" || true)
  if [ -n "$leaks" ]; then
    echo "$(basename "$lib") exports private symbols:"
    echo "$leaks" | sed 's/^/  /'
    status=1
  fi
done
[ "$status" = 0 ] && echo "exported symbols: public API only ($# libraries)"
exit "$status"
