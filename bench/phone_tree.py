"""gen_tree's device tree made a phone-scale capture's tree, slim as the capture program writes
one: the sample's memory files and debugfs tables are added, what capture/members.txt does not
name is removed (replay refuses a capture holding it), each maps file keeps only its /dmabuf
lines, each process gets a command line, and only the fdinfo files of DMA-BUF descriptors stay.
The benchmarks (bench/fleet.sh, bench/report.sh) add what their captures differ by, with
held_buffer()."""
import os
import shutil
import sys


def slim(top, tree, cmdline):
    """Makes the tree at tree (gen_tree's, in the checkout at top) a capture's; cmdline(n, pid)
    gives the command line of the n-th process. Returns the pids in order."""
    sample = os.path.join(top, "sample", "device")
    for f in ("proc/meminfo", "proc/iomem", "proc/debug_ext"):
        src, dst = os.path.join(sample, f), os.path.join(tree, f)
        if os.path.isdir(src):
            shutil.copytree(src, dst, dirs_exist_ok=True)
        else:
            shutil.copyfile(src, dst)
    shutil.copytree(os.path.join(sample, "sys", "kernel", "debug"), os.path.join(tree, "d"))
    sys.path.insert(0, os.path.join(top, "snapshot"))
    import members
    for folder, dirs, files in os.walk(tree, topdown=False):
        rel = os.path.relpath(folder, tree)
        for name in files + dirs:
            if members.lookup(os.path.normpath(os.path.join(rel, name)), name in dirs) is None:
                path = os.path.join(folder, name)
                shutil.rmtree(path) if name in dirs else os.unlink(path)
    pids = sorted(int(p) for p in os.listdir(os.path.join(tree, "proc")) if p.isdigit())
    for n, pid in enumerate(pids):
        folder = os.path.join(tree, "proc", str(pid))
        # The lines whose name (the sixth column) begins with /dmabuf.
        with open(os.path.join(folder, "maps"), "rb") as f:
            lines = f.readlines()
        with open(os.path.join(folder, "maps"), "wb") as f:
            f.writelines(l for l in lines if (l.split(None, 5)[5:] or [b""])[0].startswith(b"/dmabuf"))
        with open(os.path.join(folder, "cmdline"), "wb") as f:
            f.write(cmdline(n, pid))
        fdinfo = os.path.join(folder, "fdinfo")
        for fd in os.listdir(fdinfo):
            with open(os.path.join(fdinfo, fd), "rb") as f:
                if b"exp_name:" not in f.read():
                    os.unlink(os.path.join(fdinfo, fd))
    return pids


def held_buffer(files, inode, size, exporter, pid, fd):
    """A buffer in the sysfs statistics, held by pid through descriptor fd and mapped by no one:
    its three files, added to files (name in the tree: bytes)."""
    files["sys/kernel/dmabuf/buffers/%d/size" % inode] = b"%d\n" % size
    files["sys/kernel/dmabuf/buffers/%d/exporter_name" % inode] = exporter.encode() + b"\n"
    files["proc/%d/fdinfo/%d" % (pid, fd)] = (
        "pos:\t0\nflags:\t02000002\nmnt_id:\t8\nino:\t%d\nsize:\t%d\ncount:\t1\nexp_name:\t%s\n"
        % (inode, size, exporter)).encode()


def write(root, files):
    """files (name in the tree: bytes) written under root."""
    for name, data in files.items():
        path = os.path.join(root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)
