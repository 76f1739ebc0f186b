#!/usr/bin/env bash
# Benchmark of the fleet export on phone-scale captures (not a test; asserts nothing):
#   bench/fleet.sh [BINARY]        CAPTURES=1000 JOBS=2 EXTRA_BUFFERS=1000
# gen_tree makes a 1x device tree (1000 processes, 2000 exported buffers), made a slim capture's
# by bench/phone_tree.py (as bench/report.sh does: the sample's memory files added, nothing that
# capture/members.txt does not name, /dmabuf lines of maps, a command line per process, fdinfo of
# DMA-BUF descriptors only); EXTRA_BUFFERS more buffers are exported and held without a mapping.
# CAPTURES captures follow, of 4 models on 2 builds (the second grows gpu_region), each with its
# own boot and times; every fifth leaks 1 to 8 more buffers. The
# tree is packed once and each capture appends its own members to it, so generating 1000
# captures takes seconds, not the export's time. fleet.py then exports them with -j JOBS, and
# the README's queries run on the export (tests/fleet/queries.mjs, when `scripts/setup.sh fleet`
# has installed its package). The script prints the times, the rate, the tables' sizes and the
# machine's load before and after.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
binary=$(realpath "${1:-$top/build/default/tool/quarrystat}")
gen=${GEN_TREE:-$top/build/default/bench/gen_tree}
count=${CAPTURES:-1000}
jobs=${JOBS:-2}
[ -x "$gen" ] || { echo "fleet.sh: no $gen (build the default preset)" >&2; exit 2; }
work=$(mktemp -d "${TMPDIR:-/tmp}/quarry-bench-fleet.XXXXXX")
trap '[ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
"$gen" "$work/tree" 1
start=$(date +%s.%N)
/usr/bin/python3 - "$top" "$work" "$count" "${EXTRA_BUFFERS:-1000}" <<'PY'
import io, os, sys, tarfile, zlib
top, work, count, extra = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
tree = os.path.join(work, "tree")
sys.path.insert(0, os.path.join(top, "bench"))
import phone_tree  # noqa: E402
pids = phone_tree.slim(top, tree, lambda n, pid: b"/system/bin/bench_process_%d\0--serve\0" % pid)
stat_name = "proc/debug_ext/mem_statis/reserved_memory_stat"
with open(os.path.join(tree, stat_name), "rb") as f:
    stat = f.read()
os.unlink(os.path.join(tree, stat_name))  # each capture brings its own build's


def members(tar, files):
    for name in sorted(files):
        t = tarfile.TarInfo("./" + name)
        t.size, t.mode = len(files[name]), 0o644
        tar.addfile(t, io.BytesIO(files[name]))


base = {}
for i in range(extra):
    phone_tree.held_buffer(base, 900000 + i, 4096 * (1 + i % 64), ("system", "gpu", "camera")[i % 3], pids[i % len(pids)], 9000 + i)
raw = io.BytesIO()
tar = tarfile.open(fileobj=raw, mode="w", format=tarfile.GNU_FORMAT)
tar.add(tree, arcname=".")
members(tar, base)
tar.fileobj.flush()
head = raw.getvalue()  # the members, before the end-of-archive blocks close() would add
packer = zlib.compressobj(1, zlib.DEFLATED, 31)
packed = packer.compress(head)
out = os.path.join(work, "farm")
models = ("alpha", "bravo", "charlie", "delta")
for n in range(count):
    model, build = models[n % 4], ("B1", "B2")[(n // 4) % 2]
    files = {stat_name: stat if build == "B1" else stat.replace(
        b"gpu_region: addr 0xa0000000, size 4096 KB", b"gpu_region: addr 0xa0000000, size 8192 KB")}
    if n % 5 == 0:
        for k in range(1 + n % 8):
            phone_tree.held_buffer(files, 990000 + k, 1 << 20, "system", pids[n % 7], 20000 + k)
    up = 5000 + n
    files["capture-info"] = (
        "format=1\nkernel_release=6.1.0-bench\nmodel=%s\nfingerprint=acme/%s/%s:15/%s/1:user/release-keys\n"
        "boot_id=bench-%d\nuptime_start=%d.00\nwall_start=%d\nuptime_end=%d.00\nwall_end=%d\n"
        % (model, model, model, build, n, up, 1764000000 + up, up + 2, 1764000002 + up)).encode()
    tail = io.BytesIO()
    t = tarfile.open(fileobj=tail, mode="w", format=tarfile.GNU_FORMAT)
    members(t, files)
    t.close()
    z = packer.copy()
    folder = os.path.join(out, model)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "capture-%04d.tar.gz" % n), "wb") as f:
        f.write(packed + z.compress(tail.getvalue()) + z.flush())
PY
rm -rf "$work/tree"
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" -v n="$count" -v size="$(du -sm "$work/farm" | cut -f1)" \
  'BEGIN { printf "farm: %d captures, %d MB, made in %.1f s\n", n, size, e - s }'
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
start=$(date +%s.%N)
status=0
/usr/bin/python3 "$top/snapshot/fleet.py" --binary "$binary" -o "$work/out" -j "$jobs" "$work/farm" ||
  status=$?
end=$(date +%s.%N)
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
awk -v s="$start" -v e="$end" -v n="$count" -v j="$jobs" -v st="$status" \
  'BEGIN { printf "fleet.py -j %d: %.1f s for %d captures, %.2f captures/s (status %d; target 600 s for 1000 on 2 cores)\n", j, e - s, n, n / (e - s), st }'
for t in captures buffers regions counters; do
  echo "$t.jsonl: $(wc -l <"$work/out/$t.jsonl") rows, $(stat -c %s "$work/out/$t.jsonl") bytes"
done
start=$(date +%s.%N)
/usr/bin/python3 "$top/snapshot/fleet.py" --binary "$binary" -o "$work/out" -j "$jobs" "$work/farm" 2>/dev/null || true
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" 'BEGIN { printf "second run (nothing replayed): %.1f s\n", e - s }'
if [ -d "$top/tests/fleet/node_modules/@duckdb" ]; then
  node "$top/tests/fleet/queries.mjs" "$top/README.md" "$work/out" | /usr/bin/python3 -c '
import json, sys
r = json.load(sys.stdin)
print("%s: load of the four tables %.0f ms" % (r["engine"], r["load_ms"]))
for name, q in r["queries"].items():
    print("query %s: %.0f ms, %d rows (target under 1000 ms)" % (name, q["ms"], len(q["rows"])))'
else
  echo "queries: not run (scripts/setup.sh fleet installs DuckDB's package)"
fi
