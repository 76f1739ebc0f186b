#!/usr/bin/env bash
# Benchmark of the report page on a phone-scale recording (not a test; asserts nothing):
#   bench/report.sh [BINARY]        CAPTURES=60 EXTRA_BUFFERS=1000 RUNS=5
# gen_tree makes a 1x device tree (1000 processes, 2000 exported buffers), which
# bench/phone_tree.py makes a slim capture's tree as the capture program writes one: the sample's
# memory files are added so every report has something to say, each maps file keeps only its
# /dmabuf lines, each process gets a command line, only the fdinfo files of DMA-BUF descriptors
# are kept, nothing capture/members.txt does not name. EXTRA_BUFFERS more buffers are exported
# and held without a mapping (about 3000 in all). CAPTURES captures a minute apart follow, each
# with one more leaked buffer.
# Everything is timed on one core (taskset -c 0). First where one capture's time goes, each
# part on its own (the fastest of RUNS): the start of a Python process, unpack.py, unpack.py
# with the three reports, and replay.sh --reports as a whole (the differences are the reports
# and what replay starts around them). Then report.py makes the page, the JSON and the trace of
# the whole recording; the script prints its time, split into replays, the page and the rest
# (parsing the reports, the series, the JSON), the CPU time used, and the sizes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
binary=$(realpath "${1:-$top/build/default/tool/quarrystat}")
gen=${GEN_TREE:-$top/build/default/bench/gen_tree}
count=${CAPTURES:-60}
runs=${RUNS:-5}
[ -x "$gen" ] || { echo "report.sh: no $gen (build the default preset)" >&2; exit 2; }
work=$(mktemp -d /dev/shm/quarry-bench-report.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$gen" "$work/tree" 1
/usr/bin/python3 - "$top" "$work" "$count" "${EXTRA_BUFFERS:-1000}" <<'PY'
import os, shutil, subprocess, sys
top, work, count, extra = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
tree = os.path.join(work, "tree")
sys.path.insert(0, os.path.join(top, "bench"))
import phone_tree  # noqa: E402


def cmdline(n, pid):
    # As a phone has them: app processes named by their package, services by their program and
    # arguments.
    if n % 3:
        return b"com.example.bench.app%d:remote\0" % n
    return b"/vendor/bin/hw/bench.hal@%d.0-service\0--instance\0default\0" % (n % 7)


pids = phone_tree.slim(top, tree, cmdline)


base = {}
for i in range(extra):
    phone_tree.held_buffer(base, 900000 + i, 4096 * (1 + i % 64), ("system", "gpu", "camera")[i % 3],
                           pids[i % len(pids)], 9000 + i)
phone_tree.write(tree, base)
os.makedirs(os.path.join(work, "rec"))
for n in range(count):
    over = os.path.join(work, "over%d" % n)
    files = {}
    for k in range(n + 1):  # one more leaked buffer per capture, held by the first process
        phone_tree.held_buffer(files, 990000 + k, 14352384, "system", pids[0], 20000 + k)
    up = 5000 + 60 * n
    files["capture-info"] = b"format=1\nmodel=bench\nboot_id=bench\nuptime_start=%d.00\nwall_start=%d\n" % (
        up, 1764000000 + up)
    os.makedirs(over)
    phone_tree.write(over, files)
    out = os.path.join(work, "rec", "capture-%04d.tar.gz" % (n + 1))
    subprocess.run(["tar", "-I", "gzip -1", "-cf", out, "-C", tree, ".", "-C", over, "."], check=True)
    shutil.rmtree(over)
PY
rm -rf "$work/tree"
first=$work/rec/capture-0001.tar.gz
echo "recording: $count captures, $(du -sh "$work/rec" | cut -f1) compressed;" \
  "one capture $(stat -c %s "$first") bytes, $(tar -tzf "$first" | wc -l) entries"

# One capture's parts, each on its own, on core 0: the fastest of RUNS runs, by the wall clock
# and by the CPU time used (the steadier figure on a shared machine). unpack.py makes its tree
# on a tmpfs of a mount namespace of its own, as replay does.
mkdir "$work/out" "$work/mnt"
taskset -c 0 /usr/bin/python3 - "$runs" "$top" "$work" "$first" "$binary" <<'PY'
import os, resource, subprocess, sys, time
runs, top, work, first, binary = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5]

def fastest(cmd):
    wall = cpu = None
    for _ in range(runs):
        before, t = resource.getrusage(resource.RUSAGE_CHILDREN), time.perf_counter()
        subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        w, after = time.perf_counter() - t, resource.getrusage(resource.RUSAGE_CHILDREN)
        c = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
        wall, cpu = min(wall or w, w), min(cpu or c, c)
    return wall, cpu

ns = ["unshare", "-m"] if os.geteuid() == 0 else ["unshare", "-Urm"]
in_tmpfs = 'mount -t tmpfs quarry-bench "$1" && /usr/bin/python3 "$2" "$3" "$1/tree"'
parts = [
    ("Python start-up", ["/usr/bin/python3", "-c", "pass"]),
    ("unpack.py", ns + ["bash", "-c", in_tmpfs, "x", work + "/mnt", top + "/snapshot/unpack.py", first]),
    ("unpack.py and the three reports", ns + ["bash", "-c", in_tmpfs + ' && cp "$4" "$1/tree/q" && '
     'for m in -u -n -s; do chroot "$1/tree" /q $m; done', "x", work + "/mnt", top + "/snapshot/unpack.py", first,
     binary]),
    ("replay.sh --reports", [top + "/snapshot/replay.sh", "--reports", work + "/out", first, binary]),
]
got = {name: fastest(cmd) for name, cmd in parts}
print("one capture, fastest of %d runs, wall / CPU:" % runs)
for name, (w, c) in got.items():
    print("  %-34s %.3f s / %.3f s" % (name, w, c))
un, both, whole = got["unpack.py"], got["unpack.py and the three reports"], got["replay.sh --reports"]
print("  %-34s %.3f s / %.3f s" % ("so the three reports", both[0] - un[0], both[1] - un[1]))
print("  %-34s %.3f s / %.3f s" % ("and what replay starts around them", whole[0] - both[0], whole[1] - both[1]))
PY

taskset -c 0 /usr/bin/python3 - "$top" "$binary" "$work" "$count" <<'PY'
import os, resource, sys, time
top, binary, work, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
start = time.perf_counter()
sys.path.insert(0, os.path.join(top, "snapshot"))
import capturefiles, page, report  # noqa: E402
spent = {"replays": 0.0, "page": 0.0}

def timed(what, call):
    def run(*args, **kwargs):
        t = time.perf_counter()
        try:
            return call(*args, **kwargs)
        finally:
            spent[what] += time.perf_counter() - t
    return run

def timed_series(call):
    def run(*args, **kwargs):
        replays = call(*args, **kwargs)
        try:
            while True:
                t = time.perf_counter()
                try:
                    item = next(replays)
                except StopIteration:
                    return
                finally:
                    spent["replays"] += time.perf_counter() - t
                yield item
        finally:
            replays.close()
    return run

capturefiles.replay_series = timed_series(capturefiles.replay_series)
page.render = timed("page", page.render)
status = report.main(["--binary", binary, "-o", os.path.join(work, "page.html"), "--json", os.path.join(work, "page.json"),
                      "--trace", os.path.join(work, "trace.json"), os.path.join(work, "rec")])
total = time.perf_counter() - start
if status:
    sys.exit(status)
cpu = sum(getattr(resource.getrusage(who), f) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)
          for f in ("ru_utime", "ru_stime"))
print("report.py, one core: %.1f s (%.2f s per capture; target 20 s for 60): replays %.1f s, page %.2f s, "
      "the rest (parsing the reports, series, JSON, writing) %.1f s"
      % (total, total / count, spent["replays"], spent["page"], total - spent["replays"] - spent["page"]))
# On a shared machine the core is not all ours: the CPU time used is the steadier figure.
print("CPU time used (report.py and everything it ran): %.1f s (%.2f s per capture)" % (cpu, cpu / count))
PY
for f in page.html page.json trace.json; do
  echo "$f: $(stat -c %s "$work/$f") bytes"
done
