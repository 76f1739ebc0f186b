#!/usr/bin/python3
"""Unpacks a capture into a folder, keeping only what capture.sh can have written.

    unpack.py CAPTURE.tar.gz DEST

A capture may come from anyone's device, so nothing in it is trusted. capture.sh writes
folders and regular files only; everything else is dropped and named on standard error:
device nodes and FIFOs (reading them would hang the tool or reach this host's devices),
sockets, sparse and other special members, names that climb out with "..", names holding
control characters, and links whose target lies outside the capture (absolute ones included:
on this host they would point at its own files). Absolute names are unpacked inside DEST, and
said so once. Hard links become copies of a regular file met earlier. No member is ever
written through a link: links are made last, and each is checked again once all are in place.
DEST is expected empty: a regular file already there counts as one of the capture's.

The archive (gzip'd or plain tar) is read a bounded piece at a time, never whole nor a whole
member at once, and refused past the bounds below, each far above what a real capture needs:
a long name or link name over PATH_MAX, an extended header over 1 MiB, more than 500,000
members, more than 1 GiB written to disk, more than 256 symbolic links.

Exit status: 0 when everything was kept, 3 when something was dropped (the rest is unpacked),
2 when the archive cannot be read or exceeds a bound, 4 when it is truncated (a gzip stream
cut short, a member cut short, or a tar stream without its two end-of-archive blocks); after
2 and 4, DEST holds a partial tree that the caller removes.
"""
import collections
import errno
import os
import re
import stat
import sys
import zlib

from reporttext import shown  # names as they may reach a terminal: control bytes as \xHH

# A member name, or a link's target, longer than this cannot be a path on Linux (PATH_MAX
# counts the terminating NUL, which a GNU long-name payload carries too).
PATH_MAX = 4096
# pax records in a capture would be a path or a size: a few KB at most.
MAX_PAX = 1 << 20
# The benchmark's large synthetic device (1000 processes, 64 descriptors each, 2000 buffers)
# captures as about 70,000 members and 300 MB of maps text, and its largest scale (4x) as
# 280,000 members; a real capture is a few MB. A member takes 0.06 ms (tmpfs) to 0.3 ms (a
# busy disk) to unpack: the member bound is 30 s to 150 s, past which replay's time limit acts.
MAX_MEMBERS = 500_000
MAX_WRITTEN = 1 << 30
# capture.sh writes no links at all; each one is checked again whenever another is removed.
MAX_LINKS = 256
# Past this many "dropped" lines the rest are counted only.
MAX_NAMED = 1000
# Decompressed bytes read in one step, and what may follow the end of the archive: GNU tar
# pads to its 10 KiB record, busybox and toybox write just the two zero blocks.
CHUNK = 1 << 16
MAX_TRAILER = 1 << 20
# Every member costs at least its header block: this bounds the decompression's time.
MAX_STREAM = MAX_WRITTEN + MAX_MEMBERS * 1024

BLOCK = 512
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


CONTROL = re.compile("[\x00-\x1f\x7f]")


def has_control(name):
    return CONTROL.search(name) is not None


def relative_name(name):
    """The member's path inside the capture, or None when it climbs out of it."""
    parts = [p for p in name.split("/") if p not in ("", ".")]
    if ".." in parts:
        return None
    return "/".join(parts)


def through_link(root, rel):
    """Whether a folder on the way to rel is a link (made earlier in this unpacking)."""
    path = root
    for part in rel.split("/")[:-1]:
        path = os.path.join(path, part)
        if os.path.islink(path):
            return True
    return False


def inside(root, path):
    real = os.path.realpath(path)
    return real == root or real.startswith(root + "/")


class Stream:
    """The tar stream of a capture, gzip'd or plain, decompressed CHUNK bytes at a time."""

    def __init__(self, f, label):
        self.f = f
        self.label = label
        self.pending = f.read(2)
        self.gzip = self.pending == b"\x1f\x8b"
        self.unzip = zlib.decompressobj(16 + zlib.MAX_WBITS) if self.gzip else None
        self.buf = bytearray()
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
        while len(self.buf) < n and self._more():
            pass
        if len(self.buf) < n:
            self.buf.clear()
            raise Cut()
        out = bytes(self.buf[:n])
        del self.buf[:n]
        self.total += n
        if self.total > MAX_STREAM:
            raise Refused(2, f"replay: {shown(self.label)} unpacks to more than "
                             f"{MAX_STREAM >> 20} MiB of archive; not a capture")
        return out

    def finish(self):
        """Reads what follows the end of the archive, to see the gzip stream end whole."""
        self.closing = True
        left = MAX_TRAILER
        while self.buf or self._more():
            left -= len(self.buf)
            self.buf.clear()
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


def checksum_ok(block):
    stored = octal(block[148:156])
    unsigned = sum(block[:148]) + sum(block[156:]) + 8 * 0x20
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


def members(stream, label):
    """The archive's members, with long-name and pax headers applied."""
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
        if block == bytes(BLOCK):
            stream.read(BLOCK)       # the second end-of-archive block
            return
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
        linkname = text(block[157:257])
        name = pax.get("path", long_name if long_name is not None else name)
        linkname = pax.get("linkpath", long_link if long_link is not None else linkname)
        if "size" in pax:
            try:
                size = int(pax["size"])
            except ValueError:
                size = -1
            if size < 0:
                raise Refused(2, f"replay: cannot unpack {shown(label)}: damaged pax header")
        if any(k.startswith("GNU.sparse.") for k in pax):
            kind = b"S"
        if len(name.encode("utf-8", "surrogateescape")) >= PATH_MAX or \
                len(linkname.encode("utf-8", "surrogateescape")) >= PATH_MAX:
            raise Refused(2, f"replay: {shown(label)} holds a member name longer than any "
                             f"path ({PATH_MAX}); not a capture")
        if kind not in NO_DATA and size > MAX_WRITTEN:
            raise Refused(2, f"replay: {shown(label)} unpacks to more than "
                             f"{MAX_WRITTEN >> 20} MiB; not a capture")
        if kind == b"\0" and name.endswith("/"):
            kind = b"5"              # a folder in the oldest tar format
        long_name = long_link = None
        pax = {}
        yield Member(name, kind, 0 if kind in NO_DATA else size, mode, linkname)


def copy_data(stream, fd, size):
    """Copies a member's data to fd (and skips its padding); fd None skips the data too."""
    left = size
    while left:
        chunk = stream.read(min(CHUNK, left))
        while fd is not None and chunk:
            chunk = chunk[os.write(fd, chunk):]
        left -= min(CHUNK, left)
    stream.read(-size % BLOCK)


# What one member's path can meet in the tree made so far; the member is dropped.
PATH_ERRORS = (errno.EEXIST, errno.ENOTDIR, errno.EISDIR, errno.ENAMETOOLONG)


def path_error(e):
    if e.errno == errno.ENAMETOOLONG:
        return "its name is too long for this host"
    return "its path is taken by another entry"


class Parents:
    """Makes the folders on the way to a path; a capture's members come folder by folder,
    so the last folder made is remembered (nothing in the tree is removed but links)."""

    def __init__(self):
        self.last = None

    def __call__(self, path):
        folder = os.path.dirname(path)
        if folder != self.last:
            os.makedirs(folder, mode=0o755, exist_ok=True)
            self.last = folder


def unpack(f, label, dest, err=sys.stderr):
    """Unpacks the archive read from f (named label in messages) into dest; the exit status."""
    dest = os.path.realpath(dest)
    stream = Stream(f, label)
    written = count = 0
    links = []
    parents = Parents()
    said_absolute = False
    last = None                  # the last member read complete

    def drop(name, why):
        drop.count += 1
        if drop.count <= MAX_NAMED:
            print(f"replay: dropped {shown(name)}: {shown(why)}", file=err)
        elif drop.count == MAX_NAMED + 1:
            print(f"replay: more than {MAX_NAMED} entries dropped; the rest are not named",
                  file=err)
    drop.count = 0

    def whole():
        return shown(relative_name(last) or last)

    try:
        for m in members(stream, label):
            count += 1
            if count > MAX_MEMBERS:
                raise Refused(2, f"replay: {shown(label)} has more than {MAX_MEMBERS} entries; "
                                 "not a capture")
            try:
                kept = extract(m, stream, dest, drop, MAX_WRITTEN - written, parents)
            except Cut:
                raise Refused(4, f"replay: {shown(label)} is truncated inside member "
                                 f"{shown(relative_name(m.name) or m.name)}") from None
            if kept and m.kind == b"2":
                if len(links) >= MAX_LINKS:
                    raise Refused(2, f"replay: {shown(label)} holds more than {MAX_LINKS} "
                                     "links; not a capture")
                links.append((m.name, relative_name(m.name), m.linkname))
            if kept and m.kind in REGULAR + (b"1",):
                written += kept
                if written > MAX_WRITTEN:
                    raise Refused(2, f"replay: {shown(label)} unpacks to more than "
                                     f"{MAX_WRITTEN >> 20} MiB; not a capture")
            if kept and m.name.startswith("/") and not said_absolute:
                said_absolute = True
                print(f"replay: member names of {shown(label)} are absolute; unpacked inside "
                      "the capture", file=err)
            last = m.name
        stream.finish()
        return make_links(links, dest, drop)
    except Cut:
        where = "before its first member" if last is None else f"after member {whole()}"
        print(f"replay: {shown(label)} is truncated {where}", file=err)
        return 4
    except Refused as e:
        print(e.message, file=err)
        return e.status
    except OSError as e:
        print(f"replay: cannot unpack {shown(label)}: {shown(str(e))}", file=err)
        return 2


def make_links(links, dest, drop):
    """Makes the symbolic links, then removes each that leads out of dest; the exit status."""
    made = []
    try:
        for name, rel, target in links:
            path = os.path.join(dest, rel)
            if through_link(dest, rel):
                drop(name, "its path runs through a link")
            elif not target:
                drop(name, "link to nothing")
            else:
                try:
                    Parents()(path)
                    os.symlink(target, path)
                    made.append((name, path, target))
                except OSError as e:
                    if e.errno not in PATH_ERRORS:
                        raise
                    drop(name, path_error(e))
    finally:
        remove_outside(made, dest, drop)
    return 3 if drop.count else 0


def remove_outside(made, dest, drop):
    """Removes the links made that lead out of dest, even when not all could be made."""
    # One link can move where another leads; check them all again until none is removed.
    changed = True
    while changed:
        changed = False
        for item in list(made):
            name, path, target = item
            if not inside(dest, path):
                os.unlink(path)
                made.remove(item)
                drop(name, f"link to {target}, outside the capture")
                changed = True


def extract(m, stream, dest, drop, room, parents):
    """Writes one member under dest, or drops it; the bytes written (1 for a kept entry
    without data), 0 when dropped. Its data is consumed either way, except when it would
    write more than room bytes: then their number is returned, nothing written."""
    size = m.size
    if has_control(m.name) or (m.linkname and has_control(m.linkname)):
        # capture.sh never writes such a name, and a newline in one would pass for two names
        # wherever a list of the tree is read line by line.
        copy_data(stream, None, size)
        drop(m.name, "its name holds a control character")
        return 0
    rel = relative_name(m.name)
    if rel is None:
        copy_data(stream, None, size)
        drop(m.name, "its name leaves the capture")
        return 0
    if rel == "":
        copy_data(stream, None, size)
        return 0
    path = os.path.join(dest, rel)
    try:
        if m.kind == b"5":
            os.makedirs(path, mode=0o755, exist_ok=True)
            return 1
        if m.kind in REGULAR:
            if size > room:
                return size
            parents(path)
            if os.path.lexists(path):
                if not stat.S_ISREG(os.lstat(path).st_mode):
                    copy_data(stream, None, size)
                    drop(m.name, "its path is taken by another entry")
                    return 0
                os.unlink(path)  # a later copy of a file replaces the earlier, as in tar
            fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW,
                         m.mode & 0o777)
            try:
                copy_data(stream, fd, size)
            finally:
                os.close(fd)
            return max(size, 1)
        if m.kind == b"1":
            target = relative_name(m.linkname)
            source = os.path.join(dest, target) if target else None
            if source is None or not os.path.lexists(source) or \
                    not stat.S_ISREG(os.lstat(source).st_mode):
                drop(m.name, f"hard link to {m.linkname}, not a file of the capture")
                return 0
            if os.path.getsize(source) > room:
                return os.path.getsize(source)
            parents(path)
            if os.path.lexists(path):
                drop(m.name, "its path is taken by another entry")
                return 0
            with open(source, "rb") as src, open(path, "xb") as out:
                while chunk := src.read(CHUNK):
                    out.write(chunk)
            return max(os.path.getsize(path), 1)
        if m.kind == b"2":
            return 1            # made once every other member is in place
    except OSError as e:
        # Raised before any data is written: by the folders on the way, or the file's creation.
        if e.errno not in PATH_ERRORS:
            raise
        if m.kind in REGULAR:
            copy_data(stream, None, size)
        drop(m.name, path_error(e))
        return 0
    copy_data(stream, None, size)
    drop(m.name, KINDS.get(m.kind, "special file"))
    return 0


def main():
    if len(sys.argv) != 3:
        print("usage: unpack.py CAPTURE.tar.gz DEST", file=sys.stderr)
        return 2
    capture, dest = sys.argv[1], sys.argv[2]
    try:
        f = open(capture, "rb")
    except OSError as e:
        print(f"replay: cannot unpack {shown(capture)}: {shown(str(e))}", file=sys.stderr)
        return 2
    with f:
        return unpack(f, capture, dest)


if __name__ == "__main__":
    sys.exit(main())
