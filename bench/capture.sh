#!/usr/bin/env bash
# Benchmark of a capture on a phone-scale device (not a test; asserts nothing):
#   bench/capture.sh [BUILD]        (default build/default: its quarrystat, quarry-capture, gen_tree)
# gen_tree makes a 1x device tree (1000 processes, 2000 exported buffers, 8 DMA-BUF descriptors
# a process); each maps file is cut to its first 800 lines with its /dmabuf lines kept (about
# 85 MB of maps text in all, near a real phone's), and the sample's memory files are added. The
# root gets busybox as its shell and the x86-64 device archive (release/device-archive.sh)
# unpacked into /data/local/tmp, as a user pushes it. Then, in the same run and alternating,
# three captures (sh capture.sh OUT, as the README says) and three runs of quarrystat -u, each
# in a chroot of that root; it prints the medians, their ratio and the archive's size.
# The tree is on /dev/shm: a device's /proc is made in memory too. Targets: a capture takes at
# most twice the -u time and weighs at most 1 MB.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "${1:-$top/build/default}")
for f in tool/quarrystat capture/quarry-capture bench/gen_tree; do
  [ -x "$build/$f" ] || { echo "capture.sh: no $build/$f (build the default preset)" >&2; exit 2; }
done
work=$(mktemp -d /dev/shm/quarry-bench-capture.XXXXXX)
trap 'rm -rf "$work"' EXIT
root=$work/root
"$build/bench/gen_tree" "$root" 1
/usr/bin/python3 - "$top" "$root" <<'PY'
import os, shutil, sys
top, root = sys.argv[1], sys.argv[2]
sample = os.path.join(top, "sample", "device")
for f in ("proc/iomem", "proc/debug_ext"):
    src, dst = os.path.join(sample, f), os.path.join(root, f)
    if os.path.isdir(src):
        shutil.copytree(src, dst, dirs_exist_ok=True)
    else:
        shutil.copyfile(src, dst)
shutil.copytree(os.path.join(sample, "sys", "kernel", "debug"), os.path.join(root, "sys", "kernel", "debug"))
os.symlink("sys/kernel/debug", os.path.join(root, "d"))
total = 0
for pid in os.listdir(os.path.join(root, "proc")):
    if not pid.isdigit():
        continue
    path = os.path.join(root, "proc", pid, "maps")
    with open(path, "rb") as f:
        lines = f.readlines()
    keep = lines[:800] + [l for l in lines[800:] if b"/dmabuf" in l]
    with open(path, "wb") as f:
        f.writelines(keep)
    total += sum(len(l) for l in keep)
print("capture.sh: a tree of %d processes, %.1f MB of maps text" %
      (sum(1 for p in os.listdir(os.path.join(root, "proc")) if p.isdigit()), total / 1e6))
PY
mkdir -p "$root/bin" "$root/dev" "$root/data/local/tmp"
cp /bin/busybox "$root/bin/busybox"
for tool in sh cat tr sed grep head uname date; do ln -s busybox "$root/bin/$tool"; done
mknod -m 666 "$root/dev/null" c 1 3
version=$(sed -n 's/^project(quarrystat VERSION \([0-9][0-9.]*\) .*/\1/p' "$top/CMakeLists.txt")
archive=$("$top/release/device-archive.sh" "$version" 0 x86_64 "$build/tool/quarrystat" \
  "$build/capture/quarry-capture" "$work/dist")
tar -xzf "$archive" -C "$root/data/local/tmp" --strip-components=1

ms() { echo $(($(date +%s%N) / 1000000)); }
median() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
captures=() runs=()
for _ in 1 2 3; do
  start=$(ms)
  chroot "$root" /bin/sh /data/local/tmp/capture.sh /data/local/tmp/c.tar.gz
  captures+=($(($(ms) - start)))
  start=$(ms)
  chroot "$root" /data/local/tmp/quarrystat -u >/dev/null
  runs+=($(($(ms) - start)))
done
c=$(median "${captures[@]}") u=$(median "${runs[@]}")
size=$(stat -c %s "$root/data/local/tmp/c.tar.gz")
echo "capture.sh: captures ${captures[*]} ms, quarrystat -u ${runs[*]} ms"
echo "capture.sh: a capture $c ms, quarrystat -u $u ms (medians of three): ratio" \
  "$(awk -v c="$c" -v u="$u" 'BEGIN { printf "%.2f", c / u }') (target at most 2)"
echo "capture.sh: the archive $size bytes ($(awk -v s="$size" 'BEGIN { printf "%.2f", s / 1048576 }') MiB; target at most 1 MiB)," \
  "$(tar -tzf "$root/data/local/tmp/c.tar.gz" | wc -l) members"
# Not timed: the capture's replay prints what the tool printed live on the same tree.
for mode in -u -n -s; do
  chroot "$root" /data/local/tmp/quarrystat $mode >"$work/live" 2>&1
  "$top/snapshot/replay.sh" "$root/data/local/tmp/c.tar.gz" "$build/tool/quarrystat" $mode >"$work/replayed" 2>&1
  if cmp -s "$work/live" "$work/replayed"; then
    echo "capture.sh: the capture's replay of $mode is the live report, byte for byte ($(wc -l <"$work/live") lines)"
  else
    echo "capture.sh: the capture's replay of $mode differs from the live report"
  fi
done
