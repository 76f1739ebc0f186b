#!/usr/bin/env bash
# Benchmark of the report page on a phone-scale recording (not a test; asserts nothing):
#   bench/report.sh [BINARY]        CAPTURES=60 MAPS_LINES=300 EXTRA_BUFFERS=1000
# gen_tree makes a 1x device tree (1000 processes, 2000 exported buffers); each process's maps
# file is cut to its first MAPS_LINES lines (its /dmabuf lines kept), EXTRA_BUFFERS more buffers
# are exported and held without a mapping (about 3000 in all), and the sample's memory files
# are added so every report has something to say; as capture.sh does, only the fdinfo files of
# DMA-BUF descriptors are kept. CAPTURES captures a minute apart follow, each
# with one more leaked buffer. report.py then makes the page, the JSON and the trace on one
# core (taskset -c 0); the script prints the time and the sizes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
binary=$(realpath "${1:-$top/build/default/tool/quarrystat}")
gen=${GEN_TREE:-$top/build/default/bench/gen_tree}
count=${CAPTURES:-60}
[ -x "$gen" ] || { echo "report.sh: no $gen (build the default preset)" >&2; exit 2; }
work=$(mktemp -d /dev/shm/quarry-bench-report.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$gen" "$work/tree" 1
/usr/bin/python3 - "$top" "$work" "$count" "${MAPS_LINES:-300}" "${EXTRA_BUFFERS:-1000}" <<'PY'
import os, shutil, subprocess, sys
top, work, count, maps_lines, extra = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
tree = os.path.join(work, "tree")
sample = os.path.join(top, "sample", "device")
for f in ("proc/meminfo", "proc/iomem", "proc/debug_ext"):
    src, dst = os.path.join(sample, f), os.path.join(tree, f)
    if os.path.isdir(src):
        shutil.copytree(src, dst, dirs_exist_ok=True)
    else:
        shutil.copyfile(src, dst)
shutil.copytree(os.path.join(sample, "sys", "kernel", "debug"), os.path.join(tree, "d"))
pids = sorted(int(p) for p in os.listdir(os.path.join(tree, "proc")) if p.isdigit())
for pid in pids:
    path = os.path.join(tree, "proc", str(pid), "maps")
    with open(path, "rb") as f:
        lines = f.readlines()
    keep = lines[:maps_lines] + [l for l in lines[maps_lines:] if b"/dmabuf" in l]
    with open(path, "wb") as f:
        f.writelines(keep)
    # capture.sh keeps only the fdinfo files of DMA-BUF descriptors.
    fdinfo = os.path.join(tree, "proc", str(pid), "fdinfo")
    for fd in os.listdir(fdinfo):
        with open(os.path.join(fdinfo, fd), "rb") as f:
            if b"exp_name:" not in f.read():
                os.unlink(os.path.join(fdinfo, fd))

def buffer(root, inode, size, exporter, pid, fd):
    d = os.path.join(root, "sys/kernel/dmabuf/buffers/%d" % inode)
    os.makedirs(d, exist_ok=True)
    open(os.path.join(d, "size"), "w").write("%d\n" % size)
    open(os.path.join(d, "exporter_name"), "w").write(exporter + "\n")
    fdinfo = os.path.join(root, "proc/%d/fdinfo" % pid)
    os.makedirs(fdinfo, exist_ok=True)
    open(os.path.join(fdinfo, str(fd)), "w").write(
        "pos:\t0\nflags:\t02000002\nmnt_id:\t8\nino:\t%d\nsize:\t%d\ncount:\t1\nexp_name:\t%s\n" % (inode, size, exporter))

for i in range(extra):
    buffer(tree, 900000 + i, 4096 * (1 + i % 64), ("system", "gpu", "camera")[i % 3], pids[i % len(pids)], 9000 + i)
# A capture holds only what capture/members.txt lists; replay refuses anything else.
sys.path.insert(0, os.path.join(top, "snapshot"))
import members
for folder, dirs, files in os.walk(tree, topdown=False):
    rel = os.path.relpath(folder, tree)
    for name in files + dirs:
        path = os.path.join(folder, name)
        if members.lookup(os.path.normpath(os.path.join(rel, name)), name in dirs) is None:
            shutil.rmtree(path) if name in dirs else os.unlink(path)
os.makedirs(os.path.join(work, "rec"))
for n in range(count):
    over = os.path.join(work, "over%d" % n)
    os.makedirs(over)
    for k in range(n + 1):  # one more leaked buffer per capture, held by the first process
        buffer(over, 990000 + k, 14352384, "system", pids[0], 20000 + k)
    up = 5000 + 60 * n
    open(os.path.join(over, "capture-info"), "w").write(
        "format=1\nmodel=bench\nboot_id=bench\nuptime_start=%d.00\nwall_start=%d\n" % (up, 1764000000 + up))
    out = os.path.join(work, "rec", "capture-%04d.tar.gz" % (n + 1))
    subprocess.run(["tar", "-I", "gzip -1", "-cf", out, "-C", tree, ".", "-C", over, "."], check=True)
    shutil.rmtree(over)
PY
rm -rf "$work/tree"
echo "recording: $count captures, $(du -sh "$work/rec" | cut -f1) compressed"
start=$(date +%s.%N)
taskset -c 0 /usr/bin/python3 "$top/snapshot/report.py" --binary "$binary" -o "$work/page.html" \
  --json "$work/page.json" --trace "$work/trace.json" "$work/rec"
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" -v n="$count" \
  'BEGIN { printf "report.py, one core: %.1f s (%.2f s per capture; target 60 s for 60)\n", e - s, (e - s) / n }'
for f in page.html page.json trace.json; do
  echo "$f: $(stat -c %s "$work/$f") bytes"
done
