"""A small fleet of captures made from the sample device, for fleet.py's tests: what differs
between the captures is said here in code, so each expected answer can be worked out from it.

Two models (alpha, beta) on two builds (B1, B2), two devices each. Build B2 grows gpu_region
from 4 MB to 8 MB, and on B2 a process "leaker" (pid 70) holds buffers that nothing maps:
LEAKS[model] MiB on each of the model's two B2 devices. One more capture is cut short.
"""
import os

import page_captures as pc

MODELS = ("alpha", "beta")
BUILDS = ("B1", "B2")
# MiB leaked per B2 device of each model, one 1 MiB buffer each.
LEAKS = {"alpha": (3, 5), "beta": (2, 0)}
BASE_KERNEL_KB = 7884  # the sample's "Kernel Memory total size"
GPU_KB = {"B1": 4096, "B2": 8192}


def fingerprint(model, build):
    return "acme/%s/%s:15/%s/1:user/release-keys" % (model, model, build)


def build_name(build):
    return "15/%s/1" % build


def device(model, build, n, uptime):
    """The files of one capture: the sample with this build's regions and this device's leaks."""
    files = pc.sample_files()
    stat = "proc/debug_ext/mem_statis/reserved_memory_stat"
    files[stat] = files[stat].replace(b"gpu_region: addr 0xa0000000, size 4096 KB",
                                      b"gpu_region: addr 0xa0000000, size %d KB" % GPU_KB[build])
    leaked = LEAKS[model][n] if build == "B2" else 0
    if leaked:
        files["proc/70/comm"] = b"leaker\n"
        files["proc/70/maps"] = b""
        for k in range(leaked):
            pc.add_buffer(files, 500 + k, 1 << 20, "system", 70, 10 + k)
    info = pc.info(uptime, boot="%s-%s-%d" % (model, build, n))
    info.update(model=model, fingerprint=fingerprint(model, build))
    return files, info


def make(folder):
    """Writes the fleet under folder (one folder per model); returns {name: path}, the cut
    capture as "truncated"."""
    out = {}
    for m in MODELS:
        os.makedirs(os.path.join(folder, m), exist_ok=True)
        for b in BUILDS:
            for n in range(2):
                files, info = device(m, b, n, 1000 + 100 * n)
                name = "%s-%s-%d" % (m, b, n)
                out[name] = pc.write_capture(os.path.join(folder, m, name + ".tar.gz"), files, info)
    with open(out["alpha-B1-0"], "rb") as f:
        data = f.read()
    out["truncated"] = os.path.join(folder, "beta", "cut.tar.gz")
    with open(out["truncated"], "wb") as f:
        f.write(data[:len(data) // 2])
    return out


def kernel_kb(model, build, n):
    """-n's total of a device: the sample's, plus what it leaked."""
    return BASE_KERNEL_KB + (LEAKS[model][n] * 1024 if build == "B2" else 0)
