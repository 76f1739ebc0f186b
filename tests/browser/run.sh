#!/usr/bin/env bash
# The page in a real browser: builds a capture, a hostile capture, a recording (one buffer that
# rose once: a step), a recording across a reboot and one with a leak from the sample tree, makes
# their pages and that of the lab's build-over-build pair with report.py and checks them in the installed chromium (check_page.js), with the network
# refused. Needs `scripts/setup.sh browser` first (else it
# exits 77: skipped).
#   tests/browser/run.sh BINARY [SCREENSHOT.png]
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
binary=$(realpath "$1")
here=$top/tests/browser
[ -d "$here/node_modules/puppeteer-core" ] || { echo "run.sh: no puppeteer-core: run scripts/setup.sh browser; skipped" >&2; exit 77; }
command -v "${CHROMIUM:-chromium}" >/dev/null || { echo "run.sh: no chromium: run scripts/setup.sh browser; skipped" >&2; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
shot=$(realpath -m "${2:-$work/report.png}")
TOP=$top /usr/bin/python3 - "$work" <<'PY'
import os, sys
sys.path.insert(0, os.path.join(os.environ.get("TOP", "."), "tests", "snapshot"))
import page_captures as pc
work = sys.argv[1]
files = pc.sample_files()
files["d/dma_buf/bufinfo"] = pc.bufinfo_table([(1048576, "system", 1, "lab-named"), (65536, "system", 2, None),
                                               (2097152, "linux,cma", 4, "G:camera-preview"),
                                               (131072, "udmabuf", 5, None)])
pc.write_capture(os.path.join(work, "capture.tar.gz"), files, pc.info(8123.45))
files["proc/68/comm"] = b"<script>alert(1)</script>\n"
files["proc/69/comm"] = b'"><img src=x onerror=alert(2)>\n'
files["proc/68/cmdline"] = b'<img src=x onerror=alert(4)>\0"><b>x</b>\0'
pc.write_capture(os.path.join(work, "hostile.tar.gz"), files, pc.info(8200))
lines = {69: b"com.example.gallery\0--mode=preview\0"}
pc.recording(os.path.join(work, "recording"), cmdlines=lines)
pc.recording(os.path.join(work, "rebooted"), reboot_at=3, cmdlines=lines)
pc.recording(os.path.join(work, "leak"), leak=True, cmdlines={**lines, 68: b"/data/local/tmp/leak_client\0--leak\0"})
PY
for p in capture hostile; do
  /usr/bin/python3 "$top/snapshot/report.py" --binary "$binary" -o "$work/$p.html" "$work/$p.tar.gz"
done
for p in recording rebooted leak; do
  /usr/bin/python3 "$top/snapshot/report.py" --binary "$binary" -o "$work/$p.html" "$work/$p"
done
/usr/bin/python3 "$top/snapshot/report.py" --binary "$binary" -o "$work/builds.html" \
  "$top/tests/data/builds/build1.tar.gz" "$top/tests/data/builds/build2.tar.gz"
cd "$here"
timeout -k 5 150 node check_page.js "$work/capture.html" "$work/recording.html" "$work/hostile.html" "$shot" \
  "$work/builds.html" "$work/rebooted.html" "$work/leak.html"
