"""report.py end to end on small captures (the built tool replays them), and the page's
drawing of what the tool could not say or did not add up."""
import html
import io
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
import series  # noqa: E402

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
        pc.check_schema(self, data)
        self.assertEqual((data["schema"], data["kind"]), (2, "capture"))
        c = data["captures"][0]
        self.assertEqual((c["number"], c["time"]["uptime_start_s"]), (1, 8123.45))
        # Bytes that are not UTF-8 reach the JSON as the text \xHH; a holder is one shape.
        holders = {h["pid"]: h for r in c["unmapped"]["rows"] for h in r["holders"]}
        self.assertEqual(holders[68], {"kind": "process", "pid": 68, "comm": "<script>alert(1)</script>",
                                       "cmdline": ["<script>alert(3)</script>", "\x1b[31m\\xff"]})
        self.assertEqual(holders[None], {"kind": "kernel", "pid": None, "comm": None, "cmdline": None})
        modem = [r for r in c["reserved"]["regions"] if r["name"] == "modem_region"]
        self.assertEqual(modem, [{"kind": "fdt_no-map", "name": "modem_region", "start": "0x000000008b800000",
                                  "end": "0x0000000092000000", "size_bytes": 106496 * 1024}])
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
        pc.check_schema(self, data)
        self.assertEqual([(b["inode"], b["exporter"], b["name"], b["since"]) for b in data["suspects"]["buffers"]],
                         [(6, "system", "G:screenshot", {"capture": 3, "uptime_s": 1120.0})])
        # One buffer that appeared once and stayed is a step: a size, no rate.
        self.assertEqual([(g["shape"], g["buffers"], g["bytes"], g["since"]["capture"], g["bytes_per_minute"])
                          for g in data["suspects"]["groups"]], [("step", 1, 524288, 3, None)])
        growth = {(g["by"], g["exporter"]): (g["shape"], g["bytes_per_minute"]) for g in data["suspects"]["growth"]}
        self.assertEqual(growth[("exporter", "leaky")], ("growing", 65536.0))
        self.assertEqual(growth[("exporter", "system")], ("step", None))
        with open(self.path("t.json"), encoding="utf-8") as f:
            events = json.load(f)["traceEvents"]
        total = [(e["ts"], e["pid"], e["args"]["bytes"]) for e in events if e["name"] == "DMA-BUF unmapped total"]
        self.assertEqual(total, [(1000000000 + 60000000 * i, 1 << 22 | 1, v)
                                 for i, v in enumerate(data["series"]["unmapped_bytes"])])
        starts = [(e["name"], e["ts"]) for e in events if e["ph"] == "i"]
        self.assertEqual(starts, [("suspects begin: [69]dmabuf-test, system, G:screenshot", 1120000000)])
        # Two captures make a trace of two moments; one capture is refused in one line.
        files = sorted(os.listdir(rec))
        status, err = report("--trace", self.path("t2.json"), *[os.path.join(rec, f) for f in files[:2]])
        self.assertEqual(status, 0, err)
        status, err = report("--trace", self.path("t1.json"), os.path.join(rec, files[0]))
        self.assertEqual((status, len(err.splitlines())), (2, 1), err)
        self.assertIn("--trace needs two captures or more", err)

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
        pc.check_schema(self, data)
        self.assertEqual(data["suspects"]["buffers"], [])
        self.assertEqual(data["suspects"]["within"], {"boot": 2, "first_capture": 4, "last_capture": 5})
        self.assertEqual([b["boot"] for b in data["suspects"]["growth_by_boot"]], [1, 2])
        lines = {h["pid"]: h["cmdline"] for r in data["captures"][0]["unmapped"]["rows"] for h in r["holders"]}
        self.assertEqual((lines[68], lines[69]), (["/vendor/bin/<b>cam</b>", '--title="x" & y'], ["com.example.gallery"]))
        cam = [(h["boot"], h["holder"]["cmdline"][0]) for h in data["series"]["by_holder"] if h["holder"]["pid"] == 68]
        self.assertEqual(cam, [(1, "/vendor/bin/<b>cam</b>"), (2, "/vendor/bin/<b>cam</b>")])
        with open(self.path("r.html"), encoding="utf-8") as f:
            doc = f.read()
        self.assertIn("the device rebooted between capture-0003 and capture-0004", doc)
        self.assertIn('id="within-boot"', doc)
        self.assertEqual(len(re.findall(r'<path class="reboot"', doc)), len(re.findall(r'class="timeline"', doc)))
        self.assertIn('<span class="cmdline" title="/vendor/bin/&lt;b&gt;cam&lt;/b&gt; --title=&quot;x&quot; &amp; y">'
                      '/vendor/bin/&lt;b&gt;cam&lt;/b&gt;</span> [68]', doc)
        self.assertIn('<span class="cmdline" title="com.example.gallery">com.example.gallery</span> [69]', doc)
        self.assertNotIn("<b>", doc)
        # Every line is drawn right of the axis (x = 70).
        charts = "".join(re.findall(r'<svg id="timeline[^>]*>.*?</svg>', doc))
        xs = [float(x) for d in re.findall(r'<path d="([^"]*)" stroke="#', charts) for x in re.findall(r"[ML]([\d.-]+) ", d)]
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
            for name in ("./etc/ld.so.preload", "./lib/libx.so", "./a/x\x1b]0;y\x07", "./a/" + "z" * 3000):
                tout.addfile(tarfile.TarInfo(name), io.BytesIO())
        with open(self.path("p.html"), "w") as f:
            f.write("old page")
        status, err = report("-o", self.path("p.html"), good, self.path("bad.tar.gz"), good)
        self.assertEqual(status, 3)
        # One line however many entries replay names, the first few of them, escaped.
        self.assertEqual(err, "report.py: bad.tar.gz: refused (status 3): it holds 5 entries a capture never "
                         "holds: ./a/x\\x1b]0;y\\x07, ./a/%s..., ./etc/ld.so.preload, ... (and 2 more); "
                         "--drop-unsafe replays it without them\n" % ("z" * 93))
        with open(self.path("p.html")) as f:
            self.assertEqual(f.read(), "old page")
        self.assertEqual(sorted(os.listdir(self.work)), ["bad.tar.gz", "good.tar.gz", "p.html"])
        status, err = report("--json", self.path("p.json"), "--skip-refused", good, self.path("bad.tar.gz"))
        self.assertEqual(status, 0, err)
        self.assertRegex(err, r"^report: leaving out bad.tar.gz \(status 3\): it holds 5 entries [^\n]*\(and 2 more\)")
        self.assertEqual(len(err.splitlines()), 1, err)
        with open(self.path("p.json")) as f:
            data = json.load(f)
        pc.check_schema(self, data)
        left = data["left_out"]
        self.assertEqual([x["file"] for x in left], ["bad.tar.gz"])
        self.assertNotIn(self.work, left[0]["reason"])  # no host path on a page meant for a bug
        self.assertIn("z" * 3000, left[0]["reason"])  # the JSON keeps the whole text

    def test_build_over_build_pair_json_and_page(self):
        before, after = pc.build_over_build(self.path("b"))
        status, err = report("-o", self.path("p.html"), "--json", self.path("p.json"), before, after)
        self.assertEqual(status, 0, err)  # memory tables differ: one board all the same
        self.assertEqual(err, "")
        with open(self.path("p.json"), encoding="utf-8") as f:
            data = json.load(f)
        pc.check_schema(self, data)
        self.assertEqual(data["board"], {"same": True, "differ": None, "models": ["lab board"] * 2,
                                         "builds": ["lab/board/1.0:user", "lab/board/1.1:user"]})
        changed = [(r["kind"], r["name"], r["change"], r["before"], r["after"], r["change_bytes"] // 1024)
                   for r in data["facts"]["regions"] if r["change"] != "unchanged"]
        at = lambda start, end, kb: {"start": start and "0x%016x" % start, "end": end and "0x%016x" % end,  # noqa: E731
                                     "size_bytes": kb * 1024}
        self.assertEqual(changed, [
            ("fdt_no-map", "modem_region", "resized", at(0x8b800000, 0x92000000, 106496),
             at(0x8b800000, 0x91e00000, 104448), -2048),
            ("BpHoles", "BpHoles", "resized", at(None, None, 1024), at(None, None, 0), -1024),
            ("fdt_no-map", "npu_region", "added", None, at(0xc0000000, 0xc0800000, 8192), 8192)])
        self.assertEqual({x["change"] for x in data["facts"]["figures"]} - {"up", "down", "same", "unknown"}, set())
        self.assertEqual([m["change"] for m in data["facts"]["memory"]], ["added", "cut"])
        self.assertIn("figures", data["facts"])  # the keys of before stay
        with open(self.path("p.html"), encoding="utf-8") as f:
            doc = f.read()
        ids = re.findall(r'\sid="([^"]*)"', doc)
        self.assertEqual(sorted(ids), sorted(set(ids)), "an element id is repeated")
        # The reserved section opens with the changes; each changed region outlined on its map.
        reserved = doc[doc.index("<h2>Reserved memory</h2>"):]
        self.assertTrue(reserved[len("<h2>Reserved memory</h2>"):].startswith('<div class="wide"><table id="region-changes">'))
        marked = re.findall(r'<svg id="(memory-map-\w+)"|data-region="([^"]*)" data-change="(\w+)"', doc)
        self.assertEqual([m for m in marked if m[0] or m[1]], [
            ("memory-map-before", "", ""), ("", "modem_region", "resized"),
            ("memory-map-after", "", ""), ("", "modem_region", "resized"), ("", "npu_region", "added")])
        self.assertIn("lab/board/1.0:user &rarr; lab/board/1.1:user", doc)
        # Sections both captures share are shown once.
        self.assertEqual(doc.count('<svg id="kmem-bar"'), 1)
        self.assertEqual(doc.count('id="dmabuf-'), 1)

    def test_model_rule(self):
        good = pc.write_capture(self.path("good.tar.gz"), pc.sample_files(), pc.info(10))
        other = pc.write_capture(self.path("other.tar.gz"), pc.sample_files(), dict(pc.info(20), model="<b>other</b>"))
        status, err = report("-o", self.path("p.html"), "--json", self.path("p.json"), good, other)
        self.assertEqual(status, 0, err)
        self.assertIn("report: warning: good.tar.gz and other.tar.gz come from different devices "
                      "(models lab board and <b>other</b>)", err)
        with open(self.path("p.html"), encoding="utf-8") as f:
            self.assertIn('id="board-warning">These captures come from different devices (models lab board '
                          'and &lt;b&gt;other&lt;/b&gt;)', f.read())
        # A recording is of one board: the first two neighbours that differ are named.
        third = pc.write_capture(self.path("third.tar.gz"), pc.sample_files(), pc.info(30))
        status, err = report("-o", self.path("r.html"), good, good, other, third)
        self.assertEqual(status, 2)
        self.assertIn("good.tar.gz and other.tar.gz come from different devices (models lab board and "
                      "<b>other</b>); a recording is of one board", err)
        self.assertFalse(os.path.exists(self.path("r.html")))
        # Without capture-info the banks decide: a second bank that only one capture has.
        files = pc.sample_files()
        files["d/memblock/memory"] = b"   0: 0x0000000080000000..0x00000000bfffffff\n"
        one = pc.write_capture(self.path("one.tar.gz"), files)
        status, err = report("--json", self.path("q.json"), one, pc.write_capture(self.path("two.tar.gz"), pc.sample_files()))
        self.assertEqual(status, 0, err)
        self.assertIn("(memory in bank 0x80000000 and memory in banks 0x80000000 and 0x880000000)", err)
        for name in ("p.json", "q.json"):
            with open(self.path(name), encoding="utf-8") as f:
                pc.check_schema(self, json.load(f))

    def test_destinations_checked_before_any_is_replaced(self):
        good = pc.write_capture(self.path("good.tar.gz"), pc.sample_files(), pc.info(10))
        with open(self.path("p.html"), "w") as f:
            f.write("old page")
        os.mkdir(self.path("folder"))
        for option, dest, words in [("--json", self.path("folder"), "it is a folder"),
                                    ("--json", self.path("none/p.json"), "no such folder"),
                                    ("--json", self.path("p.html"), "names the same file as -o")]:
            with self.subTest(dest=dest):
                status, err = report("-o", self.path("p.html"), option, dest, good)
                self.assertEqual(status, 2, err)
                self.assertEqual(len(err.splitlines()), 1, err)
                self.assertIn("report.py: cannot write %s (%s): %s" % (dest, option, words)
                              if "same" not in words else words, err)
                with open(self.path("p.html")) as f:
                    self.assertEqual(f.read(), "old page")
        self.assertEqual(sorted(os.listdir(self.work)), ["folder", "good.tar.gz", "p.html"])

    def test_clocks_no_device_gives_make_strict_json(self):
        rec = self.path("rec")
        pc.recording(rec, count=3)
        for n, uptime in ((1, "-1.7e308"), (2, "1.7e308")):
            name = os.path.join(rec, "capture-%04d.tar.gz" % n)
            files = {}
            with tarfile.open(name) as t:
                for m in t:
                    if m.isreg():
                        files[m.name[2:]] = t.extractfile(m).read()
            files["capture-info"] = files["capture-info"].replace(
                b"uptime_start=", b"uptime_start=%s\nx=" % uptime.encode())
            pc.write_capture(name, files)

        def strict(text):
            return json.loads(text, parse_constant=lambda c: self.fail("not JSON: " + c))
        status, err = report("--json", self.path("r.json"), rec)
        self.assertEqual(status, 0, err)
        with open(self.path("r.json")) as f:
            doc = strict(f.read())
        pc.check_schema(self, doc)
        self.assertEqual([c["time"]["uptime_start_s"] for c in doc["captures"]][1:], [None, None])
        elapsed = doc["series"]["elapsed_s"]
        self.assertTrue(elapsed is None or all(v is None or abs(v) < 1e6 for v in elapsed))
        status, err = report("--trace", self.path("t.json"), rec)
        self.assertEqual(status, 2, err)
        self.assertEqual(err.splitlines(), ["report.py: cannot write the trace: a capture carries "
                                            "no boot clock time (an older capture)"])
        self.assertFalse(os.path.exists(self.path("t.json")))

    def test_rows_bounded_over_the_captures(self):
        import report as report_py
        rec = self.path("rec")
        pc.recording(rec, count=3)
        files, recording = report_py.expand([rec])
        rows = len(report_py.capture_entry(files[0], pc.binary(), False)["unmapped"]["rows"])
        self.assertGreater(rows, 0)
        saved, report_py.MAX_ROWS = report_py.MAX_ROWS, 2 * rows
        self.addCleanup(setattr, report_py, "MAX_ROWS", saved)
        with self.assertRaisesRegex(report_py.Refused, r"^capture-0003.tar.gz: the captures up to it "
                                    r"hold \d+ unmapped DMA-BUF rows, more than one report holds"):
            report_py.build(files, recording, pc.binary(), False, True, lambda text: None)


class Drawing(unittest.TestCase):
    def test_unknown_figures_and_sums_that_differ_are_said(self):
        bar = page.kmem_bar({"counters": [{"name": "Shmem", "kb": 10}], "total_kb": 10,
                             "unmapped": {"source": "DMA-BUF", "kb": None, "reason": "no <sysfs>"}})
        self.assertIn("unknown (no &lt;sysfs&gt;)", bar)
        self.assertNotRegex(bar, r"DMA-BUF unmapped</td><td class=n>0")
        # Region names come from a device file: text in the table, on the map and in its labels.
        evil = "<img src=x onerror=alert(1)>\x1b"
        regions = [{"kind": "fdt_no-map", "name": evil, "change": "added", "occurrence": 1, "printed": None,
                    "before": None, "after": {"start": "0x90000000", "size_kb": 8192}, "delta_kb": 8192}]
        f = {"missing": [], "regions": regions, "memory": []}
        capture = {"memory": None, "reserved": {"regions": [{"kind": "fdt_no-map", "name": evil,
                                                             "start": 0x90000000, "size_kb": 8192}]}}
        drawn = page.region_changes_section(f) + page.memory_map(capture, "m", page._map_marks(f, "after"))
        self.assertNotIn("<img", drawn)
        # The changes table, the rectangle, its title, its label, its name above the bank, the
        # table of regions.
        self.assertEqual(drawn.count("&lt;img src=x onerror=alert(1)&gt;\\x1b"), 6)
        eq = page.equations({"total": 251628, "parts": 252128, "bp_hole": 1024, "fdt_nomap": 122880,
                             "mb_reserved": 210144, "cma_total": 81920})
        self.assertIn("differs from the published total (251628 KB) by +500 KB", eq)

    def test_map_scale_ends_where_memory_does_and_every_region_is_listed(self):
        regions = [{"kind": "fdt_no-map", "name": "b", "start": 0x90000000, "size_kb": 1024},
                   {"kind": "fdt_reserved_cma", "name": "a", "start": 0x8a0000000, "size_kb": 16384},
                   {"kind": "MemblockReserved", "name": "Kernel code", "start": 0x80210000, "size_kb": 3136}]
        capture = {"memory": [(0x80000000, 0x100000000), (0x880000000, 0x8c0000000)],
                   "reserved": {"regions": regions, "cma_used": []}}
        # The second bank to scale up to its memory's end (1 GB of 30), the rest compact.
        self.assertEqual(page.bank_ends([capture]), [0x100000000, 0x8c0000000])
        drawn = page.memory_map(capture)
        self.assertIn("to 0x1000000000</text>", drawn)
        # A region too narrow for its name is named above its bank.
        self.assertIn('<text class="region-name above" x="2.0" y="23" font-size="10">Kernel code</text>', drawn)
        table = drawn[drawn.index('<table id="regions"'):]
        self.assertEqual(re.findall(r"<tr><td>([^<]*)</td>", table), ["Kernel code", "b", "a"])
        self.assertIn("<td class=\"addr\">0x8a0000000</td><td class=\"addr\">0x8a1000000</td>", table)
        # A pair: changes coloured by direction, unchanged figures in one line, no +0 rows.
        figures = [{"report": "kmem", "name": "Shmem", "before": 10, "after": 14, "delta": 4},
                   {"report": "kmem", "name": "SUnreclaim", "before": 9, "after": 5, "delta": -4},
                   {"report": "kmem", "name": "PageTables", "before": 7, "after": 7, "delta": 0}]
        said = page.figure_changes(figures)
        self.assertEqual(re.findall(r'<tr class="(\w+)"', said), ["up", "down"])
        self.assertNotIn("+0", said)
        self.assertIn("Unchanged: kmem PageTables (7 KB)", said)

    def test_stacks_left_out_of_the_total_are_said(self):
        counters = [{"name": "KernelStack", "kb": 448}, {"name": "VmallocUsed", "kb": 520}]
        n = {"counters": counters, "total_kb": 520, "unmapped": None, "stack_counted": False}
        bar = page.kmem_bar(n)
        self.assertIn("KernelStack (not in the total)", bar)
        self.assertIn("KernelStack is not part of the total: this kernel has CONFIG_VMAP_STACK", bar)
        self.assertNotIn("not part of the total", page.kmem_bar(dict(n, stack_counted=True)))
    def test_reboots_and_wall_clock_jumps_are_said(self):
        caps = [{"file": "<i>a</i>.tar.gz", "time": {"uptime": 100.0, "wall": 5000, "boot_id": "x"}},
                {"file": "b.tar.gz", "time": {"uptime": 160.0, "wall": 1400, "boot_id": "x"}},
                {"file": "c.tar.gz", "time": {"uptime": 5.0, "wall": 1500, "boot_id": "y"}}]
        said = page.recording_events(series.events(caps))
        self.assertIn('<li class="clock">the wall clock jumped by -3660 s between &lt;i&gt;a&lt;/i&gt; and b', said)
        self.assertIn('<li class="reboot">the device rebooted between b and c</li>', said)
        self.assertEqual(page.recording_events({"reboots": [], "wall_clock_jumps": []}), "")


if __name__ == "__main__":
    unittest.main()
