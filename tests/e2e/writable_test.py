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

    def succeeds(self, *command, timeout=120):
        done = support.run(*command, timeout=timeout)
        said = (done.stdout + done.stderr).decode(errors="replace")
        self.assertEqual(done.returncode, 0, said)
        return said

    def test_nfs_cp_in_both_directions(self):
        copy = support.program("nfs-cp")
        original, returned = self.directory / "original", self.directory / "returned"
        (self.directory / "served").mkdir()
        for source in (self.directory / "served", "memory:64M"):
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

    def test_two_clients_change_what_the_other_made(self):
        served = support.tree_to_change(self.directory / "served")
        with support.Server(served, "--rw") as server:
            self.succeeds(support.CHANGE, server.url())
        long_name = "n" * 255
        kinds = {name: support.type_and_mode(status)
                 for name, status in support.names_below(served).items()}
        self.assertEqual(kinds, {
            "linked": "-rw-r--r--", "made": "drwx--x--t", "moved": "-rw-r-----", "name": "-rw----r--",
            "soft": "lrwxrwxrwx", long_name: kinds[long_name], long_name + "/large": "-rw-r--r--"})
        self.assertEqual((served / "moved").read_text(), "directory/inner")
        self.assertEqual((served / "linked").read_text(), "")
        self.assertEqual((served / "moved").stat().st_mtime, 1_000_000_000)
        self.assertEqual(os.readlink(served / "soft"), "file")
        owner = (served / long_name).stat()
        self.assertEqual((owner.st_uid, owner.st_gid), (1, 2))
        with open(served / long_name / "large", "rb") as large:
            large.seek((4 << 30) - 1_000_000)
            self.assertEqual(large.read(), b"aft" + bytes(97))

    def test_no_space_is_told(self):
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
        served = support.tree_to_change(self.directory / "served")

        def everything():
            return {name: (status.st_mode, status.st_uid, status.st_nlink, status.st_size,
                           status.st_mtime_ns, status.st_ctime_ns)
                    for name, status in {**support.names_below(served), ".": os.lstat(served)}.items()}

        before = everything()
        with support.Server(served) as server:
            said = self.succeeds(support.CHANGE, "--refused", server.url())
            # Not by splitlines: libnfs shows the status of a refused WRITE as a character.
            self.assertEqual(said.count("\n"), 18, said)
            done = support.run(support.program("nfs-cp"), served / "file", server.url("/copy"))
            self.assertNotEqual(done.returncode, 0)
        self.assertEqual(everything(), before)
        self.assertEqual((served / "file").read_text(), "file")
        self.assertEqual((served / "directory/inner").read_text(), "directory/inner")


if __name__ == "__main__":
    unittest.main(verbosity=2)
