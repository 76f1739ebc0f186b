#!/usr/bin/python3
"""Unpacks a capture into a folder, keeping only what a capture can hold.

    unpack.py [--spill FOLDER] CAPTURE.tar.gz DEST

A capture may come from anyone's device, so nothing in it is trusted. What a capture may hold
is one list, capture/members.txt (read through members.py): each member's path (names, and
numbers where the kernel numbers its folders), its kind (folder or file) and the most bytes it
may hold. Everything else is dropped and named on standard error: members the list does not
name (an etc/ld.so.preload, a lib/, a proc/sys/vm/mmap_min_addr, a file named quarrystat), a
file larger than its member's limit (a 1 MB comm), a folder where a file belongs and the other
way round, device nodes and FIFOs (reading them would hang the tool or reach this host's
devices), sockets, sparse and other special members, names that climb out with "..", names
holding control characters, symbolic links (a capture never holds one; none is made, and one
that leads out is named as such) and hard links to anything but a file of the capture. A
dropped member's data is skipped, never held. Absolute names are unpacked inside DEST, and said so once. Hard links
become copies of a regular file met earlier. DEST is expected empty: a regular file already
there counts as one of the capture's.

The whole archive is read before anything is made, and each folder's entries are then made in
byte order of their names. On a tmpfs a folder lists its entries in the order they were made,
so the tool meets the same order on every replay of a capture, whatever order the device's tar
wrote them in: the order of a tree copied in name order, without a copy. The files' data waits
in memory, up to MAX_HELD bytes, and past that in files of a folder of their own
(FOLDER/unpacking-PID with --spill, else DEST.unpacking-PID), removed at the end. replay.sh
spills to disk: DEST is on a tmpfs, where spilled data would be held twice in memory.

The archive (gzip'd or plain tar) is read a bounded piece at a time and refused past the bounds
below, each far above what a real capture needs: a long name or link name over PATH_MAX, an
extended header over 1 MiB, more than 500,000 members, more than 1 GiB of files, more than 256
symbolic links. A member name of many folders is made one folder at a time (a name of 1900
folders is as good as one of three, within PATH_MAX).

Exit status: 0 when everything was kept, 3 when something was dropped (the rest is unpacked),
2 when the archive cannot be read or exceeds a bound, 4 when it is truncated (a gzip stream
cut short, a member cut short, or a tar stream without its two end-of-archive blocks); after
2, DEST may hold a partial tree that the caller removes.
"""
import collections
import errno
import os
import re
import shutil
import stat
import sys
import zlib

import members as capture_members
from reporttext import shown  # names as they may reach a terminal: control bytes as \xHH

# A member name, or a link's target, longer than this cannot be a path on Linux (PATH_MAX
# counts the terminating NUL, which a GNU long-name payload carries too).
PATH_MAX = 4096
# pax records in a capture would be a path or a size: a few KB at most.
MAX_PAX = 1 << 20
# The benchmark's large synthetic device (1000 processes, 64 descriptors each, 2000 buffers)
# captures as about 70,000 members and 300 MB of maps text, and its largest scale (4x) as
# 280,000 members; a real capture is a few MB. A member takes about 0.02 ms to unpack onto a
# tmpfs, and 0.4 KB of memory until all are read: at the bound, 10 s and about 220 MB.
MAX_MEMBERS = 500_000
MAX_WRITTEN = 1 << 30
# The data of the files, held until the archive has been read whole: a real capture is a few
# MB, the phone-scale benchmark's about 35 MB.
MAX_HELD = 64 << 20
# A capture holds no symbolic links; each is named, and past this many the capture is refused.
MAX_LINKS = 256
# What a capture may hold: lookup(path, folder) -> a member (with its .limit in bytes) or None.
LOOKUP = capture_members.lookup
# Past this many "dropped" lines the rest are counted only.
MAX_NAMED = 1000
# Decompressed bytes read in one step, and what may follow the end of the archive: GNU tar
# pads to its 10 KiB record, busybox and toybox write just the two zero blocks.
CHUNK = 1 << 16
MAX_TRAILER = 1 << 20
# Every member costs at least its header block: this bounds the decompression's time.
MAX_STREAM = MAX_WRITTEN + MAX_MEMBERS * 1024

BLOCK = 512
END_BLOCK = bytes(BLOCK)
REGULAR = (b"0", b"\0", b"7")          # "7" (contiguous) is a regular file everywhere else
NO_DATA = (b"1", b"2", b"3", b"4", b"5", b"6")
KINDS = {
    b"3": "character device",
    b"4": "block device",
    b"6": "FIFO",
    b"S": "sparse file",
}


class Refused(Exception):
    """The archive is refused whole: status 2 (unreadable, beyond a bound) or 4 (truncated)."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status
        self.message = message


class Cut(Exception):
    """The stream ended before the archive did."""


class Truncated(Exception):
    """The archive ended after member last (None: before its first)."""

    def __init__(self, last):
        super().__init__(last)
        self.last = last


CONTROL = re.compile("[\x00-\x1f\x7f]")


def has_control(name):
    return CONTROL.search(name) is not None


def relative_name(name):
    """The member's path inside the capture, or None when it climbs out of it."""
    rest = name[2:] if name.startswith("./") else name
    # Most names need no splitting: no empty component, none beginning with ".".
    if rest and rest[0] not in "./" and rest[-1] != "/" and "/." not in rest and "//" not in rest:
        return rest
    parts = [p for p in name.split("/") if p not in ("", ".")]
    if ".." in parts:
        return None
    return "/".join(parts)


def through_link(links, rel):
    """Whether a folder on the way to rel is named by a link member (links: their names)."""
    parts = rel.split("/")
    return any("/".join(parts[:k]) in links for k in range(1, len(parts)))


def link_leaves(rel, target):
    """Whether a link at rel to target would lead out of the capture. Exact, with no link made:
    the tree holds folders and files only."""
    if target.startswith("/"):
        return True
    where = os.path.normpath(os.path.join(os.path.dirname(rel), target))
    return where == ".." or where.startswith("../")


class Shapes:
    """LOOKUP, asked once per shape of path: a capture's 20,000 members are a few dozen shapes
    (proc/<pid>/fdinfo/<fd> ...). A shape is the path with each component that reads as a
    kernel's number (0, or 1-9 and at most 9 more digits) standing for any such number: the list
    names no literal number, so a path's member depends only on its shape."""

    def __init__(self):
        self.known = {}

    # A component that is a kernel's number; each becomes a NUL in the shape (a name with a
    # control character never reaches LOOKUP).
    NUMBER = re.compile(r"(?:(?<=/)|^)(?:0|[1-9][0-9]{0,9})(?=/|\Z)")

    def __call__(self, rel, folder):
        key = (folder, self.NUMBER.sub("\0", rel))
        try:
            return self.known[key]
        except KeyError:
            member = self.known[key] = LOOKUP(rel, folder)
            return member


def refusal(m, rel, size, lookup=None):
    """Why a capture cannot hold member m (at rel, its relative name, holding size bytes), or
    None when it can; "" for the capture's root itself, which is left alone unnamed. lookup
    stands for LOOKUP (a Shapes)."""
    if has_control(m.name) or (m.linkname and has_control(m.linkname)):
        # The capture program writes no such name, and a newline in one would pass for two names
        # wherever a list of the tree is read line by line.
        return "its name holds a control character"
    if rel is None:
        return "its name leaves the capture"
    if rel == "":
        return ""
    if m.kind == b"2":
        if not m.linkname:
            return "link to nothing"
        if link_leaves(rel, m.linkname):
            return f"link to {m.linkname}, outside the capture"
        return f"link to {m.linkname}: a capture holds no links"
    if m.kind not in REGULAR + (b"1", b"5"):
        return KINDS.get(m.kind, "special file")
    folder = m.kind == b"5"
    lookup = lookup or LOOKUP
    member = lookup(rel, folder)
    if member is None:
        if lookup(rel, not folder) is not None:
            return "a folder where a capture holds a file" if folder else \
                "a file where a capture holds a folder"
        return "not a member a capture holds (capture/members.txt)"
    if not folder and size > member.limit:
        return f"{size} bytes, more than a capture holds there ({member.limit})"
    return None


class Stream:
    """The tar stream of a capture, gzip'd or plain, decompressed CHUNK bytes at a time."""

    def __init__(self, f, label):
        self.f = f
        self.label = label
        self.pending = f.read(2)
        self.gzip = self.pending == b"\x1f\x8b"
        self.unzip = zlib.decompressobj(16 + zlib.MAX_WBITS) if self.gzip else None
        self.buf = b""           # decompressed, read up to pos
        self.pos = 0
        self.total = 0
        self.cut = False        # the gzip stream ended before its trailer
        self.closing = False    # the archive has ended: only the current gzip member is left

    def _raw(self):
        data, self.pending = self.pending or self.f.read(CHUNK), b""
        return data

    def _more(self):
        """Appends the next piece of the stream to buf; False at its end."""
        while True:
            if not self.gzip:
                data = self._raw()
                self.buf += data
                return bool(data)
            if self.unzip.eof:
                if self.closing:
                    return False
                # Another gzip member may follow, after zero padding as gzip(1) allows.
                rest, skipped = self.unzip.unused_data + self._raw(), 0
                while rest and not rest.lstrip(b"\0"):
                    skipped += len(rest)
                    if skipped > MAX_TRAILER:
                        raise Refused(2, f"replay: {shown(self.label)} has more than "
                                         f"{MAX_TRAILER >> 20} MiB of padding; not a capture")
                    rest = self._raw()
                rest = rest.lstrip(b"\0")
                if not rest:
                    return False
                if rest[:2] != b"\x1f\x8b":
                    raise Refused(2, f"replay: cannot unpack {shown(self.label)}: "
                                     "data after its gzip stream")
                self.unzip, self.pending = zlib.decompressobj(16 + zlib.MAX_WBITS), rest
                continue
            data = self.unzip.unconsumed_tail or self._raw()
            if not data:
                self.cut = True
                return False
            try:
                out = self.unzip.decompress(data, CHUNK)
            except zlib.error as e:
                raise Refused(2, f"replay: cannot unpack {shown(self.label)}: {e}") from None
            if out:
                self.buf += out
                return True

    def read(self, n):
        """The next n bytes (n at most MAX_PAX); Cut when the stream ends first."""
        end = self.pos + n
        if end > len(self.buf):
            self.buf, self.pos, end = self.buf[self.pos:], 0, n
            while len(self.buf) < n and self._more():
                pass
            if len(self.buf) < n:
                self.buf = b""
                raise Cut()
        out = self.buf[self.pos:end]
        self.pos = end
        self.total += n
        if self.total > MAX_STREAM:
            raise Refused(2, f"replay: {shown(self.label)} unpacks to more than "
                             f"{MAX_STREAM >> 20} MiB of archive; not a capture")
        return out

    def finish(self):
        """Reads what follows the end of the archive, to see the gzip stream end whole."""
        self.closing = True
        left = MAX_TRAILER
        while len(self.buf) > self.pos or self._more():
            left -= len(self.buf) - self.pos
            self.buf, self.pos = b"", 0
            if left < 0:
                raise Refused(2, f"replay: {shown(self.label)} holds more than "
                                 f"{MAX_TRAILER >> 20} MiB after its archive; not a capture")
        if self.cut:
            raise Cut()


def octal(field):
    """A header number: octal digits padded with NUL or space, or GNU's base-256 form."""
    if field[0] == 0x80:
        return int.from_bytes(field[1:], "big")
    digits = field.split(b"\0", 1)[0].strip(b" ")
    if digits.strip(b"01234567"):
        raise ValueError(field)
    return int(digits, 8) if digits else 0


def text(field):
    return field.split(b"\0", 1)[0].decode("utf-8", "surrogateescape")


def byte_sum(block):
    """The sum of a header block's bytes. Adler-32's low half is 1 plus the sum of the bytes
    modulo 65521; a half block sums to at most 256 * 255 = 65280, so each half's is exact (and
    computed in C: summing in Python took a tenth of a capture's unpacking)."""
    return (zlib.adler32(block[:256]) & 0xffff) + (zlib.adler32(block[256:]) & 0xffff) - 2


def checksum_ok(block):
    stored = octal(block[148:156])
    unsigned = byte_sum(block) - sum(block[148:156]) + 8 * 0x20
    if stored == unsigned:
        return True
    # Some old writers summed the bytes as signed chars.
    return stored == unsigned - 256 * sum(1 for b in block[:148] + block[156:] if b > 127)


def pax_records(payload, label):
    """The key=value records of a pax extended header ("LEN key=value\\n" each)."""
    records, pos = {}, 0
    while pos < len(payload) and payload[pos] != 0:
        space = payload.find(b" ", pos)
        try:
            length = int(payload[pos:space]) if space > pos else 0
        except ValueError:
            length = 0
        record = payload[pos:pos + length]
        if length <= space - pos or len(record) < length or not record.endswith(b"\n") \
                or b"=" not in record:
            raise Refused(2, f"replay: cannot unpack {shown(label)}: damaged pax header")
        key, value = record[space - pos + 1:-1].split(b"=", 1)
        records[key.decode("utf-8", "replace")] = value.decode("utf-8", "surrogateescape")
        pos += length
    return records


Member = collections.namedtuple("Member", "name kind size mode linkname")


def members(stream, label, known=None, seen=None):
    """The archive's members, with long-name and pax headers applied, as (member, header):
    header is the member's header block when it alone says what the member is (no long-name or
    pax header before it), else None. known maps such headers of folders and files to their
    members (from a capture read before, whose members are mostly the same): a header met
    there is not read again. Every such header met is added to seen."""
    first = True
    long_name = long_link = None
    pax = {}
    while True:
        try:
            block = stream.read(BLOCK)
        except Cut:
            if first and not stream.cut:
                raise Refused(2, f"replay: cannot unpack {shown(label)}: not a tar archive")
            raise
        if block == END_BLOCK:
            stream.read(BLOCK)       # the second end-of-archive block
            return
        if known and long_name is None and long_link is None and not pax:
            m = known.get(block)
            if m is not None:
                first = False
                seen[block] = m
                yield m, block
                continue
        try:
            if not checksum_ok(block):
                raise ValueError(block)
            kind = block[156:157]
            size = octal(block[124:136])
            mode = octal(block[100:108])
        except ValueError:
            if first:
                raise Refused(2, f"replay: cannot unpack {shown(label)}: not a tar archive")
            raise Refused(2, f"replay: cannot unpack {shown(label)}: damaged header at byte "
                             f"{stream.total - BLOCK} of its archive")
        first = False
        if kind in (b"L", b"K"):
            # Refused before a byte of it is read: a longer name is no path.
            if size > PATH_MAX:
                what = "name" if kind == b"L" else "link target"
                raise Refused(2, f"replay: {shown(label)} holds a member {what} of {size} "
                                 f"bytes, longer than any path ({PATH_MAX}); not a capture")
            value = text(stream.read(-(-size // BLOCK) * BLOCK)[:size])
            if kind == b"L":
                long_name = value
            else:
                long_link = value
            continue
        if kind in (b"x", b"g"):
            if size > MAX_PAX:
                raise Refused(2, f"replay: {shown(label)} holds a pax header of {size} bytes, "
                                 f"more than {MAX_PAX >> 20} MiB; not a capture")
            payload = stream.read(-(-size // BLOCK) * BLOCK)[:size]
            # Global records would only restate defaults in a capture; they are not applied.
            if kind == b"x":
                pax.update(pax_records(payload, label))
            continue
        name = text(block[0:100])
        if block[257:263] == b"ustar\0" and block[345] != 0:
            name = text(block[345:500]) + "/" + name
        linkname = text(block[157:257]) if block[157] else ""
        name = pax.get("path", long_name if long_name is not None else name)
        linkname = pax.get("linkpath", long_link if long_link is not None else linkname)
        if "size" in pax:
            try:
                size = int(pax["size"])
            except ValueError:
                size = -1
            if size < 0:
                raise Refused(2, f"replay: cannot unpack {shown(label)}: damaged pax header")
        if pax and any(k.startswith("GNU.sparse.") for k in pax):
            kind = b"S"
        # A name from the header itself (at most 256 bytes) needs no measuring.
        if (pax or long_name is not None or long_link is not None) and (
                len(name.encode("utf-8", "surrogateescape")) >= PATH_MAX or
                len(linkname.encode("utf-8", "surrogateescape")) >= PATH_MAX):
            raise Refused(2, f"replay: {shown(label)} holds a member name longer than any "
                             f"path ({PATH_MAX}); not a capture")
        if kind not in NO_DATA and size > MAX_WRITTEN:
            raise Refused(2, f"replay: {shown(label)} unpacks to more than "
                             f"{MAX_WRITTEN >> 20} MiB; not a capture")
        if kind == b"\0" and name.endswith("/"):
            kind = b"5"              # a folder in the oldest tar format
        plain = not pax and long_name is None and long_link is None
        long_name = long_link = None
        pax = {}
        m = Member(name, kind, 0 if kind in NO_DATA else size, mode, linkname)
        if plain and seen is not None and kind in REGULAR + (b"5",):
            seen[block] = m
        yield m, block if plain else None


def copy_data(stream, fd, size):
    """Copies a member's data to fd (and skips its padding); fd None skips the data too."""
    left = size
    while left:
        chunk = stream.read(min(CHUNK, left))
        write_all(fd, chunk)
        left -= len(chunk)
    stream.read(-size % BLOCK)


def read_data(stream, size):
    """A member's data as bytes (its padding skipped)."""
    padding = -size % BLOCK
    if size + padding <= CHUNK:
        # Most members are small: their data and padding come in one read.
        return stream.read(size + padding)[:size]
    pieces, left = [], size
    while left:
        pieces.append(stream.read(min(CHUNK, left)))
        left -= len(pieces[-1])
    stream.read(padding)
    return b"".join(pieces)


def write_all(fd, data):
    while fd is not None and data:
        data = data[os.write(fd, data):]


# What one member's path can meet in the tree made so far; the member is dropped.
PATH_ERRORS = (errno.EEXIST, errno.ENOTDIR, errno.EISDIR, errno.ENAMETOOLONG)


def path_error(e):
    if e.errno == errno.ENAMETOOLONG:
        return "its name is too long for this host"
    return "its path is taken by another entry"


class Parents:
    """Makes the folders on the way to a path, and folders themselves. The folders made are
    remembered: nothing in the tree is removed but links, which are made last, so a folder
    made once is still a folder, and most members need no system call for their folder."""

    def __init__(self):
        self.made = set()

    def folder(self, path):
        if path in self.made:
            return
        # One folder at a time, from the deepest one that is there: os.makedirs recurses once
        # per folder, and a 4 KB name can be 2000 folders deep.
        missing = []
        while path not in self.made and not os.path.isdir(path):
            missing.append(path)
            path = os.path.dirname(path)
        for path in reversed(missing):
            try:
                os.mkdir(path, 0o755)
            except FileExistsError:
                if not os.path.isdir(path):
                    raise NotADirectoryError(errno.ENOTDIR, "not a folder", path) from None
            self.made.add(path)

    def __call__(self, path):
        self.folder(path.rpartition("/")[0])


def unpack(f, label, dest, err=sys.stderr, spill=None, kept=None):
    """Unpacks the archive read from f (named label in messages) into dest; the exit status.
    Data past MAX_HELD waits in a folder under spill (default: beside dest). With kept (a Kept),
    dest holds the tree kept of the capture unpacked before, which is changed into this one's."""
    dest = os.path.realpath(dest)
    stream = Stream(f, label)
    held = Held(dest, spill)
    parents = Parents()
    said_absolute = False

    def drop(name, why):
        drop.count += 1
        if drop.count <= MAX_NAMED:
            print(f"replay: dropped {shown(name)}: {shown(why)}", file=err)
        elif drop.count == MAX_NAMED + 1:
            print(f"replay: more than {MAX_NAMED} entries dropped; the rest are not named",
                  file=err)
    drop.count = 0

    try:
        try:
            entries = gather(stream, label, held, kept)
        except Truncated as t:
            where = "before its first member" if t.last is None else \
                f"after member {shown(relative_name(t.last) or t.last)}"
            print(f"replay: {shown(label)} is truncated {where}", file=err)
            return 4
        # A folder lists its entries in the order they were made (on a tmpfs), so they are
        # made in name order: the tool meets the same order whatever tar wrote the capture.
        # The sort is stable: of two members of one name the later is still made last.
        entries.sort(key=lambda e: e[0])
        links = set()
        decided = []
        for _, m, data, why, rel in entries:
            if why == "":
                continue
            if rel and m.kind == b"2":
                links.add(rel)
            if links and rel and (why is None or m.kind == b"2") and through_link(links, rel):
                why = "its path runs through a link"
            decided.append((m, rel, data, why))
        # The tree kept of the capture before is changed into this one's when every member
        # can be made as planned (Kept.layout); else it is removed and this one made afresh.
        fresh = True
        if kept is not None:
            plan = [(m, rel, data) for m, rel, data, why in decided if why is None]
            fresh = not kept.change(dest, plan)
        for m, rel, data, why in decided:
            if why is not None:
                drop(m.name, why)
                continue
            if fresh and not extract(m, rel, data, dest, drop, parents):
                continue
            if m.name.startswith("/") and not said_absolute:
                said_absolute = True
                print(f"replay: member names of {shown(label)} are absolute; unpacked inside "
                      "the capture", file=err)
        return 3 if drop.count else 0
    except Refused as e:
        print(e.message, file=err)
        return e.status
    except OSError as e:
        print(f"replay: cannot unpack {shown(label)}: {shown(str(e))}", file=err)
        return 2
    finally:
        held.close()


def key_of(rel):
    """Sorting by this key orders names folder by folder, each folder's entries in byte order
    of their names: NUL sorts below any byte of a name. (Any key does for None, a name that
    is dropped anyway.)"""
    return rel.encode("utf-8", "surrogateescape").replace(b"/", b"\0") if rel else b""


def gather(stream, label, held, kept=None):
    """Reads the whole archive: its members as (sort key, member, data, refusal, relative name)
    in archive order. data is held (Held) for the regular files a capture may hold and for hard
    links to one met earlier, else None; refusal is why the member is dropped (refusal()), or
    None. With kept (a Kept), what the capture before it taught is used (a header met there is
    the same member, with the same name and refusal), and what this one teaches kept."""
    known, facts = (kept.members, kept.facts) if kept is not None else ({}, {})
    seen, learnt = {}, {}
    entries = []
    files = {}                   # key -> index in entries of the latest regular file
    written = 0
    links = 0
    last = None                  # the last member read whole
    shapes = kept.shapes if kept is not None else Shapes()

    def write(size):             # counts a file to be written, before its data is read
        nonlocal written
        written += max(size, 1)
        if written > MAX_WRITTEN:
            raise Refused(2, f"replay: {shown(label)} unpacks to more than "
                             f"{MAX_WRITTEN >> 20} MiB; not a capture")

    try:
        for m, header in members(stream, label, known, seen):
            if len(entries) >= MAX_MEMBERS:
                raise Refused(2, f"replay: {shown(label)} has more than {MAX_MEMBERS} "
                                 "entries; not a capture")
            fact = facts.get(header) if header is not None else None
            if fact is None:
                rel = relative_name(m.name)
                key = key_of(rel)
                why = refusal(m, rel, m.size, shapes)
            else:
                rel, key, why = fact
            if header is not None:
                learnt[header] = (rel, key, why)
            if m.kind == b"2":
                links += 1
                if links > MAX_LINKS:
                    raise Refused(2, f"replay: {shown(label)} holds more than {MAX_LINKS} "
                                     "links; not a capture")
            data = None
            try:
                if m.kind in REGULAR and why is None:
                    write(m.size)
                    data = held.take(stream, m.size)
                else:
                    copy_data(stream, None, m.size)
            except Cut:
                raise Refused(4, f"replay: {shown(label)} is truncated inside member "
                                 f"{shown(rel or m.name)}") from None
            if m.kind == b"1" and why is None:
                target = files.get(key_of(relative_name(m.linkname)))
                if target is None:
                    why = f"hard link to {m.linkname}, not a file of the capture"
                else:
                    # A copy of the file, with its mode: a hard link shares both.
                    source, data = entries[target][1:3]
                    m = m._replace(size=source.size, mode=source.mode)
                    why = refusal(m, rel, m.size, shapes)
                    if why is None:
                        write(m.size)
                    else:
                        data = None
            if rel and data is not None:
                files[key] = len(entries)
            entries.append((key, m, data, why, rel))
            last = m.name
        stream.finish()
    except Cut:
        raise Truncated(last) from None
    if kept is not None:
        kept.members, kept.facts = seen, learnt
    return entries


Spilled = collections.namedtuple("Spilled", "path")


class Held:
    """The data of the capture's files while the whole archive is read: in memory up to
    MAX_HELD bytes, past that in files of a folder beside dest, removed at the end."""

    def __init__(self, dest, spill=None):
        self.folder = f"{dest}.unpacking-{os.getpid()}" if spill is None else \
            os.path.join(spill, f"unpacking-{os.getpid()}")
        self.made = False
        self.room = MAX_HELD
        self.count = 0

    def take(self, stream, size):
        """A member's data, read from the stream with its padding: bytes, or Spilled."""
        if size <= self.room:
            self.room -= size
            return read_data(stream, size)
        if not self.made:
            os.mkdir(self.folder, 0o700)
            self.made = True
        self.count += 1
        path = os.path.join(self.folder, str(self.count))
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW, 0o600)
        try:
            copy_data(stream, fd, size)
        finally:
            os.close(fd)
        return Spilled(path)

    def close(self):
        if self.made:
            for name in os.listdir(self.folder):
                os.unlink(os.path.join(self.folder, name))
            os.rmdir(self.folder)
            self.made = False


def write_data(fd, data):
    if isinstance(data, Spilled):
        with open(data.path, "rb") as f:
            while chunk := f.read(CHUNK):
                write_all(fd, chunk)
    else:
        write_all(fd, memoryview(data))


def extract(m, rel, data, dest, drop, parents):
    """Makes one member that refusal() let through under dest (at rel, its relative name), or
    drops it when its path is taken; whether it was kept. data is what gather() held for it."""
    path = os.path.join(dest, rel)
    try:
        if m.kind == b"5":
            parents.folder(path)
            return True
        if m.kind in REGULAR + (b"1",):
            parents(path)
            flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW
            try:
                fd = os.open(path, flags, m.mode & 0o777)
            except FileExistsError:
                if m.kind == b"1" or not stat.S_ISREG(os.lstat(path).st_mode):
                    drop(m.name, "its path is taken by another entry")
                    return False
                os.unlink(path)  # a later copy of a file replaces the earlier, as in tar
                fd = os.open(path, flags, m.mode & 0o777)
            try:
                write_data(fd, data)
            finally:
                os.close(fd)
            return True
    except OSError as e:
        # Raised before any data is written: by the folders on the way, or the file's creation.
        if e.errno not in PATH_ERRORS:
            raise
        drop(m.name, path_error(e))
        return False
    raise AssertionError(m.kind)  # refusal() lets through folders and files only


class Kept:
    """What a session (session()) left in its tree from the capture unpacked before: each
    folder's entries in the order they were made, each file's mode and data (None: not held, as
    spilled data is not). A recording's captures differ little, so the next capture's tree is
    made from this one by changing only what differs, and lists exactly as a fresh unpacking
    makes it: a folder lists its entries in the order they were made (on a tmpfs, in the order
    they were put in it, by a rename as by their making), and a fresh unpacking makes them in
    byte order of their names. So a folder that gains an entry has the entries that sort after
    it moved out and back in behind it, in order; removing an entry leaves the others' order
    alone; a file's data is rewritten in place, which leaves its place alone."""

    # Longest path (with dest) made by a change: beyond it a fresh unpacking, which names
    # paths as it meets them, decides; a name beyond NAME_MAX alike.
    MAX_PATH = 3800
    NAME_MAX = 255

    def __init__(self):
        self.folders = None      # folder -> [entry names]; None: the tree is not known
        self.files = {}          # file -> (mode, data)
        # What reading a capture learns, for the next (gather()): headers and their members,
        # headers and (relative name, sort key, refusal), the shapes of paths.
        self.members, self.facts, self.shapes = {}, {}, Shapes()
        self.umask = os.umask(0)
        os.umask(self.umask)

    def layout(self, dest, plan):
        """The tree plan makes, as (folders, files) like self's, or None when its members do not
        all fit one tree (a file named twice, a file where a folder stands, a name too long): a
        fresh unpacking then decides which are dropped."""
        folders, files = {"": []}, {}
        limit = self.MAX_PATH - len(dest.encode("utf-8", "surrogateescape"))

        def too_long(text, most):  # (a character is at most 4 bytes)
            return len(text) > most // 4 and len(text.encode("utf-8", "surrogateescape")) > most

        def folder(path):
            """Whether the folders up to path fit, each made at its first mention."""
            if path in folders:
                return True
            parent, _, name = path.rpartition("/")
            if path in files or too_long(name, self.NAME_MAX) or not folder(parent):
                return False
            folders[parent].append(name)
            folders[path] = []
            return True

        for m, rel, data in plan:
            parent, _, name = rel.rpartition("/")
            if too_long(rel, limit) or not folder(parent):
                return None
            if m.kind == b"5":
                if not folder(rel):
                    return None
            elif rel in files or rel in folders or too_long(name, self.NAME_MAX):
                return None
            else:
                folders[parent].append(name)
                files[rel] = (m.mode & 0o777 & ~self.umask,
                              data if isinstance(data, bytes) else None, data)
        return folders, files

    def forget(self, dest):
        """Empties dest when what it holds is not known (and removes what a change that failed
        midway left moving)."""
        if os.path.isdir(dest + ".moving"):
            shutil.rmtree(dest + ".moving")
        if self.folders is None or self.folders[""]:
            for name in os.listdir(dest):
                path = os.path.join(dest, name)
                if os.path.isdir(path) and not os.path.islink(path):
                    shutil.rmtree(path)
                else:
                    os.unlink(path)
        self.folders, self.files = {"": []}, {}

    def change(self, dest, plan):
        """Changes dest into the tree plan makes; False when a fresh unpacking must make it
        (dest is then empty)."""
        want = self.layout(dest, plan)
        if want is None or self.folders is None:
            self.forget(dest)
            # A plan that fits one tree is made whole by the fresh unpacking.
            self.folders, self.files = (None, {}) if want is None else want
            return False
        folders, files = want
        old_folders, old_files, self.folders = self.folders, self.files, None
        # What is gone, or changed from folder to file or back, is removed whole (the highest
        # such entry only).
        turned = (old_folders.keys() & files.keys()) | (old_files.keys() & folders.keys())
        gone = (old_files.keys() - files.keys()) | (old_folders.keys() - folders.keys())
        removed = set()
        for rel in sorted(gone | turned):
            parts = rel.split("/")
            if any("/".join(parts[:k]) in removed for k in range(1, len(parts))):
                continue
            removed.add(rel)
            if rel in old_folders:
                shutil.rmtree(os.path.join(dest, rel))
            else:
                os.unlink(os.path.join(dest, rel))
        touched = {rel.rpartition("/")[0] for rel in turned}
        made = set()
        moving = dest + ".moving"
        for folder, names in folders.items():
            before = old_folders.get(folder)
            if before == names and folder not in touched:
                continue
            path = os.path.join(dest, folder) if folder else dest
            kept = set()
            for name in before or ():
                rel = folder + "/" + name if folder else name
                if rel not in turned and rel not in gone:
                    kept.add(name)
            first = next((i for i, n in enumerate(names) if n not in kept), None)
            if first is None:
                continue
            behind = [n for n in names[first:] if n in kept]
            if behind:
                os.mkdir(moving, 0o700)
                for name in behind:
                    os.rename(os.path.join(path, name), os.path.join(moving, name))
            for name in names[first:]:
                rel = folder + "/" + name if folder else name
                target = os.path.join(path, name)
                if name in kept:
                    os.rename(os.path.join(moving, name), target)
                elif rel in folders:
                    os.mkdir(target, 0o755)
                else:
                    made.add(rel)
                    mode, _, data = files[rel]
                    fd = os.open(target, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW,
                                 mode)
                    try:
                        write_data(fd, data)
                    finally:
                        os.close(fd)
            if behind:
                os.rmdir(moving)
        # A kept file whose data or mode changed is rewritten where it stands.
        for rel, (mode, held, data) in files.items():
            if rel in made:
                continue
            before = old_files[rel]
            if held is not None and held == before[1] and mode == before[0]:
                continue
            fd = os.open(os.path.join(dest, rel), os.O_WRONLY | os.O_TRUNC | os.O_NOFOLLOW)
            try:
                if before[0] != mode:
                    os.fchmod(fd, mode)
                write_data(fd, data)
            finally:
                os.close(fd)
        self.folders, self.files = folders, files
        return True


def read_field(fd):
    """The next NUL-terminated field of fd (at most PATH_MAX bytes), or None at its end."""
    out = bytearray()
    while True:
        byte = os.read(fd, 1)
        if not byte:
            return None
        if byte == b"\0":
            return os.fsdecode(bytes(out))
        out += byte
        if len(out) > PATH_MAX:
            return None


def session(dest, spill):
    """Unpacks one capture after another into dest (an empty folder), as replay.sh asks on
    standard input (each request a capture's path and where its messages go, "-" for standard
    error, each NUL-terminated), and answers each with its exit status, a line on standard
    output, once the tree is that capture's. The tree is kept from one to the next (Kept)."""
    kept = Kept()
    while True:
        capture = read_field(0)
        messages = read_field(0) if capture is not None else None
        if messages is None:
            return 0
        status = 2
        try:
            err = sys.stderr if messages == "-" else open(messages, "a", encoding="utf-8",
                                                         errors="surrogateescape")
            try:
                with open(capture, "rb") as f:
                    status = unpack(f, capture, dest, err, spill, kept)
            except OSError as e:
                print(f"replay: cannot unpack {shown(capture)}: {shown(str(e))}", file=err)
            finally:
                if err is not sys.stderr:
                    err.close()
            if status == 2:
                kept.forget(dest)
        except Exception as e:  # noqa: BLE001 -- one line, and a tree made afresh next time
            print(f"replay: cannot unpack {shown(capture)}: {shown(repr(e))}", file=sys.stderr)
            status = 2
            try:
                kept.folders = None
                kept.forget(dest)
            except OSError:
                return 2
        sys.stdout.write(f"{status}\n")
        sys.stdout.flush()


def main():
    args = sys.argv[1:]
    if len(args) in (2, 4) and args[0] == "--session":
        spill = args[2] if len(args) == 4 and args[1] == "--spill" else None
        if len(args) == 4 and spill is None:
            print("usage: unpack.py --session [--spill FOLDER] DEST", file=sys.stderr)
            return 2
        return session(args[-1], spill)
    spill = None
    if len(args) == 4 and args[0] == "--spill":
        spill, args = args[1], args[2:]
    if len(args) != 2:
        print("usage: unpack.py [--spill FOLDER] CAPTURE.tar.gz DEST", file=sys.stderr)
        return 2
    capture, dest = args
    try:
        f = open(capture, "rb")
    except OSError as e:
        print(f"replay: cannot unpack {shown(capture)}: {shown(str(e))}", file=sys.stderr)
        return 2
    with f:
        return unpack(f, capture, dest, spill=spill)


if __name__ == "__main__":
    sys.exit(main())
