"""The bufinfo reader on the kernel's real tables and on the ways a table goes wrong."""
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from page_captures import TOP, bufinfo_table  # noqa: E402
import bufinfo  # noqa: E402

REAL = os.path.join(TOP, "tests", "data", "realdata")


def read(*parts):
    with open(os.path.join(REAL, *parts), "rb") as f:
        return bufinfo.parse(f.read())


class RealTables(unittest.TestCase):
    def test_lab_kernels(self):
        # Same board and client on 6.1 and 6.12: seven buffers, tab-separated, one named.
        for kernel in ("lab-arm64-6.1", "lab-arm64-6.12"):
            r = read(kernel, "dma-buf-bufinfo.txt")
            self.assertEqual(sorted(r["names"]), [1, 2, 3, 4, 5, 6, 7], kernel)
            self.assertEqual(r["names"][1], "lab-named")
            self.assertEqual({r["names"][i] for i in range(2, 8)}, {None})
            self.assertEqual((r["sizes"][4], r["exporters"][4]), (2097152, "linux,cma"))
            self.assertEqual(r["problems"], [], kernel)

    def test_old_kernel_with_two_headers_and_no_name(self):
        r = read("bufinfo", "android12-phone-d-k4.9-ion-double-header.txt")
        self.assertEqual(len(r["names"]), 172)  # matches its closing total
        self.assertEqual((r["sizes"][75971], r["exporters"][75971]), (32768, "ion"))
        self.assertEqual(r["problems"], ["this kernel's table has no name column"])

    def test_tabs_pasted_as_spaces_and_cut_short(self):
        r = read("bufinfo", "arm64-asahi-2023-excerpt-tabs-as-spaces.txt")
        self.assertEqual(sorted(r["names"]), [125948, 125950, 125953, 125955])
        self.assertEqual((r["exporters"][125950], r["sizes"][125950]), ("drm", 23068672))
        self.assertEqual(r["problems"], ["the table has no closing total line: it was cut short"])


class Names(unittest.TestCase):
    def test_names_as_the_allocator_wrote_them(self):
        r = bufinfo.parse(bufinfo_table([(14352384, "system", 31, "G:screenshot"),
                                         (4096, "system", 32, "two words"), (4096, "system", 33, None)]))
        self.assertEqual(r["names"], {31: "G:screenshot", 32: "two words", 33: None})
        self.assertEqual(r["problems"], [])

    def test_what_cannot_be_read_is_said(self):
        no_inode = b"\nDma-buf Objects:\nsize\tflags\tmode\tcount\texp_name\n" \
                   b"00004096\t00000002\t00000007\t00000001\tion\t\nTotal 1 objects, 4096 bytes\n"
        r = bufinfo.parse(no_inode)
        self.assertEqual(r["names"], {})
        self.assertIn("no inode column", r["problems"][0])
        table = bufinfo_table([(4096, "system", 7, "a"), (4096, "system", 8, "b")])
        r = bufinfo.parse(table.replace(b"Total 2 objects", b"Total 3 objects"))
        self.assertEqual(r["problems"], ["the table announces 3 objects but lists 2"])
        r = bufinfo.parse(b"garbage\n\x00\xff\n")
        self.assertEqual(r["problems"], ["no header line: the buffers' columns are unknown"])
        self.assertEqual(bufinfo.parse(None), {"names": {}, "exporters": {}, "sizes": {}, "problems": []})


if __name__ == "__main__":
    unittest.main()
