#!/usr/bin/env bash
# Runs the README's main-job command as written (the first command line of README.md), for 5
# seconds instead of 30 through MAIN_JOB_SECONDS, and checks that it exits 0 and prints the
# mirror's summary and the query's table; then runs the README's Python monitor from that build
# (build/tools/python) against the zelsim it built, and checks that it prints changes.
set -euo pipefail
cd "$(dirname "$0")/.."
command_line=$(grep -m1 '^    scripts/deps.sh .*zelctl mirror --simulate' README.md | sed 's/^    //')
if [ -z "$command_line" ]; then
  echo "check-readme-main-job: no main-job command in README.md" >&2
  exit 1
fi
work=$(mktemp -d)
# The command writes mirror.sqlite here; one that was here before is left alone.
keep_mirror=no
[ -e mirror.sqlite ] && keep_mirror=yes
zelsim_pid=
cleanup() {
  if [ -n "$zelsim_pid" ]; then
    kill "$zelsim_pid" 2>/dev/null || true
    wait "$zelsim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
  if [ "$keep_mirror" = no ]; then rm -f mirror.sqlite mirror.sqlite-wal mirror.sqlite-shm; fi
}
trap cleanup EXIT
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

# The Python monitor, as the README runs it from that build, on a free port instead of 7000.
if ! grep -q '^    PYTHONPATH=build/tools/python python3 monitor.py$' README.md; then
  echo "check-readme-main-job: README.md does not run monitor.py from build/tools/python" >&2
  exit 1
fi
build/tools/code/tools/zelsim/zelsim --rate 200 --jobs 100 2>"$work/zelsim" &
zelsim_pid=$!
port=
for _ in $(seq 200); do
  port=$(sed -n 's/^zelsim: node-1 [0-9.]*:\([0-9]*\): listening.*/\1/p' "$work/zelsim")
  [ -n "$port" ] && break
  sleep 0.05
done
if [ -z "$port" ]; then
  cat "$work/zelsim" >&2
  echo "check-readme-main-job: zelsim did not start" >&2
  exit 1
fi
# The first Python block is the monitor (the second submits).
awk '/^```python$/ {blocks++; inside = (blocks == 1); next} /^```$/ {inside = 0} inside' README.md |
  sed "s/7000/$port/" >"$work/monitor.py"
# The monitor runs until stopped: four seconds of it.
PYTHONPATH=build/tools/python timeout 4 python3 "$work/monitor.py" >"$work/monitor" 2>&1 || true
changes=$(grep -c -E '^(set|update|remove|historize|erase|result|workflow)' "$work/monitor" || true)
if [ "$changes" -lt 10 ]; then
  cat "$work/monitor" >&2
  echo "check-readme-main-job: the README's Python monitor printed $changes changes" >&2
  exit 1
fi
echo "check-readme-main-job: OK"
