"""The tree as libnfs sees it: nfs-ls, nfs-cat, and a walk that compares everything."""

import contextlib
import os
import re
import subprocess
import unittest

import support

BIG_FILE = int(os.environ.get("NFSLIB_BIG_FILE_MIB", "100")) * 1024 * 1024
CROWD = 5000


class Libnfs(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.list_program = support.program("nfs-ls")
        cls.cat_program = support.program("nfs-cat")
        directory = cls.enterClassContext(support.scratch())
        cls.tree = support.small_tree(directory / "tree")
        support.crowded_directory(cls.tree / "crowded", CROWD)
        (cls.tree / "big").write_bytes(support.pattern(BIG_FILE))
        cls.odd = support.odd_tree(directory / "odd")
        cls.server = cls.enterClassContext(support.Server(cls.tree))

    def compare(self, server, tree):
        done = support.run(support.COMPARE, server.url(), tree, timeout=120)
        self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout.decode())
        counts = [int(n) for n in re.findall(rb"\d+", done.stdout)]
        return dict(zip(("directories", "files", "links", "others", "bytes"), counts))

    def test_nfs_ls_lists_every_object(self):
        done = support.run(self.list_program, "-R", self.server.url())
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        listed = {}
        for line in done.stdout.decode().splitlines():
            mode, links, uid, gid, size, name = re.fullmatch(
                r"(\S{10}) +(\d+) +(\d+) +(\d+) +(\d+) (.*)", line).groups()
            listed[name.lstrip("/")] = (mode, int(links), int(uid), int(gid), int(size))
        expected = support.names_below(self.tree)
        self.assertGreater(len(expected), CROWD)
        self.assertEqual(sorted(listed), sorted(expected))
        for name, (mode, links, uid, gid, size) in listed.items():
            status = expected[name]
            self.assertEqual((links, uid, gid), (status.st_nlink, status.st_uid, status.st_gid), name)
            # The program prints neither set-id nor sticky bits.
            plain = support.type_and_mode(status).translate(str.maketrans("sStT", "x-x-"))
            self.assertEqual(mode, plain, name)
            if not mode.startswith("d"):
                self.assertEqual(size, status.st_size, name)

    def test_nfs_cat_reads_every_byte(self):
        # nfs-cat mounts the directory of the file, so that has to be the export.
        for directory, names in ((self.tree, ["big"]),
                                 (self.tree / "sizes", list(map(str, support.SIZES))),
                                 (self.tree / "names", support.PLAIN_NAMES),
                                 (self.tree / "crowded", ["entry 000000", "entry 004999"])):
            with contextlib.ExitStack() as stack:
                server = self.server
                if directory != self.tree:
                    server = stack.enter_context(support.Server(directory, "--alias"))
                for name in names:
                    done = support.run(self.cat_program, server.url("/" + name), timeout=60)
                    self.assertEqual((done.returncode, done.stderr), (0, b""), name)
                    self.assertTrue(done.stdout == (directory / name).read_bytes(), name)

    def test_a_missing_file_and_a_missing_export_are_told(self):
        done = support.run(self.cat_program, self.server.url("/no such file"))
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

    def test_a_system_tree(self):
        tree = next(path for path in ("/usr/include/linux", "/usr/share/doc") if os.path.isdir(path))
        with support.Server(tree, "--alias") as server:
            self.assertGreater(self.compare(server, tree)["files"], 50)


if __name__ == "__main__":
    unittest.main(verbosity=2)
