"""What changed between two captures of one device, from the parsed reports of each (reporttext):
the buffers that became unmapped, stopped being unmapped or changed holders, every figure of
-u, -n and -s with its exact change, and, build over build, each region of -s and each range
of the memory table that changed. compare.sh prints these facts; the report page shows them.

A side whose report gives no figures is named as such, with the reason, and its figures are
None: a capture that cannot say which buffers are unmapped never reads as one whose buffers all
went away. A figure is an exact int, None where a side does not print it, or "unknown" where
the report prints it as unknown.
"""
from reporttext import owner_text

REPORTS = (("u", "dmabuf"), ("n", "kmem"), ("s", "reserved"))
SIDES = ("before", "after")
# The -s summary's figures, in the order of its lines.
SUMMARY = (("ReservedMemoryTotal", "total"), ("total of the parts", "parts"),
           ("bp hole", "bp_hole"), ("fdt_nomap", "fdt_nomap"), ("mb_reserved", "mb_reserved"),
           ("cma_total", "cma_total"), ("bootloader_memhole", "bootloader_memhole"),
           ("fdt_nomap_inhole", "fdt_nomap_inhole"),
           ("fdt_nomap_inkernel", "fdt_nomap_inkernel"))


def _why_no_buffers(parsed, status):
    if parsed is None:
        return "no report"
    if parsed["state"] == "ion":
        return "the device has /dev/ion"
    if parsed["state"] == "no-sysfs":
        return "no DMA-BUF sysfs statistics"
    if parsed["state"] != "table":
        return _why_nothing(status)
    return None


def _why_nothing(status):
    return "no figures in its output" if status == 0 else f"quarrystat exit status {status}"


def _dmabuf_figures(u):
    return [("unmapped total", u["total_kb"])]


def _kmem_figures(n):
    figures = [(c["name"], c["kb"]) for c in n["counters"]]
    if n["unmapped"] is not None:
        kb = n["unmapped"]["kb"]
        figures.append((n["unmapped"]["source"] + " unmapped", "unknown" if kb is None else kb))
    figures.append(("Kernel Memory total size", n["total_kb"]))
    return figures


def _reserved_figures(s):
    summary = s["summary"] or {}
    return [(label, summary[key]) for label, key in SUMMARY if key in summary]


def _side_figures(mode, parsed, status):
    """(reason, [(name, kb or None)]): the figures a report gives for one capture, or the reason
    it gives none."""
    if mode == "u":
        why = _why_no_buffers(parsed, status)
        return (why, []) if why else (None, _dmabuf_figures(parsed))
    if parsed is None:
        return "no report", []
    figures = _kmem_figures(parsed) if mode == "n" else _reserved_figures(parsed)
    if mode == "n" and not parsed["counters"] and parsed["total_kb"] is None:
        figures = []
    if not figures:
        return _why_nothing(status), []
    return None, figures


def _buffer_changes(u_before, u_after):
    rows = [{r["inode"]: r for r in u["rows"]} for u in (u_before, u_after)]
    changes = []
    for inode in sorted(set(rows[0]) | set(rows[1])):
        before, after = rows[0].get(inode), rows[1].get(inode)
        if before is None:
            change = "became unmapped"
        elif after is None:
            change = "no longer unmapped"
        elif owner_text(before) != owner_text(after):
            change = "holders changed"
        else:
            continue
        changes.append({"inode": inode, "change": change, "before": before, "after": after})
    return changes


def compare(before, after):
    """Facts of two captures, each {"u": ..., "n": ..., "s": ... (parsed reports or None),
    "status": {mode: exit status}, "memory": the memory table's [start, end) ranges or None}."""
    facts = {"missing": [], "buffers": [], "figures": [], "regions": [], "memory": None}
    for mode, report in REPORTS:
        sides = []
        for name, side in zip(SIDES, (before, after)):
            why, figures = _side_figures(mode, side.get(mode), side.get("status", {}).get(mode, 0))
            if why:
                facts["missing"].append({"report": report, "side": name, "reason": why})
            sides.append(dict(figures))
        if mode == "u" and not any(m["report"] == "dmabuf" for m in facts["missing"]):
            facts["buffers"] = _buffer_changes(before["u"], after["u"])
        names = list(sides[0]) + [k for k in sides[1] if k not in sides[0]]
        for key in names:
            a, b = sides[0].get(key), sides[1].get(key)
            delta = b - a if isinstance(a, int) and isinstance(b, int) else None
            facts["figures"].append({"report": report, "name": key, "before": a, "after": b,
                                     "delta": delta})
    reserved_changes(before, after, facts)
    return facts


# What became of a region of -s from one build to the next. Regions are matched by kind and
# name; a name the report prints more than once is matched in the order printed.
REGION_CHANGES = ("added", "removed", "resized", "moved", "moved_resized", "unchanged")


def _at(entry):
    if entry is None:
        return None
    return {"start": None if entry["start"] is None else "0x%x" % entry["start"],
            "size_kb": entry["size_kb"]}


def region_changes(s_before, s_after):
    """Every "[kind] name" entry of two -s reports, matched: one record each, changed or not."""
    groups = []
    by_key = {}
    for side, s in enumerate((s_before, s_after)):
        for e in s["entries"]:
            key = (e["kind"], e["name"])
            if key not in by_key:
                by_key[key] = ([], [])
                groups.append(key)
            by_key[key][side].append(e)
    out = []
    for key in groups:
        olds, news = by_key[key]
        count = max(len(olds), len(news))
        for i in range(count):
            b = olds[i] if i < len(olds) else None
            a = news[i] if i < len(news) else None
            if b is None:
                change = "added"
            elif a is None:
                change = "removed"
            else:
                moved = b["start"] != a["start"]
                resized = b["size_kb"] != a["size_kb"]
                change = ("moved_resized" if moved and resized else "moved" if moved
                          else "resized" if resized else "unchanged")
            out.append({"kind": key[0], "name": key[1], "change": change,
                        "occurrence": i + 1,
                        "printed": {"before": len(olds), "after": len(news)} if count > 1 else None,
                        "before": _at(b), "after": _at(a),
                        "delta_kb": (a["size_kb"] if a else 0) - (b["size_kb"] if b else 0)})
    return out


def _span(ranges):
    return [["0x%x" % a, "0x%x" % z] for a, z in ranges]


def memory_changes(before, after):
    """How the memory table ([start, end) ranges) changed: ranges that overlap one another are
    taken together, and each such group that differs is one change: added, removed, cut (less
    memory where there was memory), grown (more) or changed (some of each)."""
    tagged = sorted([(a, z, 0) for a, z in before] + [(a, z, 1) for a, z in after])
    groups, end = [], None
    for a, z, side in tagged:
        if end is None or a >= end:
            groups.append(([], []))
            end = z
        end = max(end, z)
        groups[-1][side].append((a, z))
    out = []
    for olds, news in groups:
        if olds == news:
            continue
        kb = [sum(z - a for a, z in r) // 1024 for r in (olds, news)]
        if not olds:
            change = "added"
        elif not news:
            change = "removed"
        else:
            inside = lambda rs, outer: all(any(p <= a and z <= q for p, q in outer) for a, z in rs)  # noqa: E731
            change = ("cut" if inside(news, olds) else "grown" if inside(olds, news) else "changed")
        out.append({"change": change, "before": _span(olds), "after": _span(news),
                    "delta_kb": kb[1] - kb[0]})
    return out


def reserved_changes(before, after, facts):
    """The region and memory-table facts of two captures into facts ("regions", "memory"), when
    both -s reports (and, for "memory", both memory tables) could be read."""
    if any(m["report"] == "reserved" for m in facts["missing"]) or not before.get("s") \
            or not after.get("s"):
        return
    facts["regions"] = region_changes(before["s"], after["s"])
    if before.get("memory") is not None and after.get("memory") is not None:
        facts["memory"] = memory_changes(before["memory"], after["memory"])
