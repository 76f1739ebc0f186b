"""What a capture may hold, read from capture/members.txt: the one list the capture program writes
from and replay's unpacking checks a capture against.

    lookup(path, folder) -> Member or None
    Member.path, .limit (bytes), .keep, .folder
"""
import collections
import os
import re

HERE = os.path.dirname(os.path.abspath(__file__))
# The list sits in capture/, beside the program that writes from it; the host archive of the
# scripts keeps the same layout (release/host-archive.sh).
LIST = os.path.join(HERE, "..", "capture", "members.txt")

Member = collections.namedtuple("Member", "path limit keep folder")

KEEPS = ("all", "dmabuf", "exp_name", "line", "head", "exists", "info")
NUMBER = re.compile(r"(0|[1-9][0-9]{0,9})\Z")
NAME = re.compile(r"[\x21-\x2e\x30-\x7e][\x20-\x2e\x30-\x7e]*\Z")
PLACEHOLDERS = {"<pid>": NUMBER, "<fd>": NUMBER, "<inode>": NUMBER, "<name>": NAME}
UNITS = {"": 1, "K": 1 << 10, "M": 1 << 20}


class ListError(Exception):
    pass


def parse(text):
    """The members of a list's text, in its order; ListError on a line that is not one."""
    members = []
    for number, line in enumerate(text.split("\n"), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        fields = line.split()
        m = re.fullmatch(r"([0-9]+)([KM]?)", fields[1]) if len(fields) == 3 else None
        if m is None or fields[2] not in KEEPS:
            raise ListError("line %d: not PATH LIMIT KEEP: %s" % (number, line))
        path = fields[0]
        folder = path.endswith("/")
        members.append(Member(path.rstrip("/"), int(m.group(1)) * UNITS[m.group(2)],
                              fields[2], folder))
    return members


def _load():
    try:
        with open(LIST, encoding="ascii") as f:
            return parse(f.read())
    except FileNotFoundError:
        raise ListError("no list of capture members: no " + os.path.normpath(LIST)) from None


MEMBERS = _load()


def _fits(pattern, parts):
    if len(pattern) != len(parts):
        return False
    for want, part in zip(pattern, parts):
        shape = PLACEHOLDERS.get(want)
        if shape is None:
            if want != part:
                return False
        elif not shape.match(part) or part in (".", ".."):
            return False
    return True


_SPLIT = [(m, m.path.split("/")) for m in MEMBERS]


def lookup(path, folder):
    """The member a capture's PATH (relative, "/"-separated, no "." or "..") stands for, or None
    when a capture may not hold it. A folder fits a folder member, or any folder on the way to a
    member (returned as a Member with keep "folder")."""
    parts = path.split("/")
    for member, pattern in _SPLIT:
        if folder:
            if member.folder and _fits(pattern, parts):
                return member
            if len(pattern) > len(parts) and _fits(pattern[:len(parts)], parts):
                return Member(path, 0, "folder", True)
        elif not member.folder and _fits(pattern, parts):
            return member
    return None


def present(root):
    """The members a capture of the device tree at root would hold, as "./PATH" names in
    name order (folders that are members in their own right included): what a test or a
    benchmark packs to make a capture from a tree laid out like a device. Links are followed,
    as the capture program reads through them."""
    names = []
    for folder, dirs, files in os.walk(root, followlinks=True):
        rel = os.path.relpath(folder, root)
        rel = "" if rel == "." else rel + "/"
        dirs[:] = sorted(d for d in dirs if lookup(rel + d, True) is not None)
        for d in dirs:
            if lookup(rel + d, True).keep != "folder":
                names.append("./" + rel + d)
        names.extend("./" + rel + f for f in sorted(files) if lookup(rel + f, False) is not None)
    return names


if __name__ == "__main__":
    # members.py TREE: present(TREE), NUL-separated, for tar --null --no-recursion -T -.
    import sys
    sys.stdout.write("".join(name + "\0" for name in present(sys.argv[1])))
