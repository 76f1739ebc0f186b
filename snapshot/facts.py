"""What changed between two captures of one device, from the parsed reports of each (reporttext):
the buffers that became unmapped, stopped being unmapped or changed holders, and every figure
of -u, -n and -s with its exact change. compare.sh prints these facts; the report page shows
them.

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
    "status": {mode: exit status}}."""
    facts = {"missing": [], "buffers": [], "figures": []}
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
    return facts
