"""rpcinfo and showmount find the programs, with the system's rpcbind and without it."""

import os
import re
import subprocess
import unittest

import support
from mount_command_test import kernel_has_nfs
from udp_client import NfsClient, UdpClient

MOUNT_PROGRAM, NFS_PROGRAM = 100005, 100003


def programs(address):
    """{(program, version, protocol): port} as `rpcinfo -p` prints it."""
    done = support.run(support.program("rpcinfo"), "-p", address)
    if done.returncode != 0:
        raise AssertionError(f"rpcinfo -p: {done.stdout + done.stderr!r}")
    rows = re.findall(r"^ +(\d+) +(\d+) +(tcp|udp) +(\d+)", done.stdout.decode(), re.MULTILINE)
    return {(int(program), int(version), protocol): int(port)
            for program, version, protocol, port in rows}


def exports(address):
    """The paths that `showmount -e` prints."""
    done = support.run(support.program("showmount"), "-e", address)
    if done.returncode != 0:
        raise AssertionError(f"showmount -e: {done.stdout + done.stderr!r}")
    lines = done.stdout.decode().splitlines()
    return lines[0], [line.split()[0] for line in lines[1:]]


class PortMapper(unittest.TestCase):
    """Port 111 of the tool's address is the tool's own."""

    @classmethod
    def setUpClass(cls):
        cls.rpcinfo = support.program("rpcinfo")
        support.program("showmount")

    def setUp(self):
        self.tree = self.enterContext(support.scratch())

    def answers(self, switch, address, program, version):
        done = support.run(self.rpcinfo, switch, address, program, version)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertIn(f"program {program} version {version} ready and waiting", done.stdout.decode())

    def check_tcp(self, *options):
        with support.Server(self.tree, *options) as server:
            self.assertEqual(programs(server.address), {
                **{(100000, version, transport): 111
                   for version in (2, 3, 4) for transport in ("tcp", "udp")},
                (NFS_PROGRAM, 3, "tcp"): server.nfs_port,
                (MOUNT_PROGRAM, 3, "tcp"): server.mount_port,
                (MOUNT_PROGRAM, 3, "udp"): server.mount_port,
            })
            self.answers("-t", server.address, NFS_PROGRAM, 3)
            self.answers("-t", server.address, MOUNT_PROGRAM, 3)
            self.answers("-u", server.address, MOUNT_PROGRAM, 3)
            self.assertNotEqual(support.run(self.rpcinfo, "-t", server.address, 100021, 4).returncode, 0)
            self.assertEqual(exports(server.address),
                             (f"Export list for {server.address}:", [server.export]))
            return server.address

    def test_tcp(self):
        self.check_tcp()

    def test_ports_of_ones_own_choice(self):
        self.check_tcp("--nfs-port", 2049, "--mount-port", 20048)

    def test_an_address_of_its_own(self):
        held = support.run("ip", "-o", "addr", "show", "dev", "lo").stdout
        address = self.check_tcp("--alias")
        self.assertRegex(address, r"^127\.127\.")
        self.assertEqual(support.run("ip", "-o", "addr", "show", "dev", "lo").stdout, held)

    def test_udp(self):
        # rpcinfo -p and showmount -e speak TCP to the port mapper, which this mode does not serve.
        with support.Server(self.tree, "--proto", "udp") as server:
            self.answers("-u", server.address, NFS_PROGRAM, 3)
            self.answers("-u", server.address, MOUNT_PROGRAM, 3)


class SystemPortMapper(unittest.TestCase):
    """rpcbind holds port 111 of every address: the tool registers there what it serves over TCP."""

    @classmethod
    def setUpClass(cls):
        if os.environ.get("NFSLIB_PRIVATE_RUN") != "1":
            raise unittest.SkipTest("needs a private /run for rpcbind's socket (scripts/test.sh has it)")
        os.makedirs("/run/rpcbind", exist_ok=True)
        rpcbind = subprocess.Popen([support.program("rpcbind"), "-w", "-f"],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE)
        cls.addClassCleanup(rpcbind.stderr.close)
        cls.addClassCleanup(rpcbind.wait)
        cls.addClassCleanup(rpcbind.kill)

        def registered():
            if rpcbind.poll() is not None:
                raise unittest.SkipTest(f"rpcbind does not run here: {rpcbind.stderr.read().decode()}")
            return support.run(support.program("rpcinfo"), "-p", "127.0.0.1").returncode == 0

        support.wait_until(registered, 10, "rpcbind")

    def setUp(self):
        self.tree = self.enterContext(support.scratch())

    def check(self, *options):
        before = programs("127.0.0.1")
        self.assertNotIn((NFS_PROGRAM, 3, "tcp"), before)
        with support.Server(self.tree, *options) as server:
            self.assertEqual(programs(server.address), before | {
                (NFS_PROGRAM, 3, "tcp"): server.nfs_port,
                (MOUNT_PROGRAM, 3, "tcp"): server.mount_port,
                (MOUNT_PROGRAM, 3, "udp"): server.mount_port,
            })
            for switch, program in (("-t", NFS_PROGRAM), ("-t", MOUNT_PROGRAM), ("-u", MOUNT_PROGRAM)):
                done = support.run(support.program("rpcinfo"), switch, server.address, program, 3)
                self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            self.assertEqual(exports(server.address)[1], [server.export])
            done = support.run(support.program("nfs-ls"), server.url())
            self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(programs("127.0.0.1"), before)

    def test_tcp(self):
        self.check()

    def test_an_address_of_its_own(self):
        self.check("--alias")

    def test_two_servers_take_back_only_what_is_theirs(self):
        before = programs("127.0.0.1")
        with support.Server(self.tree) as first:
            with support.Server(self.tree, "--alias") as second:
                self.assertNotEqual(first.nfs_port, second.nfs_port)
            self.assertEqual(programs("127.0.0.1")[(NFS_PROGRAM, 3, "tcp")], first.nfs_port)
        self.assertEqual(programs("127.0.0.1"), before)

    def test_what_a_killed_server_left_makes_way(self):
        before = programs("127.0.0.1")
        killed = support.Server(self.tree, "--nfs-port", 40001, "--mount-port", 40002)
        killed.kill()
        self.assertEqual(programs("127.0.0.1")[(NFS_PROGRAM, 3, "tcp")], 40001)
        with support.Server(self.tree, "--nfs-port", 40003, "--mount-port", 40004) as server:
            self.assertEqual(programs("127.0.0.1")[(NFS_PROGRAM, 3, "tcp")], 40003)
            self.assertEqual(exports(server.address)[1], [server.export])
        self.assertEqual(programs("127.0.0.1"), before)

    def test_a_mount_that_fails_leaves_no_registration(self):
        if kernel_has_nfs():
            self.skipTest("it would not fail: the kernel has an NFS client")
        before = programs("127.0.0.1")
        mount = support.run(support.TOOL, "mount", self.tree, self.tree, "--nfs-port", 40001, timeout=60)
        self.assertEqual(mount.returncode, 1, mount.stderr)
        self.assertEqual(programs("127.0.0.1"), before)

    def test_udp(self):
        # This mode registers nothing: its clients are told the ports.
        before = programs("127.0.0.1")
        with support.Server(self.tree, "--proto", "udp") as server:
            self.assertEqual(programs(server.address), before)
            with UdpClient(server.address) as client:
                root, _ = client.mount(server.mount_port, server.export)
                NfsClient(client, server.nfs_port).getattr(root)


if __name__ == "__main__":
    unittest.main(verbosity=2)
