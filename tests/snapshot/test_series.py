"""A recording's series, suspects and trace events, on parsed captures made in the test."""
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import page_captures  # noqa: E402,F401  (puts snapshot/ on the path)
import series  # noqa: E402


def row(inode, size, exporter, *owners, name=None):
    return {"inode": inode, "size": size, "exporter": exporter, "name": name,
            "owners": [{"pid": p, "name": n} for p, n in owners], "kernel": not owners}


def capture(uptime, rows, wall=None, boot="b", kmem=None):
    table = None if rows is None else {"state": "table", "rows": rows,
                                       "total_kb": sum(r["size"] for r in rows) // 1024}
    return {"time": {"uptime": uptime, "wall": wall, "boot_id": boot}, "unmapped": table,
            "kmem": kmem or {"counters": [{"name": "Shmem", "kb": 100}], "unmapped": None, "total_kb": 100}}


LEAK = row(6, 14352384, "system", (900, "svc"), name="G:screenshot")
OLD = row(2, 65536, "system", (68, "app"))


def leaky_recording():
    """Five captures a minute apart: OLD unmapped throughout, LEAK unmapped from the third on,
    a short-lived buffer of "vendor" held by two processes in the second capture only."""
    caps = []
    for i in range(5):
        rows = [OLD] + ([LEAK] if i >= 2 else [])
        if i == 1:
            rows.append(row(40, 1 << 20, "vendor", (68, "app"), (70, "cam")))
        caps.append(capture(500.0 + 60 * i, rows))
    return caps


class Suspects(unittest.TestCase):
    def test_a_buffer_unmapped_from_some_moment_on(self):
        caps = leaky_recording()
        s = series.build(caps)
        sus = series.suspects(caps, s)
        # OLD was unmapped before the recording began; the vendor buffer did not stay.
        self.assertEqual([(b["inode"], b["since"], b["name"]) for b in sus["buffers"]],
                         [(6, {"index": 2, "uptime": 620.0}, "G:screenshot")])
        growth = {(g["by"], g["key"]): g for g in sus["growth"]}
        self.assertEqual(set(growth), {("exporter", "system"), ("holder", "[900]svc"), ("name", "G:screenshot")})
        g = growth[("holder", "[900]svc")]
        self.assertEqual((g["first_kb"], g["last_kb"], g["kb_per_minute"]), (0, 14016, 3504.0))
        # A name also says how many buffers carry it: a leak is ever more of one name.
        caps[4]["unmapped"]["rows"].append(row(7, 14352384, "system", (900, "svc"), name="G:screenshot"))
        g = {(g["by"], g["key"]): g for g in series.suspects(caps, series.build(caps))["growth"]}
        self.assertEqual((g[("name", "G:screenshot")]["first_count"], g[("name", "G:screenshot")]["last_count"]),
                         (0, 2))
        self.assertNotIn("first_count", g[("exporter", "system")])

    def test_a_gap_or_a_capture_without_a_table_restarts_the_streak(self):
        present = [True, True, False, True, True]
        caps = [capture(60.0 * i, [LEAK] if p else []) for i, p in enumerate(present)]
        self.assertEqual([b["since"]["index"] for b in series.suspects(caps, series.build(caps))["buffers"]], [3])
        caps[3] = capture(180.0, None)  # the -u report could not list buffers there
        self.assertEqual(series.suspects(caps, series.build(caps))["buffers"], [])

    def test_series_per_key_count_each_holder_in_full(self):
        s = series.build(leaky_recording())
        self.assertEqual(s["by_holder"]["[70]cam"], [0, 1024, 0, 0, 0])
        self.assertEqual(s["by_holder"]["[68]app"], [64, 1088, 64, 64, 64])
        self.assertEqual(s["by_exporter"]["vendor"], [0, 1024, 0, 0, 0])
        caps = leaky_recording()
        caps[1]["unmapped"] = None
        self.assertEqual(series.build(caps)["by_exporter"]["system"], [64, None, 14080, 14080, 14080])

    def test_time_from_the_boot_clock_or_the_wall_clock_across_a_reboot(self):
        caps = [capture(100.0, [], wall=10_000), capture(5.0, [], wall=10_300, boot="other")]
        self.assertEqual(series.elapsed(caps), [0.0, 300.0])
        caps[1]["time"]["wall"] = None
        self.assertIsNone(series.elapsed(caps))
        order = series.time_order([("c-3", {"uptime": 9.0}), ("c-1", {"uptime": None}), ("c-2", {"uptime": 3.0})])
        self.assertEqual(order, [2, 0, 1])


class Trace(unittest.TestCase):
    def test_counter_events_carry_the_series_on_the_boot_clock(self):
        caps = leaky_recording()
        s = series.build(caps)
        events = series.trace(caps, s)["traceEvents"]
        counters = [e for e in events if e["ph"] == "C"]
        for e in counters:
            self.assertEqual(set(e), {"name", "ph", "ts", "pid", "args"})
            self.assertIsInstance(e["ts"], int)
        tracks = {}
        for e in counters:
            tracks.setdefault(e["name"], []).append((e["ts"], e["args"]["KB"]))
        self.assertEqual(tracks["unmapped DMA-BUF total"],
                         [(500000000 + 60000000 * i, kb) for i, kb in enumerate(s["unmapped_kb"])])
        self.assertEqual([kb for _, kb in tracks["unmapped DMA-BUF holder [900]svc"]], [0, 0, 14016, 14016, 14016])
        self.assertIn("Shmem", tracks)
        caps[0]["time"]["uptime"] = None
        with self.assertRaises(ValueError):
            series.trace(caps, series.build(caps))


if __name__ == "__main__":
    unittest.main()
