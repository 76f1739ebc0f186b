#!/usr/bin/python3
"""Turns captures into one offline page (and/or a JSON document, and/or counter tracks).

  report.py --binary BINARY [-o OUT.html] [--json OUT.json] [--trace OUT.json]
            [--drop-unsafe] [--skip-refused] CAPTURE...

One capture, two (before and after) or a recording (three or more, or a folder of
capture-NNNN.tar.gz files, taken in time order). Every figure comes from the tool's own reports,
replayed once per capture by replay.sh; the capture itself is read only for what no report
prints: the memory table (the map's background), the bufinfo names and the capture-info times.
The page and the JSON are made from the same document (the JSON in the shape of schema 2,
jsondoc.py), so the JSON holds every figure the page shows.

Exit status: 0 when everything asked for was written; 2 for a usage error, a destination that
cannot be written, a capture that cannot be used (missing, unreadable, a malformed report, more
rows than MAX_ROWS, a recording across two boards) or --trace of one capture; otherwise
replay's status for the capture it refused (3, 4, 5 or 124), which --skip-refused leaves out
instead (then the status is the last refusal's only when no capture is left). Every failure is
one line on standard error.
"""
import argparse
import json
import os
import re
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import board  # noqa: E402
import bufinfo  # noqa: E402
import capturefiles  # noqa: E402
import facts  # noqa: E402
import jsondoc  # noqa: E402
import page  # noqa: E402
import reporttext  # noqa: E402
import series  # noqa: E402

SCHEMA = jsondoc.SCHEMA
# At most this many lines of a report's standard error are kept: they name files the tool
# could not read, and a broken capture could make thousands.
MESSAGE_LINES = 40
INFO_VALUE_LIMIT = 256
# A capture's times as a device gives them: a boot clock under about 300 years, a wall clock
# from 1970 to about 5000. Others are no time a device prints: the capture's time is unknown
# (the page says so), rather than a difference of Infinity in the JSON or the trace.
MAX_UPTIME = 1e10
MAX_WALL = 1e11
# The page, the JSON and the series hold every -u row of every capture in memory at once, each
# row about 1 KB of Python objects: past this many rows in one report, it is refused. A 60-capture
# phone-scale recording holds about 180,000.
MAX_ROWS = 500_000

# The libraries' line for an ION statistics file the kernel does not have.
_ION_MISSING = re.compile(r"\] Can't open file: /sys/kernel/ion/([^/\s]+)$")


# A report that cannot be made: its status and message (replay's own refusals among them).
Refused = capturefiles.ReplayError


def clean(text):
    """Device text for the JSON: bytes that were not UTF-8 (kept by surrogateescape) become
    the text \\xHH, so every consumer gets valid UTF-8 and still sees which byte it was."""
    if text.isascii():
        return text
    return re.sub("[\udc80-\udcff]", lambda m: "\\x%02x" % (ord(m.group()) - 0xdc00), text)


# The files a page reads from a capture besides its reports (replay.sh copies them out).
MEMORY = "d/memblock/memory"
BUFINFO = "d/dma_buf/bufinfo"


def unhosted(text, capture):
    """Replay's messages name the capture by its path on this host; the page may be attached to
    a bug, so it names the capture by its file name only."""
    for p in sorted({capture, os.path.abspath(capture), os.path.realpath(capture)}, key=len, reverse=True):
        text = text.replace(p, os.path.basename(capture))
    return text


def _cleaned(doc):
    """The document with device text made valid UTF-8 (clean()); a walk of every value only
    when some text needs it, which is rare: a recording's document holds hundreds of
    thousands of values."""
    try:
        json.dumps(doc, ensure_ascii=False, separators=(",", ":")).encode("utf-8")
        return doc
    except UnicodeEncodeError:
        return clean_tree(doc)


def clean_tree(value):
    if isinstance(value, str):
        return clean(value)
    if isinstance(value, list):
        return [clean_tree(v) for v in value]
    if isinstance(value, dict):
        return {(clean(k) if isinstance(k, str) else k): clean_tree(v) for k, v in value.items()}
    return value


def plausible_time(time):
    """A capture's time with what no device gives (a clock past its bounds) left unknown."""
    up, wall = time["uptime"], time["wall"]
    if up is not None and not 0 <= up < MAX_UPTIME:
        time = dict(time, uptime=None)
    if wall is not None and not 0 <= wall < MAX_WALL:
        time = dict(time, wall=None)
    return time


def capture_entry(path, binary, drop_unsafe, runs=None):
    """Replays one capture (unless runs holds its replay, capturefiles.replay()'s result or
    error) and parses its three reports; raises Refused."""
    try:
        if runs is None:
            runs = capturefiles.replay(path, binary, drop_unsafe=drop_unsafe)
        elif isinstance(runs, capturefiles.ReplayError):
            raise runs
    except capturefiles.ReplayError as e:
        raise Refused(e.status, unhosted(e.message, path))
    try:
        parsed = capturefiles.parse_reports(runs)
    except reporttext.Malformed as e:
        raise Refused(2, str(e))
    return _entry(path, runs, parsed)


def _entry(path, runs, parsed):
    members = runs["files"]
    info = {k: v[:INFO_VALUE_LIMIT] for k, v in capturefiles.info_of(runs).items()}
    table = members[BUFINFO]
    names = bufinfo.parse(table)
    u = parsed["u"]
    for row in u["rows"]:
        row["name"] = names["names"].get(row["inode"])
    # The holders' command lines: on Android comm is cut to 15 characters, and an app's
    # process is named by its package only in its command line.
    cmdlines = {}
    for pid in sorted({o["pid"] for row in u["rows"] for o in row["owners"]}):
        args = capturefiles.split_cmdline(runs["cmdlines"][pid]) if pid in runs["cmdlines"] else None
        if args:
            cmdlines[str(pid)] = args
    entry = {
        "file": os.path.basename(path),
        "info": info,
        "time": plausible_time(series.capture_time(info)),
        "status": {m: runs[m].status for m in ("u", "n", "s")},
        "messages": {m: unhosted(runs[m].stderr, path).splitlines()[:MESSAGE_LINES]
                     for m in ("u", "n", "s", "replay")},
        "memory": capturefiles.memory_ranges(members[MEMORY]),
        "reserved": parsed["s"],
        "kmem": parsed["n"],
        "unmapped": u,
        "cmdlines": cmdlines,
        "bufinfo": {"present": table is not None, "problems": names["problems"]},
    }
    entry["unsaid"] = unsaid(entry)
    return entry


def unsaid(entry):
    """What the tool could not say on this capture, in words, per section."""
    out = []
    u = entry["unmapped"]
    if u["state"] == "ion":
        out.append({"section": "dmabuf", "text": "an ION device: buffers are not listed one by one"})
    elif u["state"] == "no-sysfs":
        out.append({"section": "dmabuf", "text": "no DMA-BUF sysfs statistics on this kernel"})
    elif u["state"] == "none":
        out.append({"section": "dmabuf", "text": "the unmapped DMA-BUF report printed nothing recognisable"})
    n = entry["kmem"]["unmapped"]
    if n is not None and n["kb"] is None:
        out.append({"section": "kmem", "text": "%s unmapped: unknown%s" % (
            n["source"], " (%s)" % n["reason"] if n["reason"] else "")})
    if entry["reserved"]["summary"] is None:
        out.append({"section": "reserved", "text": "no summary of reserved memory"})
    if entry["memory"] is None:
        out.append({"section": "reserved", "text": "no memory table in the capture: banks drawn without it"})
    for line in entry["messages"]["replay"]:
        out.append({"section": "capture", "text": line})
    section = {"u": "dmabuf", "n": "kmem", "s": "reserved"}
    for m in ("u", "n", "s"):
        if entry["status"][m] != 0:
            out.append({"section": section[m], "text": "the report ended with status %d" % entry["status"][m]})
        # Most kernels today have no ION: its two missing files are said once, in words (the
        # tool's own lines stay in the JSON's messages); any other line is shown once, as is.
        ion = [f.group(1) for f in map(_ION_MISSING.search, entry["messages"][m]) if f]
        if ion:
            out.append({"section": section[m], "text": "no ION statistics in this capture "
                        "(/sys/kernel/ion: %s cannot be opened)" % ", ".join(sorted(set(ion)))})
        for line in dict.fromkeys(entry["messages"][m]):
            if not _ION_MISSING.search(line):
                out.append({"section": section[m], "text": line})
    for p in entry["bufinfo"]["problems"]:
        out.append({"section": "dmabuf", "text": "bufinfo: " + p})
    return out


def expand(paths):
    """The captures named on the command line; a folder stands for its recording's captures.
    Returns (files, is_recording)."""
    files, recording = [], False
    for p in paths:
        if os.path.isdir(p):
            recording = True
            found = sorted(f for f in os.listdir(p)
                           if re.fullmatch(r"capture-\d{4,}\.tar\.gz", f))
            if not found:
                raise Refused(2, "%s holds no capture-NNNN.tar.gz" % p)
            files.extend(os.path.join(p, f) for f in found)
        else:
            files.append(p)
    return files, recording or len(files) >= 3


def one_board(captures, recording, warn):
    """The board rule (board.py) over the captures, in order: a recording is of one board, so
    the first two neighbours that differ refuse it; a pair of two boards is still compared,
    with a warning here and on the page. Returns the pair's board facts (None otherwise)."""
    for a, b in zip(captures, captures[1:]):
        other = board.differ(a["info"], a["memory"], b["info"], b["memory"])
        if other and recording:
            raise Refused(2, "%s and %s come from different devices (%s); a recording is of one "
                          "board" % (a["file"], b["file"], other))
    if len(captures) != 2:
        return None
    a, b = captures
    other = board.differ(a["info"], a["memory"], b["info"], b["memory"])
    if other:
        warn("report: warning: %s and %s come from different devices (%s)" % (
            reporttext.shown(a["file"]), reporttext.shown(b["file"]), reporttext.shown(other)))
    return {"same": other is None, "differ": other,
            "models": [board.model(c["info"]) for c in captures],
            "builds": [board.build(c["info"]) for c in captures]}


def build(files, recording, binary, drop_unsafe, skip_refused, warn):
    # A binary that cannot run would make every capture look refused.
    try:
        capturefiles.check_binary(binary)
    except capturefiles.ReplayError as e:
        raise Refused(e.status, e.message.strip())
    captures, left_out = [], []
    last_refusal = None
    rows = 0
    # One replay session for all the captures (a recording's trees are made one from the other);
    # a loop left early stops it, when the generator goes.
    for f, runs in capturefiles.replay_series(files, binary, drop_unsafe):
        try:
            captures.append(capture_entry(f, binary, drop_unsafe, runs))
            rows += len(captures[-1]["unmapped"]["rows"])
            if rows > MAX_ROWS:
                raise Refused(2, "%s: the captures up to it hold %d unmapped DMA-BUF rows, more than "
                              "one report holds (%d); report on fewer captures" % (
                                  os.path.basename(f), rows, MAX_ROWS))
        except Refused as e:
            if rows > MAX_ROWS:
                raise
            last_refusal = e
            name = os.path.basename(f)
            reason = capturefiles.refusal_reason(e.message, name)
            if not skip_refused:
                raise Refused(e.status, "%s: refused (status %d): %s" % (name, e.status, reason))
            warn("report: leaving out %s (status %d): %s" % (reporttext.shown(name), e.status, reason))
            left_out.append({"file": os.path.basename(f), "status": e.status, "reason": clean(e.message)})
    if not captures:
        raise Refused(last_refusal.status if last_refusal else 2, "no capture could be replayed")
    if recording:
        order = series.time_order([(c["file"], c["time"]) for c in captures])
        captures = [captures[i] for i in order]
    pair_board = one_board(captures, recording and len(captures) >= 2, warn)
    doc = {"schema": SCHEMA, "kind": "capture", "captures": captures, "left_out": left_out}
    if recording and len(captures) >= 2:
        doc["kind"] = "recording"
        doc["series"] = series.build(captures)
        doc.update(series.events(captures))
        doc["suspects"] = series.suspects(captures, doc["series"])
    elif len(captures) == 2:
        doc["kind"] = "pair"
        sides = [{"u": c["unmapped"], "n": c["kmem"], "s": c["reserved"], "status": c["status"],
                  "memory": c["memory"]} for c in captures]
        doc["facts"] = facts.compare(sides[0], sides[1])
        doc["board"] = pair_board
    return _cleaned(doc)


def json_text(doc):
    """The --json output: schema 2 (jsondoc.py), strict JSON (allow_nan=False): a figure that
    is no number is refused, never written as NaN or Infinity, which a JSON parser rejects."""
    try:
        return json.dumps(jsondoc.document(doc), separators=(",", ":"), allow_nan=False) + "\n"
    except ValueError as e:
        raise Refused(2, "cannot write the JSON: %s" % e)


def trace_text(doc):
    """The --trace output: a recording's series, or a pair's two moments, as counter tracks;
    a recording's reboots and suspect groups as instant events."""
    recording = doc["kind"] == "recording"
    s = doc["series"] if recording else series.build(doc["captures"])
    try:
        events = series.trace(doc["captures"], s, doc["suspects"] if recording else None,
                              doc.get("reboots", ()))
        return json.dumps(events, separators=(",", ":"), allow_nan=False) + "\n"
    except (ValueError, OverflowError) as e:
        raise Refused(2, "cannot write the trace: %s" % e)


def check_destinations(paths):
    """Refuses (status 2) destinations that cannot be written, before any capture is replayed
    and so before any of them is replaced: a folder, a missing or unwritable folder to write
    in, one file named twice."""
    seen = {}
    for option, path in paths:
        real = os.path.realpath(path)
        if real in seen:
            raise Refused(2, "cannot write %s: %s names the same file as %s" % (path, option, seen[real]))
        seen[real] = option
        folder = os.path.dirname(real)
        if os.path.isdir(real):
            raise Refused(2, "cannot write %s (%s): it is a folder" % (path, option))
        if not os.path.isdir(folder):
            raise Refused(2, "cannot write %s (%s): no such folder %s" % (path, option, folder))
        if not os.access(folder, os.W_OK | os.X_OK):
            raise Refused(2, "cannot write %s (%s): folder %s is not writable" % (path, option, folder))


def write_all(outputs):
    """Writes every (path, text) beside its final name first, then renames them all, so an
    existing file is only ever replaced by a complete one."""
    temps = []
    try:
        for path, text in outputs:
            folder = os.path.dirname(os.path.abspath(path))
            fd, temp = tempfile.mkstemp(dir=folder, prefix="." + os.path.basename(path) + ".")
            temps.append(temp)
            # mkstemp makes the file private; the page is meant to be shared like any file.
            mask = os.umask(0)
            os.umask(mask)
            os.fchmod(fd, 0o666 & ~mask)
            with os.fdopen(fd, "w", encoding="utf-8") as out:
                out.write(text)
                out.flush()
                os.fsync(out.fileno())
        for (path, _), temp in zip(outputs, temps):
            os.replace(temp, path)
            temps[temps.index(temp)] = None
    finally:
        for temp in temps:
            if temp:
                try:
                    os.unlink(temp)
                except OSError:
                    pass


def main(argv):
    ap = argparse.ArgumentParser(
        prog="report.py",
        usage="report.py --binary BINARY [-o OUT.html] [--json OUT.json] [--trace OUT.json] "
              "[--drop-unsafe] [--skip-refused] CAPTURE...",
        description="One offline page (and/or JSON) from one capture, two (before, after) or a "
                    "recording (a folder of captures, or three or more).")
    ap.add_argument("--binary", required=True, help="the quarrystat binary to replay with")
    ap.add_argument("-o", dest="html", help="write the page here")
    ap.add_argument("--json", help="write every figure of the page as JSON here")
    ap.add_argument("--trace", help="a recording's (or a pair's) series as trace counter tracks, here")
    ap.add_argument("--drop-unsafe", action="store_true",
                    help="replay captures holding unsafe entries without them")
    ap.add_argument("--skip-refused", action="store_true",
                    help="leave out a capture replay refuses instead of failing")
    ap.add_argument("captures", nargs="*", metavar="CAPTURE")
    args = ap.parse_args(argv)
    if not args.captures:
        ap.print_usage(sys.stderr)
        return 2
    if not (args.html or args.json or args.trace):
        ap.print_usage(sys.stderr)
        print("report.py: nothing to write: give -o, --json or --trace", file=sys.stderr)
        return 2
    warn = lambda text: print(text, file=sys.stderr)  # noqa: E731
    try:
        check_destinations([(o, p) for o, p in (("-o", args.html), ("--json", args.json),
                                                 ("--trace", args.trace)) if p])
        files, recording = expand(args.captures)
        for f in files:
            if not os.path.isfile(f):
                raise Refused(2, "no such capture: %s" % f)
        doc = build(files, recording, args.binary, args.drop_unsafe, args.skip_refused, warn)
        if args.trace and doc["kind"] == "capture":
            raise Refused(2, "--trace needs two captures or more (a pair or a recording): one "
                             "capture is one moment, no track")
        outputs = []
        if args.html:
            outputs.append((args.html, page.render(doc)))
        if args.json:
            outputs.append((args.json, json_text(doc)))
        if args.trace:
            outputs.append((args.trace, trace_text(doc)))
    except Refused as e:
        print("report.py: " + capturefiles.one_line(e.message), file=sys.stderr)
        return e.status
    try:
        write_all(outputs)
    except (OSError, ValueError) as e:
        print("report.py: cannot write: %s" % reporttext.shown(str(e)), file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
