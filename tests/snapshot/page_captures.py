"""Small captures for the page's tests, built from the sample device tree rather than committed
as archives: each test says in code what differs from the sample."""
import io
import os
import sys
import tarfile
import unittest

TOP = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
SAMPLE = os.path.join(TOP, "sample", "device")
sys.path.insert(0, os.path.join(TOP, "snapshot"))


def binary():
    """The built tool, or a clean skip when there is none."""
    path = os.environ.get("QUARRY_BINARY") or os.path.join(TOP, "build", "default", "tool", "quarrystat")
    if not os.access(path, os.X_OK):
        raise unittest.SkipTest("no quarrystat binary at %s (build it, or set QUARRY_BINARY)" % path)
    return path


def sample_files():
    """The sample tree as {member name: bytes}, with the debug folder under d/, and only what a
    capture holds (capture/members.txt: the sample has files the tool does not read)."""
    import members
    files = {}
    for folder, dirs, names in os.walk(SAMPLE):
        for n in names:
            path = os.path.join(folder, n)
            if os.path.islink(path) or not os.path.isfile(path):
                continue
            rel = os.path.relpath(path, SAMPLE)
            if rel.startswith("sys/kernel/debug/"):
                rel = "d/" + rel[len("sys/kernel/debug/"):]
            if members.lookup(rel, False) is None:
                continue
            with open(path, "rb") as f:
                files[rel] = f.read()
    return files


def bufinfo_table(rows):
    """rows: [(size, exporter, inode, name)] -> the kernel's debug table text."""
    out = ["", "Dma-buf Objects:", "size    \tflags   \tmode    \tcount   \texp_name\tino     \tname"]
    for size, exporter, inode, name in rows:
        out += ["%08d\t00000002\t00080007\t00000001\t%s\t%08d\t%s" % (size, exporter, inode, name or "<none>"),
                "\tAttached Devices:", "Total 0 devices attached", ""]
    out.append("Total %d objects, %d bytes" % (len(rows), sum(r[0] for r in rows)))
    return ("\n".join(out) + "\n").encode()


def write_capture(path, files, info=None):
    """files: {member name: bytes}; info: capture-info keys, or None for an older capture."""
    if info is not None:
        files = dict(files)
        files["capture-info"] = "".join("%s=%s\n" % kv for kv in info.items()).encode()
    with tarfile.open(path, "w:gz") as tar:
        for name in sorted(files):
            data = files[name]
            t = tarfile.TarInfo("./" + name)
            t.size = len(data)
            t.mode = 0o644
            tar.addfile(t, io.BytesIO(data))
    return path


def info(uptime, wall=1764000000, boot="b-1"):
    return {"format": "1", "kernel_release": "6.1.0-lab", "model": "lab board", "boot_id": boot,
            "uptime_start": "%.2f" % uptime, "wall_start": str(int(wall + uptime)),
            "uptime_end": "%.2f" % (uptime + 1), "wall_end": str(int(wall + uptime + 1))}


def add_buffer(files, inode, size, exporter, pid, fd):
    """A buffer in the sysfs statistics, held by pid through descriptor fd and mapped by no one."""
    files["sys/kernel/dmabuf/buffers/%d/size" % inode] = b"%d\n" % size
    files["sys/kernel/dmabuf/buffers/%d/exporter_name" % inode] = exporter.encode() + b"\n"
    files["proc/%d/fdinfo/%d" % (pid, fd)] = (
        "pos:\t0\nflags:\t02000002\nmnt_id:\t8\nino:\t%d\nsize:\t%d\ncount:\t1\nexp_name:\t%s\n"
        % (inode, size, exporter)).encode()


def recording(folder, count=5, reboot_at=None, cmdlines=None, leak=False):
    """A recording of count captures, 60 s apart: buffer 6 (held by pid 69) stops being mapped
    from the third capture on and stays so; exporter "leaky" holds one short-lived buffer per
    capture, 64 KB larger each time, so its unmapped bytes grow while no leaky buffer lasts.
    With reboot_at, the device reboots before that capture: the boot id changes and the boot
    clock starts again near 0 (the wall clock goes on). cmdlines: {pid: bytes} for every
    capture. With leak, pid 68 also leaks one 1 MiB buffer named "G:leak" per capture from the
    second on, each kept to the end."""
    os.makedirs(folder, exist_ok=True)
    base = sample_files()
    names = []
    for i in range(count):
        files = dict(base)
        files["proc/69/fdinfo/12"] = (
            b"pos:\t0\nflags:\t02000002\nmnt_id:\t8\nino:\t6\nsize:\t524288\ncount:\t1\nexp_name:\tsystem\n")
        if i >= 2:
            files["proc/69/maps"] = b"".join(
                line for line in base["proc/69/maps"].splitlines(True) if not line.rstrip().endswith(b" 6                                      /dmabuf:") and b" 00:07 6 " not in line)
        add_buffer(files, 200 + i, 65536 * (i + 1), "leaky", 68, 20 + i)
        leaked = list(range(300, 300 + i)) if leak else []
        for k, inode in enumerate(leaked):
            add_buffer(files, inode, 1 << 20, "system", 68, 40 + k)
        files["d/dma_buf/bufinfo"] = bufinfo_table(
            [(524288, "system", 6, "G:screenshot"), (65536 * (i + 1), "leaky", 200 + i, None)] +
            [(1 << 20, "system", inode, "G:leak") for inode in leaked])
        for pid, line in (cmdlines or {}).items():
            files["proc/%d/cmdline" % pid] = line
        when = info(1000 + 60 * i)
        if reboot_at is not None and i >= reboot_at:
            when = info(20 + 60 * (i - reboot_at), wall=1764000000 + 1000 + 60 * reboot_at + 40, boot="b-2")
        names.append(write_capture(os.path.join(folder, "capture-%04d.tar.gz" % (i + 1)), files, when))
    return names


def build_over_build(folder, model_after="lab board"):
    """Two captures of one board on two builds: modem_region 2 MB smaller (the memory table
    takes the freed 2 MB back) and a new 8 MB no-map npu_region at 0xc0000000 (the memory table
    cut where it lies). Returns the two paths."""
    os.makedirs(folder, exist_ok=True)
    before = sample_files()
    after = dict(before)
    stat = "proc/debug_ext/mem_statis/reserved_memory_stat"
    text = before[stat].decode()
    text = text.replace("modem_region: addr 0x8b800000, size 106496 KB",
                        "modem_region: addr 0x8b800000, size 104448 KB")
    text = text.replace("[fdt_no-map] gpu_region: addr 0xa0000000, size 4096 KB\n",
                        "[fdt_no-map] gpu_region: addr 0xa0000000, size 4096 KB\n"
                        "[fdt_no-map] npu_region: addr 0xc0000000, size 8192 KB\n")
    after[stat] = text.replace("fdt_no-map total: size 122880 KB", "fdt_no-map total: size 129024 KB").encode()
    memory = before["d/memblock/memory"].decode()
    memory = memory.replace("   2: 0x0000000092600000", "   2: 0x0000000091e00000..0x0000000091ffffff\n"
                            "   2: 0x0000000092600000")
    after["d/memblock/memory"] = memory.replace("0x00000000c0100000", "0x00000000c0800000").encode()
    info_before = dict(info(500), fingerprint="lab/board/1.0:user")
    info_after = dict(info(40, boot="b-2"), fingerprint="lab/board/1.1:user", model=model_after)
    return (write_capture(os.path.join(folder, "build1.tar.gz"), before, info_before),
            write_capture(os.path.join(folder, "build2.tar.gz"), after, info_after))


def check_schema(test, data):
    """Fails test unless data (a --json document) is valid by snapshot/schema/report.schema.json."""
    import json
    import jsonschema
    with open(os.path.join(TOP, "snapshot", "schema", "report.schema.json"), encoding="utf-8") as f:
        schema = json.load(f)
    errors = sorted(jsonschema.Draft202012Validator(schema).iter_errors(data), key=lambda e: list(e.path))
    test.assertEqual(["%s: %s" % ("/".join(map(str, e.absolute_path)), e.message[:200]) for e in errors], [])
