"""Writable exports as libnfs sees them: copies, changes by two clients at once, no space left."""

import os
import struct
import unittest

import support
from udp_client import Failure, NfsClient, UdpClient, opaque

LARGEST_TRANSFER = 786432
COPIED = (0, 1, LARGEST_TRANSFER - 1, LARGEST_TRANSFER, LARGEST_TRANSFER + 1, 20 << 20)


class Writable(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(support.scratch())

    def served(self, name="served"):
        (self.directory / name).mkdir()
        return self.directory / name

    def succeeds(self, *command, timeout=120):
        done = support.run(*command, timeout=timeout)
        said = (done.stdout + done.stderr).decode(errors="replace")
        self.assertEqual(done.returncode, 0, said)
        return said

    def test_nfs_cp_in_both_directions(self):
        copy = support.program("nfs-cp")
        original, returned = self.directory / "original", self.directory / "returned"
        for source in (self.served(), "memory:64M"):
            with support.Server(source, "--rw") as server:
                for size in COPIED:
                    with self.subTest(source=str(source), size=size):
                        content = support.pattern(size, size)
                        original.write_bytes(content)
                        self.succeeds(copy, original, server.url(f"/{size}"))
                        if source != "memory:64M":
                            self.assertTrue((source / str(size)).read_bytes() == content)
                        self.succeeds(copy, server.url(f"/{size}"), returned)
                        self.assertTrue(returned.read_bytes() == content)
                        returned.unlink()

    def change(self, source, *more):
        local = self.directory / "local"
        local.mkdir()
        with support.Server(source, "--rw") as server:
            said = self.succeeds(support.CHANGE, server.url(), local, *more)
        self.assertIn("\n0 differences\n", said)
        return local, said

    def test_two_clients_change_a_directory(self):
        served = self.served()
        local, said = self.change(served)
        self.assertEqual(support.tree_differences(served, local), [], said)
        kept = (local / "kept/sparse").stat()
        self.assertGreater(kept.st_size, 4 << 30)
        self.assertEqual(kept.st_nlink, 2)

    def test_two_clients_change_a_tree_in_memory(self):
        self.change("memory:64M")

    def test_differing_trees_are_noticed(self):
        served, local = self.served(), self.served("local")
        for tree in (served, local):
            support.small_tree(tree)
            os.truncate(tree / "sizes/5", 5 << 30)
        self.assertEqual(support.tree_differences(served, local), [])
        with open(served / "sizes/5", "r+b") as file:
            file.seek(4 << 30)
            file.write(b"one")
        os.utime(served / "modes/644", (1, 1))
        (served / "links/hard").chmod(0o600)
        (served / "links/loop").unlink()
        (served / "links/loop").symlink_to("pool")
        (served / "names/plain").unlink()
        self.assertEqual({line.split(": ")[0] for line in support.tree_differences(served, local)},
                         {"sizes/5", "modes/644", "links/hard", "links/harder", "links/loop",
                          "names/plain"})

    def test_no_space_is_told_and_comes_back(self):
        with support.Server("memory:1M", "--rw") as server:
            self.succeeds(support.CHANGE, "--fill", server.url())
        # libnfs does not tell the status of a WRITE.
        with support.Server("memory:1M", "--rw", "--proto", "udp") as server, \
                UdpClient(server.address) as client:
            nfs = NfsClient(client, server.nfs_port)
            root, _ = client.mount(server.mount_port, server.export)
            nfs._call(8, opaque(root) + opaque(b"file") + bytes(28))  # no attribute is set
            file, _ = nfs.lookup(root, b"file")
            block = support.pattern(32768)
            written = 0
            with self.assertRaisesRegex(Failure, "^status 28$"):
                for written in range(100):
                    nfs._call(7, opaque(file) + struct.pack(">QII", written * len(block), len(block), 2)
                              + opaque(block))
            self.assertGreater(written, 25)
            self.assertTrue(nfs.read_file(file, 32768)[0] == block * written)

    def test_without_permission_nothing_changes(self):
        served = self.served()
        (served / "file").write_text("content")
        (served / "link").symlink_to("file")
        (served / "directory").mkdir()
        (served / "directory/inner").write_text("inner")
        (served / "empty").mkdir()

        def everything():
            return {name: (status.st_mode, status.st_uid, status.st_nlink, status.st_size,
                           status.st_mtime_ns, status.st_ctime_ns)
                    for name, status in {**support.names_below(served), ".": os.lstat(served)}.items()}

        before = everything()
        with support.Server(served) as server:
            said = self.succeeds(support.CHANGE, "--refused", server.url())
            self.assertEqual(len(said.splitlines()), 17, said)
            done = support.run(support.program("nfs-cp"), served / "file", server.url("/copy"))
            self.assertNotEqual(done.returncode, 0)
        self.assertEqual(everything(), before)
        self.assertEqual((served / "file").read_text(), "content")
        self.assertEqual((served / "directory/inner").read_text(), "inner")


if __name__ == "__main__":
    unittest.main(verbosity=2)
