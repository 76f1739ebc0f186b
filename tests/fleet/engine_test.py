"""The README's fleet queries, as written there, on DuckDB (tests/fleet, `scripts/setup.sh
fleet`): a generated fleet (two models, two builds, leaks on the second build, one capture cut
short) is exported by fleet.py, loaded by the README's statements, and each query's answer is
checked against what the fleet was made to hold.
  engine_test.py BINARY        (status 77: DuckDB's package is not installed)
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(TOP, "tests", "snapshot"))
import fleet_captures as fc  # noqa: E402

MIB = 1 << 20


def fail(text):
    print("engine_test: " + text, file=sys.stderr)
    sys.exit(1)


def check(got, want, what):
    if got != want:
        fail("%s:\n  got  %s\n  want %s" % (what, got, want))


def main(binary):
    if not os.path.isdir(os.path.join(HERE, "node_modules", "@duckdb", "node-api")):
        print("engine_test: DuckDB's package is not installed (scripts/setup.sh fleet)", file=sys.stderr)
        return 77
    with tempfile.TemporaryDirectory() as work:
        fc.make(os.path.join(work, "farm"))
        out = os.path.join(work, "out")
        p = subprocess.run(["/usr/bin/python3", os.path.join(TOP, "snapshot", "fleet.py"), "--binary", binary,
                            "-o", out, os.path.join(work, "farm")], capture_output=True, text=True, timeout=300)
        check(p.returncode, 1, "fleet.py's status (one capture truncated): " + p.stderr)
        p = subprocess.run(["node", os.path.join(HERE, "queries.mjs"), os.path.join(TOP, "README.md"), out],
                           capture_output=True, text=True, timeout=300)
        if p.returncode != 0:
            fail("the README's queries failed: " + p.stderr)
        result = json.loads(p.stdout)
    queries = result["queries"]
    check(sorted(queries), ["kernel memory per model", "regions by build", "top holders"], "the README's queries")

    # Top holders: the leaker first wherever it leaked most, absent from builds without leaks;
    # the sample's own holders (dmabuf-test: 2 MiB + 64 KiB + 128 KiB a device, its 2 MiB
    # buffer held by two processes of that name counted once) on every build.
    base = 2 * MIB + 65536 + 131072
    top = [(r["model"], r["build"], r["holder"], int(r["bytes"]), int(r["captures"]), int(r["bytes_per_capture"]))
           for r in queries["top holders"]["rows"]]
    want = []
    for m in fc.MODELS:
        for b in fc.BUILDS:
            held = [("dmabuf-test", 2 * base), ("kernel", 2 * 32768)]
            if b == "B2" and any(fc.LEAKS[m]):
                held.append(("leaker", sum(fc.LEAKS[m]) * MIB))
            held.sort(key=lambda h: (-h[1], h[0]))
            want += [(m, fc.build_name(b), name, held_bytes, 2, held_bytes // 2) for name, held_bytes in held[:3]]
    check(top, want, "top holders")

    # Regions: gpu_region, and only it, differs between the builds of each model.
    rows = queries["regions by build"]["rows"]
    differing = sorted({(r["model"], r["name"]) for r in rows if r["differs"]})
    check(differing, [(m, "gpu_region") for m in fc.MODELS], "regions whose size differs")
    gpu = sorted((r["model"], r["build"], int(r["smallest_bytes"]), int(r["largest_bytes"]), int(r["captures"]))
                 for r in rows if r["name"] == "gpu_region")
    check(gpu, sorted((m, fc.build_name(b), fc.GPU_KB[b] * 1024, fc.GPU_KB[b] * 1024, 2)
                      for m in fc.MODELS for b in fc.BUILDS), "gpu_region per build")

    # Kernel memory per model over its four replayed captures (the cut one has no counters).
    kernel = [(r["model"], int(r["min_bytes"]), float(r["median_bytes"]), int(r["max_bytes"]), int(r["captures"]))
              for r in queries["kernel memory per model"]["rows"]]
    want = []
    for m in fc.MODELS:
        totals = [fc.kernel_kb(m, b, n) * 1024 for b in fc.BUILDS for n in range(2)]
        want.append((m, min(totals), float(statistics.median(totals)), max(totals), len(totals)))
    check(kernel, want, "kernel memory per model")
    print("engine_test: %s answered the README's %d queries as expected" % (result["engine"], len(queries)))
    return 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        print("usage: engine_test.py BINARY", file=sys.stderr)
        sys.exit(2)
    sys.exit(main(sys.argv[1]))
