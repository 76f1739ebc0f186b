"""fleet.py end to end on a small generated fleet (the built tool replays it): its rows against
the report JSON of the same captures and against the schema, refusals as rows, a second run
that replays nothing, and a run stopped midway."""
import hashlib
import io
import json
import os
import shutil
import signal
import subprocess
import sys
import tarfile
import tempfile
import time
import unittest
from unittest import mock

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fleet_captures as fc  # noqa: E402
import page_captures as pc  # noqa: E402
import capturefiles  # noqa: E402
import fleet  # noqa: E402

FLEET = os.path.join(pc.TOP, "snapshot", "fleet.py")
REPORT = os.path.join(pc.TOP, "snapshot", "report.py")
SCHEMA = os.path.join(pc.TOP, "snapshot", "schema", "fleet.schema.json")
IDENTITY = ("capture", "model", "fingerprint", "build", "kernel_release", "boot_id",
            "uptime_start_s", "wall_start_s")


def run(out, *paths, jobs=2):
    p = subprocess.run(["/usr/bin/python3", FLEET, "--binary", pc.binary(), "-o", out,
                        "-j", str(jobs)] + list(paths), capture_output=True, text=True, timeout=600)
    return p.returncode, p.stderr


def tables(out):
    rows = {}
    for t in fleet.TABLES:
        with open(os.path.join(out, t + ".jsonl"), encoding="utf-8") as f:
            rows[t] = [json.loads(line) for line in f]
    return rows


def table_bytes(out):
    found = {}
    for name in sorted(os.listdir(out)):
        if not name.startswith("."):
            with open(os.path.join(out, name), "rb") as f:
                found[name] = f.read()
    return found


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def hostile(path):
    """A capture holding a FIFO: replay refuses it (status 3)."""
    with tarfile.open(path, "w:gz") as tar:
        t = tarfile.TarInfo("./proc/meminfo")
        t.type = tarfile.FIFOTYPE
        tar.addfile(t)
        data = b"MemTotal: 1 kB\n"
        t = tarfile.TarInfo("./proc/1/maps")
        t.size = len(data)
        tar.addfile(t, io.BytesIO(data))
    return path


class Export(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.farm = os.path.join(cls.dir.name, "farm")
        cls.caps = fc.make(cls.farm)
        cls.caps["hostile"] = hostile(os.path.join(cls.farm, "beta", "odd.tgz"))
        cls.out = os.path.join(cls.dir.name, "out")
        cls.status, cls.err = run(cls.out, cls.farm)
        cls.rows = tables(cls.out)
        cls.by_file = {os.path.basename(r["file"]): r for r in cls.rows["captures"]}

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def of(self, table, key):
        return [r for r in self.rows[table] if r["capture"] == key]

    def test_rows_hold_the_figures_of_the_report_json(self):
        self.assertEqual(self.status, 1, self.err)  # two refusals
        for name, path in self.caps.items():
            if name in ("truncated", "hostile"):
                continue
            with self.subTest(capture=name):
                key = sha256(path)
                row = self.by_file[os.path.basename(path)]
                self.assertEqual((row["capture"], row["status"], row["replay_status"]), (key, "replayed", 0))
                json_path = os.path.join(self.dir.name, name + ".json")
                p = subprocess.run(["/usr/bin/python3", REPORT, "--binary", pc.binary(), "--json",
                                    json_path, path], capture_output=True, text=True, timeout=300)
                self.assertEqual(p.returncode, 0, p.stderr)
                with open(json_path, encoding="utf-8") as f:
                    doc = json.load(f)
                pc.check_schema(self, doc)
                c = doc["captures"][0]
                # The report's JSON (schema 2) and the tables share keys and units: the rows hold
                # its figures as they are.
                self.assertEqual((row["model"], row["fingerprint"], row["boot_id"], row["uptime_start_s"],
                                  row["wall_start_s"]),
                                 (c["info"]["model"], c["info"]["fingerprint"], c["time"]["boot_id"],
                                  c["time"]["uptime_start_s"], c["time"]["wall_start_s"]))
                self.assertEqual(row["build"], fc.build_name(name.split("-")[1]))
                self.assertEqual([row["u_status"], row["n_status"], row["s_status"]],
                                 [c["status"][m] for m in "uns"])
                self.assertEqual(row["unmapped_total_bytes"], c["unmapped"]["total_bytes"])
                self.assertEqual(row["kernel_total_bytes"], c["kmem"]["total_bytes"])
                self.assertEqual(row["unmapped_buffers"], len(c["unmapped"]["rows"]))
                fields = ("inode", "size_bytes", "exporter", "name", "holders")
                self.assertEqual(sorted((json.dumps([b[k] for k in fields]) for b in self.of("buffers", key))),
                                 sorted(json.dumps([r[k] for k in fields]) for r in c["unmapped"]["rows"]))
                regions = self.of("regions", key)
                self.assertEqual([{k: r[k] for k in ("kind", "name", "start", "end", "size_bytes")} for r in regions],
                                 c["reserved"]["regions"])
                for r in regions:
                    self.assertEqual(int(r["end"], 16) - int(r["start"], 16), r["size_bytes"])
                n = c["kmem"]
                self.assertEqual([(r["counter"], r["bytes"]) for r in self.of("counters", key)],
                                 [(x["name"], x["bytes"]) for x in n["counters"]]
                                 + [("DMA-BUF unmapped", n["unmapped"]["bytes"]),
                                    ("Kernel Memory total size", n["total_bytes"])])

    def test_rows_fit_the_schema_and_carry_their_captures_identity(self):
        import jsonschema  # Debian's python3-jsonschema (scripts/setup.sh)
        with open(SCHEMA, encoding="utf-8") as f:
            schema = json.load(f)
        jsonschema.Draft202012Validator.check_schema(schema)
        identity = {r["capture"]: tuple(r[k] for k in IDENTITY) for r in self.rows["captures"]}
        for t in fleet.TABLES:
            validator = jsonschema.Draft202012Validator({"$ref": "#/$defs/" + t, "$defs": schema["$defs"]})
            self.assertTrue(self.rows[t], t)
            for row in self.rows[t]:
                validator.validate(row)
                self.assertEqual(tuple(row[k] for k in IDENTITY), identity[row["capture"]])
                # One column order for every row of a table, as a reader of the file expects.
                self.assertEqual(list(row), list(self.rows[t][0]))

    def test_a_refused_capture_is_a_row_and_the_run_goes_on(self):
        for name, status, replay_status, words in (("truncated", "truncated", 4, "is truncated"),
                                                   ("hostile", "refused", 3, "never holds")):
            with self.subTest(capture=name):
                path = self.caps[name]
                row = self.by_file[os.path.basename(path)]
                self.assertEqual((row["capture"], row["status"], row["replay_status"]),
                                 (sha256(path), status, replay_status))
                self.assertIn(words, row["reason"])
                # Replay's message names the capture by its file name, not by this host's path.
                self.assertNotIn(self.farm, row["reason"])
                self.assertIsNone(row["model"])
                for t in fleet.TABLES[1:]:
                    self.assertEqual(self.of(t, row["capture"]), [])
        self.assertEqual(len(self.rows["captures"]), len(self.caps))
        self.assertIn("2 refused", self.err)

    def test_a_second_run_replays_nothing_and_writes_the_same_tables(self):
        out = os.path.join(self.dir.name, "again")
        shutil.copytree(self.out, out)
        before = table_bytes(out)
        status, err = run(out, self.farm)
        self.assertEqual(status, 1, err)
        self.assertIn("(0 replayed now, %d from earlier runs, 2 refused)" % len(self.caps), err)
        self.assertEqual(table_bytes(out), before)
        # Keyed by content: without the file index, under a new name, still no replay (a replay
        # in a worker would raise here: the workers are forked from this process).
        os.unlink(os.path.join(out, ".cache", "files.json"))
        moved = os.path.join(self.dir.name, "moved")
        shutil.copytree(self.farm, moved)
        os.rename(os.path.join(moved, "alpha", "alpha-B2-1.tar.gz"), os.path.join(moved, "renamed.tar.gz"))
        with mock.patch.object(capturefiles, "replay", side_effect=AssertionError("replayed")):
            self.assertEqual(fleet.export(pc.binary(), out, [moved], 2, io.StringIO()), 1)
        rows = tables(out)
        self.assertEqual({r["capture"] for r in rows["captures"]}, {r["capture"] for r in self.rows["captures"]})
        self.assertIn("renamed.tar.gz", {os.path.basename(r["file"]) for r in rows["captures"]})
        for t in fleet.TABLES[1:]:
            self.assertEqual(sorted(map(json.dumps, rows[t])), sorted(map(json.dumps, self.rows[t])))

    def test_a_stopped_run_leaves_the_last_complete_tables(self):
        farm = os.path.join(self.dir.name, "growing")
        os.makedirs(farm)
        shutil.copy(self.caps["alpha-B1-0"], farm)
        out = os.path.join(self.dir.name, "stopped")
        self.assertEqual(run(out, farm)[0], 0)
        before = table_bytes(out)
        cache = os.path.join(out, ".cache")
        kept = set(os.listdir(cache))
        for i in range(12):
            files, info = fc.device("beta", "B2", 0, 2000 + i)
            pc.write_capture(os.path.join(farm, "new-%02d.tar.gz" % i), files, info)
        scratch = os.path.join(self.dir.name, "tmp")
        os.makedirs(scratch)
        p = subprocess.Popen(["/usr/bin/python3", FLEET, "--binary", pc.binary(), "-o", out, "-j", "1", farm],
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                             env=dict(os.environ, TMPDIR=scratch))
        try:
            deadline = time.monotonic() + 120
            while not set(os.listdir(cache)) - kept - {"lock"} and time.monotonic() < deadline:
                time.sleep(0.01)
            p.send_signal(signal.SIGTERM)
            err = p.communicate(timeout=120)[1]
        finally:
            p.kill()
        self.assertEqual(p.returncode, 128 + signal.SIGTERM, err)
        self.assertIn("stopped", err)
        self.assertEqual(table_bytes(out), before)
        self.assertEqual([f for f in os.listdir(out) if f.startswith(".") and f != ".cache"], [])
        # Nothing of the replay under way is left running or on disk.
        time.sleep(0.5)
        self.assertEqual(os.listdir(scratch), [])
        done = len([f for f in os.listdir(cache) if f.endswith(".json")]) - len([f for f in kept if f.endswith(".json")])
        self.assertGreaterEqual(done, 1)
        self.assertLess(done, 12, "the run finished before it was stopped")
        # The next run replays only what the stopped one had not finished.
        status, err = run(out, farm)
        self.assertEqual(status, 0, err)
        self.assertIn("(%d replayed now," % (12 - done), err)
        self.assertEqual(len(tables(out)["captures"]), 13)


class Rules(unittest.TestCase):
    def test_holders_carry_their_command_lines_as_arguments(self):
        real = capturefiles.replay

        def with_cmdlines(path, binary, **kw):
            runs = real(path, binary, **kw)
            runs["cmdlines"] = {68: b"/system/bin/dmabuf-test\0--hold\0x y\0", 69: b"\0\0"}
            return runs
        with tempfile.TemporaryDirectory() as d:
            path = pc.write_capture(os.path.join(d, "c.tar.gz"), pc.sample_files(), pc.info(10))
            with mock.patch.object(capturefiles, "replay", with_cmdlines):
                buffers = fleet.capture_rows("0" * 64, path, pc.binary())[1]
        self.assertEqual({h["pid"]: h["cmdline"] for b in buffers for h in b["holders"]},
                         {68: ["/system/bin/dmabuf-test", "--hold", "x y"], 69: None, None: None})

    def test_a_malformed_report_is_an_unreadable_row(self):
        real = capturefiles.replay

        def with_digits(path, binary, **kw):
            runs = real(path, binary, **kw)
            runs["n"] = runs["n"]._replace(stdout="Shmem: %s KB\n" % ("1" * 5000))
            return runs
        with tempfile.TemporaryDirectory() as d:
            path = pc.write_capture(os.path.join(d, "c.tar.gz"), pc.sample_files(), pc.info(10))
            with mock.patch.object(capturefiles, "replay", with_digits):
                capture, *rest = fleet.capture_rows("0" * 64, path, pc.binary())
        self.assertEqual((capture["status"], capture["replay_status"], rest), ("unreadable", 2, [[], [], []]))
        self.assertEqual(capture["reason"], "its -n report is malformed: a number of 5000 digits, "
                                            "more than any device prints")

    def test_build_of_a_fingerprint(self):
        for fingerprint, build in (
                ("google/oriole/oriole:14/UQ1A.240205.004/11269751:user/release-keys", "14/UQ1A.240205.004/11269751"),
                ("acme/x/x:15/B1/1:user/release-keys", "15/B1/1"),
                ("lab board", "lab board"), ("", None), (None, None)):
            self.assertEqual(fleet.build_of(fingerprint), build)

    def test_usage_errors_say_so_in_one_line(self):
        with tempfile.TemporaryDirectory() as d:
            for args, words in (([os.path.join(d, "nope")], "no such capture or folder"),
                                ([d], "no capture found")):
                status, err = run(os.path.join(d, "out"), *args)
                self.assertEqual((status, len(err.strip().splitlines())), (2, 1), err)
                self.assertIn(words, err)


if __name__ == "__main__":
    unittest.main()
