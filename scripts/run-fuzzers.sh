#!/usr/bin/env bash
# Runs every fuzz target of the fuzz build for a bounded time each (seconds, default 30).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
for target in build/fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  corpus=$(mktemp -d)
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$corpus/"
  echo "fuzzing $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 "$corpus" 2>&1 |
    grep -E '^(stat::number_of_executed_units|==|SUMMARY|INFO: Done)' || true
  status=${PIPESTATUS[0]}
  rm -rf "$corpus"
  [ "$status" = 0 ] || { echo "$name failed"; exit 1; }
done
