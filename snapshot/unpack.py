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

The whole archive is read before anything is made, and each folder's entries are then made in
byte order of their names. On a tmpfs a folder lists its entries in the order they were made,
so the tool meets the same order on every replay of a capture, whatever order the device's tar
wrote them in: the order of a tree copied in name order, without a copy. The files' data waits
in memory, up to MAX_HELD bytes, and past that in files of a folder beside DEST
(DEST.unpacking-PID), removed at the end.

The archive (gzip'd or plain tar) is read a bounded piece at a time and refused past the bounds
below, each far above what a real capture needs: a long name or link name over PATH_MAX, an
extended header over 1 MiB, more than 500,000 members, more than 1 GiB of files, more than 256
symbolic links.

Exit status: 0 when everything was kept, 3 when something was dropped (the rest is unpacked),
2 when the archive cannot be read or exceeds a bound, 4 when it is truncated (a gzip stream
cut short, a member cut short, or a tar stream without its two end-of-archive blocks); after
2, DEST may hold a partial tree that the caller removes.
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
# 280,000 members; a real capture is a few MB. A member takes about 0.02 ms to unpack onto a
# tmpfs, and 0.4 KB of memory until all are read: at the bound, 10 s and about 220 MB.
MAX_MEMBERS = 500_000
MAX_WRITTEN = 1 << 30
# The data of the files, held until the archive has been read whole: a real capture is a few
# MB, the phone-scale benchmark's about 35 MB.
MAX_HELD = 64 << 20
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
        if block == END_BLOCK:
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
        long_name = long_link = None
        pax = {}
        yield Member(name, kind, 0 if kind in NO_DATA else size, mode, linkname)


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
        if path not in self.made:
            os.makedirs(path, mode=0o755, exist_ok=True)
            self.made.add(path)

    def __call__(self, path):
        self.folder(path.rpartition("/")[0])


def unpack(f, label, dest, err=sys.stderr):
    """Unpacks the archive read from f (named label in messages) into dest; the exit status."""
    dest = os.path.realpath(dest)
    stream = Stream(f, label)
    held = Held(dest)
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
            entries = gather(stream, label, held)
        except Truncated as t:
            where = "before its first member" if t.last is None else \
                f"after member {shown(relative_name(t.last) or t.last)}"
            print(f"replay: {shown(label)} is truncated {where}", file=err)
            return 4
        # A folder lists its entries in the order they were made (on a tmpfs), so they are
        # made in name order: the tool meets the same order whatever tar wrote the capture.
        # The sort is stable: of two members of one name the later is still made last.
        entries.sort(key=lambda e: e[0])
        links = []
        for _, m, data in entries:
            rel = relative_name(m.name)
            if not extract(m, rel, data, dest, drop, parents):
                continue
            if m.kind == b"2":
                if len(links) >= MAX_LINKS:
                    raise Refused(2, f"replay: {shown(label)} holds more than {MAX_LINKS} "
                                     "links; not a capture")
                links.append((m.name, rel, m.linkname))
            if m.name.startswith("/") and not said_absolute:
                said_absolute = True
                print(f"replay: member names of {shown(label)} are absolute; unpacked inside "
                      "the capture", file=err)
        return make_links(links, dest, drop)
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


def gather(stream, label, held):
    """Reads the whole archive: its members as (sort key, member, data) in archive order. data
    is held (Held) for regular files and for hard links to one met earlier, else None."""
    entries = []
    files = {}                   # key -> index in entries of the latest regular file
    written = 0
    last = None                  # the last member read whole

    def write(size):             # counts a file to be written, before its data is read
        nonlocal written
        written += max(size, 1)
        if written > MAX_WRITTEN:
            raise Refused(2, f"replay: {shown(label)} unpacks to more than "
                             f"{MAX_WRITTEN >> 20} MiB; not a capture")

    try:
        for m in members(stream, label):
            if len(entries) >= MAX_MEMBERS:
                raise Refused(2, f"replay: {shown(label)} has more than {MAX_MEMBERS} "
                                 "entries; not a capture")
            rel = relative_name(m.name)
            key = key_of(rel)
            data = None
            try:
                if m.kind in REGULAR:
                    write(m.size)
                    data = held.take(stream, m.size)
                else:
                    copy_data(stream, None, m.size)
            except Cut:
                raise Refused(4, f"replay: {shown(label)} is truncated inside member "
                                 f"{shown(rel or m.name)}") from None
            target = files.get(key_of(relative_name(m.linkname))) \
                if m.kind == b"1" and rel else None
            if target is not None:
                # A copy of the file, with its mode: a hard link shares both.
                _, source, data = entries[target]
                m = m._replace(size=source.size, mode=source.mode)
                write(m.size)
            if rel and data is not None:
                files[key] = len(entries)
            entries.append((key, m, data))
            last = m.name
        stream.finish()
    except Cut:
        raise Truncated(last) from None
    return entries


Spilled = collections.namedtuple("Spilled", "path")


class Held:
    """The data of the capture's files while the whole archive is read: in memory up to
    MAX_HELD bytes, past that in files of a folder beside dest, removed at the end."""

    def __init__(self, dest):
        self.folder = f"{dest}.unpacking-{os.getpid()}"
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


def extract(m, rel, data, dest, drop, parents):
    """Makes one member under dest (at rel, its relative name), or drops it; whether it was
    kept. data is what gather() held for it (None for a hard link to nothing it met)."""
    if has_control(m.name) or (m.linkname and has_control(m.linkname)):
        # capture.sh never writes such a name, and a newline in one would pass for two names
        # wherever a list of the tree is read line by line.
        drop(m.name, "its name holds a control character")
        return False
    if rel is None:
        drop(m.name, "its name leaves the capture")
        return False
    if rel == "":
        return False
    path = os.path.join(dest, rel)
    try:
        if m.kind == b"5":
            parents.folder(path)
            return True
        if m.kind == b"1" and data is None:
            drop(m.name, f"hard link to {m.linkname}, not a file of the capture")
            return False
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
        if m.kind == b"2":
            return True         # made once every other member is in place
    except OSError as e:
        # Raised before any data is written: by the folders on the way, or the file's creation.
        if e.errno not in PATH_ERRORS:
            raise
        drop(m.name, path_error(e))
        return False
    drop(m.name, KINDS.get(m.kind, "special file"))
    return False


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
