"""A recording seen over time: its captures in time order, the series the page draws, the
suspects it lists and the counter tracks of --trace.

Everything here works on the parsed captures report.py builds (see capture_entry there): each
has "time" ({"uptime": float|None, "wall": int|None, "boot_id": str|None}), "unmapped" (the -u
parse, rows carrying a "name" from bufinfo) and "kmem" (the -n parse), either None when the
report could not be made.
"""
import math


def _number(text, kind):
    try:
        value = kind(text)
    except (TypeError, ValueError):
        return None
    if kind is float and not math.isfinite(value):
        return None
    return value


def capture_time(info):
    """The moment a capture began, from its capture-info ({} for an older capture)."""
    return {"uptime": _number(info.get("uptime_start"), float),
            "wall": _number(info.get("wall_start"), int),
            "boot_id": info.get("boot_id") or None}


def time_order(entries):
    """entries: [(name, time)]; returns the indexes in time order. The boot clock orders
    captures of one boot; names break ties and order captures that carry no time."""
    def key(i):
        name, t = entries[i]
        up = t.get("uptime")
        return (up is None, up if up is not None else 0.0, name)
    return sorted(range(len(entries)), key=key)


def elapsed(captures):
    """Seconds since the first capture, per capture, or None when the captures do not say.

    The boot clock is the one to use (it never jumps), but it restarts with a reboot, so a
    recording that spans two boots falls back on the wall clock."""
    times = [c["time"] for c in captures]
    boots = {t["boot_id"] for t in times if t["boot_id"]}
    if all(t["uptime"] is not None for t in times) and len(boots) <= 1:
        return [t["uptime"] - times[0]["uptime"] for t in times]
    if all(t["wall"] is not None for t in times):
        return [float(t["wall"] - times[0]["wall"]) for t in times]
    return None


def holder_key(owner):
    return "[%d]%s" % (owner["pid"], owner["name"])


def _table(capture):
    u = capture.get("unmapped")
    return u if u is not None and u["state"] == "table" else None


def _grouped(table, by):
    """Unmapped bytes per key of one capture's -u table. A buffer with several holders counts
    in full for each of them: each one alone keeps it alive."""
    sums = {}
    for row in table["rows"]:
        if by == "exporter":
            keys = [row["exporter"]]
        elif by == "holder":
            keys = [holder_key(o) for o in row["owners"]] or ["kernel"]
        else:
            keys = [row["name"]] if row.get("name") else []
        for k in keys:
            sums[k] = sums.get(k, 0) + row["size"]
    return sums


def _named_counts(table):
    counts = {}
    for row in table["rows"]:
        if row.get("name"):
            counts[row["name"]] = counts.get(row["name"], 0) + 1
    return counts


def build(captures):
    """The series of a recording: per capture, None where the capture cannot say."""
    tables = [_table(c) for c in captures]
    out = {"elapsed_s": elapsed(captures),
           "uptime": [c["time"]["uptime"] for c in captures],
           "unmapped_kb": [t["total_kb"] if t else None for t in tables]}
    for by in ("exporter", "holder", "name"):
        per = [_grouped(t, by) if t else None for t in tables]
        keys = sorted({k for p in per if p for k in p})
        out["by_" + by] = {k: [(p.get(k, 0) // 1024 if p is not None else None) for p in per]
                           for k in keys}
    # How many unmapped buffers carry each name: a leak shows as ever more of one name.
    counts = [_named_counts(t) if t else None for t in tables]
    out["count_by_name"] = {k: [(c.get(k, 0) if c is not None else None) for c in counts]
                            for k in sorted({k for c in counts if c for k in c})}
    counters = {}
    for i, c in enumerate(captures):
        n = c.get("kmem")
        if not n:
            continue
        figures = [(x["name"], x["kb"]) for x in n["counters"]]
        if n["unmapped"] is not None:
            figures.append((n["unmapped"]["source"] + " unmapped", n["unmapped"]["kb"]))
        if n["total_kb"] is not None:
            figures.append(("Kernel Memory total", n["total_kb"]))
        for name, kb in figures:
            counters.setdefault(name, [None] * len(captures))[i] = kb
    out["counters"] = counters
    return out


def suspects(captures, series):
    """Buffers unmapped in every capture from some moment on (not from the first capture: those
    were unmapped before the recording began and say nothing about it), over at least two
    captures; and exporters, holders and names whose unmapped bytes grew across the recording."""
    n = len(captures)
    tables = [_table(c) for c in captures]
    buffers = []
    inodes = [{r["inode"] for r in t["rows"]} if t is not None else None for t in tables]
    last = tables[-1] if tables else None
    if last is not None:
        for row in last["rows"]:
            k = n - 1
            while k > 0 and inodes[k - 1] is not None and row["inode"] in inodes[k - 1]:
                k -= 1
            if k >= 1 and n - k >= 2:
                buffers.append({"inode": row["inode"], "exporter": row["exporter"],
                                "owners": row["owners"], "name": row.get("name"),
                                "size": row["size"],
                                "since": {"index": k, "uptime": captures[k]["time"]["uptime"]}})
    growth = []
    elapsed_s = series["elapsed_s"]
    for by in ("exporter", "holder", "name"):
        for key, values in series["by_" + by].items():
            known = [(i, v) for i, v in enumerate(values) if v is not None]
            if len(known) < 2 or elapsed_s is None:
                continue
            (i0, first), (i1, last_kb) = known[0], known[-1]
            minutes = (elapsed_s[i1] - elapsed_s[i0]) / 60.0
            if last_kb > first and minutes > 0:
                grew = {"by": by, "key": key, "first_kb": first, "last_kb": last_kb,
                        "kb_per_minute": round((last_kb - first) / minutes, 3)}
                if by == "name":
                    counts = series["count_by_name"][key]
                    grew["first_count"], grew["last_count"] = counts[i0], counts[i1]
                growth.append(grew)
    growth.sort(key=lambda g: -g["kb_per_minute"])
    return {"buffers": buffers, "growth": growth}


def trace(captures, series):
    """The series as counter tracks of the JSON Trace Event Format, on the boot clock (in
    microseconds, as the format wants), so they line up with other traces of the same boot."""
    uptimes = series["uptime"]
    if any(u is None for u in uptimes):
        raise ValueError("a capture carries no boot clock time (an older capture)")
    pid = 1
    events = [{"name": "process_name", "ph": "M", "pid": pid, "tid": 0,
               "args": {"name": "quarrystat recording"}}]

    def track(name, values):
        for up, v in zip(uptimes, values):
            if v is not None:
                events.append({"name": name, "ph": "C", "ts": round(up * 1e6), "pid": pid,
                               "args": {"KB": v}})

    track("unmapped DMA-BUF total", series["unmapped_kb"])
    for by in ("exporter", "holder", "name"):
        for key, values in series["by_" + by].items():
            track("unmapped DMA-BUF %s %s" % (by, key), values)
    for name, values in series["counters"].items():
        track(name, values)
    return {"traceEvents": events, "displayTimeUnit": "ms"}
