#!/usr/bin/env bash
# Both benchmarks of -u and -n, with figures printed (no pass/fail):
#   1. live: on this machine's kernel, with N processes of M mappings each (loadgen), the tool
#      against its floor (the same file reads without parsing), fastest of RUNS;
#   2. synthetic: device trees at scale 1, 2 and 4 (gen_tree; 1000 processes x 3000 maps lines,
#      2000 buffers at scale 1), run in a chroot; time, ns per maps line read, peak memory.
# Settings: N=500 M=3000 RUNS=5 SCALES="1 2 4". Needs root (chroot, and to read every /proc).
set -euo pipefail
cd "$(dirname "$0")/.."
N=${N:-500} M=${M:-3000} RUNS=${RUNS:-5} SCALES=${SCALES:-1 2 4}
scripts/setup.sh
scripts/build.sh default >/dev/null
bin=$PWD/build/default/tool/quarrystat
bench=$PWD/build/default/bench

loadgen_pid="" tree=""
cleanup() {
  if [ -n "$loadgen_pid" ]; then kill "$loadgen_pid" 2>/dev/null || true; wait "$loadgen_pid" 2>/dev/null || true; fi
  if [ -n "$tree" ]; then rm -rf "$tree"; fi
  rm -f "${ready:-}"
}
trap cleanup EXIT

seconds() { sed -n 's/^min \([0-9.]*\) s.*/\1/p'; }

echo "machine: $(nproc) cores, $(awk '/MemTotal/ {printf "%.0f GiB", $2/1048576}' /proc/meminfo), kernel $(uname -r)"
echo
echo "== live kernel: $N processes x $M mappings, fastest of $RUNS runs"
ready=$(mktemp)
"$bench/loadgen" "$N" "$M" "$ready" &
loadgen_pid=$!
for _ in $(seq 1 600); do [ -s "$ready" ] && break; sleep 0.5; done
[ -s "$ready" ] || { echo "loadgen did not come up" >&2; exit 1; }
for mode in -u -n; do
  tool=$("$bench/qbench" "$RUNS" "$bin" "$mode")
  floor=$("$bench/qbench" "$RUNS" "$bench/floor" "$mode")
  ratio=$(awk -v t="$(echo "$tool" | seconds)" -v f="$(echo "$floor" | seconds)" 'BEGIN { printf "%.2f", t / f }')
  echo "quarrystat $mode: $tool"
  echo "floor      $mode: $floor"
  echo "ratio      $mode: $ratio"
done
kill "$loadgen_pid"
wait "$loadgen_pid" || true
loadgen_pid=""

echo
echo "== synthetic device trees, fastest of $RUNS runs"
declare -A u_time
for scale in $SCALES; do
  tree=$(mktemp -d /dev/shm/quarry-bench-tree.XXXXXX)
  "$bench/gen_tree" "$tree" "$scale"
  cp "$bin" "$tree/quarrystat"
  lines=$((scale * 1000 * 3000))
  for mode in -u -n; do
    out=$("$bench/qbench" --chroot "$tree" "$RUNS" /quarrystat "$mode")
    t=$(echo "$out" | seconds)
    # -u reads every maps file twice (mapped and held walks), -n once.
    reads=$([ "$mode" = -u ] && echo $((lines * 2)) || echo "$lines")
    ns=$(awk -v t="$t" -v n="$reads" 'BEGIN { printf "%.0f", t * 1e9 / n }')
    echo "scale ${scale}x $mode: $out  ${ns} ns per maps line"
    [ "$mode" = -u ] && u_time[$scale]=$t
  done
  rm -rf "$tree"
  tree=""
done
# The same trees with the exported buffers in the debug file system's table instead of sysfs
# (a kernel without the DMA-BUF sysfs statistics): -n reads one file instead of a directory per
# buffer, and must be no slower. -u reports from sysfs only, so it is not timed here.
for scale in 1 4; do
  for source in sysfs bufinfo; do
    tree=$(mktemp -d /dev/shm/quarry-bench-tree.XXXXXX)
    # shellcheck disable=SC2046  # no word, or the one word bufinfo
    "$bench/gen_tree" "$tree" "$scale" $([ "$source" = bufinfo ] && echo bufinfo)
    cp "$bin" "$tree/quarrystat"
    echo "scale ${scale}x -n from $source: $("$bench/qbench" --chroot "$tree" "$RUNS" /quarrystat -n)"
    rm -rf "$tree"
    tree=""
  done
done
if [ -n "${u_time[1]:-}" ] && [ -n "${u_time[4]:-}" ]; then
  awk -v a="${u_time[1]}" -v b="${u_time[4]}" 'BEGIN { printf "-u time at 4x / time at 1x: %.2f\n", b / a }'
fi
