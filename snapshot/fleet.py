#!/usr/bin/python3
"""Exports many captures as four tables of newline-delimited JSON, for a query engine.

  fleet.py --binary BINARY -o OUT [-j N] CAPTURE_OR_FOLDER...

A folder stands for every capture in it (every *.tar.gz or *.tgz, in every folder below it,
hidden files left out). Each capture is replayed once by replay.sh (its checks, refusals and
limits) and its three reports are read by reporttext.py; its rows go into OUT/captures.jsonl,
buffers.jsonl, regions.jsonl and counters.jsonl. The tables and their columns are described in
README's "Fleets" section and in snapshot/schema/fleet.schema.json.

Captures are keyed by their content (the archive's sha256). The rows of each capture are kept in
OUT/.cache/KEY.json, so a second run over the same captures replays none of them and writes the
same tables; OUT/.cache/files.json remembers each file's key by its size, time and inode, so
that run does not even read the archives again. Each table is written beside its name and
renamed over it only when all four are complete: a run that is stopped (TERM, INT) leaves the
tables of the last complete run, and the captures it finished are not replayed again.

Exit status: 0 when every capture was replayed; 1 when the tables were written but replay
refused at least one capture (its captures row says why); 2 for a usage error, a binary that
cannot run here, no capture to export or tables that cannot be written; 128 + the signal's
number when stopped.
"""
import argparse
import fcntl
import hashlib
import json
import multiprocessing
import os
import shutil
import signal
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bufinfo  # noqa: E402
import capturefiles  # noqa: E402
import jsondoc  # noqa: E402
import report  # noqa: E402
import reporttext  # noqa: E402
import series  # noqa: E402

TABLES = ("captures", "buffers", "regions", "counters")
# The rows a capture gives depend on this file as well as on the capture and the binary: a
# change to any row's shape bumps this, and every capture is replayed once more.
CACHE_VERSION = 1
# replay.sh's statuses for a capture it did not replay; any other is "failed". Status 5 is the
# refusal of a report whose output passes replay's bound, where replay has that bound.
REFUSALS = {2: "unreadable", 3: "refused", 4: "truncated", 5: "oversized", 124: "timed-out"}
# A refusal that a later run would meet again (it follows from the archive's bytes) is kept
# with the rows; one that may pass next time (out of time on a busy machine, a capture that
# could not be read) is tried again.
LASTING = ("refused", "truncated", "oversized")
PROGRESS_SECONDS = 2.0


class Stopped(Exception):
    def __init__(self, signum):
        super().__init__(signum)
        self.signum = signum


class Usage(Exception):
    pass


def dumps(row):
    # Compact, UTF-8 as it is (device text was made valid UTF-8 by report.clean), one line.
    return json.dumps(row, ensure_ascii=False, separators=(",", ":"))


def sha256_of(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        while True:
            block = f.read(1 << 20)
            if not block:
                return h.hexdigest()
            h.update(block)


def build_of(fingerprint):
    """The build a fingerprint names: "brand/product/device:RELEASE/ID/INCREMENTAL:type/tags"
    gives "RELEASE/ID/INCREMENTAL"; a fingerprint of another shape is its own build."""
    if not fingerprint:
        return None
    parts = fingerprint.split(":")
    return ":".join(parts[1:-1]) if len(parts) >= 3 else fingerprint


def identity(key, info):
    """The columns every row carries: the capture's key and who and when it was."""
    t = series.capture_time(info)
    fingerprint = info.get("fingerprint") or None
    return {"capture": key, "model": info.get("model") or None, "fingerprint": fingerprint,
            "build": build_of(fingerprint), "kernel_release": info.get("kernel_release") or None,
            "boot_id": t["boot_id"], "uptime_start_s": t["uptime"], "wall_start_s": t["wall"]}


def command_lines(runs):
    """{"PID": [arguments]} of the processes whose proc/PID/cmdline the capture holds, keyed as
    the report's JSON keys them, from what replay hands out as runs["cmdlines"] ({pid: the
    file's bytes}); a replay that hands out none leaves every command line unknown (null)."""
    out = {}
    for pid, data in (runs.get("cmdlines") or {}).items():
        args = capturefiles.split_cmdline(data)
        if args:
            out[str(pid)] = args
    return out


# Every captures row has every column, null where its capture cannot say, so that an engine
# reading a sample of rows sees them all.
CAPTURE_COLUMNS = (
    "archive_bytes", "status", "replay_status", "reason", "kernel_version", "binary_version",
    "capture_format", "uptime_end_s", "wall_end_s", "u_status", "n_status", "s_status",
    "dmabuf_state", "unmapped_buffers", "unmapped_total_bytes", "kernel_total_bytes",
    "bufinfo_present", "messages")


def capture_row(ident, **columns):
    row = dict(ident, **dict.fromkeys(CAPTURE_COLUMNS))
    row["messages"] = []
    row.update(columns)
    return row


def refused_rows(key, path, error):
    """A capture replay would not replay: its captures row alone."""
    capture = capture_row(
        identity(key, {}), archive_bytes=_size(path), status=REFUSALS.get(error.status, "failed"),
        replay_status=error.status,
        reason=report.clean(report.unhosted(error.message, path).strip()) or "(no message)")
    return capture, [], [], []


def _size(path):
    try:
        return os.stat(path).st_size
    except OSError:
        return None


def capture_rows(key, path, binary):
    """Replays one capture: (captures row without its file, buffers, regions, counters)."""
    try:
        runs = capturefiles.replay(path, binary)
    except capturefiles.ReplayError as e:
        return refused_rows(key, path, e)
    info = {k: v[:report.INFO_VALUE_LIMIT] for k, v in capturefiles.info_of(runs).items()}
    ident = identity(key, info)
    try:
        parsed = capturefiles.parse_reports(runs)
    except reporttext.Malformed as e:
        # As report.py and compare say it: status 2, the capture cannot be used.
        return refused_rows(key, path, capturefiles.ReplayError(2, str(e)))
    u, n, s = parsed["u"], parsed["n"], parsed["s"]
    table = runs["files"][report.BUFINFO]
    names = bufinfo.parse(table)["names"]
    cmdlines = command_lines(runs)
    t_end = series.capture_time({"uptime_start": info.get("uptime_end"),
                                 "wall_start": info.get("wall_end")})
    messages = []
    for mode in ("replay", "u", "n", "s"):
        for line in report.unhosted(runs[mode].stderr, path).splitlines()[:report.MESSAGE_LINES]:
            messages.append({"report": mode, "text": line})
    capture = capture_row(
        ident, archive_bytes=_size(path), status="replayed", replay_status=0,
        kernel_version=info.get("kernel_version") or None,
        binary_version=info.get("binary_version") or None,
        capture_format=info.get("format") or None,
        uptime_end_s=t_end["uptime"], wall_end_s=t_end["wall"],
        u_status=runs["u"].status, n_status=runs["n"].status, s_status=runs["s"].status,
        dmabuf_state=u["state"],
        unmapped_buffers=len(u["rows"]) if u["state"] == "table" else None,
        unmapped_total_bytes=series.kb_bytes(u["total_kb"]),
        kernel_total_bytes=series.kb_bytes(n["total_kb"]),
        bufinfo_present=table is not None, messages=messages)
    buffers = [dict(ident, **{
        "inode": r["inode"], "size_bytes": r["size"], "exporter": r["exporter"],
        "name": names.get(r["inode"]),
        "holders": jsondoc.holders(r["owners"], cmdlines)})
        for r in u["rows"]]
    regions = []
    for i, r in enumerate(s["regions"]):
        size = r["size_kb"] * 1024
        regions.append(dict(ident, **{
            "position": i, "name": r["name"], "kind": r["kind"], "start": jsondoc.hex_address(r["start"]),
            "end": jsondoc.hex_address(r["start"] + size), "size_bytes": size}))
    figures = [(c["name"], c["kb"], None, None) for c in n["counters"]]
    if n["unmapped"] is not None:
        m = n["unmapped"]
        figures.append((m["source"] + " unmapped", m["kb"], m["source"], m["reason"]))
    if n["total_kb"] is not None:
        figures.append(("Kernel Memory total size", n["total_kb"], None, None))
    counters = [dict(ident, **{"position": i, "counter": name, "bytes": series.kb_bytes(kb),
                               "source": source, "unknown_reason": reason})
                for i, (name, kb, source, reason) in enumerate(figures)]
    return report.clean_tree((capture, buffers, regions, counters))


# What each worker process knows: set once by _init, so each task carries only its capture.
_job = {}


def _init(binary, binary_key, cache, scratch):
    # Each worker leads a process group of its own, so a Ctrl-C at the terminal reaches the
    # main process only, which stops the workers in order.
    os.setpgrp()
    _job.update(binary=binary, binary_key=binary_key, cache=cache)
    # A replay stopped midway cannot remove its own folders; they are made in the run's
    # scratch folder, which the run removes however it ends.
    os.environ["TMPDIR"] = tempfile.tempdir = scratch

    def stop(signum, frame):
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
        _kill_below(os.getpid())
        raise SystemExit(128 + signum)
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, signal.SIG_IGN)


def _kill_below(root):
    """Kills every process below root. replay.sh runs its bounded steps under timeout(1), which
    puts each in a process group of its own, so the worker's group does not reach them; and an
    unpacking left running after replay has removed its mount point writes onto the disk below
    it. A second pass takes what was started while the first was killing."""
    for _ in range(2):
        children = {}
        for name in os.listdir("/proc"):
            if not name.isdigit():
                continue
            try:
                with open("/proc/%s/stat" % name, "rb") as f:
                    stat = f.read()
            except OSError:
                continue
            # "pid (comm) state ppid ...": comm may hold blanks and parentheses.
            fields = stat[stat.rfind(b")") + 2:].split()
            if len(fields) > 1:
                children.setdefault(int(fields[1]), []).append(int(name))
        below, todo = [], [root]
        while todo:
            for pid in children.get(todo.pop(), ()):
                below.append(pid)
                todo.append(pid)
        for pid in below:
            try:
                os.kill(pid, signal.SIGKILL)
            except OSError:
                pass


def cache_path(cache, key):
    return os.path.join(cache, key + ".json")


def cached_status(cache, key, binary_key):
    """The status of a capture's kept rows, or None when there are none for this binary."""
    try:
        with open(cache_path(cache, key), "rb") as f:
            head = json.loads(f.readline())
    except (OSError, ValueError):
        return None
    if head.get("version") != CACHE_VERSION or head.get("binary") != binary_key:
        return None
    return head["capture"]["status"]


def write_cache(cache, key, binary_key, rows):
    capture, buffers, regions, counters = rows
    head = {"version": CACHE_VERSION, "binary": binary_key, "capture": capture,
            "counts": [len(buffers), len(regions), len(counters)]}
    write_atomic(cache_path(cache, key), (dumps(row) + "\n" for row in [head] + buffers + regions + counters))


def _work(task):
    """One capture in a worker: its key, then its rows from the cache or from a replay.
    Returns (index, key, stamp, status, replayed, row): replayed is True after a replay, False
    for rows kept by an earlier run, None for a file that could not be read; row is the
    captures row of a refusal that is not kept (see LASTING), else None."""
    index, path, key = task
    stamp = _stamp(path)
    if key is None:
        try:
            key = sha256_of(path)
        except OSError as e:
            error = capturefiles.ReplayError(2, "cannot read %s: %s" % (path, e.strerror))
            row = refused_rows(None, path, error)[0]
            return index, None, None, row["status"], None, row
    status = cached_status(_job["cache"], key, _job["binary_key"])
    if status is not None:
        return index, key, stamp, status, False, None
    rows = capture_rows(key, path, _job["binary"])
    status = rows[0]["status"]
    if status == "replayed" or status in LASTING:
        write_cache(_job["cache"], key, _job["binary_key"], rows)
        return index, key, stamp, status, True, None
    return index, key, stamp, status, True, rows[0]


def _stamp(path):
    try:
        st = os.stat(path)
    except OSError:
        return None
    return [st.st_size, st.st_mtime_ns, st.st_ino, st.st_dev]


def find_captures(names, out):
    """The captures named on the command line, a folder standing for every capture below it,
    in a stable order (names sorted within each folder); the export's own folder is skipped."""
    found = []
    skip = os.path.realpath(out)
    for name in names:
        if os.path.isdir(name):
            for folder, dirs, files in os.walk(name):
                dirs[:] = sorted(d for d in dirs if not d.startswith(".")
                                 and os.path.realpath(os.path.join(folder, d)) != skip)
                for f in sorted(files):
                    if not f.startswith(".") and f.endswith((".tar.gz", ".tgz")):
                        found.append(os.path.join(folder, f))
        elif os.path.isfile(name):
            found.append(name)
        else:
            raise Usage("no such capture or folder: %s" % reporttext.shown(name))
    return found


class Progress:
    """Progress on standard error: captures done, refused, rate, time left."""

    def __init__(self, total, stream):
        self.total, self.stream = total, stream
        self.done = self.refused = self.replayed = self.kept = 0
        self.start = self.last = time.monotonic()

    def count(self, status, replayed):
        """replayed: True after a replay, False for rows kept by an earlier run, None else."""
        self.done += 1
        self.refused += status != "replayed"
        self.replayed += replayed is True
        self.kept += replayed is False
        now = time.monotonic()
        if now - self.last >= PROGRESS_SECONDS and self.done < self.total:
            self.last = now
            print("fleet: %s" % self.line(now), file=self.stream, flush=True)

    def line(self, now):
        text = "%d/%d done, %d refused" % (self.done, self.total, self.refused)
        spent = now - self.start
        if self.replayed and spent > 0:
            rate = self.replayed / spent
            left = (self.total - self.done) / rate
            text += ", %.2f captures/s, about %s left" % (rate, duration(left))
        return text


def duration(seconds):
    seconds = int(round(seconds))
    if seconds < 60:
        return "%d s" % seconds
    return "%d min %d s" % (seconds // 60, seconds % 60)


def load_index(path):
    try:
        with open(path, encoding="utf-8") as f:
            index = json.load(f)
        return index if isinstance(index, dict) else {}
    except (OSError, ValueError):
        return {}


def write_atomic(path, lines):
    """Writes lines (str) beside path first and renames the file over path. The name in between,
    ".NAME.*.tmp", is one the next run removes when a stopped run leaves it."""
    fd, temp = tempfile.mkstemp(dir=os.path.dirname(path), prefix="." + os.path.basename(path) + ".",
                                suffix=".tmp")
    try:
        with os.fdopen(fd, "w", encoding="utf-8") as f:
            f.writelines(lines)
        os.replace(temp, path)
    except BaseException:
        try:
            os.unlink(temp)
        except OSError:
            pass
        raise


def assemble(out, cache, entries):
    """Writes the four tables in the order of entries [(key, file, row)]: a capture's rows come
    from the cache, or row is its captures row alone. Each table is written beside its name
    first and renamed over the old one only when all four are complete."""
    temps = {}
    try:
        files = {}
        for t in TABLES:
            fd, temps[t] = tempfile.mkstemp(dir=out, prefix=".%s.jsonl." % t)
            # The tables are meant to be handed on like any file (mkstemp makes them private).
            mask = os.umask(0)
            os.umask(mask)
            os.fchmod(fd, 0o666 & ~mask)
            files[t] = os.fdopen(fd, "w", encoding="utf-8")
        for key, name, row in entries:
            if row is not None:
                files["captures"].write(dumps(_with_file(row, name)) + "\n")
                continue
            with open(cache_path(cache, key), encoding="utf-8") as f:
                head = json.loads(f.readline())
                files["captures"].write(dumps(_with_file(head["capture"], name)) + "\n")
                for t, count in zip(TABLES[1:], head["counts"]):
                    for _ in range(count):
                        files[t].write(f.readline())
        for f in files.values():
            f.flush()
            os.fsync(f.fileno())
            f.close()
        # The four renames are not cut short by a stop: the tables stay one export.
        old = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGINT})
        try:
            for t in TABLES:
                os.replace(temps[t], os.path.join(out, t + ".jsonl"))
                temps[t] = None
        finally:
            signal.pthread_sigmask(signal.SIG_SETMASK, old)
    finally:
        for temp in temps.values():
            if temp:
                try:
                    os.unlink(temp)
                except OSError:
                    pass


def _with_file(row, name):
    # The file is the name the capture had on this run's command line; the key is its content.
    return dict({"capture": row["capture"], "file": report.clean(name)},
                **{k: v for k, v in row.items() if k != "capture"})


def export(binary, out, names, jobs, stream):
    """The whole run; returns the exit status."""
    paths = find_captures(names, out)
    if not paths:
        raise Usage("no capture found in %s" % " ".join(reporttext.shown(n) for n in names))
    cache = os.path.join(out, ".cache")
    os.makedirs(cache, exist_ok=True)
    with open(os.path.join(cache, "lock"), "w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            raise Usage("another run is exporting into %s" % reporttext.shown(out))
        return _export(binary, out, cache, paths, jobs, stream)


def _export(binary, out, cache, paths, jobs, stream):
    for f in os.listdir(cache):
        if f.startswith(".") and f.endswith(".tmp"):  # left by a stopped run
            os.unlink(os.path.join(cache, f))
    binary_key = sha256_of(binary)
    index_path = os.path.join(cache, "files.json")
    index = load_index(index_path)
    done = [None] * len(paths)  # (key, stamp, status, row) per capture
    tasks = []
    progress = Progress(len(paths), stream)
    for i, p in enumerate(paths):
        stamp = _stamp(p)
        known = index.get(os.path.realpath(p))
        key = known[-1] if isinstance(known, list) and stamp and known[:-1] == stamp else None
        status = cached_status(cache, key, binary_key) if key else None
        if status is None:
            tasks.append((i, p, key))
            continue
        done[i] = (key, stamp, status, None)
        progress.count(status, False)
    if tasks:
        scratch = tempfile.mkdtemp(prefix="quarry-fleet.")
        try:
            pool = multiprocessing.Pool(min(jobs, len(tasks)), _init, (binary, binary_key, cache, scratch))
            try:
                for i, key, stamp, status, replayed, row in pool.imap_unordered(_work, tasks):
                    done[i] = (key, stamp, status, row)
                    progress.count(status, replayed)
                pool.close()
            except BaseException:
                pool.terminate()
                raise
            finally:
                pool.join()
        finally:
            shutil.rmtree(scratch, ignore_errors=True)
    write_atomic(index_path, [json.dumps(
        {os.path.realpath(p): d[1] + [d[0]] for p, d in zip(paths, done) if d[0] and d[1]},
        sort_keys=True)])
    # One row per capture: the same archive under a second name is the first name's row.
    entries, seen = [], set()
    for p, (key, stamp, status, row) in zip(paths, done):
        if key is not None and key in seen:
            continue
        seen.add(key)
        entries.append((key, p, row))
    assemble(out, cache, entries)
    refused = sum(1 for d in done if d[2] != "replayed")
    print("fleet: %d captures (%d replayed now, %d from earlier runs, %d refused) in %s; "
          "tables in %s" % (len(paths), progress.replayed, progress.kept, refused,
                            duration(time.monotonic() - progress.start), reporttext.shown(out)),
          file=stream, flush=True)
    return 1 if refused else 0


def main(argv):
    ap = argparse.ArgumentParser(
        prog="fleet.py",
        usage="fleet.py --binary BINARY -o OUT [-j N] CAPTURE_OR_FOLDER...",
        description="Exports captures to JSON-lines tables (captures, buffers, regions, "
                    "counters) in OUT; a folder stands for every capture in it.")
    ap.add_argument("--binary", required=True, help="the quarrystat binary to replay with")
    ap.add_argument("-o", dest="out", required=True, help="the folder of the tables")
    ap.add_argument("-j", dest="jobs", type=int, default=len(os.sched_getaffinity(0)),
                    help="captures replayed at once (default: the cores this may run on)")
    ap.add_argument("captures", nargs="+", metavar="CAPTURE_OR_FOLDER")
    args = ap.parse_args(argv)
    if args.jobs < 1:
        ap.error("-j needs a number of processes, 1 or more")

    def stop(signum, frame):
        raise Stopped(signum)
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    try:
        capturefiles.check_binary(args.binary)
        os.makedirs(args.out, exist_ok=True)
        return export(args.binary, args.out, args.captures, args.jobs, sys.stderr)
    except capturefiles.ReplayError as e:
        print("fleet.py: " + capturefiles.one_line(e.message), file=sys.stderr)
        return 2
    except Usage as e:
        print("fleet.py: %s" % e, file=sys.stderr)
        return 2
    except OSError as e:
        print("fleet.py: %s" % reporttext.shown(str(e)), file=sys.stderr)
        return 2
    except Stopped as e:
        print("fleet.py: stopped; the tables in %s are those of the last complete run"
              % reporttext.shown(args.out), file=sys.stderr)
        return 128 + e.signum


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
