"""What an administrator sees of a running tool: connections, statistics, and a file for Prometheus."""

import math
import os
import re
import signal
import unittest

import nfs4_client
import support

METRIC = re.compile(r"[a-zA-Z_:][a-zA-Z0-9_:]*")
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\[\\"n])*)"')
TYPES = ("counter", "gauge", "histogram")


class Exposition:
    """The text format 0.0.4 of Prometheus, taken strictly: a ValueError for whatever it does not allow."""

    def __init__(self, text):
        self.types = {}
        self.samples = {}  # (name, labels sorted) -> value
        helps, family = set(), None
        if not text.endswith("\n"):
            raise ValueError("the last line has no end")
        for line in text.splitlines():
            if line.startswith("# HELP "):
                family, words = line[7:].split(" ", 1)
                if family in helps or not METRIC.fullmatch(family) or not words:
                    raise ValueError(line)
                helps.add(family)
            elif line.startswith("# TYPE "):
                name, kind = line[7:].split(" ")
                if name != family or name in self.types or kind not in TYPES:
                    raise ValueError(line)
                self.types[name] = kind
            else:
                self._take(line, family)
        if helps != set(self.types):
            raise ValueError("a metric without its type")
        for family, kind in self.types.items():
            if kind == "histogram":
                self._check_histogram(family)

    def _take(self, line, family):
        name = METRIC.match(line)
        if name is None:
            raise ValueError(line)
        rest, labels = line[name.end():], []
        if rest.startswith("{"):
            inside, rest = rest[1:].split("}", 1)
            while inside:
                label = LABEL.match(inside)
                if label is None:
                    raise ValueError(line)
                labels.append(label.groups())
                inside = inside[label.end():]
                if inside and not re.match(",[a-z]", inside):
                    raise ValueError(line)
                inside = inside[1:]
        kind = self.types.get(family)
        endings = ("_bucket", "_sum", "_count") if kind == "histogram" else ("",)
        if kind is None or name[0] not in [family + ending for ending in endings]:
            raise ValueError(f"{line!r} stands under {family}")
        if kind == "counter" and not name[0].endswith("_total"):
            raise ValueError(line)
        if not re.fullmatch(r" [0-9]+(\.[0-9]+)?(e[-+][0-9]+)?", rest):
            raise ValueError(line)
        key = (name[0], tuple(sorted(labels)))
        if key in self.samples or len(dict(labels)) != len(labels):
            raise ValueError(f"{line!r} comes twice")
        self.samples[key] = float(rest)

    def _check_histogram(self, family):
        series = {}
        for (name, labels), value in self.samples.items():
            if name == family + "_bucket":
                bound = float(dict(labels)["le"].replace("+Inf", "inf"))
                own = tuple(label for label in labels if label[0] != "le")
                series.setdefault(own, []).append((bound, value))
        for own, buckets in series.items():
            counts = [count for _, count in buckets]
            if buckets != sorted(buckets) or counts != sorted(counts) or buckets[-1][0] != math.inf:
                raise ValueError(f"buckets of {own}")
            if self.samples[family + "_count", own] != counts[-1]:
                raise ValueError(f"count of {own}")
            most = sum((high - low) * bound for (bound, high), (_, low) in zip(
                buckets, [(0, 0), *buckets]) if high != low)
            if not 0 <= self.samples[family + "_sum", own] <= most:
                raise ValueError(f"sum of {own}")

    def value(self, name, **labels):
        return self.samples.get((name, tuple(sorted(labels.items()))), 0)

    def calls(self, procedure, version=3, kind="procedure", of="nfslib_calls_total"):
        return self.value(of, program="nfs", version=str(version), kind=kind, procedure=procedure)


class Parser(unittest.TestCase):
    def test_refuses_what_is_not_the_format(self):
        head = "# HELP a_total A.\n# TYPE a_total counter\n"
        histogram = "# HELP h H.\n# TYPE h histogram\n"
        self.assertEqual(Exposition(head + 'a_total{x="1"} 2\n').value("a_total", x="1"), 2)
        for text in ("a_total 1\n", head + "a_total 1", head + "a_total\n", head + "b_total 1\n",
                     head + "a_total 1\na_total 2\n", head + 'a_total{x="1} 2\n', head + "a_total -1\n",
                     head + head, "# HELP a A.\n# TYPE a counter\na 1\n",
                     histogram + 'h_bucket{le="1"} 1\nh_sum 1\nh_count 1\n',
                     histogram + 'h_bucket{le="1"} 2\nh_bucket{le="+Inf"} 1\nh_sum 1\nh_count 1\n',
                     histogram + 'h_bucket{le="1"} 1\nh_bucket{le="+Inf"} 1\nh_sum 1\nh_count 2\n',
                     histogram + 'h_bucket{le="1"} 1\nh_bucket{le="+Inf"} 1\nh_sum 7\nh_count 1\n'):
            with self.subTest(text=text), self.assertRaises((ValueError, KeyError)):
                Exposition(text)


class Statistics(unittest.TestCase):
    SIZE = 100_000

    def setUp(self):
        directory = self.enterContext(support.scratch())
        self.tree = directory / "tree"
        self.tree.mkdir()
        (self.tree / "file").write_bytes(support.pattern(self.SIZE))
        self.file = directory / "statistics.prom"

    def fetch(self, server):
        done = support.run(support.program("nfs-cat"), server.url("/file"))
        self.assertEqual(done.stdout, support.pattern(self.SIZE), done.stderr)

    def read_file(self):
        return Exposition(self.file.read_text())

    def test_connections_and_the_statistics_at_the_end(self):
        server = support.Server(self.tree, "-v")
        self.fetch(server)
        support.wait_until(lambda: server.errors().count(" closed after ") >= 2, 5, "the connections to end")
        said = server.errors()
        self.assertNotIn("statistics", said)
        opened = re.findall(r"^nfslib: connection from (127\.0\.0\.1:\d+) opened$", said, re.M)
        closed = re.findall(r"^nfslib: connection from (127\.0\.0\.1:\d+) closed after \d+\.\d{3} s: (\d+) calls, "
                            r"(\d+) bytes received, (\d+) bytes sent$", said, re.M)
        self.assertEqual(sorted(opened), sorted(line[0] for line in closed), said)
        self.assertEqual(len(said.splitlines()), 2 * len(opened), said)
        self.assertGreater(max(int(line[3]) for line in closed), self.SIZE)
        self.assertEqual(server.stop(), 0)
        report = server.errors()[len(said):]
        calls = sum(int(line[1]) for line in closed)
        self.assertRegex(report, rf"^nfslib statistics: (\d+) calls, 0 errors, 0 refused, 0 invalid; connections: 0 "
                                 rf"open, {len(opened)} in all\n")
        self.assertGreaterEqual(int(re.search(r"(\d+) calls", report)[1]), calls)  # UDP has no connections
        self.assertIn(f"\n  bytes: {self.SIZE} read, 0 written, ", report)
        self.assertRegex(report, r"\n  nfs3 READ: \d+ calls, 0 errors, p50 \d+\.\d us, p99 \d+\.\d us\n")

    def test_a_signal_prints_them_and_nothing_else_does(self):
        server = self.enterContext(support.Server(self.tree))
        self.fetch(server)
        self.assertEqual(server.errors(), "")
        for times in 1, 2:
            server.process.send_signal(signal.SIGUSR1)
            support.wait_until(lambda: server.errors().count("nfs3 READ:") == times, 5, "the statistics")
        self.fetch(server)  # it goes on
        said = server.errors()
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.errors(), said)

    def test_the_file(self):
        with support.Server(self.tree, "--stats-file", self.file) as server:
            self.assertEqual(self.read_file().calls("READ"), 0)  # there from the start
            before = os.stat(self.file)
            self.fetch(server)
            support.wait_until(lambda: self.read_file().calls("READ"), 15, "the file to be replaced")
            after = os.stat(self.file)
            self.assertNotEqual(after.st_ino, before.st_ino)
            self.assertEqual(after.st_mode & 0o777, 0o644)
            done = support.run(support.program("nfs-cat"), server.url("/none"))
            self.assertNotEqual(done.returncode, 0)
            server.process.send_signal(signal.SIGUSR1)
            support.wait_until(lambda: self.read_file().calls("LOOKUP", of="nfslib_call_errors_total"), 4,
                               "the file after the signal")
        self.assertEqual(os.listdir(self.file.parent).count(self.file.name), 1)
        self.assertEqual(len(os.listdir(self.file.parent)), 2, "nothing but the tree and the file is left")
        last = self.read_file()
        self.assertEqual(last.value("nfslib_read_bytes_total"), self.SIZE)
        self.assertGreater(last.value("nfslib_sent_bytes_total"), self.SIZE)
        self.assertEqual(last.value("nfslib_open_connections"), 0)
        self.assertGreater(last.value("nfslib_accepted_connections_total"), 1)
        self.assertGreater(last.value("nfslib_cache_hits_total", cache="attributes"), 0)
        self.assertGreater(last.calls("READ", of="nfslib_call_duration_seconds_count"), 0)

    def test_version_4(self):
        server = support.Server(self.tree, "--nfs-version", 4, "--stats-file", self.file)
        with nfs4_client.Nfs4Client(server.address, server.nfs_port, 1) as client:
            client.begin()
            client.done("PUTROOTFH", ("GETATTR", nfs4_client.bitmap(nfs4_client.SIZE)))
            client.end()
        self.assertEqual(server.stop(), 0)
        found = self.read_file()
        self.assertEqual(found.calls("GETATTR", 4, "operation"), 1)
        self.assertGreater(found.calls("COMPOUND", 4), 1)
        self.assertEqual(found.calls("CREATE_SESSION", 4, "operation"), 1)

    def test_a_file_that_cannot_be_written(self):
        for path in self.tree / "none" / "file", self.tree, "/dev/null":
            done = support.run(support.TOOL, "serve", self.tree, "-v", "--stats-file", path, timeout=15)
            self.assertEqual((done.returncode, done.stdout), (1, b""))
            self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
            self.assertIn(f"statistics file '{path}'", done.stderr.decode())
        self.assertEqual(os.listdir(self.tree), ["file"])

    def test_a_file_that_cannot_be_written_any_more_is_told_of_once(self):
        place = self.file.parent / "place"
        place.mkdir()
        server = self.enterContext(support.Server(self.tree, "--stats-file", place / "file"))
        (place / "file").unlink()
        place.rmdir()
        for times in 1, 2:
            server.process.send_signal(signal.SIGUSR1)
            support.wait_until(lambda: server.errors().count("nfslib statistics: ") == times, 5, "the statistics")
        self.fetch(server)
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.errors().count("Cannot write the statistics file"), 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
