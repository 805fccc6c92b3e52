#!/usr/bin/env bash
# Runs every fuzz target of the fuzz build for a bounded time each (seconds, default 30); fails
# when a target finds a crash, a leak or a sanitizer report.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
for target in build/fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  work=$(mktemp -d)
  mkdir "$work/corpus"
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$work/corpus/"
  echo "fuzzing $name for ${seconds}s"
  status=0
  (cd "$work" && "$OLDPWD/$target" -max_total_time="$seconds" -max_len=4096 \
    -print_final_stats=1 corpus) >"$work/log" 2>&1 || status=$?
  grep -E '^(stat::number_of_executed_units|==|SUMMARY|INFO: Done)' "$work/log" || true
  if [ "$status" != 0 ]; then
    echo "$name failed (exit $status):"
    tail -n 40 "$work/log"
    rm -rf "$work"
    exit 1
  fi
  rm -rf "$work"
done
