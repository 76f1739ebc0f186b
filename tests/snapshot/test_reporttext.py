#!/usr/bin/python3
"""The report-text reader and the facts of two captures: exact figures, names that hold bars,
blanks, newlines or escape bytes, and sides that cannot say."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../snapshot"))
import compare  # noqa: E402
import facts  # noqa: E402
import reporttext  # noqa: E402

TITLE = "------------------ unmapped DMA-BUF per-buffer stats -----------------------\n"
HEADER = "    Dmabuf Inode |     Size(bytes) |   Exporter Name  |   owner                 \n"


def u_report(rows, total_kb):
    """A -u report in the tool's own layout; rows are (inode, size, exporter, [(pid, name)])."""
    text = TITLE + HEADER
    for inode, size, exporter, owners in rows:
        owner = "".join(f"[{pid}]{name} " for pid, name in owners) or "kernel"
        text += "%16u |%16u | %16s | %-64s\n" % (inode, size, exporter, owner)
    return text + f"\nUnmapped dmabuf total size is {total_kb} KB\n"


def n_report(shmem, unmapped, total):
    return (f"Shmem: {shmem} KB\nSUnreclaim: 2060 KB\nPageTables: 168 KB\nVmallocUsed: 520 KB\n"
            f"DMA-BUF unmapped:   {unmapped}\nKernel Memory total size = {total} KB\n")


def side(u, n, s=""):
    return {"u": reporttext.parse_unmapped(u), "n": reporttext.parse_kmem(n),
            "s": reporttext.parse_reserved(s), "status": {"u": 0, "n": 0, "s": 0}}


class UnmappedTable(unittest.TestCase):
    def test_names_are_cut_by_columns_not_bars(self):
        names = ["a|b", "x | [7]y", "two words", "système", "tab\there", "[9]z", "kernel",
                 "a" * 40]
        rows = [(i + 1, 4096 * (i + 1), e, [(100 + i, n)])
                for i, (e, n) in enumerate(zip(["a|b", "sys tem", "dmå", "x" * 30, "e | f",
                                                "linux,cma", "system", "system"], names))]
        parsed = reporttext.parse_unmapped(u_report(rows, 123))
        self.assertEqual(parsed["state"], "table")
        self.assertEqual(parsed["total_kb"], 123)
        got = [(r["inode"], r["size"], r["exporter"], [(o["pid"], o["name"]) for o in r["owners"]])
               for r in parsed["rows"]]
        self.assertEqual(got, rows)

    def test_owners_kernel_several_and_a_name_with_a_newline(self):
        text = u_report([(3, 65536, "system", []),
                         (4, 8192, "system", [(68, "a"), (69, "b [7]c"), (700, "d")])], 72)
        text = text.replace("[700]d ", "[700]d\nwrapped ")
        rows = reporttext.parse_unmapped(text)["rows"]
        self.assertTrue(rows[0]["kernel"])
        self.assertEqual([(o["pid"], o["name"]) for o in rows[1]["owners"]],
                         [(68, "a"), (69, "b [7]c"), (700, "d\nwrapped")])

    def test_states_without_a_table(self):
        for text, state in (("Not support ion\n", "ion"),
                            ("Unable to read DMA-BUF sysfs stats from device\n", "no-sysfs"),
                            ("", "none"), (TITLE + HEADER, "none")):
            parsed = reporttext.parse_unmapped(text)
            self.assertEqual((parsed["state"], parsed["rows"]), (state, []), text)


class KernelAndReserved(unittest.TestCase):
    def test_kmem_unknown_and_huge(self):
        n = reporttext.parse_kmem(n_report(2 ** 60, "unknown (/sys/kernel/dmabuf/buffers unreadable)",
                                           2 ** 63 - 1))
        self.assertEqual(n["counters"][0], {"name": "Shmem", "kb": 2 ** 60})
        self.assertEqual(n["unmapped"], {"source": "DMA-BUF", "kb": None,
                                         "reason": "/sys/kernel/dmabuf/buffers unreadable"})
        self.assertEqual(n["total_kb"], 2 ** 63 - 1)

    def test_reserved_regions_figures_and_summary(self):
        text = ("[fdt_no-map] modem region: addr 0x8b800000, size 106496 KB\n"
                "fdt_no-map total: size 122880 KB\n"
                "[MemblockReserved] Kernel code: addr 0x80210000, size 3136 KB\n"
                "[BpHoles] BpHoles: size -5 KB\n[cma_fix_used] linux,cma: size 1536 KB\n"
                "ReservedMemoryTotal: size 251345 KB\n[CmaFixUsedTotal] size 1536 KB\n"
                "ReservedMemoryTotal 251345 KB ?=\n"
                "251346 KB = bp hole(-5 KB) + fdt_nomap(122880 KB) + mb_reserved(210391 KB)"
                " - cma_total(81920 KB)\n\n"
                "bootloader_memhole(113664 KB) = bp hole(-5 KB) + fdt_nomap_inhole(112640 KB)\n")
        s = reporttext.parse_reserved(text)
        self.assertEqual(s["regions"], [
            {"kind": "fdt_no-map", "name": "modem region", "start": 0x8b800000, "size_kb": 106496},
            {"kind": "MemblockReserved", "name": "Kernel code", "start": 0x80210000,
             "size_kb": 3136}])
        self.assertEqual(s["totals"], {"fdt_no-map total": 122880, "ReservedMemoryTotal": 251345})
        self.assertEqual(s["figures"], {"BpHoles": -5, "CmaFixUsedTotal": 1536})
        self.assertEqual(s["cma_used"], [{"area": "linux,cma", "kb": 1536}])
        self.assertEqual(s["summary"]["total"], 251345)
        self.assertEqual(s["summary"]["parts"], 251346)
        self.assertEqual(s["summary"]["bp_hole"], -5)
        self.assertNotIn("fdt_nomap_inkernel", s["summary"])


class Facts(unittest.TestCase):
    def test_differences_are_exact_near_two_to_the_sixty(self):
        before = side(u_report([], 0), n_report(2 ** 60, "0 KB", 2 ** 60 + 6000))
        after = side(u_report([], 0), n_report(2 ** 60 + 1, "0 KB", 2 ** 60 + 3729))
        lines = compare.fact_lines(facts.compare(before, after))
        self.assertIn(f"kmem Shmem: {2 ** 60} KB -> {2 ** 60 + 1} KB (+1 KB)", lines)
        self.assertIn(f"kmem Kernel Memory total size: {2 ** 60 + 6000} KB -> "
                      f"{2 ** 60 + 3729} KB (-2271 KB)", lines)

    def test_a_side_without_statistics_loses_no_buffers(self):
        rows = [(8, 65536, "system", [(488, "leak_client")])]
        with_table = side(u_report(rows, 64), n_report(1, "64 KB", 2))
        for before, after, name in ((with_table, side("Unable to read DMA-BUF sysfs stats from device\n",
                                                      n_report(1, "64 KB", 2)), "after"),
                                    (side("Not support ion\n", n_report(1, "64 KB", 2)), with_table,
                                     "before")):
            lines = compare.fact_lines(facts.compare(before, after))
            self.assertFalse([line for line in lines if line.startswith("dmabuf 8")], lines)
            self.assertTrue([line for line in lines if line.startswith(f"dmabuf: no figures {name}: ")])
            self.assertIn("dmabuf unmapped total: " + ("64 KB -> none" if name == "after"
                                                       else "none -> 64 KB"), lines)

    def test_buffer_facts_with_hostile_names(self):
        evil = "evil\x1b]0;pwned\x07\x1b[2J"
        before = side(u_report([(8, 65536, "a|b", [(69, "x")]), (10, 4096, "system", [(69, "x")])],
                               68), n_report(1, "68 KB", 2))
        after = side(u_report([(9, 131072, "a|b", [(69, evil)]), (10, 4096, "system", [])], 132),
                     n_report(1, "132 KB", 2))
        lines = compare.fact_lines(facts.compare(before, after))
        self.assertEqual(lines[:4], [
            "dmabuf 8 no longer unmapped: 65536 bytes, a|b, was held by [69]x",
            "dmabuf 9 became unmapped: 131072 bytes, a|b, held by [69]evil\\x1b]0;pwned\\x07\\x1b[2J",
            "dmabuf 10 holders changed: [69]x -> kernel",
            "dmabuf unmapped total: 68 KB -> 132 KB (+64 KB)"])
        self.assertFalse(any("\x1b" in line for line in lines))

    def test_unknown_figures_have_no_difference(self):
        before = side(u_report([], 0), n_report(1, "unknown (x)", 1))
        after = side(u_report([], 0), n_report(1, "5 KB", 6))
        self.assertIn("kmem DMA-BUF unmapped: unknown -> 5 KB",
                      compare.fact_lines(facts.compare(before, after)))


def s_report(*lines):
    """A -s report of the given region lines, with a summary so that it counts as a report."""
    return ("=============== reserved memory statistics ===============\n" + "".join(
        line + "\n" for line in lines) + "======================== Summary ========================\n"
        "ReservedMemoryTotal 10 KB ?=\n"
        "10 KB = bp hole(0 KB) + fdt_nomap(10 KB) + mb_reserved(0 KB) - cma_total(0 KB)\n")


class Regions(unittest.TestCase):
    def changes(self, before, after, memory=(None, None)):
        b, a = side("", "", s_report(*before)), side("", "", s_report(*after))
        b["memory"], a["memory"] = memory
        f = facts.compare(b, a)
        return f, [line for line in compare.fact_lines(f)
                   if line.startswith(("reserved region", "reserved figure", "reserved memory table"))]

    def test_each_kind_of_change_by_kind_and_name(self):
        f, lines = self.changes(
            ["[fdt_no-map] modem: addr 0x8b800000, size 106496 KB",
             "[fdt_no-map] gone: addr 0x90000000, size 1024 KB",
             "[fdt_no-map] still: addr 0xa0000000, size 4096 KB",
             "[fdt_reserved_cma] linux,cma: addr 0xfc000000, size 65536 KB",
             "[fdt_reserved] ramoops: addr 0xb0000000, size 1024 KB",
             "[BpHoles] BpHoles: size 1024 KB", "[cma_fix_used] linux,cma: size 1536 KB"],
            ["[fdt_no-map] modem: addr 0x8b800000, size 104448 KB",
             "[fdt_no-map] still: addr 0xa0000000, size 4096 KB",
             "[fdt_no-map] npu: addr 0xc0000000, size 8192 KB",
             "[fdt_reserved_cma] linux,cma: addr 0xf8000000, size 65536 KB",
             "[fdt_reserved] ramoops: addr 0xb0100000, size 2048 KB",
             "[BpHoles] BpHoles: size 0 KB", "[cma_fix_used] linux,cma: size 1536 KB"])
        self.assertEqual(lines, [
            "reserved region [fdt_no-map] modem resized: 106496 KB -> 104448 KB (-2048 KB)",
            "reserved region [fdt_no-map] gone removed: 0x90000000, 1024 KB",
            "reserved region [fdt_reserved_cma] linux,cma moved: 0xfc000000 -> 0xf8000000, 65536 KB",
            "reserved region [fdt_reserved] ramoops moved and resized: 0xb0000000, 1024 KB -> "
            "0xb0100000, 2048 KB (+1024 KB)",
            "reserved figure [BpHoles] BpHoles resized: 1024 KB -> 0 KB (-1024 KB)",
            "reserved region [fdt_no-map] npu added: 0xc0000000, 8192 KB"])
        # The JSON's records: the same name under two kinds is two regions, each matched.
        by = {(r["kind"], r["name"]): r for r in f["regions"]}
        self.assertEqual(by[("cma_fix_used", "linux,cma")]["change"], "unchanged")
        self.assertEqual(by[("fdt_no-map", "npu")], {
            "kind": "fdt_no-map", "name": "npu", "change": "added", "occurrence": 1, "printed": None,
            "before": None, "after": {"start": "0xc0000000", "size_kb": 8192}, "delta_kb": 8192})
        self.assertEqual(by[("fdt_reserved", "ramoops")]["before"], {"start": "0xb0000000", "size_kb": 1024})
        self.assertEqual(set(r["change"] for r in f["regions"]), set(facts.REGION_CHANGES))

    def test_a_name_printed_twice_is_matched_in_order_and_said_so(self):
        _, lines = self.changes(["[fdt_no-map] dsp: addr 0x90000000, size 1024 KB",
                                 "[fdt_no-map] dsp: addr 0x91000000, size 2048 KB"],
                                ["[fdt_no-map] dsp: addr 0x91000000, size 2048 KB"])
        self.assertEqual(lines, [
            "reserved region [fdt_no-map] dsp #1 moved and resized: 0x90000000, 1024 KB -> "
            "0x91000000, 2048 KB (+1024 KB) (the name is printed 2 times before, 1 after; matched in order)",
            "reserved region [fdt_no-map] dsp #2 removed: 0x91000000, 2048 KB "
            "(the name is printed 2 times before, 1 after; matched in order)"])

    def test_memory_table_ranges_added_removed_cut_and_grown(self):
        mb = 1 << 20
        before = [[0x80000000, 0x8b800000], [0x92600000, 0xc0000000], [0xc0100000, 0x100000000],
                  [0x880000000, 0x8c0000000]]
        after = [[0x80000000, 0x8b800000], [0x91e00000, 0x92000000], [0x92600000, 0xa0000000],
                 [0xa0400000, 0xc0000000], [0xc0000000, 0x100000000]]
        f, lines = self.changes(["[BpHoles] BpHoles: size 0 KB"], ["[BpHoles] BpHoles: size 0 KB"],
                                (before, after))
        self.assertEqual(lines, [
            "reserved memory table added: 0x91e00000..0x91ffffff (+2048 KB)",
            "reserved memory table cut: 0x92600000..0xbfffffff -> 0x92600000..0x9fffffff, "
            "0xa0400000..0xbfffffff (-4096 KB)",
            "reserved memory table grown: 0xc0100000..0xffffffff -> 0xc0000000..0xffffffff (+1024 KB)",
            "reserved memory table removed: 0x880000000..0x8bfffffff (-1048576 KB)"])
        self.assertEqual(f["memory"][0], {"change": "added", "before": [],
                                          "after": [["0x91e00000", "0x92000000"]], "delta_kb": 2 * mb // 1024})
        # Unchanged reports and tables say nothing; a side without -s compares no region.
        self.assertEqual(self.changes(["[BpHoles] BpHoles: size 0 KB"], ["[BpHoles] BpHoles: size 0 KB"],
                                      (before, before))[1], [])
        b, a = side("", "", ""), side("", "", s_report("[fdt_no-map] npu: addr 0xc0000000, size 8192 KB"))
        self.assertEqual(facts.compare(b, a)["regions"], [])


class Header(unittest.TestCase):
    INFO = {"format": "1", "model": "Pixel\x1b[2J", "fingerprint": "fp/1", "kernel_release": "6.1.0",
            "kernel_version": "#1 SMP", "boot_id": "b1", "uptime_start": "100.5",
            "wall_start": "1764000000"}

    def header(self, after):
        import contextlib
        import io
        err = io.StringIO()
        with contextlib.redirect_stderr(err):
            lines = compare.header(("b.tar.gz", "a.tar.gz"), (self.INFO, after))
        return lines, err.getvalue()

    def test_one_device_one_boot(self):
        lines, err = self.header(dict(self.INFO, uptime_start="160.5", wall_start="1764000060"))
        self.assertEqual(lines, [
            "compare: before b.tar.gz, after a.tar.gz",
            "compare: before: Pixel\\x1b[2J (fp/1), kernel 6.1.0, 2025-11-24 16:00:00 UTC, uptime 100.5 s",
            "compare: after: Pixel\\x1b[2J (fp/1), kernel 6.1.0, 2025-11-24 16:01:00 UTC, uptime 160.5 s"])
        self.assertEqual(err, "")

    def test_other_device_kernel_and_boot(self):
        lines, err = self.header(dict(self.INFO, model="Other", kernel_version="#2", boot_id="b2"))
        self.assertIn("the device rebooted between the captures", lines[-1])
        self.assertIn("compare: warning: the captures come from different devices: models "
                      "Pixel\\x1b[2J and Other", err)
        self.assertIn("compare: warning: the captures come from different kernels", err)

    def test_captures_without_metadata_keep_the_old_header(self):
        self.assertEqual(compare.header(("b", "a"), ({}, {})), ["compare: before b, after a"])

    def test_one_board_two_builds_is_no_other_device(self):
        # Same model, new fingerprint and kernel: the builds are named, nothing is warned about,
        # however the memory tables differ.
        lines, err = self.header(dict(self.INFO, fingerprint="fp/2", kernel_release="6.1.1",
                                      kernel_version="#2 SMP"))
        self.assertIn("compare: one board (Pixel\\x1b[2J), two builds: fp/1 -> fp/2", lines)
        self.assertEqual(err, "")

    def test_without_metadata_the_banks_tell_boards_apart(self):
        import contextlib
        import io
        err = io.StringIO()
        with contextlib.redirect_stderr(err):
            compare.header(("b", "a"), ({}, {}), ([[0x80000000, 0x90000000]], [[0x80000000, 0x88000000]]))
        self.assertEqual(err.getvalue(), "")
        with contextlib.redirect_stderr(err):
            compare.header(("b", "a"), ({}, {}), ([[0x80000000, 0x90000000]],
                                                  [[0x80000000, 0x90000000], [0x880000000, 0x890000000]]))
        self.assertEqual(err.getvalue(), "compare: warning: the captures come from different devices: "
                         "memory in bank 0x80000000 and memory in banks 0x80000000 and 0x880000000\n")


if __name__ == "__main__":
    unittest.main()
