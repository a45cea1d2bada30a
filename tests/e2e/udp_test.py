"""Version 3 over UDP serves the same tree, and no reply is longer than a datagram."""

import os
import unittest

import support
from udp_client import DIRECTORY, LARGEST_DATAGRAM, NFS, Failure, NfsClient, UdpClient


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
