"""How the tool starts, ends and takes what it cannot use."""

import os
import pathlib
import signal
import socket
import subprocess
import unittest

import nfs4_client
import support

USAGE, FAILURE = 2, 1
UNPRIVILEGED = ("setpriv", "--bounding-set=-all", "--inh-caps=-all", "--reuid=65534", "--regid=65534",
                "--clear-groups")


class BadInput(unittest.TestCase):
    """One sentence on standard error, nothing on standard output, and a status."""

    def refused(self, status, *arguments, mentions=()):
        with self.subTest(arguments=arguments):
            done = support.run(support.TOOL, *arguments, timeout=15)
            said = done.stderr.decode()
            self.assertEqual(done.returncode, status, said)
            self.assertEqual(done.stdout, b"")
            self.assertEqual(len(said.splitlines()), 1, said)
            self.assertGreater(len(said.split()), 3, said)
            self.assertNotIn("terminate called", said)
            for word in mentions:
                self.assertIn(word, said)

    def test_usage(self):
        for arguments, mentions in (
                ([], ()),
                (["serve"], ()),
                (["sevre", "memory"], ()),
                (["serve", "memory", "--no-such-option"], ["no-such-option"]),
                (["serve", "memory", "one", "more"], ()),
                (["serve", "memory", "--nfs-port", "seventy"], ["nfs-port"]),
                (["serve", "memory", "--nfs-port", "65536"], ["nfs-port"]),
                (["serve", "memory", "--mount-port", "-1"], ["mount-port"]),
                (["serve", "memory", "--nfs-port", ""], ["nfs-port"]),
                (["serve", "memory", "--nfs-version", "2"], ["nfs-version"]),
                (["serve", "memory", "--proto", "sctp"], ["proto"]),
                (["serve", "memory", "--max-open-files", "0"], ["max-open-files"]),
                (["serve", "memory", "--rsize", "0"], ["rsize"]),
                (["serve", "memory", "--rsize", "many"], ["rsize"]),
                (["serve", "memory", "--log-level", "loud"], ["log-level"]),
                (["serve", "memory:lots"], ["lots"]),
                (["serve", "memory:"], ["memory"]),
        ):
            self.refused(USAGE, *arguments, mentions=mentions)

    def test_sources_and_surroundings(self):
        with support.scratch() as directory:
            file = directory / "a file"
            file.write_text("not a directory")
            missing = directory / "missing"
            log = file / "log"
            for arguments, mentions in (
                    (["serve", missing], [str(missing)]),
                    (["serve", file], [str(file)]),
                    (["serve", directory, "--group", "no-such-group"], ["no-such-group"]),
                    (["serve", directory, "--log-file", log], [str(log)]),
            ):
                done = support.run(support.TOOL, *arguments, timeout=15)
                self.assertIn(done.returncode, (USAGE, FAILURE))
                self.refused(done.returncode, *arguments, mentions=mentions)
            self.refused(FAILURE, "serve", missing, mentions=[str(missing)])

    def test_a_port_in_use(self):
        with support.scratch() as directory, socket.socket() as holder:
            holder.bind(("0.0.0.0", 0))
            holder.listen()
            port = holder.getsockname()[1]
            for option in ("--nfs-port", "--mount-port"):
                self.refused(FAILURE, "serve", directory, option, str(port), mentions=[str(port)])

    def give_privilege_away(self):
        if os.geteuid() != 0:
            self.skipTest("needs privilege to give away")
        support.program("setpriv")
        done = support.run(*UNPRIVILEGED, support.TOOL, "--help")
        if done.returncode != 0:
            self.skipTest(f"an ordinary user cannot reach the tool here: {done.stderr.decode()}")

    def test_no_privilege_for_port_111(self):
        self.give_privilege_away()
        with support.scratch() as directory:
            directory.chmod(0o755)
            done = support.run(*UNPRIVILEGED, support.TOOL, "serve", directory, "--nfs-version", "3",
                               timeout=15)
            said = done.stderr.decode()
            self.assertEqual(done.returncode, FAILURE, said)
            self.assertEqual(len(said.splitlines()), 1, said)
            self.assertIn("111", said)

    def test_version_4_needs_no_privilege(self):
        self.give_privilege_away()
        before = support.listening_sockets()
        with support.scratch() as directory:
            directory.chmod(0o755)
            (directory / "file").write_text("content")
            # Without a version: an ordinary user gets 4.
            for options in (), ("--nfs-version", 4):
                with support.Server(directory, *options, before=UNPRIVILEGED) as server, \
                        nfs4_client.Nfs4Client(server.address, server.nfs_port, 1) as client:
                    self.assertEqual([line.split()[0] for line in server.lines],
                                     ["export", "address", "nfs-port", "ready"])
                    self.assertEqual(server.address, "127.0.0.1")
                    listening = support.listening_sockets() - before
                    ports = {(kind, int(address.split(":")[1], 16)) for kind, address in listening}
                    self.assertEqual(ports, {("tcp", server.nfs_port)})
                    self.assertGreaterEqual(server.nfs_port, 1024)
                    client.call(0).end()
                    client.begin()
                    found = client.done("PUTROOTFH", ("LOOKUP", nfs4_client.opaque(server.export[1:].encode())), (
                        "LOOKUP", nfs4_client.opaque(b"file")), ("GETATTR", nfs4_client.bitmap(nfs4_client.SIZE)))
                    self.assertEqual(found[-1], {nfs4_client.SIZE: 7})
                    client.end()

    def test_help_is_not_an_error(self):
        for arguments in (["--help"], ["serve", "--help"]):
            done = support.run(support.TOOL, *arguments)
            self.assertEqual((done.returncode, done.stderr), (0, b""))
            self.assertIn(b"serve", done.stdout)


class Life(unittest.TestCase):
    def setUp(self):
        self.tree = self.enterContext(support.scratch())
        (self.tree / "file").write_text("content")

    def test_the_announcement(self):
        with support.Server(self.tree) as server:
            self.assertEqual([line.split()[0] for line in server.lines],
                             ["export", "address", "nfs-port", "mount-port", "ready"])
            self.assertTrue(server.export.startswith("/"))
            socket.inet_aton(server.address)

    def test_it_is_quick_to_be_ready(self):
        seconds = []
        for _ in range(5):
            with support.Server(self.tree) as server:
                seconds.append(server.start_seconds)
        self.assertLess(sorted(seconds)[2], 0.5 * support.PATIENCE, seconds)

    def test_both_signals_end_it_and_nothing_is_left(self):
        before = support.listening_sockets()
        for number in (signal.SIGTERM, signal.SIGINT):
            for options in ((), ("--proto", "udp")):
                server = support.Server(self.tree, *options)
                self.assertNotEqual(support.listening_sockets(), before)
                self.assertEqual(server.stop(number), 0, server.errors())
                self.assertEqual(support.listening_sockets(), before)
                with self.assertRaises(ProcessLookupError):
                    os.kill(server.process.pid, 0)

    def test_a_silent_connection_does_not_hold_it(self):
        server = support.Server(self.tree)
        with socket.create_connection((server.address, server.nfs_port)) as idle, \
                socket.create_connection((server.address, server.mount_port)) as half:
            half.sendall(b"\x80\x00")
            self.assertEqual(server.stop(), 0, server.errors())
            idle.settimeout(5)
            self.assertEqual(idle.recv(1), b"")

    def test_its_port_is_free_again_at_once(self):
        with support.Server(self.tree) as first:
            port = first.nfs_port
            socket.create_connection((first.address, port)).close()
        with support.Server(self.tree, "--nfs-port", port) as second:
            self.assertEqual(second.nfs_port, port)

    def test_two_servers_of_one_machine(self):
        # For the second one port 111 belongs to the system: its clients have to be told the ports.
        with support.Server(self.tree) as first, support.Server(self.tree) as second:
            self.assertNotEqual(first.nfs_port, second.nfs_port)
            for server in (first, second):
                done = support.run(support.program("nfs-cat"), server.url("/file"))
                self.assertEqual(done.stdout, b"content", done.stderr)

    def test_the_log(self):
        with support.scratch() as directory:
            log = directory / "log"
            with support.Server(self.tree, "--log-level", "debug", "--log-file", log) as server:
                support.run(support.program("nfs-cat"), server.url("/file"))
            self.assertIn("readFile", log.read_text())
            self.assertIn("Starting NFS server on", log.read_text())

    def test_standard_output_may_be_closed_after_the_announcement(self):
        server = support.Server(self.tree)
        server.process.stdout.close()
        done = support.run(support.program("nfs-cat"), server.url("/file"))
        self.assertEqual(done.stdout, b"content")
        self.assertEqual(server.stop(), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
