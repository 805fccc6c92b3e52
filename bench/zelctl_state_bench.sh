#!/bin/bash
# zelctl state against a simulated cluster of up to 100,000 jobs: `state --count` and the whole
# state to /dev/null, a peer zelctl (built from an earlier commit) beside this one, repetitions
# interleaved, each judged on its fastest repetition (median printed too): time and peak memory
# of this zelctl over the peer's, target at most 0.40 each, and zelctl's own CPU time beside
# them. Not run by ctest.
#
#   bench/zelctl_state_bench.sh PEER_ZELCTL [BUILD_DIR] [REPETITIONS]
#
# BUILD_DIR (default build/tools) holds this zelctl and the zelsim that is run; REPETITIONS
# defaults to 5.
set -euo pipefail

peer=${1:?usage: $0 PEER_ZELCTL [BUILD_DIR] [REPETITIONS]}
build=${2:-build/tools}
runs=${3:-5}
ours=$build/code/tools/zelctl/zelctl
zelsim=$build/code/tools/zelsim/zelsim
target=0.40

work=$(mktemp -d)
sim_pid=
cleanup() {
  if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# The cluster: 600,000 warm-up changes fill it to its 100,000 jobs, then one change and it rests.
echo demo >"$work/pw"
"$zelsim" --jobs 100000 --warm-up 600000 --changes 1 --history-keep 0 >"$work/zelsim.log" 2>&1 &
sim_pid=$!
port=
for _ in $(seq 1 600); do
  port=$(sed -n 's/^zelsim: node-1 127.0.0.1:\([0-9]*\): listening.*/\1/p' "$work/zelsim.log")
  [ -n "$port" ] && break
  kill -0 "$sim_pid" 2>/dev/null || { cat "$work/zelsim.log"; exit 1; }
  sleep 1
done
[ -n "$port" ] || { echo "zelsim did not listen" >&2; exit 1; }
connect=(--port "$port" --user demo --password-file "$work/pw")
echo "cluster at port $port:"
"$ours" "${connect[@]}" state --count

# One repetition: seconds, peak KiB and the CPU seconds of zelctl itself (user and system; the
# seconds also hold the cluster's making of its snapshot), appended to the file of its side.
measure() {
  local file=$1
  shift
  /usr/bin/time -f "%e %M %U %S" -o "$work/one" "$@" >/dev/null
  awk '{print $1, $2, $3 + $4}' "$work/one" >>"$file"
}

cases=("count" "all")
for _ in $(seq 1 "$runs"); do
  for c in "${cases[@]}"; do
    args=(state)
    [ "$c" = count ] && args+=(--count)
    measure "$work/peer-$c" "$peer" "${connect[@]}" "${args[@]}"
    measure "$work/ours-$c" "$ours" "${connect[@]}" "${args[@]}"
  done
done

# Fastest and median of a column of a file.
stat() { sort -g -k"$2" "$1" | awk -v k="$2" '{v[NR]=$k} END {print v[1], v[int((NR+1)/2)]}'; }

for c in "${cases[@]}"; do
  what="zelctl state --count"
  [ "$c" = all ] && what="zelctl state > /dev/null"
  for col in 1 2 3; do
    read -r peer_best peer_median < <(stat "$work/peer-$c" "$col")
    read -r ours_best ours_median < <(stat "$work/ours-$c" "$col")
    unit=s
    name="time"
    if [ "$col" = 2 ]; then unit=KiB; name="peak memory"; fi
    if [ "$col" = 3 ]; then name="CPU time"; fi
    echo "$what, $name: this zelctl fastest $ours_best $unit (median $ours_median), peer fastest $peer_best $unit (median $peer_median)"
    awk -v w="$what $name" -v a="$ours_best" -v b="$peer_best" -v t="$target" 'BEGIN {
      r = a / b
      printf "%s vs peer zelctl  %.3f  (target <= %s)  %s\n", w, r, t, (r <= t ? "met" : "NOT MET")
    }'
  done
done
