#!/usr/bin/python3
"""Compares two captures of one device, taken before and after a use case (compare.sh is the
command users run; see there for the lines it prints)."""
import os
import sys
import time

import board
import capturefiles
import facts as factlib
import reporttext
from reporttext import shown

USAGE = "usage: compare.sh [--drop-unsafe] BEFORE.tar.gz AFTER.tar.gz BINARY"


class Unreadable(Exception):
    """A capture whose reports cannot be read: status 2, with the one line that says why."""


def load(capture, binary, drop_unsafe):
    """The parsed reports of one capture, with their exit statuses."""
    runs = capturefiles.replay(capture, binary, drop_unsafe)
    side = {"info": capturefiles.info_of(runs),
            "memory": capturefiles.memory_ranges(runs["files"]["d/memblock/memory"])}
    try:
        side.update(capturefiles.parse_reports(runs))
    except reporttext.Malformed as e:
        raise Unreadable(f"compare: cannot read {shown(capture)}: {e}") from None
    side["status"] = {mode: runs[mode].status for mode in capturefiles.MODES}
    return side


def show(value):
    if value is None:
        return "none"
    return f"{value} KB" if isinstance(value, int) else value


def _kb(d):
    return f"{'+' if d >= 0 else '-'}{abs(d)} KB"


def delta(fact):
    return "" if fact["delta"] is None else f" ({_kb(fact['delta'])})"


def held(row):
    return shown(reporttext.owner_text(row))


def fact_lines(facts):
    """Every fact as compare prints it, one line each, grouped by report; device text escaped,
    so a name can neither break a line nor reach the terminal as a control sequence."""
    lines = []
    for _, tag in factlib.REPORTS:
        for m in facts["missing"]:
            if m["report"] == tag:
                lines.append(f"{tag}: no figures {m['side']}: {shown(m['reason'])}")
        if tag == "dmabuf":
            for b in facts["buffers"]:
                head = f"dmabuf {b['inode']} {b['change']}"
                if b["change"] == "became unmapped":
                    r = b["after"]
                    lines.append(f"{head}: {r['size']} bytes, {shown(r['exporter'])}, held by {held(r)}")
                elif b["change"] == "no longer unmapped":
                    r = b["before"]
                    lines.append(f"{head}: {r['size']} bytes, {shown(r['exporter'])}, was held by {held(r)}")
                else:
                    lines.append(f"{head}: {held(b['before'])} -> {held(b['after'])}")
        for f in facts["figures"]:
            if f["report"] == tag:
                lines.append(f"{tag} {shown(f['name'])}: {show(f['before'])} -> "
                             f"{show(f['after'])}{delta(f)}")
        if tag == "reserved":
            lines += region_lines(facts)
    return lines


def _place(at):
    """ "0x8b800000, 106496 KB", or "106496 KB" for a figure the report does not locate."""
    size = f"{at['size_kb']} KB"
    return size if at["start"] is None else f"{at['start']}, {size}"


def _ranges(spans):
    # As /d/memblock/memory prints them: first and last byte.
    return ", ".join(f"{a}..0x{int(z, 16) - 1:x}" for a, z in spans)


def region_lines(facts):
    """One line per region of -s that changed between the builds, then one per change of the
    memory table. A region the report locates is a "region", a figure it does not a "figure"."""
    lines = []
    for r in facts.get("regions") or []:
        if r["change"] == "unchanged":
            continue
        b, a = r["before"], r["after"]
        what = "region" if (a or b)["start"] is not None else "figure"
        head = f"reserved {what} [{shown(r['kind'])}] {shown(r['name'])}"
        if r["printed"]:
            head += f" #{r['occurrence']}"
        change = r["change"]
        if change == "added":
            text = f"{head} added: {_place(a)}"
        elif change == "removed":
            text = f"{head} removed: {_place(b)}"
        elif change == "resized":
            text = f"{head} resized: {b['size_kb']} KB -> {a['size_kb']} KB ({_kb(r['delta_kb'])})"
        elif change == "moved":
            text = f"{head} moved: {b['start']} -> {a['start']}, {a['size_kb']} KB"
        else:
            text = f"{head} moved and resized: {_place(b)} -> {_place(a)} ({_kb(r['delta_kb'])})"
        if r["printed"]:
            p = r["printed"]
            text += (f" (the name is printed {p['before']} times before, {p['after']} after; "
                     "matched in order)")
        lines.append(text)
    for m in facts.get("memory") or []:
        if m["change"] == "added":
            text = _ranges(m["after"])
        elif m["change"] == "removed":
            text = _ranges(m["before"])
        else:
            text = f"{_ranges(m['before'])} -> {_ranges(m['after'])}"
        lines.append(f"reserved memory table {m['change']}: {text} ({_kb(m['delta_kb'])})")
    return lines


def when(info):
    """When a capture was taken, from its metadata: wall clock (UTC) and boot clock."""
    parts = []
    try:
        parts.append(time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(int(info["wall_start"]))))
    except (KeyError, ValueError, OverflowError, OSError):
        pass
    if info.get("uptime_start"):
        parts.append(f"uptime {info['uptime_start']} s")
    return ", ".join(parts) or "time unknown"


def device(info):
    model = info.get("model") or "unknown model"
    fingerprint = f" ({info['fingerprint']})" if info.get("fingerprint") else ""
    return f"{model}{fingerprint}"


def board_lines(a, b, memory=(None, None)):
    """Whether two captures with metadata are of one board (board.py's rule): a line naming
    both builds when the fingerprint changed, a warning on standard error when the models
    differ; a kernel change is warned about only when the build stayed the same."""
    lines = []
    other = board.differ(a, memory[0], b, memory[1])
    if other:
        print(f"compare: warning: the captures come from different devices: {shown(other)}",
              file=sys.stderr)
    elif board.build(a) != board.build(b):
        lines.append(shown(f"compare: one board ({board.model(a) or 'unknown model'}), two builds: "
                           f"{board.build(a) or 'unknown'} -> {board.build(b) or 'unknown'}"))
    if (a.get("kernel_release"), a.get("kernel_version")) != \
            (b.get("kernel_release"), b.get("kernel_version")) and \
            (other or board.build(a) == board.build(b)):
        print("compare: warning: the captures come from different kernels: "
              f"{shown(a.get('kernel_release', ''))} and "
              f"{shown(b.get('kernel_release', ''))}", file=sys.stderr)
    return lines


def header(names, infos, sides_memory=(None, None)):
    """The header lines: which capture is which, and, for captures that carry metadata, the
    device, kernel and time of each; warnings on standard error when they differ."""
    lines = [f"compare: before {shown(names[0])}, after {shown(names[1])}"]
    for side, info in zip(factlib.SIDES, infos):
        if info:
            lines.append(shown(f"compare: {side}: {device(info)}, kernel "
                               f"{info.get('kernel_release') or 'unknown'}, {when(info)}"))
    a, b = infos
    # Without metadata the banks of the memory tables still tell two boards apart.
    lines += board_lines(a or {}, b or {}, sides_memory)
    if all(infos):
        if a.get("boot_id") and b.get("boot_id") and a["boot_id"] != b["boot_id"]:
            lines.append("compare: the device rebooted between the captures (their boot ids "
                         "differ): every buffer and counter started afresh")
    return lines


def main(argv):
    drop_unsafe = bool(argv) and argv[0] == "--drop-unsafe"
    if drop_unsafe:
        argv = argv[1:]
    if len(argv) != 3:
        print(USAGE, file=sys.stderr)
        return 2
    before, after, binary = argv
    try:
        capturefiles.check_binary(binary)
    except capturefiles.ReplayError as e:
        sys.stderr.write(e.message)
        return e.status
    sides = []
    for capture in (before, after):
        try:
            sides.append(load(capture, binary, drop_unsafe))
        except capturefiles.ReplayError as e:
            # replay.sh names the capture by its real path; the line names it as given.
            reason = capturefiles.refusal_reason(e.message, os.path.realpath(capture))
            print(f"compare: cannot replay {shown(capture)} (status {e.status}): {reason}",
                  file=sys.stderr)
            return e.status
        except Unreadable as e:
            print(e, file=sys.stderr)
            return 2
    infos = [side["info"] for side in sides]
    out = header((before, after), infos, [side["memory"] for side in sides]) + \
        fact_lines(factlib.compare(*sides))
    sys.stdout.write("".join(line + "\n" for line in out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
