#!/usr/bin/env bash
# Runs the README's main-job command as written (the first command line of README.md), for 5
# seconds instead of 30 through MAIN_JOB_SECONDS, and checks that it exits 0 and prints the
# mirror's summary and the query's table.
set -euo pipefail
cd "$(dirname "$0")/.."
command_line=$(grep -m1 '^    scripts/deps.sh .*zelctl mirror --simulate' README.md | sed 's/^    //')
if [ -z "$command_line" ]; then
  echo "check-readme-main-job: no main-job command in README.md" >&2
  exit 1
fi
work=$(mktemp -d)
# The command writes mirror.sqlite here; one that was here before is left alone.
if [ -e mirror.sqlite ]; then
  trap 'rm -rf "$work"' EXIT
else
  trap 'rm -rf "$work" mirror.sqlite mirror.sqlite-wal mirror.sqlite-shm' EXIT
fi
output="$work/output"
if ! MAIN_JOB_SECONDS=${MAIN_JOB_SECONDS:-5} bash -c "$command_line" >"$output" 2>&1; then
  cat "$output" >&2
  echo "check-readme-main-job: the main job failed" >&2
  exit 1
fi
for expected in "mirror summary" "changes applied:" "saves:" "state" "running"; do
  if ! grep -q "$expected" "$output"; then
    cat "$output" >&2
    echo "check-readme-main-job: the output lacks '$expected'" >&2
    exit 1
  fi
done
echo "check-readme-main-job: OK"
