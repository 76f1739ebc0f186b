#!/usr/bin/python3
"""How long snapshot/unpack.py takes to refuse captures built to exhaust it, and its peak
resident memory on each; then the time per member of a large, well-formed capture.
    bench/unpack_bomb.py [MEMBERS]      (default 100000)
Prints figures and asserts nothing."""
import gzip
import io
import os
import shutil
import sys
import tarfile
import tempfile
import time

TOP = os.path.realpath(os.path.join(os.path.dirname(__file__), ".."))
UNPACK = os.path.join(TOP, "snapshot", "unpack.py")
sys.path.insert(0, os.path.join(TOP, "tests", "snapshot"))
from test_unpack import header_only, write_long_name_bomb  # noqa: E402


def timed(capture, dest):
    """(seconds, exit status, peak resident KB, last line of stderr) of one unpacking."""
    os.makedirs(dest)
    err = os.path.join(os.path.dirname(dest), "err")
    start = time.monotonic()
    pid = os.fork()
    if pid == 0:
        fd = os.open(err, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
        os.dup2(fd, 2)
        os.execv("/usr/bin/python3", ["/usr/bin/python3", UNPACK, capture, dest])
    _, status, usage = os.wait4(pid, 0)
    seconds = time.monotonic() - start
    with open(err, errors="replace") as f:
        lines = f.read().splitlines()
    shutil.rmtree(dest)
    return seconds, os.waitstatus_to_exitcode(status), usage.ru_maxrss, (lines or [""])[-1]


FDINFO = b"pos:\t0\nflags:\t02000002\nmnt_id:\t9\nino:\t42\n"


def many_members(path, count):
    """A capture-shaped archive: count small files, 64 to a process folder."""
    with tarfile.open(path, "w:gz", compresslevel=1) as tar:
        for i in range(count):
            info = tarfile.TarInfo(f"./proc/{i // 64}/fdinfo/{i % 64}")
            info.size = len(FDINFO)
            tar.addfile(info, io.BytesIO(FDINFO))


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    work = tempfile.mkdtemp()
    try:
        cases = []
        bomb = os.path.join(work, "long-name.tar.gz")
        write_long_name_bomb(bomb)
        cases.append(("GNU long name claiming 3 GiB", bomb))
        for title, kind, size in [("pax header claiming 2 GiB", tarfile.XHDTYPE, 2 << 30),
                                  ("file claiming 64 GiB", tarfile.REGTYPE, 64 << 30)]:
            path = os.path.join(work, kind.decode() + ".tar.gz")
            with open(path, "wb") as f:
                f.write(header_only(kind, size))
            cases.append((title, path))
        zeros = os.path.join(work, "zeros.tar.gz")
        with gzip.open(zeros, "wb", compresslevel=1) as f:
            for _ in range(64):
                f.write(bytes(1 << 20))
        cases.append(("64 MiB of zero blocks (an empty archive)", zeros))
        members = os.path.join(work, "members.tar.gz")
        many_members(members, count)
        cases.append((f"{count} members of {len(FDINFO)} bytes", members))
        for title, path in cases:
            seconds, status, peak_kb, last = timed(path, os.path.join(work, "dest"))
            print(f"{title}: {os.path.getsize(path) >> 10} KiB gzip'd, refused or unpacked in "
                  f"{seconds:.3f} s, status {status}, peak resident {peak_kb >> 10} MiB")
            if last:
                print(f"  {last[:160]}")
        print(f"  ({seconds / count * 1e6:.1f} us per member)")
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
