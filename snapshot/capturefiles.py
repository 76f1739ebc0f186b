"""What the host-side scripts take from a capture: the tool's reports, replayed by replay.sh with
all its checks, and the few files no report prints (the capture's metadata, the memory table,
the DMA-BUF debug table), taken from the same unpacking.
"""
import collections
import os
import re
import shutil
import signal
import subprocess
import tempfile
import threading

import reporttext
from reporttext import shown

HERE = os.path.dirname(os.path.abspath(__file__))
MODES = ("u", "n", "s")
# The metadata file the capture program writes at the capture's root; older captures have none.
INFO_MEMBER = "capture-info"
INFO_LIMIT = 64 << 10
INFO_VALUE_LIMIT = 4096
# The files replay.sh copies out beside the reports.
FILES = (INFO_MEMBER, "d/memblock/memory", "d/dma_buf/bufinfo")
# replay.sh stops a report past this many bytes of output (status 5); what it leaves is read
# with the same bound, and the files it copies out with theirs.
OUTPUT_LIMIT = int(os.environ.get("QUARRY_REPLAY_OUTPUT") or 64 << 20)
FILE_LIMIT = 16 << 20

Run = collections.namedtuple("Run", "status stdout stderr")
# "   0: 0x0000000080000000..0x000000008b7fffff": a range of /d/memblock/memory, last byte
# inclusive.
_RANGE = re.compile(r"^\s*\d+:\s+0x([0-9a-fA-F]+)\.\.0x([0-9a-fA-F]+)")


class ReplayError(Exception):
    """A capture replay.sh would not, or could not, replay: status 2 (unreadable capture or
    binary), 3 (refused), 4 (truncated), 5 (a report past the output bound) or 124 (out of
    time), with replay's own messages."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status
        self.message = message


# A failure is one line on a terminal, cut past this many characters (replay names each entry it
# drops, up to a thousand of them, each name up to 4096 bytes); the JSON's left_out keeps the
# whole text. A refusal names the first few dropped entries, each cut to a length a line can carry.
MESSAGE_CHARS = 1000
NAMED_DROPPED = 3
NAME_CHARS = 100
_DROPPED = re.compile(r"replay: dropped (.*?): ")
_UNNAMED = re.compile(r"replay: more than \d+ entries dropped; the rest are not named$")
_NAMED_ABOVE = "it holds entries that a capture never holds (named above)"


def _cut(text, limit):
    return text if len(text) <= limit else text[:limit - 3] + "..."


def one_line(text):
    """A message for a terminal as one line: each line escaped, the lines joined by "; "."""
    return _cut("; ".join(shown(line) for line in text.strip().splitlines()) or "(no message)",
                MESSAGE_CHARS)


def refusal_reason(message, name):
    """Replay's messages on a capture named name, as the cause in one line: the entries it
    dropped are counted and the first NAMED_DROPPED named; "replay: " and the capture's name,
    which the line already starts with, are left out."""
    dropped, unnamed, rest = [], False, []
    for line in message.strip().splitlines():
        m = _DROPPED.match(line)
        if m:
            dropped.append(_cut(m.group(1), NAME_CHARS))
        elif _UNNAMED.match(line):
            unnamed = True
        else:
            for prefix in ("replay: refusing %s: " % name, "replay: "):
                if line.startswith(prefix):
                    line = line[len(prefix):]
                    break
            rest.append(line)
    if dropped:
        held = "%s%d %s a capture never holds: %s%s" % (
            "more than " if unnamed else "", len(dropped), "entry" if len(dropped) == 1 and not unnamed
            else "entries", ", ".join(dropped[:NAMED_DROPPED]),
            ", ... (and %s%d more)" % ("over " if unnamed else "", len(dropped) - NAMED_DROPPED)
            if len(dropped) > NAMED_DROPPED else "")
        if any(_NAMED_ABOVE in line for line in rest):
            rest = [line.replace(_NAMED_ABOVE, "it holds " + held) for line in rest]
        else:  # dropped under --drop-unsafe, refused for another cause
            rest.append("dropped " + held)
    return one_line("\n".join(rest))


def _text(data):
    # Device text keeps every byte: undecodable ones survive as surrogates for shown() and
    # for the page's escaping.
    return data.decode("utf-8", "surrogateescape")


def read_bounded(path, limit, what, capture):
    """A file's bytes, at most limit of them; ReplayError(5) when it holds more."""
    with open(path, "rb") as f:
        data = f.read(limit + 1)
    if len(data) > limit:
        raise ReplayError(5, f"replay: refusing {capture}: its {what} holds more than {limit} "
                             "bytes, more than any device's report\n")
    return data


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
        return _reports(out, capture, _text(p.stderr))


# A series stopped midway (its reader gone, a TERM) is given this long to stop what it started.
STOP_SECONDS = 15


def replay_series(captures, binary, drop_unsafe=False):
    """replay() of each capture in turn, in one replay.sh session (replay.sh --series: one
    namespace, one unpacking process that keeps the tree from one capture to the next): yields
    (capture, runs) in order, runs being replay()'s result or the ReplayError it would raise.
    Each capture's reports are read as soon as they are made, and removed once read. Closing
    the generator early (or a TERM) stops the session and waits for it."""
    captures = list(captures)
    if not captures:
        return
    with tempfile.TemporaryDirectory(prefix="quarry-reports.") as out, \
            tempfile.TemporaryFile(prefix="quarry-replay-err.") as err:
        cmd = [os.path.join(HERE, "replay.sh")]
        if drop_unsafe:
            cmd.append("--drop-unsafe")
        cmd += ["--series", out, binary] + captures
        p = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=err)
        stopped = None
        if threading.current_thread() is threading.main_thread():
            def stop(signum, frame):
                raise SystemExit(128 + signum)
            stopped = signal.signal(signal.SIGTERM, stop)
        try:
            done = 0
            for line in p.stdout:
                fields = line.decode("ascii", "replace").split()
                if len(fields) != 2 or fields[0] != str(done + 1) or not fields[1].isdigit():
                    break
                folder = os.path.join(out, fields[0])
                capture = captures[done]
                done += 1
                try:
                    with open(os.path.join(folder, "replay.err"), "rb") as f:
                        said = _text(f.read(OUTPUT_LIMIT))
                    status = int(fields[1])
                    runs = ReplayError(status, said) if status else _reports(folder, capture, said)
                except ReplayError as e:
                    runs = e
                except OSError as e:
                    runs = ReplayError(2, f"replay: cannot read the reports of {capture}: {e}\n")
                shutil.rmtree(folder, ignore_errors=True)
                yield capture, runs
            status = p.wait()
            if done < len(captures):
                err.seek(0)
                said = _text(err.read(OUTPUT_LIMIT)) or "replay: the session ended early\n"
                for capture in captures[done:]:
                    yield capture, ReplayError(status or 2, said)
        finally:
            if p.poll() is None:
                p.terminate()
                try:
                    p.wait(STOP_SECONDS)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait()
            p.stdout.close()
            if stopped is not None:
                signal.signal(signal.SIGTERM, stopped)


def _reports(out, capture, said):
    """The runs of one capture from the folder replay.sh --reports wrote (said: what replay
    said of it)."""
    runs = {}
    for mode in MODES:
        with open(os.path.join(out, mode + ".status")) as f:
            status = int(f.read(16))
        stdout = _text(read_bounded(os.path.join(out, mode + ".out"), OUTPUT_LIMIT,
                                    f"-{mode} report", capture))
        stderr = _text(read_bounded(os.path.join(out, mode + ".err"), OUTPUT_LIMIT,
                                    f"-{mode} report's messages", capture))
        runs[mode] = Run(status, stdout, stderr)
    # What replay.sh said while unpacking (members dropped with --drop-unsafe) belongs to
    # the capture as a whole.
    runs["replay"] = Run(0, "", said)
    runs["files"] = {}
    for name in FILES:
        try:
            runs["files"][name] = read_bounded(os.path.join(out, "files", name),
                                               FILE_LIMIT, name, capture)
        except OSError:
            runs["files"][name] = None
    runs["cmdlines"] = read_cmdlines(os.path.join(out, "files", "cmdline.tar"))
    return runs


# Of each process's command line (proc/PID/cmdline) the first 4 KiB are read: the kernel hands
# out no more of it, and a capture keeps no more. Of the archive replay.sh makes of them, 64 MiB
# are read: a device of a few thousand processes needs a few MB.
CMDLINE_LIMIT = 4096
CMDLINES_LIMIT = 64 << 20
_CMDLINE_MEMBER = re.compile(rb"proc/([0-9]{1,10})/cmdline")


def read_cmdlines(path):
    """{pid: the first CMDLINE_LIMIT bytes of its cmdline} from the archive replay.sh made of the
    capture's proc/PID/cmdline files (GNU tar, regular files of at most 64 KiB; a long name
    comes in a member of its own)."""
    try:
        with open(path, "rb") as f:
            data = f.read(CMDLINES_LIMIT)
    except OSError:
        return {}
    out, pos, long_name = {}, 0, None
    while pos + 512 <= len(data):
        head = data[pos:pos + 512]
        pos += 512
        try:
            size = int(head[124:136].split(b"\0", 1)[0].strip() or b"0", 8)
        except ValueError:
            break
        body = data[pos:pos + size]
        pos += -(-size // 512) * 512
        kind = head[156:157]
        if kind == b"L":
            long_name = body.split(b"\0", 1)[0]
            continue
        name, long_name = long_name or head[:100].split(b"\0", 1)[0], None
        m = _CMDLINE_MEMBER.fullmatch(name)
        if kind in (b"0", b"\0") and m:
            out[int(m.group(1))] = body[:CMDLINE_LIMIT]
    return out


def split_cmdline(data):
    """A cmdline file's arguments (NUL-separated, the last one NUL-terminated) as text; None
    when it holds none (a kernel thread, a process that was exiting)."""
    args = _text(data).split("\0")
    while args and args[-1] == "":  # an app that renames itself leaves NULs behind its name
        args.pop()
    return args if any(args) else None


def parse_reports(runs):
    """The three reports of a replay (replay()'s result), parsed: {mode: ...}. A report that
    cannot be true raises reporttext.Malformed naming it: "its -s report is malformed: ..."."""
    parsed = {}
    for mode in MODES:
        try:
            parsed[mode] = reporttext.PARSERS[mode](runs[mode].stdout)
        except reporttext.Malformed as e:
            raise reporttext.Malformed(f"its -{mode} report is malformed: {e}") from None
    return parsed


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


def memory_ranges(data):
    """The memory table (/d/memblock/memory, as bytes) as [start, end) pairs, or None."""
    if data is None:
        return None
    out = []
    for line in data.decode("ascii", "replace").splitlines():
        m = _RANGE.match(line)
        if m:
            start, last = int(m.group(1), 16), int(m.group(2), 16)
            if last >= start:
                out.append([start, last + 1])
    return out or None
