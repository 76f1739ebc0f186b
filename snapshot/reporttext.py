"""The one reader of quarrystat's report text (-s, -n and -u), for compare and the report page.

Each parser takes a report as the tool printed it and returns plain data (dicts, lists, exact
Python ints), so no caller scrapes the text again. A line the parser does not recognise is
skipped: the reports copy device files, and a parser that fails on one odd line would hide the
rest. Every string in the result is device text: show it with shown() on a terminal and escape
it in a page. A number no device prints (more digits than a 64-bit one has) is no odd line but
a report that cannot be true: the parsers raise Malformed, naming it.
"""
import re

# The most digits of a number the tool prints: a 64-bit one, in decimal (20) or hex (16).
MAX_DIGITS = 20
MAX_HEX_DIGITS = 16


class Malformed(ValueError):
    """A report holding a number that no device prints."""


def number(text, base=10):
    """An int of report text; Malformed past a 64-bit number's digits (Python's own bound on
    int() would end in a traceback, and a long one costs time and memory on every use)."""
    digits = len(text.lstrip("-"))
    if digits > (MAX_DIGITS if base == 10 else MAX_HEX_DIGITS):
        raise Malformed(f"a number of {digits} digits, more than any device prints")
    return int(text, base)

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


# What a terminal acts on rather than shows: the C0 controls and DEL, the C1 controls (U+0080 to
# U+009F, among them the one-character CSI and OSC introducers a terminal may honour in UTF-8),
# the bidirectional embeddings and overrides, and the isolates (which reorder what follows them
# on the line), and bytes that were not UTF-8 (surrogateescape).
_UNSHOWN = re.compile("[\x00-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069\udc80-\udcff]")


def _escape(m):
    o = ord(m.group())
    if o >= 0xdc80:
        return f"\\x{o - 0xdc00:02x}"
    return f"\\x{o:02x}" if o < 0x80 else f"\\u{o:04x}"


def shown(text):
    """Text as it may reach a terminal: each control character (below 0x20, 0x7f, and the C1
    controls and DEL) as \\xHH, as the tool itself shows names on a terminal; the C1 controls
    (U+0080 to U+009F) and the bidirectional overrides and isolates (U+202A to U+202E, U+2066
    to U+2069) as \\uHHHH; bytes that are not UTF-8 as \\xHH. A page is no terminal: there these stay text."""
    return _UNSHOWN.sub(_escape, text)


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
            result["regions"].append({"kind": m[1], "name": m[2], "start": number(m[3], 16),
                                      "size_kb": number(m[4])})
            entries.append(dict(result["regions"][-1]))
            continue
        m = _CMA_TOTAL.match(line)
        if m:
            result["figures"]["CmaFixUsedTotal"] = number(m[1])
            entries.append({"kind": "CmaFixUsedTotal", "name": "CmaFixUsedTotal", "start": None,
                            "size_kb": number(m[1])})
            continue
        m = _FIGURE.match(line)
        if m:
            entries.append({"kind": m[1], "name": m[2], "start": None, "size_kb": number(m[3])})
            if m[1] == "cma_fix_used":
                result["cma_used"].append({"area": m[2], "kb": number(m[3])})
            else:
                result["figures"].setdefault(m[2], number(m[3]))
            continue
        for pattern, keys in _SUMMARY:
            m = pattern.match(line)
            if m:
                summary = result["summary"] = result["summary"] or {}
                for key, value in zip(keys, m.groups()):
                    summary.setdefault(key, number(value))
                break
        else:
            m = _TOTAL.match(line)
            if m:
                result["totals"].setdefault(m[1], number(m[2]))
    return result


_COUNTER = re.compile(r"^([A-Za-z]+): (-?[0-9]+) KB$")
_UNMAPPED = re.compile(r"^(DMA-BUF|ION) unmapped:   (?:(-?[0-9]+) KB|unknown \((.*)\))$")
_KTOTAL = re.compile(r"^Kernel Memory total size = (-?[0-9]+) KB$")


_STACK_COUNTED = "CONFIG_VMAP_STACK is not set."


def parse_kmem(text):
    """The -n report: the meminfo counters in order, the unmapped figure and the total, and
    whether KernelStack is part of the total ("stack_counted"; None without a KernelStack
    line). The tool leaves it out when the kernel has CONFIG_VMAP_STACK: those stacks are
    vmalloc'd, and counted in VmallocUsed already. It says when it counts them."""
    result = {"counters": [], "unmapped": None, "total_kb": None, "stack_counted": None}
    for line in _lines(text):
        if line == _STACK_COUNTED:
            result["stack_counted"] = True
            continue
        m = _UNMAPPED.match(line)
        if m:
            result["unmapped"] = {"source": m[1], "kb": None if m[2] is None else number(m[2]),
                                  "reason": m[3]}
            continue
        m = _KTOTAL.match(line)
        if m:
            result["total_kb"] = number(m[1])
            continue
        m = _COUNTER.match(line)
        if m:
            result["counters"].append({"name": m[1], "kb": number(m[2])})
            if m[1] == "KernelStack" and result["stack_counted"] is None:
                result["stack_counted"] = False
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
    # The tool pads to 16 bytes, not characters: a name beyond ASCII is fewer characters wide.
    i = width = 0
    while i < len(rest) and width < 16:
        width += len(rest[i].encode("utf-8", "surrogateescape"))
        i += 1
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
        if m.start() == 0 or (text[m.start() - 1] == " " and number(m[1]) > last):
            if not starts or m.start() > starts[-1].end():
                starts.append(m)
                last = number(m[1])
    for k, m in enumerate(starts):
        end = starts[k + 1].start() - 1 if k + 1 < len(starts) else len(text)
        owners.append({"pid": number(m[1]), "name": text[m.end():end]})
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
            result["total_kb"] = number(m[1])
            result["state"] = "table"
            in_table = False
            continue
        if not in_table:
            continue
        m = _ROW_HEAD.match(line)
        if m:
            exporter, owner_text = _split_exporter_owner(line[m.end():])
            row = {"inode": number(m[1]), "size": number(m[2]), "exporter": exporter,
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
