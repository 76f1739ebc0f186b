"""report.py end to end on small captures (the built tool replays them), and the page's
drawing of what the tool could not say or did not add up."""
import html
import json
import os
import re
import subprocess
import sys
import tarfile
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import page_captures as pc  # noqa: E402
import page  # noqa: E402

REPORT = os.path.join(pc.TOP, "snapshot", "report.py")
PAIR = os.path.join(pc.TOP, "tests", "data", "pair")


def report(*args):
    p = subprocess.run(["/usr/bin/python3", REPORT, "--binary", pc.binary()] + list(args),
                       capture_output=True, text=True, timeout=600)
    return p.returncode, p.stderr


class Page(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.work = self.dir.name
        self.addCleanup(self.dir.cleanup)

    def path(self, name):
        return os.path.join(self.work, name)

    def test_one_capture_self_contained_with_device_text_as_text(self):
        files = pc.sample_files()
        files["proc/68/comm"] = b"<script>alert(1)</script>\n"
        files["proc/69/comm"] = b'"><img src=x onerror=alert(2)>\x07\n'
        files["d/dma_buf/bufinfo"] = pc.bufinfo_table([(131072, "udmabuf", 5, "G:<b>screenshot</b>")])
        files["proc/68/cmdline"] = b"<script>alert(3)</script>\0\x1b[31m\xff\0"
        files["proc/69/cmdline"] = b"\0\0"  # a process exiting, or a kernel thread: no line
        cap = pc.write_capture(self.path("c.tar.gz"), files, pc.info(8123.45))
        status, err = report("-o", self.path("p.html"), "--json", self.path("p.json"), cap)
        self.assertEqual(status, 0, err)
        with open(self.path("p.html"), encoding="utf-8") as f:
            doc = f.read()
        # Nothing outside the file: no URL, no external script, style sheet or font.
        self.assertNotRegex(doc, r"(?i)<[^>]*\s(src|href)\s*=|<link|@import|url\(")
        self.assertEqual(len(re.findall(r"<script", doc)), 1)
        self.assertIn("&lt;script&gt;alert(1)&lt;/script&gt;", doc)
        self.assertIn("&quot;&gt;&lt;img src=x onerror=alert(2)&gt;\\x07", doc)
        self.assertNotIn("<img", doc)
        self.assertIn("G:&lt;b&gt;screenshot&lt;/b&gt;", doc)
        self.assertIn('<span class="cmdline" title="&lt;script&gt;alert(3)&lt;/script&gt; \\x1b[31m\\xff">'
                      '&lt;script&gt;alert(3)&lt;/script&gt;</span> [68]', doc)
        # Map rectangles to scale within a bank: width per KB is the same for every region.
        widths = {html.unescape(n): float(w) for n, w in re.findall(r'data-region="([^"]*)" x="[^"]*" y="\d+" width="([^"]*)"', doc)}
        self.assertAlmostEqual(widths["modem_region"] / 106496, widths["linux,cma"] / 65536, places=6)
        with open(self.path("p.json"), encoding="utf-8") as f:
            data = json.load(f)
        self.assertEqual((data["schema"], data["kind"]), (1, "capture"))
        c = data["captures"][0]
        self.assertEqual(c["time"]["uptime"], 8123.45)
        # Bytes that are not UTF-8 reach the JSON as the text \xHH.
        self.assertEqual(c["cmdlines"], {"68": ["<script>alert(3)</script>", "\x1b[31m\\xff"]})
        self.assertEqual([r["name"] for r in c["unmapped"]["rows"] if r["inode"] == 5], ["G:<b>screenshot</b>"])
        self.assertTrue(any(r["name"] == "modem_region" for r in c["reserved"]["regions"]))
        # The sample has no ION: said once in words, the tool's own lines kept in the JSON.
        self.assertEqual([u["text"] for u in c["unsaid"] if u["section"] == "kmem"],
                         ["no ION statistics in this capture (/sys/kernel/ion: total_heaps_kb, "
                          "total_pools_kb cannot be opened)"])
        self.assertEqual(len([m for m in c["messages"]["n"] if "/sys/kernel/ion/" in m]), 2)

    def test_pair_highlights_the_changed_rows(self):
        status, err = report("-o", self.path("p.html"), os.path.join(PAIR, "before.tar.gz"), os.path.join(PAIR, "after.tar.gz"))
        self.assertEqual(status, 0, err)
        with open(self.path("p.html"), encoding="utf-8") as f:
            doc = f.read()
        marked = dict((int(i), c) for c, i in re.findall(r'<tr class="(\w+)" title="[^"]*"><td class=n>(\d+)<', doc))
        self.assertEqual(marked, {8: "gone", 9: "changed", 10: "changed", 11: "changed"})
        self.assertIn('id="facts-buffers"', doc)

    def test_recording_json_and_trace(self):
        rec = self.path("rec")
        pc.recording(rec)
        status, err = report("--json", self.path("r.json"), "--trace", self.path("t.json"), rec)
        self.assertEqual(status, 0, err)
        with open(self.path("r.json"), encoding="utf-8") as f:
            data = json.load(f)
        self.assertEqual(data["kind"], "recording")
        self.assertEqual([c["file"] for c in data["captures"]], ["capture-%04d.tar.gz" % i for i in range(1, 6)])
        self.assertEqual([(b["inode"], b["exporter"], b["name"], b["since"]) for b in data["suspects"]["buffers"]],
                         [(6, "system", "G:screenshot", {"index": 2, "uptime": 1120.0})])
        growth = {(g["by"], g["key"]): g["kb_per_minute"] for g in data["suspects"]["growth"]}
        self.assertEqual(growth[("exporter", "leaky")], 64.0)
        with open(self.path("t.json"), encoding="utf-8") as f:
            events = json.load(f)["traceEvents"]
        total = [(e["ts"], e["args"]["KB"]) for e in events if e["name"] == "unmapped DMA-BUF total"]
        self.assertEqual(total, list(zip([1000000000 + 60000000 * i for i in range(5)], data["series"]["unmapped_kb"])))

    def test_recording_across_a_reboot_with_holders_by_command_line(self):
        rec = self.path("rec")
        lines = {68: b"/vendor/bin/<b>cam</b>\0--title=\"x\" & y\0", 69: b"com.example.gallery\0\0\0"}
        pc.recording(rec, reboot_at=3, cmdlines=lines)
        status, err = report("-o", self.path("r.html"), "--json", self.path("r.json"), rec)
        self.assertEqual(status, 0, err)
        with open(self.path("r.json"), encoding="utf-8") as f:
            data = json.load(f)
        # Boot by boot: the second boot's smaller boot clock does not put it first.
        self.assertEqual([c["file"] for c in data["captures"]], ["capture-%04d.tar.gz" % i for i in range(1, 6)])
        self.assertEqual([r["text"] for r in data["reboots"]],
                         ["the device rebooted between capture-0003 and capture-0004"])
        self.assertEqual(data["series"]["boot"], [1, 1, 1, 2, 2])
        elapsed = data["series"]["elapsed_s"]
        self.assertEqual(elapsed, sorted(elapsed))
        # Buffer 6 was unmapped from the third capture on, but the second boot's buffer 6 is
        # another buffer, unmapped since that boot's first capture: no suspect.
        self.assertEqual(data["suspects"]["buffers"], [])
        self.assertEqual(data["suspects"]["within"], {"boot": 2, "first": 3, "last": 4})
        self.assertEqual([b["boot"] for b in data["suspects"]["growth_by_boot"]], [1, 2])
        self.assertEqual(data["captures"][0]["cmdlines"],
                         {"68": ["/vendor/bin/<b>cam</b>", '--title="x" & y'], "69": ["com.example.gallery"]})
        self.assertEqual(data["series"]["holders"]["[68]dmabuf-test (boot 2)"]["cmdline"][0], "/vendor/bin/<b>cam</b>")
        with open(self.path("r.html"), encoding="utf-8") as f:
            doc = f.read()
        self.assertIn("the device rebooted between capture-0003 and capture-0004", doc)
        self.assertIn('id="within-boot"', doc)
        self.assertEqual(len(re.findall(r'<path class="reboot"', doc)), 2 + len(data["series"]["counters"]))
        self.assertIn('<span class="cmdline" title="/vendor/bin/&lt;b&gt;cam&lt;/b&gt; --title=&quot;x&quot; &amp; y">'
                      '/vendor/bin/&lt;b&gt;cam&lt;/b&gt;</span> [68]', doc)
        self.assertIn('<span class="cmdline" title="com.example.gallery">com.example.gallery</span> [69]', doc)
        self.assertNotIn("<b>", doc)
        # Every line is drawn right of the axis (x = 70).
        xs = [float(x) for d in re.findall(r'<path d="([^"]*)" stroke="#', doc) for x in re.findall(r"[ML]([\d.-]+) ", d)]
        self.assertTrue(xs and min(xs) >= 70, xs)

    def test_bad_input_writes_nothing(self):
        p = subprocess.run(["/usr/bin/python3", REPORT, "--binary", "x", "-o", self.path("p.html")],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(p.returncode, 2)
        self.assertIn("usage:", p.stderr)
        good = pc.write_capture(self.path("good.tar.gz"), pc.sample_files(), pc.info(10))
        with tarfile.open(good) as tin, tarfile.open(self.path("bad.tar.gz"), "w:gz") as tout:
            for m in tin:
                tout.addfile(m, tin.extractfile(m) if m.isreg() else None)
            fifo = tarfile.TarInfo("./proc/meminfo2")
            fifo.type = tarfile.FIFOTYPE
            tout.addfile(fifo)
        with open(self.path("p.html"), "w") as f:
            f.write("old page")
        status, err = report("-o", self.path("p.html"), good, self.path("bad.tar.gz"), good)
        self.assertEqual(status, 3)
        self.assertIn("bad.tar.gz: refused", err)
        with open(self.path("p.html")) as f:
            self.assertEqual(f.read(), "old page")
        self.assertEqual(sorted(os.listdir(self.work)), ["bad.tar.gz", "good.tar.gz", "p.html"])
        status, err = report("--json", self.path("p.json"), "--skip-refused", good, self.path("bad.tar.gz"))
        self.assertEqual(status, 0, err)
        with open(self.path("p.json")) as f:
            left = json.load(f)["left_out"]
        self.assertEqual([x["file"] for x in left], ["bad.tar.gz"])
        self.assertNotIn(self.work, left[0]["reason"])  # no host path on a page meant for a bug
        other = pc.sample_files()
        other["d/memblock/memory"] = b"   0: 0x0000000080000000..0x00000000bfffffff\n"
        pc.write_capture(self.path("other.tar.gz"), other, pc.info(20))
        status, err = report("-o", self.path("p.html"), good, self.path("other.tar.gz"))
        self.assertEqual(status, 2)
        self.assertIn("good.tar.gz and other.tar.gz come from different devices", err)


class Drawing(unittest.TestCase):
    def test_unknown_figures_and_sums_that_differ_are_said(self):
        bar = page.kmem_bar({"counters": [{"name": "Shmem", "kb": 10}], "total_kb": 10,
                             "unmapped": {"source": "DMA-BUF", "kb": None, "reason": "no <sysfs>"}})
        self.assertIn("unknown (no &lt;sysfs&gt;)", bar)
        self.assertNotRegex(bar, r"DMA-BUF unmapped</td><td class=n>0")
        eq = page.equations({"total": 251628, "parts": 252128, "bp_hole": 1024, "fdt_nomap": 122880,
                             "mb_reserved": 210144, "cma_total": 81920})
        self.assertIn("differs from the published total (251628 KB) by +500 KB", eq)


if __name__ == "__main__":
    unittest.main()
