#!/usr/bin/env python3
"""Prints the coverage table of a gcovr JSON report and every line no test reaches.

Each unreached line is matched against UNREACHABLE, a list of (file, text in the line, reason)
for lines that no test can reach on a working machine; a line that matches none is printed as
"NOT EXPLAINED" and counted in the last line, so a new gap is seen rather than averaged away.
"""
import json
import sys

# Matched by a fragment of the source line, not by line number, so edits elsewhere keep them.
UNREACHABLE = [
    ("tool/reserved.cpp", "ret = -ENOMEM;", "allocation failure (malloc of one small record)"),
    ("tool/reserved.cpp", "break;", "after an allocation failure (malloc of one small record)"),
    ("tool/reserved.cpp", "return -EEXIST;",
     "a statistics or memblock file that opened a moment before and is gone now, or a table "
     "path other than the two the tool passes"),
    ("tool/reserved.cpp", "return 0;",
     "the statistics file opened by the loader a moment before is gone now"),
    ("tool/reserved.cpp", "return static_cast<long>(bytes >> 10);",
     "only called with a negative count (the in-hole bytes exceed the holes)"),
    ("tool/unmapped.cpp", "Failed to open /proc directory",
     "/proc opened by the mapped walk a moment before is gone now"),
    ("tool/unmapped.cpp", "return -1;", "/proc opened by the mapped walk a moment before is gone now"),
    ("tool/unmapped.cpp", "DMA-BUF walk took %d passes",
     "a process that fails one pass and reads in a later one: it needs processes that change "
     "during the walk (the device lab's moving processes), not a still tree"),
    ("tool/unmapped.cpp", "fprintf(stderr,",
     "the held walk cannot open /proc that the mapped walk opened a moment before"),
    ("tool/unmapped.cpp", "return;",
     "after the held walk cannot open /proc, or after a last pass that skips nobody although "
     "three passes failed: both need a tree that changes during the run"),
    ("libmeminfo/libdmabufinfo/dmabufinfo.cpp", "LogPermissionWarningOnce",
     "reached by ReadDmaBufFdRefs.PermissionMessageOnce in a child that drops root and ends with "
     "_exit(), which writes no counters"),
    ("libmeminfo/libdmabufinfo/dmabufinfo.cpp", "permission_warning_logged",
     "reached by ReadDmaBufFdRefs.PermissionMessageOnce in a child that drops root and ends with "
     "_exit(), which writes no counters"),
    ("libmeminfo/libdmabufinfo/dmabufinfo.cpp", "Failed to read fdinfo - requires",
     "reached by ReadDmaBufFdRefs.PermissionMessageOnce in a child that drops root and ends with "
     "_exit(), which writes no counters"),
    ("libmeminfo/libdmabufinfo/dmabufinfo.cpp", "the device kernel",
     "reached by ReadDmaBufFdRefs.PermissionMessageOnce in a child that drops root and ends with "
     "_exit(), which writes no counters"),
] + [
    ("base/logging.cpp", fragment,
     "a message that cannot be formed for want of memory: reached by "
     "OutOfMemory.ReportsReturnNoMemoryAndSaySo in children that end with _exit(), which writes "
     "no counters")
    for fragment in ("snprintf(text,", "strerror(ENOMEM)", "if (n > 0) {", "std::min<size_t>(n,")
] + [
    ("libmeminfo/libdmabufinfo/dmabufinfo.cpp", "name++;",
     "a descriptor name with leading white space: the kernel names descriptors by plain digits"),
]


def main(path):
    with open(path) as f:
        report = json.load(f)
    rows = []
    missing = []
    tot = [0, 0, 0, 0]
    for entry in sorted(report["files"], key=lambda e: e["file"]):
        name = entry["file"]
        try:
            with open(name) as src:
                text = src.read().splitlines()
        except OSError:
            text = []
        lt = lc = bt = bc = 0
        for line in entry["lines"]:
            if line.get("gcovr/noncode"):
                continue
            lt += 1
            if line["count"] > 0:
                lc += 1
            else:
                missing.append((name, line["line_number"]))
            for branch in line.get("branches", []):
                bt += 1
                bc += branch["count"] > 0
        rows.append((name, lc, lt, bc, bt))
        for i, v in enumerate((lc, lt, bc, bt)):
            tot[i] += v

    def pct(a, b):
        return "%5.1f %%" % (100.0 * a / b) if b else "    - "

    print("%-48s %15s %8s %15s %8s" % ("File", "Lines", "", "Branches", ""))
    for name, lc, lt, bc, bt in rows:
        print("%-48s %7d / %5d %s %7d / %5d %s" % (name, lc, lt, pct(lc, lt), bc, bt, pct(bc, bt)))
    print("%-48s %7d / %5d %s %7d / %5d %s" % ("TOTAL", tot[0], tot[1], pct(tot[0], tot[1]),
                                               tot[2], tot[3], pct(tot[2], tot[3])))
    print()
    print("Lines no test reaches:")
    unexplained = 0
    for name, number in missing:
        try:
            with open(name) as src:
                source = src.read().splitlines()[number - 1].strip()
        except (OSError, IndexError):
            source = ""
        reason = next((r for f, frag, r in UNREACHABLE if f == name and frag in source), None)
        if reason is None:
            reason = "NOT EXPLAINED"
            unexplained += 1
        print("  %s:%d  %s\n      %s" % (name, number, source, reason))
    if not missing:
        print("  none")
    print("%d lines not reached, %d of them not explained" % (len(missing), unexplained))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
