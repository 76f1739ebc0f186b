"""What the host-side scripts take from a capture: the tool's reports, replayed by replay.sh with
all its checks, and the few files no report prints (the capture's metadata, the memory table,
the DMA-BUF debug table), taken from the same unpacking.
"""
import collections
import os
import subprocess
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
MODES = ("u", "n", "s")
# The metadata file capture.sh writes at the capture's root; older captures have none.
INFO_MEMBER = "capture-info"
INFO_LIMIT = 64 << 10
INFO_VALUE_LIMIT = 4096
# The files replay.sh copies out beside the reports.
FILES = (INFO_MEMBER, "d/memblock/memory", "d/dma_buf/bufinfo")
# And each process's command line (proc/PID/cmdline), of which the first 4 KiB are read: the
# kernel hands out no more of it, and a capture keeps no more.
CMDLINE_LIMIT = 4096

Run = collections.namedtuple("Run", "status stdout stderr")


class ReplayError(Exception):
    """A capture replay.sh would not, or could not, replay: status 2 (unreadable capture or
    binary), 3 (refused), 4 (truncated) or 124 (out of time), with replay's own messages."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status
        self.message = message


def _text(data):
    # Device text keeps every byte: undecodable ones survive as surrogates for shown() and
    # for the page's escaping.
    return data.decode("utf-8", "surrogateescape")


def check_binary(binary):
    """Raises ReplayError(2) when BINARY cannot run on this host (missing, not executable, or an
    arm64 program without its emulator)."""
    p = subprocess.run([os.path.join(HERE, "check-binary.sh"), binary],
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if p.returncode != 0:
        raise ReplayError(2, _text(p.stderr))


def replay(capture, binary, drop_unsafe=False):
    """The -u, -n and -s reports of a capture, from one unpacking: {mode: Run}, with "replay"
    for what replay.sh said, "files" for the capture's own files ({name: bytes or None},
    names as in FILES) and "cmdlines" for its processes' command lines ({pid: bytes})."""
    with tempfile.TemporaryDirectory(prefix="quarry-reports.") as out:
        cmd = [os.path.join(HERE, "replay.sh")]
        if drop_unsafe:
            cmd.append("--drop-unsafe")
        cmd += ["--reports", out, capture, binary]
        p = subprocess.run(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.PIPE)
        if p.returncode != 0:
            raise ReplayError(p.returncode, _text(p.stderr))
        runs = {}
        for mode in MODES:
            with open(os.path.join(out, mode + ".status")) as f:
                status = int(f.read())
            with open(os.path.join(out, mode + ".out"), "rb") as f:
                stdout = _text(f.read())
            with open(os.path.join(out, mode + ".err"), "rb") as f:
                stderr = _text(f.read())
            runs[mode] = Run(status, stdout, stderr)
        # What replay.sh said while unpacking (members dropped with --drop-unsafe) belongs to
        # the capture as a whole.
        runs["replay"] = Run(0, "", _text(p.stderr))
        runs["files"] = {}
        for name in FILES:
            try:
                with open(os.path.join(out, "files", name), "rb") as f:
                    runs["files"][name] = f.read()
            except OSError:
                runs["files"][name] = None
        runs["cmdlines"] = read_cmdlines(os.path.join(out, "files", "proc"))
        return runs


def read_cmdlines(folder):
    """{pid: the first CMDLINE_LIMIT bytes of FOLDER/PID/cmdline} for every process folder."""
    out = {}
    try:
        names = os.listdir(folder)
    except OSError:
        return out
    for name in names:
        if not (name.isdigit() and name.isascii()):
            continue
        try:
            with open(os.path.join(folder, name, "cmdline"), "rb") as f:
                out[int(name)] = f.read(CMDLINE_LIMIT)
        except OSError:
            pass
    return out


def split_cmdline(data):
    """A cmdline file's arguments (NUL-separated, the last one NUL-terminated) as text; None
    when it holds none (a kernel thread, a process that was exiting)."""
    args = _text(data).split("\0")
    while args and args[-1] == "":  # an app that renames itself leaves NULs behind its name
        args.pop()
    return args if any(args) else None


def parse_info(data):
    """The key=value lines of a capture-info file, as a dict of str; bounded, never failing."""
    info = {}
    for line in _text(data[:INFO_LIMIT]).split("\n"):
        key, sep, value = line.partition("=")
        if sep and key and key not in info:
            info[key] = value[:INFO_VALUE_LIMIT]
    return info


def info_of(runs):
    """The metadata of a replayed capture (replay()'s result), {} for a capture without it."""
    data = runs["files"][INFO_MEMBER]
    return parse_info(data) if data is not None else {}
