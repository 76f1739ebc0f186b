"""The one reader of quarrystat's report text (-s, -n and -u), for compare and the report page.

Each parser takes a report as the tool printed it and returns plain data (dicts, lists, exact
Python ints), so no caller scrapes the text again. A line the parser does not recognise is
skipped: the reports copy device files, and a parser that fails on one odd line would hide the
rest. Every string in the result is device text: show it with shown() on a terminal and escape
it in a page.
"""
import re

# "[fdt_no-map] modem_region: addr 0x8b800000, size 106496 KB": a region the statistics file
# names, or one of the tool's own located ranges (kernel code and data).
_REGION = re.compile(r"^\[([^\]]*)\] (.*): addr 0x([0-9a-fA-F]+), size (-?[0-9]+) KB$")
# "[MemblockReserved] CmaTotal: size 81920 KB", "[cma_fix_used] linux,cma: size 1536 KB".
_FIGURE = re.compile(r"^\[([^\]]*)\] (.*): size (-?[0-9]+) KB$")
_CMA_TOTAL = re.compile(r"^\[CmaFixUsedTotal\] size (-?[0-9]+) KB$")
# "fdt_no-map total: size 122880 KB", "ReservedMemoryTotal: size 251345 KB".
_TOTAL = re.compile(r"^([^\[].*): size (-?[0-9]+) KB$")
_N = r"(-?[0-9]+)"
_SUMMARY = [
    (re.compile(rf"^ReservedMemoryTotal {_N} KB \?=$"), ("total",)),
    (re.compile(rf"^{_N} KB = bp hole\({_N} KB\) \+ fdt_nomap\({_N} KB\) \+ "
                rf"mb_reserved\({_N} KB\) - cma_total\({_N} KB\)$"),
     ("parts", "bp_hole", "fdt_nomap", "mb_reserved", "cma_total")),
    (re.compile(rf"^bootloader_memhole\({_N} KB\) = bp hole\({_N} KB\) \+ "
                rf"fdt_nomap_inhole\({_N} KB\)$"),
     ("bootloader_memhole", "bp_hole", "fdt_nomap_inhole")),
    (re.compile(rf"^fdt nomap\({_N} KB\) = fdt_nomap_inkernel \({_N} KB\) \+ "
                rf"fdt_nomap_inhole\({_N} KB\)$"),
     ("fdt_nomap", "fdt_nomap_inkernel", "fdt_nomap_inhole")),
]


def shown(text):
    """Text as it may reach a terminal: each control character (below 0x20, and 0x7f) as \\xHH,
    as the tool itself shows names on a terminal; bytes that are not UTF-8 as \\xHH too."""
    out = []
    for c in text:
        o = ord(c)
        if o < 0x20 or o == 0x7f:
            out.append(f"\\x{o:02x}")
        elif 0xdc80 <= o <= 0xdcff:  # a byte that was not UTF-8 (surrogateescape)
            out.append(f"\\x{o - 0xdc00:02x}")
        else:
            out.append(c)
    return "".join(out)


def _lines(text):
    # Split on newlines only: a carriage return or form feed inside a name is part of the name.
    lines = text.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    return lines


def parse_reserved(text):
    """The -s report: its located regions, named totals, the tool's figures and the summary.

    "entries" lists every "[kind] name" line in report order, located or not (start None),
    duplicates included: the regions of the statistics file and each figure the tool inserts
    (kernel code and data, memblock reserved total, CMA total, CMA used per area, bp hole). It
    is what two builds' reports are matched by."""
    result = {"regions": [], "totals": {}, "figures": {}, "cma_used": [], "summary": None,
              "entries": []}
    entries = result["entries"]
    for line in _lines(text):
        m = _REGION.match(line)
        if m:
            result["regions"].append({"kind": m[1], "name": m[2], "start": int(m[3], 16),
                                      "size_kb": int(m[4])})
            entries.append(dict(result["regions"][-1]))
            continue
        m = _CMA_TOTAL.match(line)
        if m:
            result["figures"]["CmaFixUsedTotal"] = int(m[1])
            entries.append({"kind": "CmaFixUsedTotal", "name": "CmaFixUsedTotal", "start": None,
                            "size_kb": int(m[1])})
            continue
        m = _FIGURE.match(line)
        if m:
            entries.append({"kind": m[1], "name": m[2], "start": None, "size_kb": int(m[3])})
            if m[1] == "cma_fix_used":
                result["cma_used"].append({"area": m[2], "kb": int(m[3])})
            else:
                result["figures"].setdefault(m[2], int(m[3]))
            continue
        for pattern, keys in _SUMMARY:
            m = pattern.match(line)
            if m:
                summary = result["summary"] = result["summary"] or {}
                for key, value in zip(keys, m.groups()):
                    summary.setdefault(key, int(value))
                break
        else:
            m = _TOTAL.match(line)
            if m:
                result["totals"].setdefault(m[1], int(m[2]))
    return result


_COUNTER = re.compile(r"^([A-Za-z]+): (-?[0-9]+) KB$")
_UNMAPPED = re.compile(r"^(DMA-BUF|ION) unmapped:   (?:(-?[0-9]+) KB|unknown \((.*)\))$")
_KTOTAL = re.compile(r"^Kernel Memory total size = (-?[0-9]+) KB$")


def parse_kmem(text):
    """The -n report: the meminfo counters in order, the unmapped figure and the total."""
    result = {"counters": [], "unmapped": None, "total_kb": None}
    for line in _lines(text):
        m = _UNMAPPED.match(line)
        if m:
            result["unmapped"] = {"source": m[1], "kb": None if m[2] is None else int(m[2]),
                                  "reason": m[3]}
            continue
        m = _KTOTAL.match(line)
        if m:
            result["total_kb"] = int(m[1])
            continue
        m = _COUNTER.match(line)
        if m:
            result["counters"].append({"name": m[1], "kb": int(m[2])})
    return result


_TITLE = "------------------ unmapped DMA-BUF per-buffer stats -----------------------"
_HEADER = "    Dmabuf Inode |     Size(bytes) |   Exporter Name  |   owner                 "
_UTOTAL = re.compile(r"^Unmapped dmabuf total size is (-?[0-9]+) KB$")
# A row is "%16u |%16u | %16s | %-64s": two right-aligned numbers at fixed columns, then the
# exporter (right-aligned in at least 16 characters), then the owners. Names may hold bars and
# blanks, so the row is cut by its columns, not by its bars.
_ROW_HEAD = re.compile(r"^ *([0-9]+) \| *([0-9]+) \| ")
# Owners: "kernel", or "[pid]name " for each holding process, in ascending pid order.
_OWNER_START = re.compile(r"kernel *$|\[[0-9]+\]")


def _split_exporter_owner(rest):
    """Cuts "EXPORTER | OWNERS" where the exporter is right-aligned in 16 or more characters.

    The exporter ends at the first " | " from its sixteenth character on after which the owner
    column starts as owners do. Exporter names come from kernel drivers; process names come
    from any program, so a bar inside a process name never moves the cut."""
    i = 16
    while True:
        i = rest.find(" | ", i)
        if i < 0:
            return rest.strip(" "), ""
        if _OWNER_START.match(rest, i + 3):
            return rest[:i].lstrip(" "), rest[i + 3:]
        i += 1


def _owners(text):
    """The processes named in an owner column, or [] for "kernel"."""
    text = text.rstrip(" ")
    if text == "kernel":
        return []
    owners = []
    marks = list(re.finditer(r"\[([0-9]+)\]", text))
    # A process name is what follows its "[pid]" up to the blank before the next "[pid]" of a
    # larger pid (the tool prints them in ascending order); a name may itself hold "[n]".
    starts = []
    last = -1
    for m in marks:
        if m.start() == 0 or (text[m.start() - 1] == " " and int(m[1]) > last):
            if not starts or m.start() > starts[-1].end():
                starts.append(m)
                last = int(m[1])
    for k, m in enumerate(starts):
        end = starts[k + 1].start() - 1 if k + 1 < len(starts) else len(text)
        owners.append({"pid": int(m[1]), "name": text[m.end():end]})
    return owners


def parse_unmapped(text):
    """The -u report: one row per unmapped buffer with its holders, and the total."""
    result = {"state": "none", "rows": [], "total_kb": None}
    lines = _lines(text)
    if "Not support ion" in lines:
        result["state"] = "ion"
        return result
    if "Unable to read DMA-BUF sysfs stats from device" in lines:
        result["state"] = "no-sysfs"
        return result
    in_table = False
    row = None
    for line in lines:
        if line == _TITLE or line == _HEADER:
            in_table = True
            continue
        m = _UTOTAL.match(line)
        if m:
            result["total_kb"] = int(m[1])
            result["state"] = "table"
            in_table = False
            continue
        if not in_table:
            continue
        m = _ROW_HEAD.match(line)
        if m:
            exporter, owner_text = _split_exporter_owner(line[m.end():])
            row = {"inode": int(m[1]), "size": int(m[2]), "exporter": exporter,
                   "owner_text": owner_text}
            result["rows"].append(row)
        elif line == "":
            row = None
        elif row is not None:
            # A process name with a newline in it continues the row on the next line.
            row["owner_text"] += "\n" + line
    for row in result["rows"]:
        row["owners"] = _owners(row.pop("owner_text"))
        row["kernel"] = not row["owners"]
    return result


PARSERS = {"s": parse_reserved, "n": parse_kmem, "u": parse_unmapped}


def owner_text(row):
    """The owner column as the tool prints it (without its padding): "[pid]name ..." or
    "kernel"."""
    if not row["owners"]:
        return "kernel"
    return " ".join(f"[{o['pid']}]{o['name']}" for o in row["owners"])
