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


# Two clocks read at nearly the same moment drift apart by a second or two between captures
# (capture-info holds whole wall seconds); more than this within one boot means the wall clock
# was set.
WALL_SLACK_S = 10


def stem(name):
    """A capture's name as the page says it: its file name without .tar.gz."""
    return name[:-len(".tar.gz")] if name.endswith(".tar.gz") else name


def time_order(entries):
    """entries: [(name, time)]; returns the indexes in time order.

    The boot clock orders the captures of one boot (a wall clock that was set meanwhile does
    not reorder them), and the boots follow each other in wall-clock order: each boot is placed
    by the wall clock of its earliest capture. Captures without a boot clock (older captures,
    without capture-info) keep their names' order, after the others."""
    boots = {}
    untimed = []
    for i, (name, t) in enumerate(entries):
        if t.get("uptime") is None:
            untimed.append(i)
        else:
            boots.setdefault(t.get("boot_id"), []).append(i)

    def within(i):
        return (entries[i][1]["uptime"], entries[i][0])
    for members in boots.values():
        members.sort(key=within)

    def placed(members):
        first_name, first = entries[members[0]]
        wall = first.get("wall")
        return (wall is None, wall if wall is not None else 0, first_name)
    order = [i for members in sorted(boots.values(), key=placed) for i in members]
    return order + sorted(untimed, key=lambda i: entries[i][0])


def boot_numbers(captures):
    """The boot of each capture (1, 2, ...), captures in time order. A new boot begins where the
    boot id changes; a capture that names no boot id stays in the boot before it (nothing says
    the device rebooted)."""
    out, current, number = [], None, 1
    for c in captures:
        boot = c["time"].get("boot_id")
        if boot is not None:
            if current is not None and boot != current:
                number += 1
            current = boot
        out.append(number)
    return out


def boot_spans(numbers):
    """[(first, last)] capture indexes of each boot, from boot_numbers()."""
    spans = []
    for i, b in enumerate(numbers):
        if len(spans) < b:
            spans.append([i, i])
        spans[b - 1][1] = i
    return [tuple(s) for s in spans]


def _wall_gap(a, b):
    """Wall-clock seconds from capture time a to b, or None when either lacks a wall clock."""
    if a.get("wall") is None or b.get("wall") is None:
        return None
    return b["wall"] - a["wall"]


def events(captures):
    """Where the device rebooted and where its wall clock jumped within one boot, captures in
    time order: ({"reboots": [...], "wall_clock_jumps": [...]}), each item naming the two
    captures it lies between and saying so in words."""
    numbers = boot_numbers(captures)
    reboots, jumps = [], []
    for i in range(1, len(captures)):
        a, b = captures[i - 1], captures[i]
        names = (stem(a["file"]), stem(b["file"]))
        ta, tb = a["time"], b["time"]
        if numbers[i] != numbers[i - 1]:
            reboots.append({"after": a["file"], "before": b["file"], "index": i,
                            "boot_ids": [ta.get("boot_id"), tb.get("boot_id")],
                            "text": "the device rebooted between %s and %s" % names})
            continue
        gap = _wall_gap(ta, tb)
        if gap is None or ta.get("uptime") is None or tb.get("uptime") is None:
            continue
        jump = gap - (tb["uptime"] - ta["uptime"])
        if abs(jump) > WALL_SLACK_S:
            jumps.append({"after": a["file"], "before": b["file"], "index": i, "jump_s": round(jump),
                          "text": "the wall clock jumped by %+d s between %s and %s (it was set; "
                                  "the boot clock orders the captures)" % ((round(jump),) + names)})
    return {"reboots": reboots, "wall_clock_jumps": jumps}


def elapsed(captures):
    """Seconds since the first capture, per capture, or None when the captures do not say.

    Within a boot the boot clock counts (it never jumps); a reboot restarts it, so each boot
    continues where the one before ended, after the wall-clock time between them when that is
    known and not negative (else at once). The result never decreases."""
    times = [c["time"] for c in captures]
    if not times or any(t["uptime"] is None for t in times):
        return None
    numbers = boot_numbers(captures)
    out, offset = [], 0.0
    for i, t in enumerate(times):
        if i and numbers[i] != numbers[i - 1]:
            gap = _wall_gap(times[i - 1], t)
            offset = out[-1] + (gap if gap is not None and gap > 0 else 0) - t["uptime"]
        elif i == 0:
            offset = -t["uptime"]
        # A capture without a boot id that sorted among another boot's is not drawn back in time.
        out.append(max(t["uptime"] + offset, out[-1] if out else 0.0))
    return out


KERNEL = "kernel"


def holder_key(owner, boot=None):
    """A holder's key in the series: "[pid]comm", followed by " (boot N)" in a recording of
    several boots, where one pid names two different processes."""
    key = "[%d]%s" % (owner["pid"], owner["name"])
    return key if boot is None else "%s (boot %d)" % (key, boot)


def cmdline_of(capture, pid):
    """The command line (a list of arguments) the capture holds for pid, or None."""
    return (capture.get("cmdlines") or {}).get(str(pid))


def _table(capture):
    u = capture.get("unmapped")
    return u if u is not None and u["state"] == "table" else None


def _holder_keys(row, boot):
    return [holder_key(o, boot) for o in row["owners"]] or [KERNEL]


def _grouped(table, by, boot):
    """Unmapped bytes per key of one capture's -u table. A buffer with several holders counts
    in full for each of them: each one alone keeps it alive."""
    sums = {}
    for row in table["rows"]:
        if by == "exporter":
            keys = [row["exporter"]]
        elif by == "holder":
            keys = _holder_keys(row, boot)
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


def kb_bytes(kb):
    """A figure the tool prints in KB, in bytes (None stays unknown); the fleet tables use it too."""
    return None if kb is None else kb * 1024


def build(captures):
    """The series of a recording, every memory figure in bytes (the reports' KB times 1024; a
    buffer's size as -u prints it): per capture, None where the capture cannot say. A holder is
    a process of one boot: in a recording of several boots its key names the boot, and its
    series is None in the others."""
    tables = [_table(c) for c in captures]
    numbers = boot_numbers(captures)
    spans = boot_spans(numbers)
    several = len(spans) > 1
    out = {"elapsed_s": elapsed(captures),
           "uptime": [c["time"]["uptime"] for c in captures],
           "wall": [c["time"].get("wall") for c in captures],
           "boot": numbers,
           "boots": [{"boot": b + 1, "boot_id": captures[first]["time"].get("boot_id"),
                      "first": first, "last": last} for b, (first, last) in enumerate(spans)],
           "unmapped_bytes": [kb_bytes(t["total_kb"]) if t else None for t in tables]}
    for by in ("exporter", "holder", "name"):
        per = [_grouped(t, by, numbers[i] if several else None) if t else None
               for i, t in enumerate(tables)]
        keys = sorted({k for p in per if p for k in p})
        out["by_" + by] = {k: [(p.get(k, 0) if p is not None else None) for p in per]
                           for k in keys}
    if several:
        # A process exists in its own boot only ("kernel" holds buffers in every boot).
        boot_of = {k: numbers[i] for i, t in enumerate(tables) if t
                   for k in _grouped(t, "holder", numbers[i]) if k != KERNEL}
        for key, boot in boot_of.items():
            out["by_holder"][key] = [v if numbers[i] == boot else None
                                     for i, v in enumerate(out["by_holder"][key])]
    # Every holder: its pid, comm and boot, and its command line from the last capture that
    # has one.
    holders = {}
    for i, t in enumerate(tables):
        for row in t["rows"] if t else ():
            for o in row["owners"]:
                key = holder_key(o, numbers[i] if several else None)
                line = cmdline_of(captures[i], o["pid"])
                if key not in holders or line:
                    holders[key] = {"pid": o["pid"], "comm": o["name"], "boot": numbers[i],
                                    "cmdline": line or (holders.get(key) or {}).get("cmdline")}
    out["holders"] = holders
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
            figures.append(("Kernel Memory total size", n["total_kb"]))
        for name, kb in figures:
            counters.setdefault(name, [None] * len(captures))[i] = kb_bytes(kb)
    out["counters"] = counters
    return out


# What a series did over a stretch of captures. "growing": it rose in more than one step and
# ends higher; "step": it rose once and stayed (a size, no rate: one buffer that appeared is no
# slope); "shrinking": it ends lower; "steady": it ends where it began.
SHAPES = ("growing", "step", "steady", "shrinking")


def shape(values):
    """The shape of a series (None entries skipped), or None with fewer than two known values."""
    known = [v for v in values if v is not None]
    if len(known) < 2:
        return None
    if known[-1] == known[0]:
        return "steady"
    if known[-1] < known[0]:
        return "shrinking"
    rises = sum(1 for a, b in zip(known, known[1:]) if b > a)
    return "growing" if rises > 1 else "step"


def _course(values, elapsed_s, first, last):
    """What one series did from capture first to last: {first_bytes, last_bytes, change_bytes,
    shape, since (the index of the capture where it first rose, or None), bytes_per_minute
    (None for a step, or without times)}; None when fewer than two captures say."""
    known = [(i, values[i]) for i in range(first, last + 1) if values[i] is not None]
    if len(known) < 2:
        return None
    form = shape([v for _, v in known])
    (i0, v0), (i1, v1) = known[0], known[-1]
    since = next((b for (a, va), (b, vb) in zip(known, known[1:]) if vb > va), None)
    rate = None
    if form in ("growing", "shrinking") and elapsed_s is not None:
        # A growth is measured from the last capture before it began, so a leak that starts
        # late in a recording is not flattened by the quiet time before it.
        start = i0
        if form == "growing":
            start = max(i for i, _ in known if i < since)
        minutes = (elapsed_s[i1] - elapsed_s[start]) / 60.0
        if minutes > 0:
            rate = round((v1 - values[start]) / minutes, 1)
    return {"first_bytes": v0, "last_bytes": v1, "change_bytes": v1 - v0, "shape": form,
            "since": since if form in ("growing", "step") else None, "bytes_per_minute": rate}


def _order(item):
    return (SHAPES.index(item["shape"]), -abs(item["change_bytes"]))


def _growth(series, first, last):
    """Exporters, holders and names whose unmapped bytes changed from capture first to last,
    growing first."""
    growth = []
    for by in ("exporter", "holder", "name"):
        for key, values in series["by_" + by].items():
            course = _course(values, series["elapsed_s"], first, last)
            if course is None or course["shape"] == "steady":
                continue
            grew = dict({"by": by, "key": key}, **course)
            if by == "name":
                counts = series["count_by_name"][key]
                grew["first_count"], grew["last_count"] = counts[first], counts[last]
            growth.append(grew)
    growth.sort(key=_order)
    return growth


def _groups(captures, tables, series, buffers, first):
    """The suspect buffers grouped by (holders, exporter, name), each group with its course
    over the last boot (the bytes of every buffer of its key, capture by capture)."""
    several = len(series["boots"]) > 1
    numbers = series["boot"]
    n = len(captures)

    def key(row):
        return (tuple(_holder_keys(row, numbers[-1] if several else None)), row["exporter"],
                row.get("name"))
    found = {}
    for b in buffers:
        found.setdefault(key(b), []).append(b)
    # Each capture's rows are walked once: a recording can hold thousands of groups.
    sums = {k: [None] * n for k in found}
    for i in range(first, n):
        if tables[i] is None:
            continue
        for k in found:
            sums[k][i] = 0
        for r in tables[i]["rows"]:
            k = key(r)
            if k in sums:
                sums[k][i] += r["size"]
    groups = []
    for k, members in found.items():
        values = sums[k]
        course = _course(values, series["elapsed_s"], first, n - 1)
        groups.append({"holders": list(k[0]), "exporter": k[1], "name": k[2],
                       "buffers": len(members), "inodes": sorted(b["inode"] for b in members),
                       "bytes": sum(b["size"] for b in members),
                       "since": min(b["since"]["index"] for b in members),
                       "shape": course["shape"] if course else "step",
                       "bytes_per_minute": course["bytes_per_minute"] if course else None,
                       "series": values})
    groups.sort(key=lambda g: (SHAPES.index(g["shape"]), -g["bytes"]))
    return groups


def suspects(captures, series):
    """Within the last boot (a buffer or a process of an earlier one is not the same as one of
    the last, whatever its number): buffers unmapped in every capture from some moment on (not
    from the boot's first capture: those were unmapped before it and say nothing about when),
    over at least two captures, grouped by holders, exporter and name; and exporters, holders
    and names whose unmapped bytes changed across it. The growth of every boot is given too,
    boot by boot."""
    n = len(captures)
    tables = [_table(c) for c in captures]
    spans = boot_spans(series["boot"]) if captures else [(0, -1)]
    first = spans[-1][0]
    buffers = []
    inodes = [{r["inode"] for r in t["rows"]} if t is not None else None for t in tables]
    last = tables[-1] if tables else None
    if last is not None:
        for row in last["rows"]:
            k = n - 1
            while k > first and inodes[k - 1] is not None and row["inode"] in inodes[k - 1]:
                k -= 1
            if k > first and n - k >= 2:
                buffers.append({"inode": row["inode"], "exporter": row["exporter"],
                                "owners": row["owners"], "name": row.get("name"),
                                "size": row["size"],
                                "since": {"index": k, "uptime": captures[k]["time"]["uptime"]}})
    by_boot = [{"boot": b + 1, "first": f, "last": z, "growth": _growth(series, f, z)}
               for b, (f, z) in enumerate(spans)]
    return {"within": {"boot": len(spans), "first": first, "last": n - 1},
            "buffers": buffers, "groups": _groups(captures, tables, series, buffers, first),
            "growth": by_boot[-1]["growth"] if by_boot else [],
            "growth_by_boot": by_boot}


# The trace's tracks live under process ids above the kernel's largest (PID_MAX_LIMIT, 2^22
# on 64-bit): no process of the device can have one, so a system trace of the same boot
# merged with this one never puts a track under init or an app. One id per boot, as each
# boot's clock starts again.
TRACE_PID = 1 << 22


def trace(captures, series, suspects=None, reboots=()):
    """The series as counter tracks of the JSON Trace Event Format, in bytes, on the boot clock
    (in microseconds, as the format wants), so they line up with other traces of the same
    boot; an instant event at each reboot and where each suspect group began."""
    uptimes = series["uptime"]
    if any(u is None for u in uptimes):
        raise ValueError("a capture carries no boot clock time (an older capture)")
    boots = series["boots"]
    pid = [TRACE_PID + b for b in series["boot"]]
    events = [{"name": "process_name", "ph": "M", "pid": TRACE_PID + b["boot"], "tid": 0,
               "args": {"name": "quarrystat recording" if len(boots) == 1 else
                        "quarrystat recording, boot %d (%s)" % (b["boot"], b["boot_id"] or "no boot id")}}
              for b in boots]

    def track(name, values):
        for i, (up, v) in enumerate(zip(uptimes, values)):
            if v is not None:
                events.append({"name": name, "ph": "C", "ts": round(up * 1e6), "pid": pid[i],
                               "args": {"bytes": v}})

    def instant(name, i, args):
        events.append({"name": name, "ph": "i", "s": "p", "ts": round(uptimes[i] * 1e6),
                       "pid": pid[i], "tid": 0, "args": args})

    track("DMA-BUF unmapped total", series["unmapped_bytes"])
    for by in ("exporter", "holder", "name"):
        for key, values in series["by_" + by].items():
            track("DMA-BUF unmapped by %s: %s" % (by, key), values)
    for name, values in series["counters"].items():
        track("Kernel memory: %s" % name, values)
    for r in reboots:
        instant("reboot", r["index"], {"after": r["after"], "before": r["before"]})
    for g in (suspects or {}).get("groups", ()):
        instant("suspects begin: %s, %s, %s" % (", ".join(g["holders"]), g["exporter"], g["name"] or "unnamed"),
                g["since"], {"shape": g["shape"], "buffers": g["buffers"], "bytes": g["bytes"]})
    return {"traceEvents": events, "displayTimeUnit": "ms"}
