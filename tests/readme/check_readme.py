#!/usr/bin/python3
"""Checks README.md against the binary, so that its examples cannot drift from what it prints.

  check_readme.py BINARY

1. The table of "When a report prints nothing or something odd": each case below is run on a
   copy of sample/device changed as the case says, and must print its texts (whole lines, on
   the stream named) with its status; the table must have a row naming the command that holds
   those texts and that status.
2. Every README code block that starts with "$ quarrystat " is a run of lines of what
   scripts/demo.sh prints on the sample (trailing blanks aside).
3. The block under "Leak hunting" is what snapshot/compare.sh prints on the lab's pair, and the
   one under "Build over build" what it prints on the lab's two builds.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SECTION = "## When a report prints nothing or something odd"
STAT = "proc/debug_ext/mem_statis/reserved_memory_stat"

# (setup: [(action, path, ...)], args, status, stream, texts, absent texts)
# "nothing" as the only text: the stream is empty; no texts: the report is not empty. Absent
# texts: no line of standard output starts with them, and the row names them.
CASES = [
    ([("rm", "proc/meminfo")], ["-n"], 0, "stdout", ["nothing"], []),
    ([("rm", "proc/config.gz")], ["-n"], 0, "stdout", ["nothing"], []),
] + [
    ([("rm", path)], args, 239, "stdout", ["nothing"], [])
    for path in (STAT, "d/memblock/reserved", "d/memblock/memory")
    for args in (["-s"], ["-p", "8b900000"])
] + [
    ([("rm", "proc/iomem")], ["-s"], 0, "stdout", [],
     ["[MemblockReserved] Kernel code", "[MemblockReserved] Kernel data"]),
    ([("rm", "proc/debug_ext/mem_statis/ko_memory_stat")], ["-k"], 239, "stdout", ["nothing"], []),
    ([], ["-n"], 0, "stderr",
     ["quarrystat: E sysmeminfo.cpp:16] Can't open file: /sys/kernel/ion/total_heaps_kb"], []),
    ([("rm", "sys/kernel/dmabuf")], ["-u"], 0, "stdout",
     ["Unable to read DMA-BUF sysfs stats from device"], []),
    ([("rm", "sys/kernel/dmabuf")], ["-n"], 0, "stdout",
     ["DMA-BUF unmapped:   unknown (/sys/kernel/dmabuf/buffers unreadable)"], []),
    ([], ["-p", "8b9zzzz"], 0, "stdout", ["0x8b9 is not a ddr physical address"], []),
    ([], ["-p", "900000000"], 0, "stdout", ["0x900000000 is in bp hole"], []),
    ([], ["-k", "modem_ctrl"], 0, "stdout", ["module name"], []),
    ([], ["-kmodem"], 0, "stdout",
     ["modem_ctrl           |      212 |       40 |      16 |       268"], []),
    ([("sed", STAT, "ReservedMemoryTotal: size 251345 KB", "ReservedMemoryTotal: size 260000 KB")],
     ["-s"], 0, "stdout",
     ["ReservedMemoryTotal 260000 KB ?=",
      "251345 KB = bp hole(1024 KB) + fdt_nomap(122880 KB) + mb_reserved(209361 KB) - cma_total(81920 KB)"],
     []),
]

problems = []


def problem(text):
    problems.append(text)
    print("check-readme: " + text, file=sys.stderr)


def lines(text):
    return [line.rstrip(" ") for line in text.split("\n")]


def run_case(binary, work, setup, args):
    tree = os.path.join(work, "tree")
    shutil.rmtree(tree, ignore_errors=True)
    shutil.copytree(os.path.join(TOP, "sample/device"), tree, symlinks=True)
    for action, path, *rest in setup:
        # /d is a link in the sample; the change goes to the file it leads to.
        target = os.path.realpath(os.path.join(tree, path))
        if action == "rm":
            if os.path.isdir(target):
                shutil.rmtree(target)
            else:
                os.remove(target)
        else:
            with open(target) as f:
                text = f.read()
            assert rest[0] in text, (path, rest[0])
            with open(target, "w") as f:
                f.write(text.replace(rest[0], rest[1]))
    return subprocess.run([os.path.join(TOP, "scripts/run-in-tree.sh"), tree, binary] + args,
                          capture_output=True, text=True, errors="replace", timeout=120)


def table_rows(readme):
    if SECTION not in readme:
        problem("no section \"%s\"" % SECTION)
        return []
    section = readme.split(SECTION, 1)[1].split("\n## ", 1)[0]
    # A | inside a table cell is written \|.
    return [row.replace("\\|", "|") for row in section.split("\n") if row.startswith("| `")]


def check_table(binary, readme, work):
    rows = table_rows(readme)
    for setup, args, status, stream, texts, absent in CASES:
        command = "quarrystat " + " ".join(args)
        name = "%s (%s)" % (command, ", ".join(" ".join(step[:2]) for step in setup) or "the sample")
        run = run_case(binary, work, setup, args)
        out = run.stdout if stream == "stdout" else run.stderr
        if run.returncode != status:
            problem("%s: exit status %d, not %d" % (name, run.returncode, status))
        if texts == ["nothing"]:
            if out:
                problem("%s: printed on %s: %r" % (name, stream, out[:200]))
        elif not texts and not run.stdout:
            problem("%s: printed nothing" % name)
        else:
            for text in texts:
                if text not in lines(out):
                    problem("%s: no line %r on %s" % (name, text, stream))
        for text in absent:
            if any(line.startswith(text) for line in lines(run.stdout)):
                problem("%s: printed %r" % (name, text))
        wanted = ["`%s`" % command, "status %d" % status] + [
            "prints nothing" if t == "nothing" else "`%s`" % t for t in texts + absent]
        if not any(all(w in row for w in wanted) for row in rows):
            problem("%s: no row of the table holds %s" % (name, " and ".join(wanted)))


def code_blocks(readme):
    return re.findall(r"^```[a-z]*\n(.*?)^```$", readme, re.S | re.M)


def check_demo(binary, readme):
    env = dict(os.environ, QUARRY_BINARY=binary)
    run = subprocess.run([os.path.join(TOP, "scripts/demo.sh")], capture_output=True, text=True,
                         env=env, timeout=300)
    if run.returncode != 0:
        problem("scripts/demo.sh: exit status %d: %s" % (run.returncode, run.stderr[-500:]))
        return
    got = lines(run.stdout)
    blocks = [b for b in code_blocks(readme) if b.startswith("$ quarrystat ")]
    if not blocks:
        problem("no block of the demo's output")
    for block in blocks:
        want = lines(block.rstrip("\n"))
        if not any(got[i:i + len(want)] == want for i in range(len(got))):
            problem("the block starting %r is not what scripts/demo.sh prints" % want[0])


def check_compare(binary, readme, work, data="pair", names=("before", "after")):
    command = "$ snapshot/compare.sh %s.tar.gz %s.tar.gz build/default/tool/quarrystat" % names
    blocks = [b for b in code_blocks(readme) if b.startswith(command + "\n")]
    if len(blocks) != 1:
        problem("not one block starting %r" % command)
        return
    pair = os.path.join(work, data)
    os.mkdir(pair)
    for side in names:
        shutil.copy(os.path.join(TOP, "tests/data", data, side + ".tar.gz"), pair)
    # Run where the user would, so the captures' names are the README's.
    run = subprocess.run([os.path.join(TOP, "snapshot/compare.sh"), names[0] + ".tar.gz",
                          names[1] + ".tar.gz", binary], cwd=pair, capture_output=True, text=True,
                         timeout=600)
    if run.returncode != 0:
        problem("compare.sh: exit status %d: %s" % (run.returncode, run.stderr[-500:]))
    want = lines(blocks[0].rstrip("\n"))[1:]
    got = lines(run.stdout.rstrip("\n"))
    if want != got:
        diff = [("- " + w, "+ " + g) for w, g in zip(want, got) if w != g][:3]
        problem("the compare example of %s is not what compare.sh prints (README -, compare.sh +): %s%s"
                % (data, diff, "" if len(want) == len(got) else
                   "; %d lines, not %d" % (len(got), len(want))))


def main():
    if len(sys.argv) != 2:
        print("usage: check_readme.py BINARY", file=sys.stderr)
        return 2
    binary = os.path.realpath(sys.argv[1])
    with open(os.path.join(TOP, "README.md")) as f:
        readme = f.read()
    with tempfile.TemporaryDirectory() as work:
        check_table(binary, readme, work)
        check_demo(binary, readme)
        check_compare(binary, readme, work)
        check_compare(binary, readme, work, "builds", ("build1", "build2"))
    if problems:
        return 1
    print("check-readme: %d silences, the demo's output and the two compare examples hold" % len(CASES))
    return 0


if __name__ == "__main__":
    sys.exit(main())
