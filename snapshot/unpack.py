#!/usr/bin/python3
"""Unpacks a capture into a folder, keeping only what capture.sh can have written.

    unpack.py CAPTURE.tar.gz DEST

A capture may come from anyone's device, so nothing in it is trusted. capture.sh writes
folders and regular files only; everything else is dropped and named on standard error:
device nodes and FIFOs (reading them would hang the tool or reach this host's devices),
sockets and other special members, names that climb out with "..", and links whose target
lies outside the capture (absolute ones included: on this host they would point at its own
files). Hard links become copies of a regular file met earlier. No member is ever written
through a link: links are made last, and each is checked again once all are in place.

Exit status: 0 when everything was kept, 3 when something was dropped (the rest is unpacked),
2 when the archive cannot be read or exceeds the size bounds below.
"""
import os
import sys
import tarfile

# A real capture holds a few files per process: tens of MB on a large device.
MAX_BYTES = 2 << 30
MAX_MEMBERS = 1_000_000

KINDS = {
    tarfile.CHRTYPE: "character device",
    tarfile.BLKTYPE: "block device",
    tarfile.FIFOTYPE: "FIFO",
    tarfile.CONTTYPE: "contiguous file",
}


def shown(name):
    """The name as it may reach a terminal: control characters as \\xHH, like the tool's own."""
    return "".join(f"\\x{ord(c):02x}" if ord(c) < 0x20 or ord(c) == 0x7f else c for c in name)


def has_control(name):
    return any(ord(c) < 0x20 or ord(c) == 0x7f for c in name)


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


def main():
    if len(sys.argv) != 3:
        print("usage: unpack.py CAPTURE.tar.gz DEST", file=sys.stderr)
        return 2
    capture, dest = sys.argv[1], os.path.realpath(sys.argv[2])
    dropped = []
    regular = set()
    links = []
    total = members = 0

    def drop(name, why):
        dropped.append(name)
        print(f"replay: dropped {shown(name)}: {shown(why)}", file=sys.stderr)

    try:
        with tarfile.open(capture, "r|*") as tar:
            for m in tar:
                members += 1
                if members > MAX_MEMBERS:
                    print(f"replay: {capture} has more than {MAX_MEMBERS} entries; "
                          "not a capture", file=sys.stderr)
                    return 2
                # capture.sh never writes such a name, and a newline in one would pass for
                # two names wherever a list of the tree is read line by line.
                if has_control(m.name) or (m.linkname and has_control(m.linkname)):
                    drop(m.name, "its name holds a control character")
                    continue
                rel = relative_name(m.name)
                if rel is None:
                    drop(m.name, "its name leaves the capture")
                    continue
                if rel == "":
                    continue
                path = os.path.join(dest, rel)
                if m.isdir():
                    os.makedirs(path, mode=0o755, exist_ok=True)
                elif m.isreg():
                    total += m.size
                    if total > MAX_BYTES:
                        print(f"replay: {capture} unpacks to more than {MAX_BYTES >> 20} MiB; "
                              "not a capture", file=sys.stderr)
                        return 2
                    os.makedirs(os.path.dirname(path), mode=0o755, exist_ok=True)
                    if os.path.lexists(path) and rel not in regular:
                        drop(m.name, "its path is taken by another entry")
                        continue
                    if rel in regular:
                        os.unlink(path)
                    src = tar.extractfile(m)
                    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW,
                                 m.mode & 0o777)
                    with os.fdopen(fd, "wb") as out:
                        while True:
                            chunk = src.read(1 << 16)
                            if not chunk:
                                break
                            out.write(chunk)
                    regular.add(rel)
                elif m.islnk():
                    target = relative_name(m.linkname)
                    if target not in regular:
                        drop(m.name, f"hard link to {m.linkname}, not a file of the capture")
                        continue
                    os.makedirs(os.path.dirname(path), mode=0o755, exist_ok=True)
                    if os.path.lexists(path):
                        drop(m.name, "its path is taken by another entry")
                        continue
                    with open(os.path.join(dest, target), "rb") as src, \
                         open(path, "xb") as out:
                        out.write(src.read())
                    regular.add(rel)
                elif m.issym():
                    links.append((m.name, rel, m.linkname))
                else:
                    drop(m.name, KINDS.get(m.type, "special file"))
    except (tarfile.TarError, OSError, EOFError) as e:
        print(f"replay: cannot unpack {capture}: {e}", file=sys.stderr)
        return 2

    made = []
    for name, rel, target in links:
        path = os.path.join(dest, rel)
        if through_link(dest, rel):
            drop(name, "its path runs through a link")
            continue
        os.makedirs(os.path.dirname(path), mode=0o755, exist_ok=True)
        if os.path.lexists(path):
            drop(name, "its path is taken by another entry")
            continue
        os.symlink(target, path)
        made.append((name, path, target))
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
    return 3 if dropped else 0


if __name__ == "__main__":
    sys.exit(main())
