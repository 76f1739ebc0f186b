#!/usr/bin/env python3
"""Mutation runner: how many small faults in the product code does the fast suite catch?

It makes one change at a time in tool/, libmeminfo/, procinfo/ or base/ (a comparison flipped,
a constant off by one, a condition negated, a logical connector swapped, a statement removed,
a pointer or index offset changed), rebuilds a dedicated build directory incrementally, runs
the unit tests and end-to-end cases (not the live kernel check, the lab or the fuzzers) and
counts the mutant killed when the suite fails, survived when it passes, and "did not build"
when the change does not compile. Every file is restored after its mutant, also on Ctrl-C or
a kill, and at the start of a run if an earlier one died before it could.

    scripts/mutate.py [--sample N] [--seed S] [--report FILE] [--only PATH...]

The candidates are all the changes the operators can make; --sample draws N of them with a
fixed seed, spread over every file in proportion to its candidates (at least two a file).
Survivors are matched against tests/mutation-equivalents.txt, which names the changes that
cannot be observed and why; a survivor not listed there is printed as UNEXPLAINED.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time

TOP = os.path.realpath(os.path.join(os.path.dirname(__file__), ".."))
PRODUCT_DIRS = ["tool", "libmeminfo", "procinfo", "base"]
BACKUP_SUFFIX = ".mutate-orig"
EQUIVALENTS = os.path.join(TOP, "tests", "mutation-equivalents.txt")


def product_files():
    files = []
    for d in PRODUCT_DIRS:
        for dirpath, _, names in os.walk(os.path.join(TOP, d)):
            for n in sorted(names):
                if n.endswith((".cpp", ".h")):
                    files.append(os.path.relpath(os.path.join(dirpath, n), TOP))
    return sorted(files)


def code_mask(text):
    """Per character: True where it is code, False inside comments, strings and char literals."""
    mask = [True] * len(text)
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            j += 1
        elif c == "#" and (i == 0 or text[i - 1] == "\n"):
            # Preprocessor lines are left alone, but for the number of a #define.
            j = text.find("\n", i)
            j = n if j < 0 else j
            m = re.match(r"#define\s+\w+\s+(\d+)(UL|U|L)?\s*$", text[i:j])
            if m:
                for k in range(i, i + m.start(1)):
                    mask[k] = False
                i = i + m.end(1)
                continue
        else:
            i += 1
            continue
        for k in range(i, min(j, n)):
            mask[k] = False
        i = j
    return mask


COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}


def candidates(path):
    """Every mutant of one file: (offset, length, replacement, operator, description)."""
    with open(os.path.join(TOP, path)) as f:
        text = f.read()
    mask = code_mask(text)
    out = []

    def is_code(start, end):
        return all(mask[start:end])

    # Comparisons, told apart from shifts, arrows, templates and includes.
    for m in re.finditer(r"(?<![<>\-=!])(<=|>=|==|!=|<|>)(?![<>=])", text):
        op = m.group(1)
        if not is_code(m.start(), m.end()):
            continue
        if op in "<>":
            before = text[max(0, m.start() - 40):m.start()]
            # template arguments, casts and includes: "static_cast<", "vector<T>", "<stdio.h>"
            if re.search(r"(\w_cast|template|vector|set|map|ptr|array|function|pair|T|std::\w+)\s*$",
                         before) or (op == ">" and re.search(r"<[\w:, *&]*$", before)):
                continue
        out.append((m.start(), len(op), COMPARISONS[op], "comparison", "%s -> %s" % (op, COMPARISONS[op])))
    # Logical connectors.
    for m in re.finditer(r"&&|\|\|", text):
        if is_code(m.start(), m.end()):
            new = "||" if m.group() == "&&" else "&&"
            out.append((m.start(), 2, new, "connector", "%s -> %s" % (m.group(), new)))
    # Integer constants one up and one down; offsets after + or - are "offset" changes.
    for m in re.finditer(r"(?<![\w.])(\d+)(UL|U|L|ULL)?(?![\w.])", text):
        if not is_code(m.start(), m.end(1)):
            continue
        value = int(m.group(1), 0) if not m.group(1).startswith("0") or m.group(1) == "0" else None
        if value is None:
            continue
        before = text[max(0, m.start() - 3):m.start()]
        kind = "offset" if re.search(r"[+\-]\s*$", before) else "constant"
        for delta in (1, -1):
            if value + delta < 0:
                continue
            out.append((m.start(), len(m.group(1)), str(value + delta), kind,
                        "%s -> %d" % (m.group(1), value + delta)))
    # Conditions negated.
    for m in re.finditer(r"\b(if|while)\s*\(", text):
        if not is_code(m.start(), m.end()):
            continue
        depth, j = 1, m.end()
        while j < len(text) and depth:
            if mask[j]:
                depth += {"(": 1, ")": -1}.get(text[j], 0)
            j += 1
        cond = text[m.end():j - 1]
        if "\n\n" in cond or len(cond) > 300:
            continue
        out.append((m.end(), j - 1 - m.end(), "!(%s)" % cond, "negation",
                    "%s (...) negated" % m.group(1)))
    # Statements removed: lines that are a call, an assignment, an increment or a jump.
    pos = 0
    for line in text.splitlines(True):
        stripped = line.strip()
        start = pos + len(line) - len(line.lstrip())
        pos += len(line)
        if not stripped.endswith(";") or not is_code(start, start + len(stripped)):
            continue
        if re.match(r"(return\b|break;|continue;|[\w\->.\[\]*()]+\s*(\(|[-+*/|&^]?=[^=]|\+\+|--))",
                    stripped) and not re.match(
                        r"(const|static|auto|int|long|char|bool|uint\w*|size_t|std::|struct|unsigned|"
                        r"FILE|DIR|FTS\w*|DmaBuffer|using|typedef)\b", stripped):
            out.append((start, len(stripped), ";", "removal", "statement removed"))
    return text, out


def restore_all():
    for path in product_files_with_backup():
        os.replace(path + BACKUP_SUFFIX, path)
        os.utime(path, None)


def product_files_with_backup():
    found = []
    for d in PRODUCT_DIRS:
        for dirpath, _, names in os.walk(os.path.join(TOP, d)):
            for n in names:
                if n.endswith(BACKUP_SUFFIX):
                    found.append(os.path.join(dirpath, n[:-len(BACKUP_SUFFIX)]))
    return found


def run(cmd, timeout, cwd=TOP):
    try:
        p = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           timeout=timeout)
        return p.returncode, p.stdout.decode(errors="replace")
    except subprocess.TimeoutExpired as e:
        return "timeout", (e.stdout or b"").decode(errors="replace")


def load_equivalents():
    """Lines "file | code fragment | change | reason"; '#' starts a comment."""
    entries = []
    if os.path.exists(EQUIVALENTS):
        with open(EQUIVALENTS) as f:
            for line in f:
                if line.strip() and not line.startswith("#"):
                    parts = [p.strip() for p in line.split("|", 3)]
                    if len(parts) == 4:
                        entries.append(parts)
    return entries


def explain(equivalents, path, desc, source_line, mutated_line):
    """The reason an equivalents entry gives for this survivor, or None."""
    for e_file, e_frag, e_desc, e_reason in equivalents:
        frag, _, want = e_frag.partition("=>")
        if (e_file == path and frag.strip() in source_line and e_desc == desc and
                (not want.strip() or want.strip() in mutated_line)):
            return e_reason
    return None


def configure(args):
    """Configures the mutation build directory (again, so a fresh clone needs nothing first) and
    returns its path."""
    build = os.path.join(TOP, args.build_dir)
    # Undefined behaviour (an index past an array, a signed overflow) traps, as the asan preset
    # would report it; trapping needs no sanitizer runtime, so the binary stays static.
    rc, out = run(["cmake", "-S", ".", "-B", build, "-DCMAKE_BUILD_TYPE=Debug",
                   "-DQUARRY_STATIC=ON", "-DQUARRY_TESTS=ON",
                   "-DCMAKE_CXX_FLAGS=-fsanitize=undefined -fno-sanitize=vptr "
                   "-fsanitize-undefined-trap-on-error"], 300)
    if rc != 0:
        sys.exit("mutate.py: cmake failed:\n" + out)
    return build


def prepare_build(args):
    """Configures and builds the unchanged tree; the commands that rebuild and test a mutant."""
    build = configure(args)
    build_cmd = ["cmake", "--build", build, "-j", "2"]
    test_cmd = ["ctest", "--test-dir", build, "-j", "2", "-E", r"^live\.", "--stop-on-failure",
                "--timeout", "60"]
    rc, out = run(build_cmd, 1800)
    if rc != 0:
        sys.exit("mutate.py: the unchanged tree does not build:\n" + out[-3000:])
    return build_cmd, test_cmd


def retest(args):
    """Re-applies each survivor of a report (one line each: "was" becomes "now") to the same
    sources, reruns the suite, and rewrites the report: a survivor the suite now kills moves to
    the killed column and is listed as killed by a test added since. A survivor whose line has
    changed since is left as it was."""
    os.chdir(TOP)
    restore_all()
    with open(args.retest) as f:
        text = f.read()
    head, _, tail = text.partition("\nSurvivors:\n")
    entries = re.findall(r"^  (\S+):(\d+)  (\w+): (.*)\n      was: (.*)\n      now: (.*)\n"
                         r"      equivalent: .*\n", tail, re.M)
    build_cmd, test_cmd = prepare_build(args)
    killed_since = []
    equivalents = load_equivalents()
    for path, line_no, op, desc, was, now in entries:
        if explain(equivalents, path, desc, was, "" if now == "(removed)" else now):
            continue  # explained as equivalent: the suite cannot see it
        with open(path) as f:
            lines = f.read().split("\n")
        i = int(line_no) - 1
        if i >= len(lines) or lines[i].strip() != was:
            continue
        indent = lines[i][:len(lines[i]) - len(lines[i].lstrip())]
        mutated = list(lines)
        mutated[i] = indent + (";" if now == "(removed)" else now)
        os.replace(path, path + BACKUP_SUFFIX)
        try:
            with open(path, "w") as f:
                f.write("\n".join(mutated))
            rc, _ = run(build_cmd, 600)
            status = "did not build" if rc != 0 else (
                "survived" if run(test_cmd, args.test_timeout)[0] == 0 else "killed")
        finally:
            if os.path.exists(path + BACKUP_SUFFIX):
                os.replace(path + BACKUP_SUFFIX, path)
            os.utime(path, None)
        print("%-8s %s:%s %s: %s" % (status, path, line_no, op, desc), flush=True)
        if status == "killed":
            killed_since.append((path, line_no, op, desc, was, now))
    run(build_cmd, 1800)

    # The table: each file's and group's killed count up, survived count down.
    def moved(name):
        return sum(1 for k in killed_since
                   if k[0] == name or (name.endswith("/ (all)") and k[0].startswith(name[:-6]))
                   or name == "TOTAL")

    out_lines = []
    retest_cmd = "$ scripts/mutate.py --retest %s" % args.retest
    for line in head.split("\n"):
        if line == "" and out_lines and out_lines[-1].startswith("$ ") and \
                retest_cmd not in out_lines:
            out_lines.append(retest_cmd)
        m = re.match(r"^(\S+(?: \(all\))?)\s+(\d+)\s+(\d+)\s+(\d+)\s+", line)
        if m and m.group(1) != "File":
            n = moved(m.group(1))
            k, sv, nb = int(m.group(2)) + n, int(m.group(3)) - n, int(m.group(4))
            pct = "%5.1f %%" % (100.0 * k / (k + sv)) if k + sv else "    - "
            line = "%-48s %7d %9d %14d %8s" % (m.group(1), k, sv, nb, pct)
        out_lines.append(line)
    kept = []
    for path, line_no, op, desc, was, now in entries:
        if any(k[0] == path and k[1] == line_no and k[3] == desc and k[5] == now
               for k in killed_since):
            continue
        reason = explain(equivalents, path, desc, was, "" if now == "(removed)" else now)
        kept.append("  %s:%s  %s: %s\n      was: %s\n      now: %s\n      equivalent: %s\n" % (
            path, line_no, op, desc, was, now, reason or "UNEXPLAINED"))
    report = "\n".join(out_lines) + "\nSurvivors:\n" + ("".join(kept) or "  none\n")
    if killed_since:
        report += "\nSurvivors of the run killed by tests added since (scripts/mutate.py --retest):\n"
        for path, line_no, op, desc, was, now in killed_since:
            report += "  %s:%s  %s: %s\n      was: %s\n      now: %s\n" % (
                path, line_no, op, desc, was, now)
    with open(args.retest, "w") as f:
        f.write(report)
    print(report)
    return 0


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    ap.add_argument("--sample", type=int, default=0, help="mutants to draw (0: all)")
    ap.add_argument("--seed", type=int, default=14)
    ap.add_argument("--report", help="also write the report to this file")
    ap.add_argument("--only", nargs="*", help="product files to mutate (default: all)")
    ap.add_argument("--build-dir", default="build/mutate")
    ap.add_argument("--test-timeout", type=int, default=300, help="seconds for one suite run")
    ap.add_argument("--list", action="store_true", help="print the candidates and stop")
    ap.add_argument("--retest", metavar="REPORT",
                    help="run the survivors of REPORT again against today's tests and rewrite it")
    args = ap.parse_args()
    if args.retest:
        return retest(args)

    began = time.time()
    os.chdir(TOP)
    restore_all()
    files = args.only or product_files()
    pool = []
    for path in files:
        text, muts = candidates(path)
        pool += [(path, text) + m for m in muts]
    if args.list:
        for path, text, off, ln, new, op, desc in pool:
            print("%s:%d %s %s" % (path, text.count("\n", 0, off) + 1, op, desc))
        print("%d candidates" % len(pool))
        return 0

    rng = random.Random(args.seed)
    chosen = pool
    if args.sample and args.sample < len(pool):
        by_file = {}
        for m in pool:
            by_file.setdefault(m[0], []).append(m)
        chosen = []
        quota = {f: max(2, round(args.sample * len(ms) / len(pool))) for f, ms in by_file.items()}
        for f in sorted(by_file):
            ms = by_file[f]
            chosen += rng.sample(ms, min(quota[f], len(ms)))
        rng.shuffle(chosen)

    build_cmd, test_cmd = prepare_build(args)
    t0 = time.time()
    rc, out = run(test_cmd, args.test_timeout)
    if rc != 0:
        sys.exit("mutate.py: the suite fails on the unchanged tree:\n" + out[-3000:])
    baseline = time.time() - t0

    current = {"path": None}

    def on_signal(signum, _frame):
        restore_all()
        sys.exit("mutate.py: stopped by signal %d; sources restored" % signum)

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)

    results = []
    start = time.time()
    for i, (path, text, off, ln, new, op, desc) in enumerate(chosen, 1):
        line_no = text.count("\n", 0, off) + 1
        source_line = text.splitlines()[line_no - 1].strip()
        mutated = text[:off] + new + text[off + ln:]
        current["path"] = path
        os.replace(path, path + BACKUP_SUFFIX)
        try:
            with open(path, "w") as f:
                f.write(mutated)
            rc, out = run(build_cmd, 600)
            if rc != 0:
                status = "did not build"
            else:
                rc, out = run(test_cmd, args.test_timeout)
                status = "survived" if rc == 0 else "killed"
        finally:
            if os.path.exists(path + BACKUP_SUFFIX):  # else a signal handler restored it
                os.replace(path + BACKUP_SUFFIX, path)
            # The restored file keeps its old time, older than the mutant's objects: make it
            # newer, so the next build compiles it again.
            os.utime(path, None)
        mutated_line = mutated.splitlines()[line_no - 1].strip() if new != ";" else ""
        results.append((path, line_no, op, desc, source_line, status, mutated_line))
        print("[%d/%d %4.0fs] %-8s %s:%d %s: %s" % (i, len(chosen), time.time() - start,
                                                    status, path, line_no, op, desc), flush=True)
    # Leave the build matching the sources.
    run(build_cmd, 1800)

    equivalents = load_equivalents()
    lines = []
    lines.append("Mutation report: %d mutants drawn (seed %d) from %d candidates in %d files; "
                 "suite run %.0fs, whole run %.0fs with the build" % (
                     len(chosen), args.seed, len(pool), len(files), baseline, time.time() - began))
    lines.append("")

    def score(rows):
        k = sum(1 for r in rows if r[5] == "killed")
        s = sum(1 for r in rows if r[5] == "survived")
        nb = sum(1 for r in rows if r[5] == "did not build")
        pct = "%5.1f %%" % (100.0 * k / (k + s)) if k + s else "    - "
        return k, s, nb, pct

    lines.append("%-48s %7s %9s %14s %8s" % ("File", "killed", "survived", "did not build",
                                             "score"))
    for group in PRODUCT_DIRS:
        grows = [r for r in results if r[0].startswith(group + "/")]
        for f in sorted({r[0] for r in grows}):
            k, s, nb, pct = score([r for r in grows if r[0] == f])
            lines.append("%-48s %7d %9d %14d %8s" % (f, k, s, nb, pct))
        k, s, nb, pct = score(grows)
        lines.append("%-48s %7d %9d %14d %8s" % (group + "/ (all)", k, s, nb, pct))
        lines.append("")
    k, s, nb, pct = score(results)
    lines.append("%-48s %7d %9d %14d %8s" % ("TOTAL", k, s, nb, pct))
    lines.append("")
    lines.append("Survivors:")
    unexplained = 0
    for path, line_no, op, desc, source_line, status, mutated_line in sorted(results):
        if status != "survived":
            continue
        # An entry names the original line, the change, and (after "=>") the mutated line
        # when the same change can be made in more than one place on a line.
        reason = explain(equivalents, path, desc, source_line, mutated_line)
        if reason is None:
            unexplained += 1
            reason = "UNEXPLAINED"
        lines.append("  %s:%d  %s: %s\n      was: %s\n      now: %s\n      equivalent: %s" % (
            path, line_no, op, desc, source_line, mutated_line or "(removed)", reason))
    if not any(r[5] == "survived" for r in results):
        lines.append("  none")
    report = "\n".join(lines) + "\n"
    print()
    print(report)
    if args.report:
        with open(args.report, "w") as f:
            f.write("$ scripts/mutate.py %s\n\n" % " ".join(sys.argv[1:]) + report)
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main())
