"""What goes over the wire, as tshark reads it: nothing malformed, every call answered.

The capture takes in what the other tests do: libnfs reading and changing, rpcinfo, showmount and the
UDP client.
"""

import collections
import os
import signal
import socket
import struct
import subprocess
import unittest

import support
from udp_client import MOUNT, NFS, PORTMAP, Failure, NfsClient, UdpClient, opaque

CALL, REPLY = "0", "1"
# nfsstat3, RFC 1813 section 2.6.
STATUSES = {*range(3), 5, 6, 13, *range(17, 23), 27, 28, 30, 31, 63, 66, 69, 70, 71, *range(10001, 10009)}
# What tshark says of bytes that it cannot place. 0x800000 is the severity of an error.
SUSPICIOUS = ("_ws.malformed || _ws.short || _ws.unreassembled || data || nfs.unknown || "
              "rpc.unknown_body || _ws.expert.severity >= 0x800000")
MARKER_PORT = 9


class Capture:
    """tcpdump on the loopback interface; `stop` returns once everything sent is in the file."""

    def __init__(self, path):
        self.path = path
        self.process = subprocess.Popen(
            [support.program("tcpdump"), "-Z", "root", "-i", "lo", "-s", "0", "-B", "65536", "-U", "-w",
             os.fspath(path)], env=support.ENVIRONMENT, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        first = self.process.stderr.readline().decode()
        if "listening on" not in first:
            self.kill()
            raise unittest.SkipTest(f"tcpdump cannot capture here: {first.strip()}")

    def stop(self):
        marker = b"the end of the capture " + os.urandom(8).hex().encode()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(marker, ("127.0.0.1", MARKER_PORT))
        support.wait_until(lambda: marker in self.path.read_bytes()[-4096:], 20, "the last packet")
        self.process.send_signal(signal.SIGINT)
        said = self.process.stderr.read().decode()
        self.process.wait(10)
        if "0 packets dropped by kernel" not in said:
            raise AssertionError(f"packets were lost: {said}")

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stderr.close()


def tshark(path, ports, *arguments):
    decode = [word for protocol in ("tcp", "udp") for port in ports
              for word in ("-d", f"{protocol}.port=={port},rpc")]
    done = support.run(support.program("tshark"), "-n", "-2", "-r", path, *decode, *arguments, timeout=120)
    if done.returncode != 0:
        raise AssertionError(f"tshark failed: {done.stderr.decode()}")
    return done.stdout.decode(errors="replace").splitlines()


class Verdict:
    """What tshark makes of a capture: a list of problems, and how often what was answered."""

    def __init__(self, path, ports):
        self.problems = [f"suspicious: {line.strip()}" for line in
                         tshark(path, ports, "-Y", f"({SUSPICIOUS}) && udp.port != {MARKER_PORT}")]
        self.replies = collections.Counter()
        calls, answers = collections.Counter(), collections.Counter()
        fields = ("tcp.stream", "udp.stream", "rpc.msgtyp", "rpc.xid", "rpc.program",
                  "rpc.procedure", "nfs.status3")
        options = [word for field in fields for word in ("-e", field)]
        for row in tshark(path, ports, "-Y", "rpc", "-T", "fields", "-E", "occurrence=a", *options):
            tcp, udp, kinds, transactions, programs, procedures, statuses = [
                column.split(",") if column else [] for column in row.split("\t")]
            if len(kinds) != len(transactions):
                self.problems.append(f"a message without its kind: {row}")
            flow = ("tcp", tcp[0]) if tcp else ("udp", udp[0])
            for kind, transaction in zip(kinds, transactions):
                {CALL: calls, REPLY: answers}[kind][(*flow, transaction)] += 1
            if set(kinds) == {REPLY}:
                self.replies.update((int(program), int(procedure))
                                    for program, procedure in zip(programs, procedures))
            self.problems += [f"no status of NFS: {status}" for status in statuses
                              if int(status) not in STATUSES]
        self.calls = sum(calls.values())
        self.problems += [f"not answered: {call}" for call in calls - answers]
        self.problems += [f"answered, never called: {answer}" for answer in answers - calls]


class Packets:
    """A capture file of tcpdump, packet by packet, to be spoilt."""

    def __init__(self, path):
        content = path.read_bytes()
        self.head = content[:24]
        self.order = "<" if content[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
        self.packets = []
        position = 24
        while position < len(content):
            seconds, fraction, kept, _ = struct.unpack_from(self.order + "IIII", content, position)
            position += 16
            self.packets.append((seconds, fraction, content[position:position + kept]))
            position += kept

    def write(self, path):
        with open(path, "wb") as file:
            file.write(self.head)
            for seconds, fraction, data in self.packets:
                file.write(struct.pack(self.order + "IIII", seconds, fraction, len(data), len(data)))
                file.write(data)
        return path

    def find(self, what, port):
        """The number of the first datagram from `port` that contains `what`."""
        for number, (_, _, data) in enumerate(self.packets):
            if data[23] == socket.IPPROTO_UDP and data[34:36] == struct.pack(">H", port) \
                    and what in data[42:]:
                return number
        raise AssertionError(f"no datagram has {what!r}")

    def change(self, number, change):
        """Puts `change(payload)` in the place of a datagram's payload."""
        seconds, fraction, data = self.packets[number]
        payload = change(data[42:])
        head = bytearray(data[:42])
        struct.pack_into(">H", head, 16, 28 + len(payload))
        struct.pack_into(">H", head, 24, 0)  # checksums of captures are not looked at
        struct.pack_into(">H", head, 38, 8 + len(payload))
        self.packets[number] = (seconds, fraction, bytes(head) + payload)


class Wire(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        support.program("tshark")
        cls.directory = cls.enterClassContext(support.scratch())
        cls.tree = support.small_tree(cls.directory / "tree")
        support.crowded_directory(cls.tree / "crowded", 300)
        cls.path = cls.directory / "capture.pcap"
        capture = Capture(cls.path)
        try:
            cls.ports = set()
            with support.Server(cls.tree) as server:
                cls.ports |= {server.nfs_port, server.mount_port}
                cls.use_over_tcp(server)
            for name in ("served", "local"):
                (cls.directory / name).mkdir()
            with support.Server(cls.directory / "served", "--rw") as server:
                cls.ports |= {server.nfs_port, server.mount_port}
                cls.succeed(support.CHANGE, server.url(), cls.directory / "local", 1, 60)
            with support.Server("memory:1M", "--rw") as server:
                cls.ports |= {server.nfs_port, server.mount_port}
                cls.succeed(support.CHANGE, "--fill", server.url())
            with support.Server(cls.tree, "--proto", "udp") as server:
                cls.ports |= {server.nfs_port, server.mount_port}
                cls.udp_port = server.nfs_port
                cls.use_over_udp(server)
            capture.stop()
        finally:
            capture.kill()
        cls.verdict = Verdict(cls.path, cls.ports)

    @classmethod
    def succeed(cls, *command):
        done = support.run(*command, timeout=60)
        if done.returncode != 0:
            raise AssertionError(f"{command}: {done.stdout + done.stderr!r}")

    @classmethod
    def use_over_tcp(cls, server):
        cls.succeed(support.COMPARE, server.url(), cls.tree)
        cls.succeed(support.program("nfs-ls"), "-R", server.url())
        cls.succeed(support.program("rpcinfo"), "-p", server.address)
        cls.succeed(support.program("showmount"), "-e", server.address)
        for switch, program in (("-t", NFS), ("-t", MOUNT), ("-u", MOUNT)):
            cls.succeed(support.program("rpcinfo"), switch, server.address, program, 3)

    @classmethod
    def use_over_udp(cls, server):
        with UdpClient(server.address) as client:
            client.get_port(NFS, 3)
            nfs = NfsClient(client, server.nfs_port)
            root, _ = client.mount(server.mount_port, server.export)
            nfs.null()
            for procedure in (18, 19, 20):
                nfs._call(procedure, opaque(root))
            nfs._call(4, opaque(root) + struct.pack(">I", 0x3F))
            for name, _ in nfs.readdir(root, 1024)[0]:
                nfs.lookup(root, name)
            nfs.readdirplus(root, 8192)
            sizes, _ = nfs.lookup(root, b"sizes")
            file, _ = nfs.lookup(sizes, b"1048577")
            nfs.read_file(file, 1 << 20)
            links, _ = nfs.lookup(root, b"links")
            nfs.readlink(nfs.lookup(links, b"to a file")[0])
            for handle, name in ((root, b"no such name"), (b"\0" * 16, b"stale")):
                try:
                    nfs.lookup(handle, name)
                except Failure:
                    continue
                raise AssertionError("a lookup that cannot succeed did")

    def test_nothing_is_malformed_and_every_call_has_its_reply(self):
        self.assertEqual(self.verdict.problems[:20], [])

    def test_the_capture_holds_what_it_is_about(self):
        replies = self.verdict.replies
        self.assertGreater(self.verdict.calls, 1500)
        for procedure, least in ((0, 3), (1, 100), (3, 500), (4, 1), (5, 7), (6, 300), (16, 1), (17, 20),
                                 (18, 1), (19, 2), (20, 1), (2, 20), (7, 50), (8, 40), (9, 200), (10, 5),
                                 (12, 35), (13, 200), (14, 15), (15, 5), (21, 35)):
            self.assertGreaterEqual(replies[(NFS, procedure)], least, f"NFS procedure {procedure}")
        for key in ((MOUNT, 0), (MOUNT, 1), (MOUNT, 5), (PORTMAP, 3), (PORTMAP, 4)):
            self.assertGreaterEqual(replies[key], 1, key)

    def spoilt(self, spoil):
        packets = Packets(self.path)
        packets.packets = [packet for packet in packets.packets
                           if packet[2][23] == socket.IPPROTO_UDP]
        spoil(packets)
        return Verdict(packets.write(self.directory / "spoilt.pcap"), self.ports).problems

    def test_a_spoilt_capture_would_be_noticed(self):
        listing = struct.pack(">I", 7) + b"crowded\0"

        def wrong_length(packets):
            packets.change(packets.find(listing, self.udp_port), lambda payload: payload.replace(
                listing, struct.pack(">I", 70000) + listing[4:]))

        def cut_short(packets):
            packets.change(packets.find(listing, self.udp_port), lambda payload: payload[:-9])

        def too_long(packets):
            packets.change(packets.find(listing, self.udp_port), lambda payload: payload + b"\0\0\0\7")

        def strange_status(packets):
            packets.change(packets.find(listing, self.udp_port), lambda payload: payload[:24] +
                           struct.pack(">I", 4711) + payload[28:])

        def no_reply(packets):
            del packets.packets[packets.find(listing, self.udp_port)]

        self.assertEqual(self.spoilt(lambda packets: None), [])
        for spoil in (wrong_length, cut_short, too_long, strange_status, no_reply):
            with self.subTest(spoil.__name__):
                self.assertNotEqual(self.spoilt(spoil), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
