#!/usr/bin/python3
"""Compares two captures of one device, taken before and after a use case (compare.sh is the
command users run; see there for the lines it prints)."""
import sys
import time

import capturefiles
import facts as factlib
import reporttext
from reporttext import shown

USAGE = "usage: compare.sh [--drop-unsafe] BEFORE.tar.gz AFTER.tar.gz BINARY"
TAGS = dict(factlib.REPORTS)


class Unreadable(Exception):
    """A capture whose reports cannot be read: status 2, with the one line that says why."""


def load(capture, binary, drop_unsafe):
    """The parsed reports of one capture, with their exit statuses."""
    runs = capturefiles.replay(capture, binary, drop_unsafe)
    side = {"status": {}, "info": capturefiles.info_of(runs)}
    for mode in capturefiles.MODES:
        try:
            side[mode] = reporttext.PARSERS[mode](runs[mode].stdout)
        except reporttext.Malformed as e:
            raise Unreadable(f"compare: cannot read {shown(capture)}: its -{mode} report is "
                             f"malformed: {e}") from None
        side["status"][mode] = runs[mode].status
    return side


def show(value):
    if value is None:
        return "none"
    return f"{value} KB" if isinstance(value, int) else value


def delta(fact):
    d = fact["delta"]
    return "" if d is None else f" ({'+' if d >= 0 else '-'}{abs(d)} KB)"


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


def header(names, infos):
    """The header lines: which capture is which, and, for captures that carry metadata, the
    device, kernel and time of each; warnings on standard error when they differ."""
    lines = [f"compare: before {shown(names[0])}, after {shown(names[1])}"]
    for side, info in zip(factlib.SIDES, infos):
        if info:
            lines.append(shown(f"compare: {side}: {device(info)}, kernel "
                               f"{info.get('kernel_release') or 'unknown'}, {when(info)}"))
    if all(infos):
        a, b = infos
        if (a.get("model"), a.get("fingerprint")) != (b.get("model"), b.get("fingerprint")):
            print("compare: warning: the captures come from different devices: "
                  f"{shown(device(a))} and {shown(device(b))}", file=sys.stderr)
        if (a.get("kernel_release"), a.get("kernel_version")) != \
                (b.get("kernel_release"), b.get("kernel_version")):
            print("compare: warning: the captures come from different kernels: "
                  f"{shown(a.get('kernel_release', ''))} and "
                  f"{shown(b.get('kernel_release', ''))}", file=sys.stderr)
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
            sys.stderr.write(e.message)
            print(f"compare: cannot replay {shown(capture)}", file=sys.stderr)
            return e.status
        except Unreadable as e:
            print(e, file=sys.stderr)
            return 2
    infos = [side["info"] for side in sides]
    out = header((before, after), infos) + fact_lines(factlib.compare(*sides))
    sys.stdout.write("".join(line + "\n" for line in out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
