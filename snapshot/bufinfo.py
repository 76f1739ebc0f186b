"""Reads the buffer names out of a capture's /d/dma_buf/bufinfo (the kernel's debug table).

No report of quarrystat prints what the allocating code called a buffer, yet that name (e.g.
"G:screenshot") is often the first clue to a leak, so the page takes it from here. The kernel
has printed the table in a few layouts over the years:

    size    flags   mode    count   exp_name ino     name        (5.x and later: ino and name)
    size    flags   mode    count   exp_name ino                 (4.x vendor kernels: no name)
    size    flags   mode    count   exp_name                     (older: no inode at all)

Fields are separated by tabs, but a table pasted through a terminal or a bug tracker may have
them as runs of spaces. Some kernels print two header lines, an old one and a padded one; the
last header seen is the one the object lines follow. Each object line may be followed by fence
lines, "Attached Devices:", device names and "Total N devices attached"; the table ends with
"Total N objects, M bytes". A table that stops before that line was cut short.
"""
import re

_OBJECT = re.compile(r"^\d{8,}\s")  # sizes are printed zero-padded to 8 digits
_TOTAL = re.compile(r"^Total (\d+) objects, (\d+) bytes")


def _fields(line):
    if "\t" in line:
        parts = [p.strip() for p in line.rstrip("\n").split("\t")]
        # The name is everything after the inode; a kernel ends each line with a tab.
        return parts
    return line.split()


def parse(data):
    """data: the file's bytes (or None when the capture has no such file).

    Returns {"names": {inode: name or None}, "exporters": {inode: exp_name},
    "sizes": {inode: bytes}, "problems": [text, ...]}. A name of "<none>" or an empty name is
    None. "problems" says in words what could not be read; it is empty for a complete table.
    """
    out = {"names": {}, "exporters": {}, "sizes": {}, "problems": []}
    if data is None:
        return out
    text = data.decode("utf-8", "surrogateescape")
    columns = None
    objects = 0
    unread = 0
    total = None
    for line in text.splitlines():
        if line.startswith("size") and "exp_name" in line:
            columns = [c for c in (f.strip() for f in re.split(r"\s+", line)) if c]
            continue
        m = _TOTAL.match(line)
        if m:
            total = int(m.group(1))
            continue
        if not _OBJECT.match(line):
            continue
        objects += 1
        if columns is None or "ino" not in columns:
            unread += 1
            continue
        parts = _fields(line)
        ino_at = columns.index("ino")
        if len(parts) <= ino_at or not parts[ino_at].isdigit() or not parts[0].isdigit():
            unread += 1
            continue
        inode = int(parts[ino_at])
        name = None
        if "name" in columns and len(parts) > ino_at + 1:
            rest = parts[ino_at + 1:]
            if "\t" in line:
                name = "\t".join(rest).strip()
            else:
                name = " ".join(rest)
            if name in ("", "<none>"):
                name = None
        out["names"][inode] = name
        out["sizes"][inode] = int(parts[0])
        exp_at = columns.index("exp_name")
        if len(parts) > exp_at:
            out["exporters"][inode] = parts[exp_at]
    if columns is None:
        if objects or text.strip():
            out["problems"].append("no header line: the buffers' columns are unknown")
    elif "ino" not in columns:
        out["problems"].append("this kernel's table has no inode column: names cannot be matched to buffers")
    elif "name" not in columns:
        out["problems"].append("this kernel's table has no name column")
    if unread and columns is not None and "ino" in columns:
        out["problems"].append("%d object line(s) not understood" % unread)
    if total is None:
        if columns is not None:
            out["problems"].append("the table has no closing total line: it was cut short")
    elif total != objects:
        out["problems"].append("the table announces %d objects but lists %d" % (total, objects))
    return out
