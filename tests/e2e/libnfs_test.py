"""The tree as libnfs sees it, by a walk that compares everything."""

import os
import re
import subprocess
import unittest

import support

BIG_FILE = int(os.environ.get("NFSLIB_BIG_FILE_MIB", "100")) * 1024 * 1024
CROWD = 5000


class Comparing(unittest.TestCase):
    def compare(self, server, tree):
        done = support.run(support.COMPARE, server.url(), tree, timeout=120)
        self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout.decode())
        counts = [int(n) for n in re.findall(rb"\d+", done.stdout)]
        return dict(zip(("directories", "files", "links", "others", "bytes"), counts))


class Libnfs(Comparing):
    @classmethod
    def setUpClass(cls):
        directory = cls.enterClassContext(support.scratch())
        cls.tree = support.small_tree(directory / "tree")
        support.crowded_directory(cls.tree / "crowded", CROWD)
        (cls.tree / "big").write_bytes(support.pattern(BIG_FILE))
        cls.odd = support.odd_tree(directory / "odd")
        cls.server = cls.enterClassContext(support.Server(cls.tree))

    def test_a_missing_file_is_told(self):
        done = support.run(support.program("nfs-cat"), self.server.url("/no such file"))
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(b"NOENT", done.stderr)

    def test_the_whole_tree_is_the_same(self):
        counts = self.compare(self.server, self.tree)
        self.assertGreater(counts["files"], CROWD)
        self.assertGreater(counts["bytes"], BIG_FILE)
        self.assertGreater(counts["links"], 5)
        self.assertGreater(counts["directories"], 12)

    def test_names_in_no_encoding_special_files_and_holes(self):
        with support.Server(self.odd, "--alias") as server:
            counts = self.compare(server, self.odd)
        self.assertEqual(counts["files"], len(support.ODD_NAMES) + 2)
        self.assertEqual(counts["others"], 1)

    def test_eight_clients_at_once(self):
        tree = support.small_tree(self.enterContext(support.scratch()) / "tree")
        support.crowded_directory(tree / "crowded", 500)
        server = self.enterContext(support.Server(tree, "--alias"))
        clients = [subprocess.Popen([support.COMPARE, server.url(), tree],
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                   for _ in range(8)]
        try:
            for client in clients:
                output, _ = client.communicate(timeout=240 * support.PATIENCE)
                self.assertEqual(client.returncode, 0, output.decode())
        finally:
            for client in clients:
                client.kill()
                client.communicate()


class Version4(Comparing):
    """The modern profile: libnfs asks for attributes that the classic one does not have."""

    def setUp(self):
        self.directory = self.enterContext(support.scratch())

    def test_shows_the_same(self):
        tree = support.small_tree(self.directory / "tree")
        support.crowded_directory(tree / "crowded", CROWD)
        (tree / "big").write_bytes(support.pattern(10 << 20))
        with support.Server(tree, "--nfs-version", 4) as server:
            counts = self.compare(server, tree)
        self.assertGreater(counts["files"], CROWD)
        self.assertGreater(counts["bytes"], 10 << 20)

    def test_takes_files(self):
        # More than this in a WRITE of version 4 the library cannot encode.
        (self.directory / "file").write_bytes(support.pattern(3000))
        served = self.directory / "served"
        served.mkdir()
        with support.Server(served, "--rw", "--nfs-version", 4) as server:
            for name in "one", "another":
                done = support.run(support.program("nfs-cp"), self.directory / "file", server.url(f"/{name}"))
                self.assertEqual(done.returncode, 0, done.stderr)
            self.compare(server, served)
        for name in "one", "another":
            self.assertEqual((served / name).read_bytes(), support.pattern(3000))


if __name__ == "__main__":
    unittest.main(verbosity=2)
