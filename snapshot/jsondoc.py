"""The JSON report.py writes (--json): schema 2, the document the page is drawn from in the shape
snapshot/schema/report.schema.json describes, a contract for whoever reads it.

One convention throughout, the fleet export's: every memory figure in bytes with the unit in its
key (the reports' KB times 1024; a buffer's size as -u prints it); addresses as hex strings of
16 digits at least with a start and an end (exclusive); captures numbered as the page numbers
them (from 1); a holder always {"kind", "pid", "comm", "cmdline"}; changes and shapes as
enumerated words. Nothing here computes a figure: it only moves and names what the document
holds.
"""
SCHEMA = 2

KERNEL = {"kind": "kernel", "pid": None, "comm": None, "cmdline": None}
# compare's words for a buffer's change, as the JSON's enumerated values.
BUFFER_CHANGES = {"became unmapped": "became_unmapped", "no longer unmapped": "no_longer_unmapped",
                  "holders changed": "holders_changed"}


def hex_address(value):
    # Sixteen digits at least, so that ordering the text orders the addresses (fleet.py's too).
    return None if value is None or value < 0 else "0x%016x" % value


def _bytes(kb):
    return kb * 1024 if isinstance(kb, int) else None


def _span(start, size):
    """{start, end} of a located range; end None where the size is no size (negative)."""
    return {"start": hex_address(start),
            "end": hex_address(start + size) if start is not None and size >= 0 else None}


def holder(owner, cmdlines):
    return {"kind": "process", "pid": owner["pid"], "comm": owner["name"],
            "cmdline": (cmdlines or {}).get(str(owner["pid"]))}


def holders(owners, cmdlines):
    return [holder(o, cmdlines) for o in owners] or [dict(KERNEL)]


def buffer_row(row, cmdlines):
    return {"inode": row["inode"], "size_bytes": row["size"], "exporter": row["exporter"],
            "name": row.get("name"), "holders": holders(row["owners"], cmdlines)}


def region(e):
    size = _bytes(e["size_kb"])
    located = e["start"] is not None
    out = {"kind": e["kind"], "name": e["name"]}
    out.update(_span(e["start"], size) if located else {"start": None, "end": None})
    out["size_bytes"] = size
    return out


def reserved(s):
    summary = s["summary"]
    return {"regions": [region(r) for r in s["regions"]],
            "entries": [region(e) for e in s["entries"]],
            "totals": [{"name": k, "size_bytes": _bytes(v)} for k, v in s["totals"].items()],
            "figures": [{"name": k, "size_bytes": _bytes(v)} for k, v in s["figures"].items()],
            "cma_used": [{"area": c["area"], "used_bytes": _bytes(c["kb"])} for c in s["cma_used"]],
            "summary": None if summary is None else {k + "_bytes": _bytes(v) for k, v in summary.items()}}


def kmem(n):
    u = n["unmapped"]
    return {"counters": [{"name": c["name"], "bytes": _bytes(c["kb"])} for c in n["counters"]],
            "unmapped": None if u is None else {"source": u["source"], "bytes": _bytes(u["kb"]),
                                                "reason": u["reason"]},
            "total_bytes": _bytes(n["total_kb"]), "stack_counted": n["stack_counted"]}


def unmapped(u, cmdlines):
    return {"state": u["state"], "total_bytes": _bytes(u["total_kb"]),
            "rows": [buffer_row(r, cmdlines) for r in u["rows"]]}


def capture(c, number):
    t = c["time"]
    return {"number": number, "file": c["file"], "info": c["info"],
            "time": {"uptime_start_s": t["uptime"], "wall_start_s": t["wall"], "boot_id": t["boot_id"]},
            "status": c["status"], "messages": c["messages"],
            "memory": None if c["memory"] is None else [
                {"start": hex_address(a), "end": hex_address(z), "size_bytes": z - a} for a, z in c["memory"]],
            "reserved": reserved(c["reserved"]), "kmem": kmem(c["kmem"]),
            "unmapped": unmapped(c["unmapped"], c.get("cmdlines")),
            "bufinfo": c["bufinfo"], "unsaid": c["unsaid"]}


def _state(value):
    return "unknown" if value == "unknown" else "not_printed" if value is None else "printed"


def _direction(delta):
    return "unknown" if delta is None else "up" if delta > 0 else "down" if delta < 0 else "same"


def _at(at):
    if at is None:
        return None
    start = None if at["start"] is None else int(at["start"], 16)
    size = _bytes(at["size_kb"])
    return dict(_span(start, size) if start is not None else {"start": None, "end": None}, size_bytes=size)


def facts(f, caps):
    lines = [c.get("cmdlines") for c in caps]
    return {
        "missing": f["missing"],
        "buffers": [{"inode": b["inode"], "change": BUFFER_CHANGES[b["change"]],
                     "before": buffer_row(b["before"], lines[0]) if b["before"] else None,
                     "after": buffer_row(b["after"], lines[1]) if b["after"] else None}
                    for b in f["buffers"]],
        "figures": [{"report": x["report"], "name": x["name"],
                     "before_bytes": _bytes(x["before"]), "after_bytes": _bytes(x["after"]),
                     "before_state": _state(x["before"]), "after_state": _state(x["after"]),
                     "change_bytes": _bytes(x["delta"]), "change": _direction(x["delta"])}
                    for x in f["figures"]],
        "regions": [{"kind": r["kind"], "name": r["name"], "change": r["change"],
                     "occurrence": r["occurrence"], "printed": r["printed"],
                     "before": _at(r["before"]), "after": _at(r["after"]),
                     "change_bytes": _bytes(r["delta_kb"])} for r in f.get("regions") or []],
        "memory": None if f.get("memory") is None else [
            {"change": m["change"],
             "before": [{"start": hex_address(int(a, 16)), "end": hex_address(int(z, 16))} for a, z in m["before"]],
             "after": [{"start": hex_address(int(a, 16)), "end": hex_address(int(z, 16))} for a, z in m["after"]],
             "change_bytes": _bytes(m["delta_kb"])} for m in f["memory"]]}


def _holder_of(key, known):
    if key == "kernel" or key not in known:
        return dict(KERNEL)
    h = known[key]
    return {"kind": "process", "pid": h["pid"], "comm": h["comm"], "cmdline": h["cmdline"]}


def _boot_of(key, known, several):
    return known[key]["boot"] if several and key in known else None


def _number(index):
    return None if index is None else index + 1


def series(s):
    known, several = s["holders"], len(s["boots"]) > 1
    return {"elapsed_s": s["elapsed_s"], "uptime_s": s["uptime"], "wall_s": s["wall"], "boot": s["boot"],
            "boots": [{"boot": b["boot"], "boot_id": b["boot_id"], "first_capture": b["first"] + 1,
                       "last_capture": b["last"] + 1} for b in s["boots"]],
            "unmapped_bytes": s["unmapped_bytes"],
            "by_exporter": [{"exporter": k, "bytes": v} for k, v in s["by_exporter"].items()],
            "by_holder": [{"holder": _holder_of(k, known), "boot": _boot_of(k, known, several), "bytes": v}
                          for k, v in s["by_holder"].items()],
            "by_name": [{"name": k, "bytes": v, "buffers": s["count_by_name"][k]} for k, v in s["by_name"].items()],
            "counters": [{"name": k, "bytes": v} for k, v in s["counters"].items()]}


def _growth(g, known, several):
    out = {"by": g["by"], "exporter": None, "holder": None, "boot": None, "name": None}
    if g["by"] == "holder":
        out["holder"], out["boot"] = _holder_of(g["key"], known), _boot_of(g["key"], known, several)
    else:
        out[g["by"]] = g["key"]
    out.update({"first_bytes": g["first_bytes"], "last_bytes": g["last_bytes"],
                "change_bytes": g["change_bytes"], "shape": g["shape"],
                "since_capture": _number(g["since"]), "bytes_per_minute": g["bytes_per_minute"],
                "first_count": g.get("first_count"), "last_count": g.get("last_count")})
    return out


def suspects(sus, s, caps):
    known, several = s["holders"], len(s["boots"]) > 1
    last_lines = caps[-1].get("cmdlines") if caps else None

    def since(index):
        return {"capture": index + 1, "uptime_s": caps[index]["time"]["uptime"]}
    return {
        "within": {"boot": sus["within"]["boot"], "first_capture": sus["within"]["first"] + 1,
                   "last_capture": sus["within"]["last"] + 1},
        "groups": [{"holder": _holder_of(g["holders"][0], known),
                    "holders": [_holder_of(k, known) for k in g["holders"]], "exporter": g["exporter"],
                    "name": g["name"], "buffers": g["buffers"], "inodes": g["inodes"], "bytes": g["bytes"],
                    "since": since(g["since"]), "shape": g["shape"], "bytes_per_minute": g["bytes_per_minute"],
                    "series_bytes": g["series"]} for g in sus["groups"]],
        "buffers": [{"inode": b["inode"], "exporter": b["exporter"], "name": b["name"], "size_bytes": b["size"],
                     "holders": holders(b["owners"], last_lines), "since": since(b["since"]["index"])}
                    for b in sus["buffers"]],
        "growth": [_growth(g, known, several) for g in sus["growth"]],
        "growth_by_boot": [{"boot": b["boot"], "first_capture": b["first"] + 1, "last_capture": b["last"] + 1,
                            "growth": [_growth(g, known, several) for g in b["growth"]]}
                           for b in sus["growth_by_boot"]]}


def _event(e):
    return {"after": e["after"], "before": e["before"], "capture": e["index"] + 1,
            **{k: e[k] for k in ("boot_ids", "jump_s") if k in e}, "text": e["text"]}


def document(doc):
    """The schema 2 JSON of a document report.py built."""
    caps = doc["captures"]
    out = {"schema": SCHEMA, "kind": doc["kind"],
           "captures": [capture(c, i + 1) for i, c in enumerate(caps)], "left_out": doc["left_out"]}
    if doc["kind"] == "pair":
        out["facts"] = facts(doc["facts"], caps)
        out["board"] = doc["board"]
    elif doc["kind"] == "recording":
        out["reboots"] = [_event(r) for r in doc["reboots"]]
        out["wall_clock_jumps"] = [_event(j) for j in doc["wall_clock_jumps"]]
        out["series"] = series(doc["series"])
        out["suspects"] = suspects(doc["suspects"], doc["series"], caps)
    return out
