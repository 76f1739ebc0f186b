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
        # One buffer that appeared and stayed is a step (a size, no rate), not a slope.
        g = growth[("holder", "[900]svc")]
        self.assertEqual((g["first_bytes"], g["last_bytes"], g["shape"], g["since"], g["bytes_per_minute"]),
                         (0, 14352384, "step", 2, None))
        self.assertEqual([(g["holders"], g["buffers"], g["shape"]) for g in sus["groups"]],
                         [(["[900]svc"], 1, "step")])
        # A name also says how many buffers carry it: a leak is ever more of one name.
        caps[4]["unmapped"]["rows"].append(row(7, 14352384, "system", (900, "svc"), name="G:screenshot"))
        g = {(g["by"], g["key"]): g for g in series.suspects(caps, series.build(caps))["growth"]}
        self.assertEqual((g[("name", "G:screenshot")]["first_count"], g[("name", "G:screenshot")]["last_count"]),
                         (0, 2))
        self.assertNotIn("first_count", g[("exporter", "system")])

    def test_shapes_and_groups(self):
        self.assertEqual([series.shape(v) for v in ([0, 0, 5, 5], [0, 5, 5, 9], [9, 5, None, 5], [3, 9, 3], [1])],
                         ["step", "growing", "shrinking", "steady", None])
        # A leak: one more buffer of one holder, exporter and name per capture, from the
        # second capture on; each stays. One group, growing, its rate from where it began (the
        # buffer of the last capture alone is no suspect yet: one capture).
        caps = []
        for i in range(6):
            rows = [OLD] + [row(100 + k, 1 << 20, "system", (488, "leak_client"), name="leak") for k in range(max(0, i - 1))]
            caps.append(capture(100.0 + 60 * i, rows))
        s = series.build(caps)
        groups = series.suspects(caps, s)["groups"]
        self.assertEqual([(g["holders"], g["exporter"], g["name"], g["buffers"], g["bytes"], g["since"], g["shape"],
                           g["bytes_per_minute"]) for g in groups],
                         [(["[488]leak_client"], "system", "leak", 3, 3 << 20, 2, "growing", float(1 << 20))])
        self.assertEqual(groups[0]["series"], [0, 0, 1 << 20, 2 << 20, 3 << 20, 4 << 20])

    def test_a_gap_or_a_capture_without_a_table_restarts_the_streak(self):
        present = [True, True, False, True, True]
        caps = [capture(60.0 * i, [LEAK] if p else []) for i, p in enumerate(present)]
        self.assertEqual([b["since"]["index"] for b in series.suspects(caps, series.build(caps))["buffers"]], [3])
        caps[3] = capture(180.0, None)  # the -u report could not list buffers there
        self.assertEqual(series.suspects(caps, series.build(caps))["buffers"], [])

    def test_series_per_key_count_each_holder_in_full(self):
        s = series.build(leaky_recording())
        self.assertEqual(s["by_holder"]["[70]cam"], [0, 1 << 20, 0, 0, 0])
        self.assertEqual(s["by_holder"]["[68]app"], [65536, 65536 + (1 << 20), 65536, 65536, 65536])
        self.assertEqual(s["by_exporter"]["vendor"], [0, 1 << 20, 0, 0, 0])
        caps = leaky_recording()
        caps[1]["unmapped"] = None
        self.assertEqual(series.build(caps)["by_exporter"]["system"], [65536, None] + [65536 + 14352384] * 3)


def rebooted(holder=(900, "svc")):
    """Two boots of three captures each, a minute apart, 140 s between them by the wall clock;
    named so that names and boot clocks disagree with the real order. In both boots pid 900
    holds an unmapped buffer of inode 6 (the kernel reuses inode numbers after a reboot): in
    the first from the second capture on, in the second from its second capture on, and it
    grows there by one more buffer."""
    caps = []
    for i in range(6):
        boot, k = ("one", i) if i < 3 else ("two", i - 3)
        rows = []
        if k >= 1:
            rows.append(row(6, 1 << 20, "system", holder, name="G:screenshot"))
        if boot == "two" and k == 2:
            rows.append(row(7, 1 << 20, "system", holder, name="G:screenshot"))
        c = capture((5000.0 if boot == "one" else 30.0) + 60 * k, rows,
                    wall=100_000 + 60 * i + (80 if boot == "two" else 0), boot=boot)
        c["file"] = "capture-%04d.tar.gz" % (6 - i)
        caps.append(c)
    return caps


class Boots(unittest.TestCase):
    def ordered(self, caps):
        order = series.time_order([(c["file"], c["time"]) for c in caps])
        return [caps[i] for i in order]

    def test_boots_follow_the_wall_clock_and_the_boot_clock_orders_each(self):
        caps = rebooted()
        shuffled = [caps[i] for i in (4, 0, 5, 2, 3, 1)]
        self.assertEqual([c["file"] for c in self.ordered(shuffled)], [c["file"] for c in caps])
        # A wall clock set back an hour within the first boot reorders nothing and is said.
        caps[1]["time"]["wall"] -= 3600
        ordered = self.ordered(list(reversed(caps)))
        self.assertEqual([c["file"] for c in ordered], [c["file"] for c in caps])
        ev = series.events(ordered)
        self.assertEqual([r["text"] for r in ev["reboots"]],
                         ["the device rebooted between capture-0004 and capture-0003"])
        self.assertEqual([(j["index"], j["jump_s"]) for j in ev["wall_clock_jumps"]], [(1, -3600), (2, 3600)])
        self.assertIn("between capture-0006 and capture-0005", ev["wall_clock_jumps"][0]["text"])
        # Captures without a boot clock keep their names' order, after the others.
        times = [("c-3", {"uptime": 9.0, "boot_id": "x"}), ("c-2", {"uptime": None}), ("c-1", {"uptime": None}),
                 ("c-0", {"uptime": 3.0, "boot_id": "x"})]
        self.assertEqual(series.time_order(times), [3, 0, 2, 1])

    def test_elapsed_never_goes_back(self):
        caps = rebooted()
        self.assertEqual(series.elapsed(caps), [0.0, 60.0, 120.0, 260.0, 320.0, 380.0])
        caps[3]["time"]["wall"] = 50  # the new boot's wall clock is far behind: no time between
        self.assertEqual(series.elapsed(caps), [0.0, 60.0, 120.0, 120.0, 180.0, 240.0])
        caps[3]["time"]["uptime"] = None
        self.assertIsNone(series.elapsed(caps))

    def test_nothing_is_matched_across_a_reboot(self):
        caps = rebooted()
        s = series.build(caps)
        self.assertEqual(s["boot"], [1, 1, 1, 2, 2, 2])
        # One pid in two boots is two processes.
        self.assertEqual(s["by_holder"]["[900]svc (boot 1)"], [0, 1 << 20, 1 << 20, None, None, None])
        self.assertEqual(s["by_holder"]["[900]svc (boot 2)"], [None, None, None, 0, 1 << 20, 2 << 20])
        sus = series.suspects(caps, s)
        # Inode 6 of the second boot is unmapped from that boot's second capture, not from the
        # first boot's: not one buffer.
        self.assertEqual([(b["inode"], b["since"]["index"]) for b in sus["buffers"]], [(6, 4)])
        self.assertEqual(sus["within"], {"boot": 2, "first": 3, "last": 5})
        growth = {(g["by"], g["key"]): (g["first_bytes"], g["last_bytes"], g["shape"]) for g in sus["growth"]}
        self.assertEqual(growth, {("exporter", "system"): (0, 2 << 20, "growing"),
                                  ("name", "G:screenshot"): (0, 2 << 20, "growing"),
                                  ("holder", "[900]svc (boot 2)"): (0, 2 << 20, "growing")})
        self.assertEqual([(b["boot"], b["first"], b["last"], len(b["growth"])) for b in sus["growth_by_boot"]],
                         [(1, 0, 2, 3), (2, 3, 5, 3)])
        # From the boot's first capture on is before the boot was watched: no suspect.
        caps[3]["unmapped"]["rows"].append(row(6, 1 << 20, "system", (900, "svc")))
        self.assertEqual(series.suspects(caps, series.build(caps))["buffers"], [])

    def test_each_boot_is_a_trace_process(self):
        caps = rebooted()
        events = series.trace(caps, series.build(caps))["traceEvents"]
        # Above any pid a device can give (2^22), one per boot.
        one, two = series.TRACE_PID + 1, series.TRACE_PID + 2
        names = {e["pid"]: e["args"]["name"] for e in events if e["ph"] == "M"}
        self.assertEqual(names, {one: "quarrystat recording, boot 1 (one)", two: "quarrystat recording, boot 2 (two)"})
        total = [(e["pid"], e["ts"]) for e in events if e["name"] == "DMA-BUF unmapped total"]
        self.assertEqual(total, [(one, 5000000000), (one, 5060000000), (one, 5120000000),
                                 (two, 30000000), (two, 90000000), (two, 150000000)])
        reboot = {"index": 3, "after": "capture-0004.tar.gz", "before": "capture-0003.tar.gz"}
        marks = [(e["name"], e["pid"], e["ts"]) for e in series.trace(caps, series.build(caps), None, [reboot])["traceEvents"]
                 if e["ph"] == "i"]
        self.assertEqual(marks, [("reboot", two, 30000000)])


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
            tracks.setdefault(e["name"], []).append((e["ts"], e["args"]["bytes"]))
        self.assertEqual(tracks["DMA-BUF unmapped total"],
                         [(500000000 + 60000000 * i, v) for i, v in enumerate(s["unmapped_bytes"])])
        self.assertEqual([v for _, v in tracks["DMA-BUF unmapped by holder: [900]svc"]], [0, 0] + [14352384] * 3)
        self.assertEqual(tracks["Kernel memory: Shmem"][0][1], 100 * 1024)
        caps[0]["time"]["uptime"] = None
        with self.assertRaises(ValueError):
            series.trace(caps, series.build(caps))


if __name__ == "__main__":
    unittest.main()
