#!/usr/bin/python3
"""Tests of snapshot/unpack.py on captures built to hurt: bombs, truncations, generated
archives of every member kind. Most run unpack() in this process; those about memory, time and
tracebacks run the script as a child."""
import gzip
import io
import os
import random
import resource
import shutil
import stat
import subprocess
import sys
import tarfile
import tempfile
import time
import unittest
import unittest.mock
import zlib

TOP = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
UNPACK = os.path.join(TOP, "snapshot", "unpack.py")
PAIR = os.path.join(TOP, "tests", "data", "pair")
sys.path.insert(0, os.path.join(TOP, "snapshot"))
import members  # noqa: E402
import unpack  # noqa: E402


def any_path(rel, folder):
    """A list of members that holds every path, so that a test of the unpacking's own workings
    can use short names; the capture's list has its own tests (Members)."""
    return members.Member(rel, 1 << 40, "all", folder)


def anything_goes(test):
    saved, unpack.LOOKUP = unpack.LOOKUP, any_path
    test.addCleanup(setattr, unpack, "LOOKUP", saved)


def write_long_name_bomb(path, claimed=3 << 30, zeros=3 << 30):
    """A gzip'd tar whose first header is a GNU long name claiming `claimed` bytes, followed by
    `zeros` zero bytes of it: about 1 KB of gzip per MiB, written without holding either."""
    head = tarfile.TarInfo("././@LongLink")
    head.type = tarfile.GNUTYPE_LONGNAME
    head.size = claimed
    block = head.tobuf(tarfile.GNU_FORMAT)
    with open(path, "wb") as f:
        f.write(b"\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\xff")       # gzip, no name, no time
        deflate = zlib.compressobj(9, zlib.DEFLATED, -zlib.MAX_WBITS)
        f.write(deflate.compress(block) + deflate.flush(zlib.Z_FULL_FLUSH))
        crc = zlib.crc32(block)
        mib = bytes(1 << 20)
        # After a full flush each MiB of zeros compresses to the same bytes: compress it once.
        piece = deflate.compress(mib) + deflate.flush(zlib.Z_FULL_FLUSH)
        for _ in range(zeros >> 20):
            f.write(piece)
            crc = zlib.crc32(mib, crc)
        f.write(deflate.flush())
        f.write(crc.to_bytes(4, "little"))
        f.write(((len(block) + zeros) & 0xffffffff).to_bytes(4, "little"))


def build(entries, fmt=tarfile.GNU_FORMAT, gz=True):
    """An archive of (TarInfo, data or None) entries, as bytes."""
    raw = io.BytesIO()
    with tarfile.open(fileobj=raw, mode="w", format=fmt) as tar:
        for info, data in entries:
            tar.addfile(info, io.BytesIO(data) if data is not None else None)
    return gzip.compress(raw.getvalue()) if gz else raw.getvalue()


def entry(name, kind=tarfile.REGTYPE, data=None, size=None, **kw):
    info = tarfile.TarInfo(name)
    info.type = kind
    if data is not None:
        info.size = len(data)
    if size is not None:
        info.size = size
    for key, value in kw.items():
        setattr(info, key, value)
    return info, data


def header_only(kind, size, name="x"):
    """A single header claiming a payload it does not carry: bounds act before reading it."""
    info = tarfile.TarInfo(name)
    info.type = kind
    info.size = size
    return gzip.compress(info.tobuf(tarfile.GNU_FORMAT))


class Unpacking(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.tmp)
        anything_goes(self)

    def run_on(self, data, label="capture.tar.gz"):
        """unpack() on archive bytes into a fresh folder: (status, stderr lines, folder)."""
        dest = tempfile.mkdtemp(dir=self.tmp)
        err = io.StringIO()
        status = unpack.unpack(io.BytesIO(data), label, dest, err)
        return status, err.getvalue().splitlines(), dest


class Bounds(Unpacking):
    def test_long_name_bomb_refused_in_little_memory_and_time(self):
        bomb = os.path.join(self.tmp, "bomb.tar.gz")
        write_long_name_bomb(bomb)
        self.assertLess(os.path.getsize(bomb), 8 << 20)
        start = time.monotonic()
        run = subprocess.run([sys.executable, UNPACK, bomb, self.tmp + "/d"],
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 2, run.stderr)
        self.assertIn(f"holds a member name of {3 << 30} bytes, longer than any path",
                      run.stderr)
        peak_kb = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        self.assertLess(peak_kb, 100 << 10, f"peak resident memory {peak_kb} KB")
        self.assertLess(time.monotonic() - start, 30)

    def test_header_payloads_and_sizes_refused_before_they_are_read(self):
        for kind, size, words in [
                (tarfile.GNUTYPE_LONGNAME, 4097, "member name of 4097 bytes"),
                (tarfile.GNUTYPE_LONGLINK, 1 << 40, "member link target of"),
                (tarfile.XHDTYPE, (1 << 20) + 1, "pax header of 1048577 bytes"),
                (tarfile.XGLTYPE, 1 << 33, "pax header of"),
                (tarfile.REGTYPE, (1 << 30) + 1, "unpacks to more than 1024 MiB")]:
            with self.subTest(kind=kind, size=size):
                status, err, _ = self.run_on(header_only(kind, size))
                self.assertEqual(status, 2, err)
                self.assertEqual(len(err), 1, err)
                self.assertIn(words, err[0])

    def test_long_names_within_path_max_kept(self):
        name = "/".join(["d" * 200] * 5) + "/f"       # a GNU long name and a pax path
        for fmt in (tarfile.GNU_FORMAT, tarfile.PAX_FORMAT):
            status, err, dest = self.run_on(build([entry(name, data=b"kept\n")], fmt))
            self.assertEqual((status, err), (0, []))
            with open(os.path.join(dest, name), "rb") as f:
                self.assertEqual(f.read(), b"kept\n")
        status, err, _ = self.run_on(build([entry("p/" + "q" * 5000, data=b"")],
                                           tarfile.PAX_FORMAT))
        self.assertEqual(status, 2)
        self.assertIn("longer than any path", err[0])

    def test_counts_and_written_bytes_bounded(self):
        files = [entry(f"f{i}", data=b"x" * 100) for i in range(20)]
        links = [entry(f"l{i}", tarfile.SYMTYPE, linkname="f0") for i in range(20)]
        hard = [entry("f0", data=b"y" * 100)] + \
               [entry(f"h{i}", tarfile.LNKTYPE, linkname="f0") for i in range(20)]
        for bound, value, entries, words in [
                ("MAX_MEMBERS", 19, files, "has more than 19 entries"),
                ("MAX_WRITTEN", 1500, files, "unpacks to more than"),
                ("MAX_WRITTEN", 1500, hard, "unpacks to more than"),
                ("MAX_LINKS", 10, files[:1] + links, "more than 10 links")]:
            with self.subTest(bound=bound, words=words):
                saved = getattr(unpack, bound)
                setattr(unpack, bound, value)
                try:
                    status, err, dest = self.run_on(build(entries))
                finally:
                    setattr(unpack, bound, saved)
                self.assertEqual(status, 2, err)
                self.assertIn(words, err[-1])
                if bound != "MAX_WRITTEN":
                    continue
                written = sum(os.path.getsize(os.path.join(d, n))
                              for d, _, names in os.walk(dest) for n in names)
                self.assertLessEqual(written, 1500)

    def test_dropped_names_bounded_on_stderr(self):
        saved, unpack.MAX_NAMED = unpack.MAX_NAMED, 5
        try:
            status, err, _ = self.run_on(build([entry(f"../f{i}", data=b"") for i in range(9)]))
        finally:
            unpack.MAX_NAMED = saved
        self.assertEqual(status, 3)
        self.assertEqual(len(err), 6)
        self.assertIn("the rest are not named", err[-1])


class Ends(Unpacking):
    def tar_of(self, writer):
        """A folder like a capture's stage, packed by a tar writer (None if it is absent)."""
        stage = os.path.join(self.tmp, "stage")
        os.makedirs(stage + "/proc/123/fdinfo", exist_ok=True)
        with open(stage + "/proc/123/maps", "w") as f:
            f.write("12c00000-32c00000 rw-p 00000000 00:00 0   [anon:dalvik-main space]\n" * 40)
        with open(stage + "/proc/meminfo", "w") as f:
            f.write("MemTotal:        3884520 kB\n")
        if not shutil.which(writer[0]):
            return None
        out = os.path.join(self.tmp, writer[0] + ".tar")
        subprocess.run(writer + ["-cf", out, "-C", stage, "."], check=True)
        with open(out, "rb") as f:
            return f.read()

    def test_real_writers_end_whole(self):
        # The lab's captures (busybox in the guest), and what GNU and busybox tar write here.
        for name in ("before.tar.gz", "after.tar.gz"):
            with open(os.path.join(PAIR, name), "rb") as f:
                status, err, _ = self.run_on(f.read())
            self.assertEqual((status, err), (0, []), name)
        for writer in (["tar"], ["busybox", "tar"]):
            raw = self.tar_of(writer)
            if raw is None:
                continue
            for data in (raw, gzip.compress(raw)):
                status, err, _ = self.run_on(data)
                self.assertEqual((status, err), (0, []), writer)

    def test_cut_captures_refused_as_truncated(self):
        raw = self.tar_of(["tar"])
        members = tarfile.open(fileobj=io.BytesIO(raw)).getmembers()
        maps = next(m for m in members if m.name == "./proc/123/maps")
        before = members[members.index(maps) - 1].name[2:]
        last = members[-1]
        end = last.offset_data + -(-last.size // 512) * 512
        whole = gzip.compress(raw)
        for data, words in [
                (gzip.compress(raw[:maps.offset]), "after member " + before),
                (gzip.compress(raw[:end]), "after member " + last.name[2:]),
                (gzip.compress(raw[:end + 512]), "after member " + last.name[2:]),
                (gzip.compress(raw[:maps.offset_data + 700]), "inside member proc/123/maps"),
                (gzip.compress(raw[:maps.offset + 100]), "after member " + before),
                (raw[:maps.offset], "after member " + before),
                (whole[:len(whole) // 2], "is truncated"),
                (whole[:-3], "after member " + last.name[2:]),
                (whole[:12], "before its first member")]:
            with self.subTest(words=words, size=len(data)):
                status, err, _ = self.run_on(data)
                self.assertEqual(status, 4, err)
                self.assertEqual(err, [f"replay: capture.tar.gz {err[0].split(' ', 2)[2]}"])
                self.assertIn(words, err[0])

    def test_not_archives_unreadable(self):
        whole = gzip.compress(self.tar_of(["tar"]))
        for data in (b"", b"not gzip\n", bytes(100), gzip.compress(b"short"),
                     whole[:20] + b"\xff" * 50 + whole[70:]):
            with self.subTest(data=data[:20]):
                status, err, _ = self.run_on(data)
                self.assertEqual(status, 2, err)
                self.assertTrue(err[0].startswith("replay: cannot unpack capture.tar.gz: "), err)


class Names(Unpacking):
    def test_absolute_names_unpacked_inside_and_said_once(self):
        status, err, dest = self.run_on(build(
            [entry("/proc/meminfo", data=b"MemTotal: 1 kB\n"), entry("/proc/1/comm", data=b"x"),
             entry("./proc/iomem", data=b"")]))
        self.assertEqual(status, 0)
        self.assertEqual(err, ["replay: member names of capture.tar.gz are absolute; unpacked "
                               "inside the capture"])
        self.assertTrue(os.path.isfile(os.path.join(dest, "proc/meminfo")))

    def test_duplicates_and_collisions(self):
        status, err, dest = self.run_on(build([
            entry("a", data=b"first"), entry("a", data=b"second"),      # later copy wins
            entry("b", data=b"file"), entry("b/c", data=b"under a file"),
            entry("d", tarfile.DIRTYPE), entry("d", data=b"over a folder"),
            entry("h", tarfile.LNKTYPE, linkname="a"), entry("s", tarfile.SYMTYPE, linkname="a"),
            entry("s", data=b"before the link")]))
        self.assertEqual(status, 3)
        with open(os.path.join(dest, "a"), "rb") as f:
            self.assertEqual(f.read(), b"second")
        with open(os.path.join(dest, "h"), "rb") as f:
            self.assertEqual(f.read(), b"second")
        self.assertEqual(sorted(line.split(": ")[1] for line in err),
                         ["dropped b/c", "dropped d", "dropped s"])
        self.assertTrue(os.path.isfile(os.path.join(dest, "s")))


class Order(Unpacking):
    """The tree is made in name order, whatever order the archive holds its members in."""

    def listing(self, root):
        """Every folder's entries as the file system lists them (os.walk keeps that order)."""
        return [(os.path.relpath(folder, root), dirs + files)
                for folder, dirs, files in os.walk(root)]

    def test_folders_list_in_name_order(self):
        names = ["proc/1000/maps", "proc/999/maps", "proc/1000/fdinfo/7", "proc/1000/fdinfo/10",
                 "proc/meminfo", "d/dma_buf/bufinfo", "sys/kernel/dmabuf/buffers/5/size",
                 "proc/a-b", "proc/a.b/x", "proc/\u00e9", "capture-info"]
        rng = random.Random(3)
        shm = "/dev/shm" if os.path.isdir("/dev/shm") else None
        for attempt in range(3):
            rng.shuffle(names)
            with self.subTest(order=list(names)), tempfile.TemporaryDirectory(dir=shm) as top:
                # The reference: made name by name in byte order, on the same file system.
                want = os.path.join(top, "want")
                for name in sorted(names, key=lambda n: n.encode().split(b"/")):
                    os.makedirs(os.path.dirname(os.path.join(want, name)), exist_ok=True)
                    with open(os.path.join(want, name), "wb") as f:
                        f.write(name.encode())
                dest = os.path.join(top, "dest")
                err = io.StringIO()
                status = unpack.unpack(io.BytesIO(build([entry(n, data=n.encode())
                                                         for n in names])), "c", dest, err)
                self.assertEqual((status, err.getvalue()), (0, ""))
                self.assertEqual(self.listing(dest), self.listing(want))

    def test_hard_link_sorting_before_its_file_is_a_copy(self):
        status, err, dest = self.run_on(build([
            entry("z/file", data=b"data", mode=0o640),
            entry("a/link", tarfile.LNKTYPE, linkname="z/file", mode=0o777),
            entry("b/nothing", tarfile.LNKTYPE, linkname="z/later"),
            entry("z/later", data=b"after")]))
        self.assertEqual(status, 3)
        self.assertEqual(err, ["replay: dropped b/nothing: hard link to z/later, not a file of "
                               "the capture"])
        with open(os.path.join(dest, "a/link"), "rb") as f:
            self.assertEqual(f.read(), b"data")
        self.assertEqual(stat.S_IMODE(os.stat(os.path.join(dest, "a/link")).st_mode) & 0o700,
                         0o600)

    def test_data_past_the_memory_bound_waits_beside_the_tree(self):
        big = bytes(range(256)) * 1000
        archive = build([entry("p/small", data=b"s"), entry("p/big", data=big),
                         entry("q/big2", data=big[::-1]), entry("q/hard", tarfile.LNKTYPE,
                                                                linkname="p/big")])
        saved, unpack.MAX_HELD = unpack.MAX_HELD, 1000
        self.addCleanup(setattr, unpack, "MAX_HELD", saved)
        status, err, dest = self.run_on(archive)
        self.assertEqual((status, err), (0, []))
        for name, want in [("p/small", b"s"), ("p/big", big), ("q/big2", big[::-1]),
                           ("q/hard", big)]:
            with open(os.path.join(dest, name), "rb") as f:
                self.assertEqual(f.read(), want, name)
        # Cut after a member that waited in a file: refused, and nothing is left beside DEST.
        raw = gzip.decompress(archive)
        status, err, dest = self.run_on(gzip.compress(raw[:len(raw) // 2]))
        self.assertEqual(status, 4, err)
        self.assertIn("truncated inside member q/big2", err[-1])
        self.assertEqual([n for n in os.listdir(self.tmp) if ".unpacking-" in n], [])


class Session(unittest.TestCase):
    """A session keeps its tree from capture to capture: after each, the tree is the one a
    fresh unpacking makes, to each folder's order of listing, each file's data and mode."""

    def setUp(self):
        anything_goes(self)
        # On a tmpfs a folder lists its entries in the order they were put in it, as replay's.
        self.tmp = tempfile.mkdtemp(dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        self.addCleanup(shutil.rmtree, self.tmp)

    def tree(self, root):
        """Every entry under root in listing order: (path, mode, data or None for a folder)."""
        out = []
        for name in os.listdir(root):
            path = os.path.join(root, name)
            st = os.lstat(path)
            if stat.S_ISDIR(st.st_mode):
                out.append((name, st.st_mode, None))
                out += [(name + "/" + p, m, d) for p, m, d in self.tree(path)]
            else:
                with open(path, "rb") as f:
                    out.append((name, st.st_mode, f.read()))
        return out

    def test_each_tree_is_a_fresh_unpackings(self):
        def capture(pids, extra=(), comm=b"app\n", maps_mode=0o644):
            entries = [entry("./capture-info", data=b"format=1\n")]
            for pid in pids:
                entries.append(entry(f"./proc/{pid}/comm", data=comm + str(pid).encode()))
                entries.append(entry(f"./proc/{pid}/maps", data=b"/dmabuf %d\n" % pid,
                                     mode=maps_mode))
                entries.append(entry(f"./proc/{pid}/fdinfo/", tarfile.DIRTYPE))
            return entries + list(extra)
        fd = lambda pid, n: entry(f"./proc/{pid}/fdinfo/{n}", data=b"exp_name:\tsystem\n")
        recording = [
            capture([1, 2, 10], [fd(2, 5)]),
            # Entries gained amid others (15 sorts between 10 and 2), data and modes changed.
            capture([1, 15, 2, 10], [fd(2, 5), fd(2, 40), fd(2, 100)], comm=b"new\n",
                    maps_mode=0o600),
            # A process gone, its pid reused by another; a folder become a file.
            capture([1, 15, 10], [entry("./proc/2", data=b"now a file")]),
            capture([2, 10, 3], [fd(2, 7), entry("./proc/15/x/", tarfile.DIRTYPE)]),
            # A file named twice, and a file where a folder stands: a fresh unpacking decides.
            capture([2, 3], [entry("./proc/3/comm", data=b"second"),
                             entry("./proc/3/comm/x", data=b"under a file")]),
            capture([2, 3, 4]),
            # Refused entries (status 3), a truncated capture (4), an unreadable one (2).
            capture([2, 4, 5], [entry("./proc/9", tarfile.SYMTYPE, linkname="/etc")]),
            b"truncated",
            b"not a capture",
            capture([5, 1]),
            capture([5, 1, 11], [fd(11, 3)]),
        ]
        kept = unpack.Kept()
        session = os.path.join(self.tmp, "session")
        os.mkdir(session)
        for n, archive in enumerate(recording):
            if isinstance(archive, list):
                archive = build(archive)
            elif archive == b"truncated":
                archive = build(capture([6, 7]))
                archive = gzip.compress(gzip.decompress(archive)[:3000])
            fresh = tempfile.mkdtemp(dir=self.tmp)
            err_fresh, err_session = io.StringIO(), io.StringIO()
            status = unpack.unpack(io.BytesIO(archive), "c.tar.gz", fresh, err_fresh)
            with self.subTest(capture=n):
                got = unpack.unpack(io.BytesIO(archive), "c.tar.gz", session, err_session,
                                    kept=kept)
                if got == 2:
                    kept.forget(session)  # as session() does
                self.assertEqual(got, status)
                self.assertEqual(err_session.getvalue(), err_fresh.getvalue())
                if status in (0, 3):
                    self.assertEqual(self.tree(session), self.tree(fresh))
            shutil.rmtree(fresh)
        self.assertEqual(sorted(os.listdir(self.tmp)), ["session"])  # nothing beside the tree


class Members(unittest.TestCase):
    """A capture holds what capture/members.txt lists, in the shapes a device gives it."""

    def setUp(self):
        self.tmp = tempfile.mkdtemp()
        # rm, not shutil.rmtree: that recurses once per folder, and a test makes 1900 of them.
        self.addCleanup(subprocess.run, ["rm", "-rf", self.tmp], check=True)

    def run_on(self, data):
        dest = tempfile.mkdtemp(dir=self.tmp)
        err = io.StringIO()
        status = unpack.unpack(io.BytesIO(data), "c.tar.gz", dest, err)
        return status, err.getvalue().splitlines(), dest

    def test_only_listed_members_in_their_shapes(self):
        kept = [entry("./proc/meminfo", data=b"MemTotal: 1 kB\n"),
                entry("./proc/1/comm", data=b"x" * 63 + b"\n"),
                entry("./proc/1/fdinfo", tarfile.DIRTYPE),
                entry("./proc/12/fdinfo/3", data=b"exp_name: system\n"),
                entry("./d/cma/linux,cma/used", data=b"0\n"),
                entry("./sys/kernel/dmabuf/buffers", tarfile.DIRTYPE),
                entry("./dev/ion", data=b""),
                entry("./capture-info", data=b"format=1\n")]
        dropped = {
            "./etc/ld.so.preload": b"/lib/libx.so\n",
            "./lib/libx.so": b"\x7fELF",
            "./quarrystat/": None,
            "./proc/sys/vm/mmap_min_addr": b"18446744073709547520\n",
            "./proc/2/comm": b"y" * (1 << 20),
            "./proc/3/comm/": None,
            "./proc/self/maps": b"",
            "./proc/01/maps": b"",
            "./proc/4/fdinfo/x": b"",
            "./proc/meminfo/x": b"",
        }
        links = [entry("./proc/5/maps", tarfile.SYMTYPE, linkname="../meminfo"),
                 entry("./quarrystat/x", tarfile.SYMTYPE, linkname="/bin/sh")]
        built = [entry(name, data=data) if data is not None else entry(name, tarfile.DIRTYPE)
                 for name, data in dropped.items()]
        status, err, dest = self.run_on(build(kept + built + links))
        self.assertEqual(status, 3, err)
        said = {line.split(": ", 2)[1][len("dropped "):]: line.split(": ", 2)[2] for line in err}
        self.assertEqual(set(said), set(dropped) | {"./proc/5/maps", "./quarrystat/x"}, err)
        self.assertEqual(said["./proc/2/comm"], "1048576 bytes, more than a capture holds there (64)")
        self.assertEqual(said["./proc/3/comm/"], "a folder where a capture holds a file")
        self.assertEqual(said["./proc/meminfo/x"], "not a member a capture holds (capture/members.txt)")
        self.assertEqual(said["./proc/5/maps"], "link to ../meminfo: a capture holds no links")
        self.assertEqual(said["./quarrystat/x"], "link to /bin/sh, outside the capture")
        made = sorted(os.path.relpath(os.path.join(d, n), dest)
                      for d, dirs, files in os.walk(dest) for n in dirs + files)
        self.assertEqual(made, ["capture-info", "d", "d/cma", "d/cma/linux,cma",
                                "d/cma/linux,cma/used", "dev", "dev/ion", "proc",
                                "proc/1", "proc/1/comm", "proc/1/fdinfo", "proc/12",
                                "proc/12/fdinfo", "proc/12/fdinfo/3", "proc/meminfo", "sys",
                                "sys/kernel", "sys/kernel/dmabuf", "sys/kernel/dmabuf/buffers"])

    def test_deep_names_refused_in_one_line_or_made(self):
        name = "./proc/" + "a/" * 1900 + "f"
        archive = os.path.join(self.tmp, "deep.tar.gz")
        with open(archive, "wb") as f:
            f.write(build([entry("./proc/meminfo", data=b""), entry(name, data=b"x")]))
        run = subprocess.run([sys.executable, UNPACK, archive, self.tmp + "/d"],
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 3, run.stderr)
        self.assertEqual(run.stderr.splitlines(), [
            f"replay: dropped {name}: not a member a capture holds (capture/members.txt)"])
        # With every name allowed, the 1900 folders are made, one at a time.
        anything_goes(self)
        status, err, dest = self.run_on(build([entry(name, data=b"x")]))
        self.assertEqual((status, err), (0, []))
        self.assertTrue(os.path.isfile(os.path.join(dest, name)))

    def test_data_past_the_memory_bound_waits_in_the_spill_folder(self):
        spill = tempfile.mkdtemp(dir=self.tmp)
        seen = []
        take = unpack.Held.take

        def spy(held, stream, size):
            data = take(held, stream, size)
            if isinstance(data, unpack.Spilled):
                seen.append(data.path)
            return data
        saved, unpack.MAX_HELD = unpack.MAX_HELD, 100
        self.addCleanup(setattr, unpack, "MAX_HELD", saved)
        with unittest.mock.patch.object(unpack.Held, "take", spy):
            dest = os.path.join(self.tmp, "dest")
            with open(os.path.join(PAIR, "after.tar.gz"), "rb") as f:
                status = unpack.unpack(f, "after.tar.gz", dest, io.StringIO(), spill=spill)
        self.assertEqual(status, 0)
        self.assertGreater(len(seen), 10)
        self.assertTrue(all(p.startswith(spill + "/unpacking-") for p in seen), seen[:3])
        self.assertEqual(os.listdir(spill), [])
        self.assertEqual(sorted(os.listdir(self.tmp)), sorted([os.path.basename(spill), "dest"]))


SEGMENTS = ["a", "b", "proc", "..", ".", "", "n\nl", "e\x1b[0m", "\u00e9t\u00e9", "c" * 120]


class Generated(unittest.TestCase):
    """A few thousand random archives; whatever they hold, the invariants of a replay tree."""
    COUNT = 2500

    def random_name(self, rng):
        parts = [rng.choice(SEGMENTS[:3]) if rng.random() < 0.7 else rng.choice(SEGMENTS)
                 for _ in range(rng.randint(1, 4))]
        name = "/".join(parts)
        return rng.choice(["", "./", "/", "../", "../outside/"]) + name if rng.random() < 0.3 \
            else name

    def random_archive(self, rng, base):
        """(archive bytes, whether a member is surely dropped, whether the archive is damaged
        or cut, whether it holds only what a capture holds: one in five does)."""
        entries, surely = [], False
        clean = rng.random() < 0.2
        for k in range(rng.randint(1, 12)):
            name = self.random_name(rng)
            if clean:       # folders of a, b; files named apart from any folder
                name = "./" + "/".join(rng.choice("ab") for _ in range(rng.randint(1, 3)))
            kind = rng.choice([tarfile.REGTYPE] * 4 + [tarfile.DIRTYPE] * 2 + ([
                tarfile.SYMTYPE, tarfile.SYMTYPE, tarfile.LNKTYPE, tarfile.CHRTYPE,
                tarfile.BLKTYPE, tarfile.FIFOTYPE, tarfile.CONTTYPE, b"V"] if not clean else []))
            link = rng.choice([self.random_name(rng), "/etc/passwd", base + "/outside",
                               base + "/outside/victim", "..", "../..", "a", "a/b", "proc"])
            if clean:
                link = ""
                name += f"/f{k}" if kind == tarfile.REGTYPE else ""
            data = rng.randbytes(rng.choice([0, 1, 511, 513])) if kind in (
                tarfile.REGTYPE, tarfile.CONTTYPE, b"V") else None
            entries.append(entry(name, kind, data, linkname=link, devmajor=1, devminor=3))
            rel = unpack.relative_name(name)
            if unpack.has_control(name) or (rel is None) or (
                    kind in (tarfile.CHRTYPE, tarfile.BLKTYPE, tarfile.FIFOTYPE) and rel) or \
                    (unpack.has_control(link) and kind in (tarfile.SYMTYPE, tarfile.LNKTYPE)):
                surely = True
        fmt = rng.choice([tarfile.GNU_FORMAT, tarfile.PAX_FORMAT])
        raw = io.BytesIO()
        with tarfile.open(fileobj=raw, mode="w", format=fmt) as tar:
            for info, data in entries:
                tar.addfile(info, io.BytesIO(data) if data is not None else None)
        raw = bytearray(raw.getvalue())
        damaged = rng.random() < 0.15 and not clean
        if damaged:
            for _ in range(rng.randint(1, 4)):
                raw[rng.randrange(len(raw))] = rng.randrange(256)
        data = gzip.compress(bytes(raw), mtime=0) if rng.random() < 0.8 else bytes(raw)
        cut = rng.random() < 0.1 and not clean
        if cut:
            data = data[:rng.randrange(len(data))]
        return data, surely, damaged or cut, clean

    def check_tree(self, base, dest):
        self.assertEqual(sorted(os.listdir(base)), ["dest", "outside"])
        self.assertEqual(os.listdir(base + "/outside"), ["victim"])
        with open(base + "/outside/victim", "rb") as f:
            self.assertEqual(f.read(), b"host\n")
        for folder, dirs, files in os.walk(dest):
            for name in dirs + files:
                path = os.path.join(folder, name)
                mode = os.lstat(path).st_mode
                self.assertTrue(stat.S_ISDIR(mode) or stat.S_ISREG(mode) or stat.S_ISLNK(mode),
                                path)
                if stat.S_ISLNK(mode):
                    real = os.path.realpath(path)
                    self.assertTrue(real == dest or real.startswith(dest + "/"), (path, real))

    def test_invariants(self):
        anything_goes(self)
        rng = random.Random(20)
        top = tempfile.mkdtemp(dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        self.addCleanup(shutil.rmtree, top)
        start = time.monotonic()
        statuses = {}
        saved = unpack.MAX_HELD
        self.addCleanup(setattr, unpack, "MAX_HELD", saved)
        for i in range(self.COUNT):
            base = os.path.join(top, str(i))
            dest = base + "/dest"
            os.makedirs(dest)
            os.makedirs(base + "/outside")
            with open(base + "/outside/victim", "w") as f:
                f.write("host\n")
            data, surely, broken, clean = self.random_archive(rng, base)
            err = io.StringIO()
            # Files' data held in memory, or waiting in files past a bound of 0 or 600 bytes.
            unpack.MAX_HELD = rng.choice([saved, 0, 600])
            with self.subTest(archive=i):
                status = unpack.unpack(io.BytesIO(data), "c\x1b.tar.gz", dest, err)
                statuses[status] = statuses.get(status, 0) + 1
                lines = err.getvalue().splitlines()
                self.check_tree(base, dest)
                # Names, the capture's own included, reach a terminal escaped.
                self.assertFalse(any(c < " " or c == "\x7f" for line in lines for c in line))
                named = any(line.startswith("replay: dropped ") for line in lines)
                if not broken:
                    self.assertEqual(status, 3 if named else 0, lines)
                    if surely:
                        self.assertEqual(status, 3, lines)
                    if clean:
                        self.assertEqual(status, 0, lines)
                else:
                    self.assertIn(status, (0, 2, 3, 4), lines)
            shutil.rmtree(base)
        print(f"{self.COUNT} archives in {time.monotonic() - start:.1f} s: "
              f"statuses {dict(sorted(statuses.items()))}", file=sys.stderr)
        self.assertGreater(statuses.get(3, 0), self.COUNT // 4)
        self.assertGreater(statuses.get(0, 0), self.COUNT // 20)
        self.assertGreater(statuses.get(4, 0), 0)

    def test_script_never_ends_in_a_traceback(self):
        rng = random.Random(6)
        with tempfile.TemporaryDirectory() as top:
            for i in range(12):
                base = os.path.join(top, str(i))
                os.makedirs(base + "/dest")
                data = self.random_archive(rng, base)[0]
                with open(base + "/c.tar.gz", "wb") as f:
                    f.write(data)
                run = subprocess.run([sys.executable, UNPACK, base + "/c.tar.gz", base + "/dest"],
                                     capture_output=True, text=True, timeout=60)
                self.assertIn(run.returncode, (0, 2, 3, 4), run.stderr)
                self.assertNotIn("Traceback", run.stderr)


if __name__ == "__main__":
    unittest.main()
