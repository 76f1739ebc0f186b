"""The offline page: one HTML file with its style, its drawings (inline SVG) and a few lines of
script (table sorting, by mouse or keyboard, and a timeline's value on hover) inside, so it can be attached to a bug and opened anywhere without a
network.

render(doc) draws the document report.py builds (the same one --json writes), so the page
never shows a figure the JSON lacks. Every text that came from a device goes through text():
control bytes become \\xHH and markup characters become entities, in element content and in
attributes alike.
"""
import datetime
import html

import reporttext

# The tool's two DDR banks. Each is drawn to its own scale in a row of its own; what lies
# between them is a break, not drawn to scale.
BANKS = [(0x80000000, 0x100000000), (0x880000000, 0x1000000000)]
MAP_WIDTH = 1000
MIN_WIDTH = 3  # a region narrower than this on the map is widened to it and listed beside
KIND_CLASS = {"fdt_no-map": "nomap", "fdt_reserved": "reserved", "fdt_reserved_cma": "cma",
              "memblock_reserved": "reserved"}
LEGEND = [("nomap", "no-map"), ("reserved", "reserved"), ("cma", "CMA"),
          ("cmaused", "CMA in use (its place in the area is not known)"), ("initrd", "initrd"),
          ("kcode", "kernel code"), ("kdata", "kernel data"), ("memory", "memory table"),
          ("hole", "gap in the memory table (bp hole where no region covers it)"),
          ("absent", "no memory")]
PALETTE = ["#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd", "#8c564b", "#e377c2",
           "#17becf", "#7f7f7f", "#bcbd22"]

STYLE = """
body{font:14px/1.4 sans-serif;margin:1em 2em;color:#222;max-width:1100px}
svg.memory-map,svg.timeline,svg.kmem{width:100%;height:auto;max-width:1000px}figure.chart{margin:.5em 0}
figcaption{font-weight:bold}.readout{color:#333;min-height:1.4em;margin:0}.verdict{font-size:1.15em;
padding:.4em .6em;background:#fff6d5;border-left:4px solid #e0a800}.wide{overflow-x:auto;max-width:100%}
th[data-type]:focus{outline:2px solid #1f77b4}circle.pt{cursor:crosshair}circle.pt:hover{r:5}
table.regions{font-size:.9em}tr.up td.delta{color:#a00;font-weight:bold}tr.down td.delta{color:#1a7f37;font-weight:bold}
.region-name{fill:#000;paint-order:stroke;stroke:#fff;stroke-width:3px}details summary{cursor:pointer}

h1{font-size:1.4em}h2{font-size:1.2em;border-bottom:1px solid #ccc;margin-top:1.6em}
h3{font-size:1.05em}
table{border-collapse:collapse;margin:.5em 0}td,th{border:1px solid #ccc;padding:2px 6px;
text-align:left}td.n,th.n{text-align:right}th[data-type]{cursor:pointer;background:#f3f3f3}
th[data-type]:after{content:" \\2195";color:#999}
tr.changed td{background:#fff3b0}tr.gone td{background:#e6e6e6;text-decoration:line-through}
td.kernel{font-style:italic;color:#8a2be2}.cmdline{font-weight:bold;overflow-wrap:anywhere}.unsaid{color:#a00}.note{color:#555}
.bad{color:#a00;font-weight:bold}#reboots li.reboot{color:#a00;font-weight:bold}svg{display:block;margin:.5em 0}
.nomap{fill:#d62728}.reserved{fill:#ff7f0e}.cma{fill:#2ca02c}.cmaused{fill:#135e13}
.initrd{fill:#9467bd}.kcode{fill:#1f77b4}.kdata{fill:#17becf}.memory{fill:#f4f4e8}
.hole{fill:#555}.changed{stroke:#000;stroke-width:2}.memory-map .changed{stroke-dasharray:none}
.removed-region{opacity:.45;stroke-dasharray:3 2}.absent{fill:#fff;stroke:#bbb}.legend span{display:inline-block;width:12px;
height:12px;margin:0 4px 0 12px;vertical-align:middle}.unknown{fill:#fff;stroke:#a00;
stroke-dasharray:4 2}code{background:#f3f3f3}
@media print{svg.memory-map,svg.timeline,svg.kmem{max-width:none}body{margin:0;max-width:none}th[data-type]:after{content:""}.readout{display:none}
details>*{display:block}svg text{fill:#000}h2{break-after:avoid}table,figure{break-inside:avoid}}
"""

# Sorts a table by the clicked header (or Enter or Space on it: headers take the keyboard focus):
# numbers by value, text by text; a second time reverses. A timeline's dot says its value below
# the chart when pointed at or focused.
SCRIPT = """
function value(cell) {
  var v = cell.getAttribute('data-v');
  return v === null ? cell.textContent : v;
}
function sortBy(th) {
  var table = th.closest('table'), body = table.tBodies[0];
  var col = Array.prototype.indexOf.call(th.parentNode.children, th);
  var num = th.getAttribute('data-type') === 'num';
  var dir = th.getAttribute('aria-sort') === 'ascending' ? -1 : 1;
  table.querySelectorAll('th').forEach(function (h) { h.removeAttribute('aria-sort'); });
  th.setAttribute('aria-sort', dir === 1 ? 'ascending' : 'descending');
  var rows = Array.prototype.slice.call(body.rows);
  rows.sort(function (a, b) {
    var x = value(a.cells[col]), y = value(b.cells[col]);
    if (num) return dir * (Number(x) - Number(y));
    return dir * (x < y ? -1 : x > y ? 1 : 0);
  });
  rows.forEach(function (r) { body.appendChild(r); });
}
document.querySelectorAll('th[data-type]').forEach(function (th) {
  th.tabIndex = 0;
  th.setAttribute('role', 'button');
  th.addEventListener('click', function () { sortBy(th); });
  th.addEventListener('keydown', function (e) {
    if (e.key === 'Enter' || e.key === ' ') { e.preventDefault(); sortBy(th); }
  });
});
document.querySelectorAll('circle.pt').forEach(function (c) {
  var say = function () {
    c.closest('figure').querySelector('.readout').textContent = c.getAttribute('data-said');
  };
  c.addEventListener('mouseenter', say);
  c.addEventListener('focus', say);
});
"""


def text(value):
    return html.escape(reporttext.shown(str(value)), quote=True)


def kb(value):
    if isinstance(value, int):
        return "%d KB" % value
    return text(value) if value is not None else "not printed"


def _num(v):
    return "" if v is None else "%d" % v


def _when(t):
    parts = []
    if t.get("uptime") is not None:
        parts.append("uptime %.2f s" % t["uptime"])
    if t.get("wall") is not None:
        try:
            parts.append(datetime.datetime.fromtimestamp(t["wall"], datetime.timezone.utc)
                         .strftime("%Y-%m-%d %H:%M:%S UTC"))
        except (OverflowError, OSError, ValueError):
            pass
    return ", ".join(parts) or "time not recorded"


def _region_class(r):
    if r["kind"] == "MemblockReserved":
        return {"Kernel code": "kcode", "Kernel data": "kdata"}.get(r["name"], "reserved")
    if r["name"] == "initrd":
        return "initrd"
    return KIND_CLASS.get(r["kind"], "reserved")


def _title(name, start, end, size_kb):
    return "<title>%s: 0x%x-0x%x, %d KB</title>" % (text(name), start, end, size_kb)


STUB_WIDTH = 100  # px: a bank's part past its last memory and region, drawn compact, not to scale
NAME_PX = 6.6  # px per character of an 11 px region name: a name is written in place when it fits
SCALE_STEPS = [1 << k for k in range(24, 40)]  # tick spacing candidates: 16 MB to 512 GB
MIN_TICKS_PX = 80  # px between two ticks of a bank's scale at least


def bank_ends(captures):
    """Where each bank's drawing to scale ends: past the last memory and the last region any of
    the captures has there, rounded up to 256 MB (a bank's end when nothing is there). The rest
    of a bank (the sample's second bank holds 1 GB of its 30 GB) is drawn compact and labelled.
    A pair passes both captures, so that both maps share one scale."""
    ends = []
    for lo, hi in BANKS:
        last = lo
        for c in captures:
            for a, z in c["memory"] or []:
                if a < hi and z > lo:
                    last = max(last, min(z, hi))
            for r in c["reserved"]["regions"]:
                if lo <= r["start"] < hi and r["size_kb"] >= 0:
                    last = max(last, min(r["start"] + r["size_kb"] * 1024, hi))
        if last == lo:
            last = hi
        step = 256 << 20
        last = min(hi, lo + -(-(last - lo) // step) * step)
        ends.append(last)
    return ends


ABOVE = 28  # px above each bank for the names of regions too narrow to carry theirs, on two lines
ABOVE_PX = 6.0  # px per character of a 10 px name above a bank


def _names_above(regions, y, drawn):
    """Names of regions too narrow to hold them, above the bank on two lines with a tick down to
    each region; biggest first, a name that finds no room on either line is left to the table."""
    lines, out = ([], []), []
    for x, w, name in regions:
        width = len(reporttext.shown(name)) * ABOVE_PX + 4
        mid = x + w / 2
        lx = min(max(mid - width / 2, 0), drawn - width)
        for k, taken in enumerate(lines):
            if all(lx + width + 4 <= a or b + 4 <= lx for a, b in taken):
                taken.append((lx, lx + width))
                ty = y - 4 - 13 * k
                out.append('<path d="M%.1f %d V%d" stroke="#888"/><text class="region-name above" x="%.1f" y="%d" '
                           'font-size="10">%s</text>' % (mid, ty + 1, y + 4, lx + 2, ty - 1, text(name)))
                break
    return "".join(out)


def _ticks(lo, end, scale):
    step = next((t for t in SCALE_STEPS if t * scale >= MIN_TICKS_PX), SCALE_STEPS[-1])
    return range(lo, end + 1, step), step


def memory_map(capture, ident="memory-map", marks=None, key=True, ends=None):
    """The map of one capture: each bank to its own scale up to its end (bank_ends()), the rest
    of it compact; region names written in place where they fit; every region in a table
    beside. marks: {(kind, name, start, size_kb): (change, label)} outlines those regions and
    writes the label under them (a pair's changed regions); key=False leaves out the legend
    and the table (a pair shows them once)."""
    marks = marks or {}
    ends = ends or bank_ends([capture])
    s = capture["reserved"]
    regions = sorted(s["regions"], key=lambda r: -r["size_kb"])
    used = {}
    for c in s.get("cma_used", []):
        used[c["area"]] = used.get(c["area"], 0) + c["kb"]
    # Changed regions are labelled under their bank, on two lines below the scale.
    row_h, gap = 36, 44 if not marks else 70
    height = len(BANKS) * (row_h + ABOVE) + (len(BANKS) - 1) * gap + (32 if not marks else 60)
    out = ['<svg id="%s" class="memory-map" viewBox="0 0 %d %d" preserveAspectRatio="xMinYMin meet" '
           'xmlns="http://www.w3.org/2000/svg">' % (ident, MAP_WIDTH, height)]
    narrow, placed = set(), set()
    for b, ((lo, hi), end) in enumerate(zip(BANKS, ends)):
        y = ABOVE + b * (row_h + gap + ABOVE)
        labels, names, above = [], [], []
        drawn = MAP_WIDTH - (STUB_WIDTH if end < hi else 0)
        scale = drawn / (end - lo)
        out.append('<rect class="absent" x="0" y="%d" width="%d" height="%d">'
                   '<title>bank 0x%x-0x%x</title></rect>' % (y, drawn, row_h, lo, end))
        ranges = [(max(a, lo), min(z, end)) for a, z in (capture["memory"] or []) if a < end and z > lo]
        for a, z in ranges:
            out.append('<rect class="memory" x="%.3f" y="%d" width="%.3f" height="%d">%s</rect>' % (
                (a - lo) * scale, y, (z - a) * scale, row_h,
                _title("memory", a, z, (z - a) // 1024)))
        for (a0, z0), (a1, z1) in zip(ranges, ranges[1:]):
            if a1 > z0:
                out.append('<rect class="hole" x="%.3f" y="%d" width="%.3f" height="%d">%s</rect>' % (
                    (z0 - lo) * scale, y, max((a1 - z0) * scale, MIN_WIDTH), row_h,
                    _title("gap in the memory table", z0, a1, (a1 - z0) // 1024)))
        for i, r in enumerate(regions):
            start, size = r["start"], r["size_kb"] * 1024
            if size < 0 or not (lo <= start < end):
                continue
            placed.add(i)
            cls = _region_class(r)
            w = min(size, end - start) * scale
            x = (start - lo) * scale
            if w < MIN_WIDTH:
                narrow.add(i)
                w = MIN_WIDTH
            mark = marks.get((r["kind"], r["name"], start, r["size_kb"]))
            out.append('<rect class="%s" data-region="%s"%s x="%.3f" y="%d" width="%.3f" height="%d">%s</rect>' % (
                cls + (" changed" if mark else ""), text(r["name"]),
                ' data-change="%s"' % text(mark[0]) if mark else "",
                x, y + 4, w, row_h - 8, _title(r["name"], start, start + size, r["size_kb"])))
            if mark:
                labels.append((x, y, w, mark))
            if len(reporttext.shown(r["name"])) * NAME_PX + 6 <= w:
                names.append('<text class="region-name" x="%.3f" y="%d" font-size="11">%s</text>' % (
                    x + 3, y + row_h - 9, text(r["name"])))
            else:
                above.append((x, w, r["name"]))
            if cls == "cma" and used.get(r["name"]):
                u = min(used[r["name"]] * 1024, size)
                out.append('<rect class="cmaused" x="%.3f" y="%d" width="%.3f" height="%d">'
                           '<title>%s in use: %d KB (its place in the area is not known)</title></rect>' % (
                               x, y + 12, max(u * scale, 1), row_h - 24, text(r["name"]), used[r["name"]]))
        out.extend(names)
        out.append(_names_above(above, y, drawn))
        if end < hi:
            out.append('<rect class="absent rest" x="%d" y="%d" width="%d" height="%d" stroke-dasharray="3 3"><title>'
                       '0x%x-0x%x: no memory and no region, not drawn to scale</title></rect>'
                       '<text x="%d" y="%d" font-size="9" fill="#555">to 0x%x</text>'
                       '<text x="%d" y="%d" font-size="9" fill="#555">%s, not to scale</text>' % (
                           drawn + 2, y, STUB_WIDTH - 2, row_h, end, hi, drawn + 5, y + 15, hi,
                           drawn + 5, y + 28, _size_words(hi - end)))
        ticks, step = _ticks(lo, end, scale)
        for k, t in enumerate(ticks):
            x = (t - lo) * scale
            anchor = "start" if k == 0 else "end" if x > drawn - 40 else "middle"
            out.append('<path d="M%.1f %d v4" stroke="#666"/><text class="tick" x="%.1f" y="%d" font-size="10" '
                       'text-anchor="%s">0x%x</text>' % (x, y + row_h, x, y + row_h + 14, anchor, t))
        out.append('<text x="0" y="%d" font-size="10" fill="#555">bank 0x%x: %s to scale, ticks every %s</text>' % (
            y + row_h + 27, lo, _size_words(end - lo), _size_words(step)))
        out.append(_change_labels(labels, y + row_h + 16))
        if b + 1 < len(BANKS):
            out.append('<path d="M480 %d l10 -8 l10 16 l10 -8" stroke="#444" fill="none"/>'
                       '<text x="530" y="%d" font-size="11">break: 0x%x-0x%x not drawn</text>' % (
                           y + row_h + 24, y + row_h + 28, hi, BANKS[b + 1][0]))
    out.append("</svg>")
    legend = '<p class="legend">' + "".join(
        '<span class="%s-key" style="background:%s"></span>%s' % (c, _legend_colour(c), text(label))
        for c, label in LEGEND) + "</p>"
    return "".join(out) + (legend + region_table(regions, narrow, placed, ident) if key else "")


def _size_words(n):
    return "%d GB" % (n >> 30) if n >= 1 << 30 and not n % (1 << 30) else "%d MB" % (n >> 20)


DRAWN_AS = {"nomap": "no-map", "reserved": "reserved", "cma": "CMA", "initrd": "initrd",
            "kcode": "kernel code", "kdata": "kernel data"}


def region_table(regions, narrow, placed, ident):
    """Every region of -s, in address order: name, kind as -s prints it, start, end, size, and
    how the map draws it."""
    rows = []
    for i, r in sorted(enumerate(regions), key=lambda ir: (ir[1]["start"], ir[1]["name"])):
        size = r["size_kb"] * 1024
        note = ("outside the banks" if i not in placed else
                "widened to %d px" % MIN_WIDTH if i in narrow else "")
        rows.append('<tr><td>%s</td><td>%s</td><td>%s</td><td class="addr">0x%x</td><td class="addr">%s</td>'
                    '<td class=n>%d</td><td>%s</td></tr>' % (
                        text(r["name"]), text(r["kind"]), text(DRAWN_AS[_region_class(r)]), r["start"],
                        "0x%x" % (r["start"] + size) if size >= 0 else "", r["size_kb"], note))
    return ('<table id="%s" class="regions"><thead><tr><th data-type="text">Region</th><th data-type="text" title="as -s prints it">Kind'
            '</th><th data-type="text">Drawn as</th><th data-type="text">Start</th><th>End</th>'
            '<th class=n data-type="num">KB</th><th></th></tr></thead><tbody>%s</tbody></table>' % (
                "regions" if ident == "memory-map" else ident + "-regions", "".join(rows)))


def _change_labels(labels, bottom):
    """The labels of a bank's changed regions, under the bank, alternating between two lines so
    that neighbours do not overwrite each other; a line from each label up to its region."""
    out = []
    for k, (x, y, w, (change, label)) in enumerate(sorted(labels, key=lambda t: t[0])):
        ly = bottom + 24 + 13 * (k % 2)
        mid = x + w / 2
        anchor = "end" if mid > MAP_WIDTH * 0.7 else "start"
        out.append('<path d="M%.3f %d V%d" stroke="#000" stroke-width="1"/>'
                   '<text class="change-label" data-change="%s" x="%.3f" y="%d" font-size="11" '
                   'text-anchor="%s">%s</text>' % (mid, bottom - 4, ly - 9, text(change), mid, ly, anchor,
                                                  text(label)))
    return "".join(out)


def _legend_colour(cls):
    return {"nomap": "#d62728", "reserved": "#ff7f0e", "cma": "#2ca02c", "cmaused": "#135e13",
            "initrd": "#9467bd", "kcode": "#1f77b4", "kdata": "#17becf", "memory": "#f4f4e8",
            "hole": "#555", "absent": "#fff;border:1px solid #bbb"}[cls]


def equations(summary, ident="total-differs"):
    if not summary:
        return '<p class="unsaid">The report printed no summary.</p>'
    g = summary.get
    out = []

    def line(left_name, left, parts, sign=None):
        known = [v for _, v in parts]
        words = " + ".join("%s (%s)" % (n, kb(v)) for n, v in parts)
        if sign:
            words = words.rsplit(" + ", 1)[0] + " - " + words.rsplit(" + ", 1)[1]
        s = "<p><code>%s (%s) = %s</code>" % (text(left_name), kb(left), words)
        if left is not None and None not in known:
            total = sum(known) if not sign else sum(known[:-1]) - known[-1]
            if total != left:
                s += ' <span class="bad">the parts add up to %d KB, %+d KB from the published %d KB</span>' % (
                    total, total - left, left)
        return s + "</p>"

    if "total" in summary:
        s = "<p><code>ReservedMemoryTotal (%s) ?= %s = bp hole (%s) + fdt_nomap (%s) + mb_reserved (%s) - cma_total (%s)</code>" % (
            kb(g("total")), kb(g("parts")), kb(g("bp_hole")), kb(g("fdt_nomap")), kb(g("mb_reserved")), kb(g("cma_total")))
        if g("total") is not None and g("parts") is not None and g("total") != g("parts"):
            s += ' <span class="bad" id="%s">the sum of the parts (%d KB) differs from the published total (%d KB) by %+d KB</span>' % (
                ident, g("parts"), g("total"), g("parts") - g("total"))
        out.append(s + "</p>")
    if "bootloader_memhole" in summary:
        out.append(line("bootloader_memhole", g("bootloader_memhole"),
                        [("bp hole", g("bp_hole")), ("fdt_nomap_inhole", g("fdt_nomap_inhole"))]))
    if "fdt_nomap_inkernel" in summary:
        out.append(line("fdt nomap", g("fdt_nomap"),
                        [("fdt_nomap_inkernel", g("fdt_nomap_inkernel")), ("fdt_nomap_inhole", g("fdt_nomap_inhole"))]))
    return "".join(out)


def kmem_bar(n, ident="kmem-bar"):
    parts = [(c["name"], c["kb"]) for c in n["counters"]]
    unknown = None
    if n["unmapped"] is not None:
        if n["unmapped"]["kb"] is None:
            unknown = n["unmapped"]
        else:
            parts.append((n["unmapped"]["source"] + " unmapped", n["unmapped"]["kb"]))
    whole = sum(v for _, v in parts if v > 0) or 1
    x = 0.0
    out = ['<svg id="%s" class="kmem" viewBox="0 0 %d 46" preserveAspectRatio="xMinYMin meet" '
           'xmlns="http://www.w3.org/2000/svg">' % (ident, MAP_WIDTH)]
    for i, (name, v) in enumerate(parts):
        if v <= 0:
            continue
        w = v * (MAP_WIDTH - 160 if unknown else MAP_WIDTH) / whole
        out.append('<rect x="%.3f" y="0" width="%.3f" height="30" fill="%s"><title>%s: %d KB</title></rect>' % (
            x, w, PALETTE[i % len(PALETTE)], text(name), v))
        x += w
    if unknown:
        out.append('<rect class="unknown" x="%d" y="0" width="158" height="30"><title>%s unmapped: unknown</title></rect>'
                   '<text x="%d" y="19" font-size="12" fill="#a00">%s unmapped: unknown</text>' % (
                       MAP_WIDTH - 159, text(unknown["source"]), MAP_WIDTH - 154, text(unknown["source"])))
    out.append('<text x="0" y="44" font-size="12">total %s</text></svg>' % kb(n["total_kb"]))
    # The tool leaves KernelStack out of its total on a kernel with CONFIG_VMAP_STACK (it says
    # when it counts them): the counters shown then add up to more than the total.
    apart = n.get("stack_counted") is False
    rows = "".join("<tr><td><span style=\"color:%s\">&#9632;</span> %s%s</td><td class=n>%s</td></tr>" % (
        PALETTE[i % len(PALETTE)], text(name),
        " (not in the total)" if apart and name == "KernelStack" else "", _num(v))
        for i, (name, v) in enumerate(parts))
    if unknown:
        rows += '<tr><td>%s unmapped</td><td class="n unsaid">unknown%s</td></tr>' % (
            text(unknown["source"]), " (%s)" % text(unknown["reason"]) if unknown["reason"] else "")
    rows += "<tr><th>Kernel Memory total</th><th class=n>%s</th></tr>" % _num(n["total_kb"])
    note = ""
    if apart:
        note = ('<p class="note" id="%s-stack">KernelStack is not part of the total: this kernel has '
                "CONFIG_VMAP_STACK, so its stacks are vmalloc'd and already within VmallocUsed, "
                "and the tool leaves them out of its total. The counters above add up to more "
                "than the total by that much.</p>" % ident)
    return "".join(out) + "<table><thead><tr><th>Counter</th><th class=n>KB</th></tr></thead><tbody>%s</tbody></table>" % rows + note


FIRST_ARG = 80  # a longer first argument is cut on the page (the whole line is in its title)


def named(key, args):
    """A holder's key ("[pid]comm") as the page shows it: after the first argument of its
    command line when the capture has one, the whole line in the title (shown on hover)."""
    first = next((a for a in args or () if a), "")
    if not first:
        return text(key)
    if len(first) > FIRST_ARG:
        first = first[:FIRST_ARG] + "\u2026"
    return '<span class="cmdline" title="%s">%s</span> %s' % (text(" ".join(args)), text(first), text(key))


def owners_html(owners, cmdlines):
    """The holders of a buffer, each named by its command line where the capture has it."""
    if not owners:
        return "kernel"
    return ", ".join(named("[%d]%s" % (o["pid"], o["name"]), cmdlines.get(str(o["pid"]))) for o in owners)


def subtotal_table(rows, by, title, cmdlines=None):
    sums = {}
    lines = {}
    for r in rows:
        if by == "exporter":
            keys = [r["exporter"]]
        elif by == "holder":
            keys = []
            for o in r["owners"]:
                keys.append("[%d]%s" % (o["pid"], o["name"]))
                lines[keys[-1]] = (cmdlines or {}).get(str(o["pid"]))
            keys = keys or ["kernel"]
        else:
            keys = [r["name"]] if r.get("name") else []
        for k in keys:
            count, size = sums.get(k, (0, 0))
            sums[k] = (count + 1, size + r["size"])
    if not sums:
        return ""
    body = "".join("<tr><td>%s</td><td class=n>%d</td><td class=n>%d</td></tr>" % (named(k, lines.get(k)), c, s // 1024)
                   for k, (c, s) in sorted(sums.items(), key=lambda kv: -kv[1][1]))
    return ('<table class="subtotal"><thead><tr><th data-type="text">%s</th><th class=n data-type="num">Buffers</th>'
            '<th class=n data-type="num">KB</th></tr></thead><tbody>%s</tbody></table>' % (text(title), body))


def dmabuf_section(capture, ident, marks):
    u = capture["unmapped"]
    if u["state"] != "table":
        return ""
    cmdlines = capture.get("cmdlines") or {}
    named = any(r.get("name") for r in u["rows"]) or capture["bufinfo"]["present"]
    head = '<th class=n data-type="num">Inode</th>' + ('<th data-type="text">Name</th>' if named else "") + \
        '<th class=n data-type="num">Size (bytes)</th><th data-type="text">Exporter</th><th data-type="text">Owner</th>'
    body = []
    for r in u["rows"]:
        mark = marks.get(r["inode"])
        cls = ' class="%s" title="%s"' % mark if mark else ""
        name = "<td>%s</td>" % (text(r["name"]) if r.get("name") else "") if named else ""
        owner = '<td class="kernel" title="no process holds it: a driver or a reference passed into the kernel does">kernel</td>' if r["kernel"] or not r["owners"] \
            else "<td>%s</td>" % owners_html(r["owners"], cmdlines)
        body.append("<tr%s><td class=n>%d</td>%s<td class=n>%d</td><td>%s</td>%s</tr>" % (
            cls, r["inode"], name, r["size"], text(r["exporter"]), owner))
    out = ['<p>Unmapped total: %s, %d buffers. <span class="note">Click a column header (or focus it and press '
           'Enter) to sort.</span></p>' % (kb(u["total_kb"]), len(u["rows"]))]
    if any(r["kernel"] or not r["owners"] for r in u["rows"]):
        out.append(KERNEL_NOTE)
    out.append('<table class="dmabuf" id="dmabuf-%s"><thead><tr>%s</tr></thead><tbody>%s</tbody></table>' % (
        ident, head, "".join(body)))
    out.append('<div class="subtotals">%s%s%s</div>' % (
        subtotal_table(u["rows"], "exporter", "Exporter"),
        subtotal_table(u["rows"], "holder", "Holding process", cmdlines),
        subtotal_table(u["rows"], "name", "Buffer name") if named else ""))
    return "".join(out)


def unsaid_list(items, section):
    lines = [i["text"] for i in items if i["section"] == section]
    if not lines:
        return ""
    return '<div class="unsaid"><p>What the tool could not say here:</p><ul>%s</ul></div>' % "".join(
        "<li>%s</li>" % text(t) for t in lines)


def capture_sections(capture, ident, marks=None):
    h = []
    info = capture["info"]
    h.append('<p class="note">%s: model %s, kernel %s, %s</p>' % (
        text(capture["file"]), text(info.get("model") or "not recorded"),
        text(info.get("kernel_release") or "not recorded"), text(_when(capture["time"]))))
    h.append(unsaid_list(capture["unsaid"], "capture"))
    h.append("<h3>Physical memory map (reserved memory)</h3>")
    h.append(memory_map(capture))
    h.append(equations(capture["reserved"]["summary"]))
    h.append(unsaid_list(capture["unsaid"], "reserved"))
    h.append("<h3>Kernel memory</h3>")
    h.append(kmem_bar(capture["kmem"]))
    h.append(unsaid_list(capture["unsaid"], "kmem"))
    h.append("<h3>Unmapped DMA-BUF</h3>")
    h.append(dmabuf_section(capture, ident, marks or {}))
    h.append(unsaid_list(capture["unsaid"], "dmabuf"))
    return "".join(h)


def figure_changes(figures):
    """The figures that changed, coloured by direction (up red, down green), and those that could
    not be compared; the unchanged ones folded into one line, not a table of +0 KB."""
    moved = [x for x in figures if x["delta"] != 0]
    same = [x for x in figures if x["delta"] == 0]
    rows = "".join('<tr class="%s" data-change="%s"><td>%s</td><td>%s</td><td class=n>%s</td><td class=n>%s</td>'
                   '<td class="n delta">%s</td></tr>' % (
                       *(("up", "up") if isinstance(x["delta"], int) and x["delta"] > 0 else
                         ("down", "down") if isinstance(x["delta"], int) else ("unknown", "unknown")),
                       text(x["report"]), text(x["name"]), kb(x["before"]), kb(x["after"]),
                       ("&#9650; %+d KB" if x["delta"] > 0 else "&#9660; %+d KB") % x["delta"]
                       if isinstance(x["delta"], int) else "not comparable") for x in moved)
    out = []
    if rows:
        out.append('<table id="facts-figures"><thead><tr><th>Report</th><th>Figure</th><th class=n>Before</th>'
                   '<th class=n>After</th><th class=n>Change</th></tr></thead><tbody>%s</tbody></table>' % rows)
    else:
        out.append('<p id="facts-figures">No figure changed.</p>')
    if same:
        out.append('<p class="note" id="facts-unchanged">Unchanged: %s.</p>' % ", ".join(
            "%s %s (%s)" % (text(x["report"]), text(x["name"]), kb(x["after"])) for x in same))
    return "".join(out)


def facts_section(f, before_lines=None, after_lines=None):
    out = ["<h2>What changed</h2>"]
    if f["missing"]:
        out.append('<ul class="unsaid">%s</ul>' % "".join(
            "<li>%s report missing on the %s capture: %s</li>" % (text(m["report"]), text(m["side"]), text(m["reason"]))
            for m in f["missing"]))
    if f["buffers"]:
        rows = []
        for b in f["buffers"]:
            r = b["after"] or b["before"]
            # Coloured by direction: unmapped bytes up (red) or down (green).
            direction = {"became unmapped": "up", "no longer unmapped": "down"}.get(b["change"], "moved")
            rows.append('<tr class="%s"><td class="delta">%s</td><td class=n>%d</td><td class=n>%d</td><td>%s</td>'
                        '<td>%s</td><td>%s</td></tr>' % (
                direction, text(b["change"]), b["inode"], r["size"], text(r["exporter"]),
                owners_html(b["before"]["owners"], before_lines or {}) if b["before"] else "",
                owners_html(b["after"]["owners"], after_lines or {}) if b["after"] else ""))
        out.append('<table id="facts-buffers"><thead><tr><th>Change</th><th class=n>Inode</th><th class=n>Size</th>'
                   '<th>Exporter</th><th>Holders before</th><th>Holders after</th></tr></thead><tbody>%s</tbody></table>'
                   % "".join(rows))
        if any(not (b[side] or {"owners": [1]})["owners"] for b in f["buffers"] for side in ("before", "after")):
            out.append(KERNEL_NOTE)
    else:
        out.append("<p>No buffer changed.</p>")
    out.append(figure_changes(f["figures"]))
    return "".join(out)


CHANGE_WORDS = {"added": "added", "removed": "removed", "resized": "resized", "moved": "moved",
                "moved_resized": "moved and resized"}


def _at(at):
    if at is None:
        return "", ""
    return (text(at["start"]) if at["start"] else "not located"), "%d" % at["size_kb"]


def region_changes_section(f):
    """The reserved section's opening: each region of -s that changed, then the memory table's
    changes."""
    changed = [r for r in f.get("regions") or [] if r["change"] != "unchanged"]
    out = []
    if any(m["report"] == "reserved" for m in f["missing"]):
        out.append('<p class="unsaid">One of the captures has no reserved-memory report: its '
                   'regions cannot be compared.</p>')
    elif changed:
        rows = []
        for r in changed:
            b, a = _at(r["before"]), _at(r["after"])
            dup = (" (#%d; the name is printed %d times before, %d after: matched in order)" % (
                r["occurrence"], r["printed"]["before"], r["printed"]["after"]) if r["printed"] else "")
            rows.append('<tr data-change="%s"><td>%s</td><td>%s</td><td>%s%s</td><td>%s</td>'
                        '<td class=n>%s</td><td>%s</td><td class=n>%s</td><td class=n>%+d</td></tr>' % (
                            text(r["change"]), text(CHANGE_WORDS[r["change"]]), text(r["kind"]),
                            text(r["name"]), text(dup), b[0], b[1], a[0], a[1], r["delta_kb"]))
        out.append('<table id="region-changes"><thead><tr><th>Change</th><th>Kind</th><th>Region</th>'
                   '<th>Start before</th><th class=n>KB before</th><th>Start after</th><th class=n>KB after</th>'
                   '<th class=n>Change (KB)</th></tr></thead><tbody>%s</tbody></table>' % "".join(rows))
    else:
        out.append('<p id="region-changes">No region of the reserved-memory report changed.</p>')
    if f.get("memory"):
        out.append('<ul id="memory-changes">%s</ul>' % "".join(
            "<li>memory table %s: %s (%+d KB)</li>" % (text(m["change"]), text(" -> ".join(
                ", ".join("0x%x-0x%x" % (int(a, 16), int(z, 16)) for a, z in side)
                for side in (m["before"], m["after"]) if side)), m["delta_kb"]) for m in f["memory"]))
    return "".join(out)


def _map_marks(f, side):
    """{(kind, name, start, size_kb): (change, label)} of one capture's changed regions."""
    marks = {}
    for r in f.get("regions") or []:
        at = r[side]
        if r["change"] == "unchanged" or at is None or at["start"] is None:
            continue
        words = CHANGE_WORDS[r["change"]]
        if r["change"] in ("added", "removed"):
            label = "%s %s, %d KB" % (r["name"], words, at["size_kb"])
        else:
            label = "%s %s, %+d KB" % (r["name"], words, r["delta_kb"])
        marks[(r["kind"], r["name"], int(at["start"], 16), at["size_kb"])] = (r["change"], label)
    return marks


def _board_note(doc):
    b = doc.get("board")
    if not b:
        return ""
    if not b["same"]:
        return ('<p class="bad" id="board-warning">These captures come from different devices '
                '(%s): their figures are compared, but not as one board.</p>' % text(b["differ"]))
    if b["builds"][0] != b["builds"][1]:
        return '<p id="builds">One board (%s), two builds: %s &rarr; %s</p>' % (
            text(b["models"][0] or "model not recorded"), text(b["builds"][0] or "not recorded"),
            text(b["builds"][1] or "not recorded"))
    return ""


def pair_sections(doc, before_marks, after_marks):
    """The page of two captures: what changed, then each section once where both captures say
    the same, and before above after where they differ (element ids made unique by side)."""
    caps, f = doc["captures"], doc["facts"]
    h = [_board_note(doc), facts_section(f, caps[0].get("cmdlines"), caps[1].get("cmdlines"))]
    for c in caps:
        info = c["info"]
        h.append('<p class="note">%s: model %s, build %s, kernel %s, %s</p>' % (
            text(c["file"]), text(info.get("model") or "not recorded"),
            text(info.get("fingerprint") or "not recorded"),
            text(info.get("kernel_release") or "not recorded"), text(_when(c["time"]))))
        h.append(unsaid_list(c["unsaid"], "capture"))
    h.append("<h2>Reserved memory</h2>")
    h.append(region_changes_section(f))
    if caps[0]["memory"] == caps[1]["memory"] and all(
            caps[0]["reserved"][k] == caps[1]["reserved"][k] for k in ("regions", "cma_used")):
        h.append('<h3>Physical memory map, the same in both captures</h3>' + memory_map(caps[1]))
    else:
        h.append('<h3>Physical memory maps, before above after, on one scale</h3>'
                 '<p class="note">Changed regions are outlined and labelled.</p>')
        for c, side in zip(caps, ("before", "after")):
            h.append('<h4>%s: %s</h4>' % (side.capitalize(), text(c["file"])))
            h.append(memory_map(c, "memory-map-" + side, _map_marks(f, side), key=side == "after",
                                ends=bank_ends(caps)))
    if caps[0]["reserved"]["summary"] == caps[1]["reserved"]["summary"]:
        h.append(equations(caps[1]["reserved"]["summary"]))
    else:
        for c, side in zip(caps, ("before", "after")):
            h.append("<p>%s:</p>" % side.capitalize() + equations(c["reserved"]["summary"], "total-differs-" + side))
    for c in caps:
        h.append(unsaid_list(c["unsaid"], "reserved"))
    h.append("<h2>Kernel memory</h2>")
    if caps[0]["kmem"] == caps[1]["kmem"]:
        h.append('<p class="note">The same in both captures.</p>' + kmem_bar(caps[1]["kmem"]))
    else:
        for c, side in zip(caps, ("before", "after")):
            h.append("<h3>%s</h3>" % side.capitalize() + kmem_bar(c["kmem"], "kmem-bar-" + side))
    for c in caps:
        h.append(unsaid_list(c["unsaid"], "kmem"))
    h.append("<h2>Unmapped DMA-BUF</h2>")
    if caps[0]["unmapped"] == caps[1]["unmapped"]:
        h.append('<p class="note">The same in both captures.</p>' + dmabuf_section(caps[1], "after", {}))
    else:
        h.append("<h3>Before</h3>" + dmabuf_section(caps[0], "before", before_marks))
        h.append("<h3>After</h3>" + dmabuf_section(caps[1], "after", after_marks))
    for c in caps:
        h.append(unsaid_list(c["unsaid"], "dmabuf"))
    return "".join(h)


CHART_HEIGHT = 170  # px, at the drawing's own width (MAP_WIDTH); it scales down with the window
CHART_LEFT = 70  # px for the value axis' labels
POINT_R = 3  # px: the dot at each capture's value, which answers a hover


def human(n):
    """Bytes as a person reads them (KB as the tool counts: 1024 bytes)."""
    if n is None:
        return "unknown"
    for unit, shift in (("GB", 30), ("MB", 20), ("KB", 10)):
        if abs(n) >= 1 << shift:
            return "%.1f %s" % (n / (1 << shift), unit)
    return "%d bytes" % n


def _clock(wall):
    if wall is None:
        return None
    try:
        return datetime.datetime.fromtimestamp(wall, datetime.timezone.utc).strftime("%Y-%m-%d %H:%M:%S UTC")
    except (OverflowError, OSError, ValueError):
        return None


def chart(ident, title, xs, lines, breaks=(), moments=None):
    """A timeline: lines is [(label, values in bytes)], values None where a capture could not
    say; breaks are the indexes of the first capture after each reboot: no line runs across one,
    and a dashed mark stands there. xs never decrease (series.elapsed). moments: per capture,
    its words (number and uptime, wall clock) for the axis and the hover readout."""
    w, h, left, bottom = MAP_WIDTH, CHART_HEIGHT, CHART_LEFT, 34
    values = [v for _, vs in lines for v in vs if v is not None]
    if not values or not xs:
        return ""
    moments = moments or [("capture %d" % (i + 1), "") for i in range(len(xs))]
    lo, hi = min(0, min(values)), max(values)
    hi = hi if hi > lo else lo + 1
    x0, x1 = xs[0], xs[-1] if xs[-1] > xs[0] else xs[0] + 1

    def px(x):
        return left + (x - x0) * (w - left - 10) / (x1 - x0)

    def py(v):
        return 8 + (hi - v) * (h - bottom - 8) / (hi - lo)
    out = ['<figure class="chart"><figcaption>%s</figcaption><svg id="%s" class="timeline" viewBox="0 0 %d %d" '
           'preserveAspectRatio="xMinYMin meet" xmlns="http://www.w3.org/2000/svg">' % (text(title), ident, w, h),
           '<path d="M%d 8 V%d H%d" stroke="#999" fill="none"/>' % (left, h - bottom, w - 10),
           '<text x="%d" y="14" font-size="11" text-anchor="end">%s</text>' % (left - 4, human(hi)),
           '<text x="%d" y="%d" font-size="11" text-anchor="end">%s</text>' % (left - 4, h - bottom, human(lo))]
    # The time axis: each end's uptime and wall clock, as the captures say them.
    for k, anchor in ((0, "start"), (len(xs) - 1, "end")):
        x = left if anchor == "start" else w - 10
        first, rest = moments[k]
        out.append('<text x="%d" y="%d" font-size="11" text-anchor="%s">%s</text>'
                   '<text x="%d" y="%d" font-size="11" text-anchor="%s" fill="#555">%s</text>' % (
                       x, h - bottom + 14, anchor, text(first), x, h - bottom + 27, anchor, text(rest)))
    for b in breaks:
        x = px((xs[b - 1] + xs[b]) / 2)
        out.append('<path class="reboot" d="M%.1f 8 V%d" stroke="#a00" stroke-dasharray="4 3" fill="none">'
                   '<title>reboot</title></path><text x="%.1f" y="%d" font-size="11" fill="#a00">reboot</text>' % (
                       x, h - bottom, x + 3, 20))
    legend, dots = [], []
    for i, (label, vs) in enumerate(lines):
        d, pen = [], "M"
        colour = PALETTE[i % len(PALETTE)]
        for k, (x, v) in enumerate(zip(xs, vs)):
            if v is None or k in breaks:
                pen = "M"
            if v is None:
                continue
            d.append("%s%.1f %.1f" % (pen, px(x), py(v)))
            pen = "L"
            when = ", ".join(w for w in moments[k] if w)
            said = "%s, %s: %s (%d bytes)" % (when, label, human(v), v) if len(lines) > 1 else \
                "%s: %s (%d bytes)" % (when, human(v), v)
            dots.append('<circle class="pt" cx="%.1f" cy="%.1f" r="%d" fill="%s" data-said="%s">'
                        '<title>%s</title></circle>' % (px(x), py(v), POINT_R, colour, text(said), text(said)))
        out.append('<path d="%s" stroke="%s" stroke-width="1.5" fill="none"><title>%s</title></path>' % (
            " ".join(d), colour, text(label)))
        legend.append('<span style="color:%s">&#9632;</span> %s' % (colour, text(label)))
    out.extend(dots)
    out.append('</svg><p class="readout" aria-live="polite">Point at a dot for its value.</p></figure>')
    if len(lines) > 1:
        out.append('<p class="legend">%s</p>' % " ".join(legend))
    return "".join(out)


def recording_events(doc):
    """Where the device rebooted and where its wall clock was set: during a leak a reboot is
    itself news."""
    items = [(r["text"], "reboot") for r in doc.get("reboots", [])] + \
        [(j["text"], "clock") for j in doc.get("wall_clock_jumps", [])]
    if not items:
        return ""
    return '<ul id="reboots">%s</ul>' % "".join('<li class="%s">%s</li>' % (c, text(t)) for t, c in items)


def _moments(caps, elapsed_s):
    """Each capture in words for the time axis and the hover: (its number and uptime, with the
    time since the first capture; its wall clock)."""
    out = []
    for i, c in enumerate(caps):
        t = c["time"]
        up = "uptime %.0f s" % t["uptime"] if t.get("uptime") is not None else "uptime not recorded"
        if elapsed_s is not None and i:
            up += " (+%.0f s)" % (elapsed_s[i] - elapsed_s[0])
        out.append(("capture %d, %s" % (i + 1, up), _clock(t.get("wall")) or "wall clock not recorded"))
    return out


GROUP_CHARTS = 10  # growing groups drawn each in a chart of its own, biggest first
SHAPE_WORDS = {"growing": "growing", "step": "step", "steady": "steady", "shrinking": "shrinking"}
KERNEL_NOTE = ('<p class="note kernel-note">An owner of <i>kernel</i> means no process holds the buffer: '
               'a driver, or a reference passed into the kernel (a buffer queued to a device, a fence), '
               'keeps it alive. Look at the exporter and the drivers that import from it.</p>')


def _holders_html(keys, holders):
    return ", ".join('<span class="kernel" title="no process holds it: a driver or a reference passed into '
                     'the kernel does">kernel</span>' if k == "kernel" else
                     named(k, (holders.get(k) or {}).get("cmdline")) for k in keys)


def _rate(g):
    if g["shape"] == "step" or g.get("bytes_per_minute") is None:
        return ""
    return "%s%s/min" % ("+" if g["bytes_per_minute"] > 0 else "-", human(abs(g["bytes_per_minute"])))


def verdict(doc):
    """The page's first sentence: the biggest growing group of suspects, or that nothing grew."""
    s, sus, caps = doc["series"], doc["suspects"], doc["captures"]
    growing = [g for g in sus["groups"] if g["shape"] == "growing"]
    if not growing:
        steps = [g for g in sus["groups"] if g["shape"] == "step"]
        words = "Nothing grew: no group of unmapped DMA-BUF buffers rose in more than one step"
        if steps:
            g = steps[0]
            words += ("; the largest that rose once and stayed is %d buffer%s%s of %s held by %s, %s since capture %d" % (
                g["buffers"], "" if g["buffers"] == 1 else "s", " named " + text(g["name"]) if g["name"] else "",
                text(g["exporter"]), _holders_html(g["holders"], s["holders"]), human(g["bytes"]), g["since"] + 1))
        return '<p id="verdict" class="verdict">%s.</p>' % words
    g = growing[0]
    return ('<p id="verdict" class="verdict">Growing: %d buffer%s%s of exporter %s held by %s, %s in all, '
            '%s since capture %d (%s).</p>' % (
                g["buffers"], "" if g["buffers"] == 1 else "s", " named " + text(g["name"]) if g["name"] else "",
                text(g["exporter"]), _holders_html(g["holders"], s["holders"]), human(g["bytes"]),
                _rate(g).replace("/min", " per minute"), g["since"] + 1, text(_when(caps[g["since"]]["time"]))))


def suspect_groups(doc):
    s, sus = doc["series"], doc["suspects"]
    if not sus["groups"]:
        return '<p id="suspects">No buffer became unmapped and stayed so.</p>'
    rows = []
    for g in sus["groups"]:
        listed = "".join("<li>buffer %d</li>" % i for i in g["inodes"])
        rows.append('<tr data-shape="%s"><td>%s</td><td>%s</td><td>%s</td><td>%s</td>'
                    '<td class=n data-v="%d"><details><summary>%d</summary><ul>%s</ul></details></td>'
                    '<td class=n data-v="%d" title="%d bytes">%s</td><td data-v="%d">capture %d</td><td>%s</td></tr>' % (
                        g["shape"], text(SHAPE_WORDS[g["shape"]]), _holders_html(g["holders"], s["holders"]),
                        text(g["exporter"]), text(g["name"]) if g["name"] else "", g["buffers"], g["buffers"], listed,
                        g["bytes"], g["bytes"], human(g["bytes"]), g["since"], g["since"] + 1,
                        _rate(g) or "at once"))
    note = KERNEL_NOTE if any("kernel" in g["holders"] for g in sus["groups"]) else ""
    return ('<table id="suspects" class="groups"><thead><tr><th data-type="text">Shape</th><th data-type="text">Holder</th>'
            '<th data-type="text">Exporter</th><th data-type="text">Name</th><th class=n data-type="num">Buffers</th>'
            '<th class=n data-type="num">Size</th><th data-type="num">First seen</th><th>Rate</th></tr>'
            '</thead><tbody>%s</tbody></table>%s' % ("".join(rows), note))


def growth_table(doc):
    s, sus = doc["series"], doc["suspects"]
    holders = s.get("holders", {})
    if not sus["growth"]:
        return "<p>No exporter, holder or buffer name holds more or fewer unmapped bytes at the end than at the start.</p>"

    def key_html(g):
        if g["by"] == "holder":
            return _holders_html([g["key"]], holders)
        return text(g["key"])
    rows = "".join(
        '<tr data-shape="%s"><td>%s</td><td>%s</td><td>%s</td>%s%s%s<td>%s</td><td class=n>%s</td></tr>' % (
            g["shape"], text(g["by"]), key_html(g), text(SHAPE_WORDS[g["shape"]]),
            _bytes_cell(g["first_bytes"]), _bytes_cell(g["last_bytes"]), _bytes_cell(g["change_bytes"], "+"),
            _rate(g) or ("at capture %d" % (g["since"] + 1) if g["since"] is not None else ""),
            "%d &rarr; %d" % (g["first_count"], g["last_count"])
            if g.get("first_count") is not None and g.get("last_count") is not None else "")
        for g in sus["growth"])
    return ('<table id="growth"><thead><tr><th data-type="text">By</th><th data-type="text">Key</th>'
            '<th data-type="text">Shape</th><th class=n data-type="num">First</th><th class=n data-type="num">Last</th>'
            '<th class=n data-type="num">Change</th><th>Rate</th><th class=n>Buffers</th></tr></thead><tbody>%s</tbody></table>' % rows)


def _bytes_cell(n, sign=""):
    """A size in bytes for a person, the exact bytes in its title and its sort value."""
    return '<td class=n data-v="%d" title="%d bytes">%s%s</td>' % (n, n, "+" if sign and n > 0 else "", human(n))


def still_counters(s, xs, breaks, moments):
    """Charts of the -n counters that moved; one small table of those that did not; the DMA-BUF
    unmapped counter left out where it is the unmapped total already drawn."""
    moved, still = [], []
    for name, values in s["counters"].items():
        known = [v for v in values if v is not None]
        if name.endswith(" unmapped") and values == s["unmapped_bytes"]:
            continue
        (still if known and min(known) == max(known) else moved).append((name, values))
    out = [chart("timeline-counter-%d" % i, name, xs, [(name, values)], breaks, moments)
           for i, (name, values) in enumerate(moved)]
    if still:
        rows = "".join("<tr><td>%s</td>%s</tr>" % (text(name), "".join(
            "<td class=n>%s</td>" % _num(v) for v in (
                next(v for v in vs if v is not None), next(v for v in reversed(vs) if v is not None),
                min(v for v in vs if v is not None), max(v for v in vs if v is not None))))
            for name, vs in still)
        out.append('<h4>Counters that did not move</h4><table id="still-counters"><thead><tr><th>Counter</th>'
                   '<th class=n>First bytes</th><th class=n>Last bytes</th><th class=n>Min</th><th class=n>Max</th>'
                   '</tr></thead><tbody>%s</tbody></table>' % rows)
    return "".join(out)


def recording_sections(doc):
    s, sus, caps = doc["series"], doc["suspects"], doc["captures"]
    out = [verdict(doc), "<h2>Suspects</h2>"]
    within = sus["within"]
    if within["boot"] > 1:
        out.append('<p class="note" id="within-boot">Suspects and growth are computed within the last boot only, '
                   'from %s to %s: a buffer or a process of an earlier boot is not the one of the same number '
                   'after a reboot (%s). The JSON gives the growth of each boot.</p>' % (
                       text(caps[within["first"]]["file"]), text(caps[within["last"]]["file"]),
                       text("; ".join(r["text"] for r in doc.get("reboots", [])))))
    out.append('<p class="note">Buffers unmapped in every capture from some capture on, grouped by holder, exporter '
               'and name. <i>growing</i>: rose in more than one step; <i>step</i>: rose once and stayed (a size, '
               'not a rate).</p>')
    out.append(suspect_groups(doc))
    out.append("<h3>Growth by exporter, holder and name</h3>")
    out.append(growth_table(doc))
    if any(g["key"] == "kernel" for g in sus["growth"] if g["by"] == "holder") and \
            not any("kernel" in g["holders"] for g in sus["groups"]):
        out.append(KERNEL_NOTE)
    xs = s["elapsed_s"] or list(range(len(caps)))
    breaks = [r["index"] for r in doc.get("reboots", [])]
    moments = _moments(caps, s["elapsed_s"])
    out.append("<h2>Timelines</h2>")
    if s["elapsed_s"] is None:
        out.append('<p class="unsaid">The captures carry no time: drawn one step per capture.</p>')
    elif breaks:
        out.append('<p class="note">Time runs on each boot\'s own clock; between two boots the time is the wall '
                   'clock\'s (none when it went back). No line runs across a reboot.</p>')
    out.append(chart("timeline-unmapped", "Unmapped DMA-BUF total", xs, [("total", s["unmapped_bytes"])], breaks,
                     moments))
    growing = [g for g in sus["groups"] if g["shape"] == "growing"]
    if len(growing) > GROUP_CHARTS:
        out.append('<p class="note">The %d biggest of %d growing groups are drawn; the table above lists '
                   'them all.</p>' % (GROUP_CHARTS, len(growing)))
    for i, g in enumerate(growing[:GROUP_CHARTS]):
        out.append(chart("timeline-group-%d" % i, "Growing: %s, %s, %s" % (
            ", ".join(g["holders"]), g["exporter"], g["name"] or "unnamed"), xs, [("bytes", g["series"])],
            breaks, moments))
    out.append(chart("timeline-exporters", "Unmapped DMA-BUF per exporter", xs, sorted(s["by_exporter"].items()),
                     breaks, moments))
    out.append(still_counters(s, xs, breaks, moments))
    return "".join(out)


def unsaid_overview(doc):
    """For a recording: each thing the tool could not say, with the captures it concerns."""
    seen = {}
    for c in doc["captures"]:
        for item in c["unsaid"]:
            seen.setdefault(item["text"], []).append(c["file"])
    if not seen:
        return ""
    rows = "".join("<li>%s <span class=note>(%s)</span></li>" % (
        text(t), text(files[0] if len(files) == 1 else "%d captures, %s to %s" % (len(files), files[0], files[-1])))
        for t, files in seen.items())
    return '<h2>What the tool could not say</h2><ul class="unsaid">%s</ul>' % rows


def render(doc):
    caps = doc["captures"]
    kind = doc["kind"]
    title = {"capture": "Memory of one capture", "pair": "Memory before and after",
             "recording": "Memory over a recording"}[kind]
    h = ['<!DOCTYPE html><html lang="en"><head><meta charset="utf-8">'
         '<meta name="viewport" content="width=device-width, initial-scale=1">'
         '<title>%s: %s</title><style>%s</style></head><body>' % (title, text(caps[-1]["file"]), STYLE)]
    h.append("<h1>%s</h1>" % title)
    h.append("<p>%d capture%s%s.</p>" % (len(caps), "" if len(caps) == 1 else "s",
                                        ", from %s to %s" % (text(caps[0]["file"]), text(caps[-1]["file"])) if len(caps) > 1 else ""))
    if doc["left_out"]:
        h.append('<ul class="unsaid" id="left-out">%s</ul>' % "".join(
            "<li>%s left out: replay refused it (status %d): %s</li>" % (text(x["file"]), x["status"], text(x["reason"]))
            for x in doc["left_out"]))
    if kind == "pair":
        f = doc["facts"]
        after_marks, before_marks = {}, {}
        for b in f["buffers"]:
            if b["change"] == "no longer unmapped":
                before_marks[b["inode"]] = ("gone", text(b["change"]))
            else:
                after_marks[b["inode"]] = ("changed", text(b["change"]))
        h.append(pair_sections(doc, before_marks, after_marks))
    elif kind == "recording":
        h.append(recording_events(doc))
        h.append(recording_sections(doc))
        h.append(unsaid_overview(doc))
        h.append("<h2>Last capture</h2>" + capture_sections(caps[-1], "last"))
    else:
        h.append("<h2>The capture</h2>" + capture_sections(caps[0], "0"))
    h.append("<script>%s</script></body></html>\n" % SCRIPT)
    return _scrolling("".join(h))


def _scrolling(markup):
    """Each table in a box of the window's width that scrolls sideways when the table is wider,
    so a narrow window never clips the page (device text is escaped: every "<table" here is
    the page's own)."""
    return markup.replace("<table", '<div class="wide"><table').replace("</table>", "</table></div>")
