"""Version 3 over UDP serves the same tree, and no reply is longer than a datagram."""

import os
import stat
import unittest

import support
from udp_client import (DIRECTORY, LARGEST_DATAGRAM, MOUNT, NFS, REGULAR, SYMBOLIC_LINK, Failure,
                        NfsClient, UdpClient)


class Udp(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tree = support.small_tree(cls.enterClassContext(support.scratch()) / "tree")
        support.crowded_directory(cls.tree / "crowded", 2000)
        cls.server = cls.enterClassContext(support.Server(cls.tree, "--proto", "udp"))
        cls.client = cls.enterClassContext(UdpClient(cls.server.address))
        cls.nfs = NfsClient(cls.client, cls.server.nfs_port)

    def root(self):
        return self.client.mount(self.server.mount_port, self.server.export)[0]

    def find(self, path):
        handle = self.root()
        for name in os.fsencode(path).split(b"/"):
            handle, attributes = self.nfs.lookup(handle, name)
        return handle, attributes

    def test_ports_come_from_the_port_mapper(self):
        self.assertEqual(self.client.get_port(NFS, 3), self.server.nfs_port)
        self.assertEqual(self.client.get_port(MOUNT, 3), self.server.mount_port)

    def test_null_and_mount(self):
        self.nfs.null()
        handle, flavors = self.client.mount(self.server.mount_port, self.server.export)
        self.assertEqual(len(handle), 16)
        self.assertEqual(flavors, [1])
        self.assertEqual(self.nfs.getattr(handle)["type"], DIRECTORY)

    def test_the_whole_tree_is_the_same(self):
        kinds = {REGULAR: stat.S_ISREG, DIRECTORY: stat.S_ISDIR, SYMBOLIC_LINK: stat.S_ISLNK}
        compared = 0
        pending = [(self.root(), self.tree)]
        while pending:
            handle, local = pending.pop()
            entries, _ = self.nfs.readdir(handle, 8192)
            names = [name for name, _ in entries if name not in (b".", b"..")]
            self.assertEqual(sorted(names), sorted(os.listdir(os.fsencode(local))))
            plus = self.nfs.readdirplus(handle, 32768)
            self.assertEqual(sorted(name for name in plus if name not in (b".", b"..")),
                             sorted(names))
            for name in names:
                path = os.path.join(os.fsencode(local), name)
                expected = os.lstat(path)
                child, attributes = self.nfs.lookup(handle, name)
                self.assertEqual(plus[name], (attributes, child), path)
                self.assertEqual(attributes, self.nfs.getattr(child), path)
                self.assertTrue(kinds[attributes["type"]](expected.st_mode), path)
                self.assertEqual(attributes["mode"] & 0o7777, stat.S_IMODE(expected.st_mode), path)
                self.assertEqual((attributes["uid"], attributes["gid"], attributes["links"]),
                                 (expected.st_uid, expected.st_gid, expected.st_nlink), path)
                if attributes["type"] == DIRECTORY:
                    pending.append((child, os.fsdecode(path)))
                elif attributes["type"] == SYMBOLIC_LINK:
                    self.assertEqual(self.nfs.readlink(child), os.readlink(path), path)
                else:
                    self.assertEqual(attributes["size"], expected.st_size, path)
                    with open(path, "rb") as original:
                        self.assertEqual(self.nfs.read_file(child, 32768)[0], original.read(), path)
                compared += 1
        self.assertEqual(compared, len(support.names_below(self.tree)))

    def test_a_read_that_no_datagram_holds_is_short(self):
        handle, _ = self.find("sizes/1048577")
        content, short = self.nfs.read_file(handle, 1 << 20)
        self.assertEqual(content, (self.tree / "sizes/1048577").read_bytes())
        self.assertGreater(short, 0)
        self.assertGreater(self.client.longest_reply, LARGEST_DATAGRAM // 2)
        self.assertLessEqual(self.client.longest_reply, LARGEST_DATAGRAM)

    def test_a_listing_goes_on_where_its_page_ended(self):
        handle, _ = self.find("crowded")
        expected = sorted(os.listdir(os.fsencode(self.tree / "crowded")))
        for count in (512, 4096, 1 << 20):
            entries, pages = self.nfs.readdir(handle, count)
            names = sorted(name for name, _ in entries if name not in (b".", b".."))
            self.assertEqual(names, expected)
            self.assertGreater(pages, 1)
        ids = [file_id for name, file_id in entries if name not in (b".", b"..")]
        self.assertEqual(len(set(ids)), len(expected))

    def test_refusals_leave_the_service_running(self):
        with self.assertRaisesRegex(Failure, "status 2"):
            self.find("no such name")
        with self.assertRaisesRegex(Failure, "accept status 3"):
            self.client.call(self.server.nfs_port, NFS, 3, 22)
        with self.assertRaises(Failure):
            self.nfs._call(1, b"\xff\xff\xff\xff")
        self.nfs.null()
        self.assertEqual(self.nfs.getattr(self.root())["type"], DIRECTORY)


if __name__ == "__main__":
    unittest.main(verbosity=2)
