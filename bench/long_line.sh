#!/usr/bin/env bash
# One maps line of many megabytes: how the time of -n grows with the line's length.
#   bench/long_line.sh [BINARY]       (default build/default/tool/quarrystat)
# Settings: SIZES="100 200" (MB), RUNS=3. A process's maps file holds one mapping whose path is
# SIZE MB long; the tool reads it (and fails to parse it) once. Prints figures, asserts nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
SIZES=${SIZES:-100 200} RUNS=${RUNS:-3}
bin=$(realpath "${1:-build/default/tool/quarrystat}")
qbench=build/default/bench/qbench
[ -x "$qbench" ] || scripts/build.sh default >/dev/null
tree=$(mktemp -d /dev/shm/quarry-long-line.XXXXXX)
trap 'rm -rf "$tree"' EXIT
mkdir -p "$tree/proc/42" "$tree/sys/kernel/dmabuf/buffers"
printf 'Shmem:  4 kB\n' >"$tree/proc/meminfo"
echo 'CONFIG_VMAP_STACK=y' | gzip >"$tree/proc/config.gz"
cp "$bin" "$tree/quarrystat"
prev=""
for mb in $SIZES; do
  { printf '7f0000000000-7f0000001000 rw-s 00000000 00:0f 99 /'
    head -c $((mb * 1024 * 1024)) /dev/zero | tr '\0' a
    echo; } >"$tree/proc/42/maps"
  out=$(timeout 600 "$qbench" --chroot "$tree" "$RUNS" /quarrystat -n)
  t=$(echo "$out" | sed -n 's/^min \([0-9.]*\) s.*/\1/p')
  ratio=${prev:+$(awk -v a="$prev" -v b="$t" 'BEGIN { printf "  (%.2f x the previous size)", b / a }')}
  echo "one maps line of $mb MB: $out$ratio"
  prev=$t
done
