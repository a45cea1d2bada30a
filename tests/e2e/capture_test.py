"""What goes over the wire, as tshark reads it: nothing malformed, every call answered.

The capture takes in what the other tests do: libnfs reading and changing, rpcinfo, showmount and the
UDP client. Of version 4 it has every operation, in both profiles and minor versions, done and refused.
"""

import collections
import itertools
import os
import signal
import socket
import struct
import subprocess
import typing
import unittest

import nfs4_client as v4
import support
from udp_client import MOUNT, NFS, PORTMAP, Failure, NfsClient, UdpClient, opaque

CALL, REPLY = "0", "1"
# nfsstat3, RFC 1813 section 2.6.
STATUSES = {*range(3), 5, 6, 13, *range(17, 23), 27, 28, 30, 31, 63, 66, 69, 70, 71, *range(10001, 10009)}
# nfsstat4, RFC 5661 section 15.1.
STATUSES_4 = STATUSES - {19, 71} | set(range(10001, 10088)) - {10073}
MARKER_PORT = 9
# What tshark says of bytes that it cannot place. 0x800000 is the severity of an error.
SUSPICIOUS = ("_ws.malformed || _ws.short || _ws.unreassembled || data || nfs.unknown || "
              "rpc.unknown_body || _ws.expert.severity >= 0x800000")
# A single byte that TCP sends again, which is taken for a keep-alive; and the end of the capture.
HARMLESS = f"tcp.analysis.keep_alive || udp.port == {MARKER_PORT}"
VERSION_4_PORT = 33400


class Profile(typing.NamedTuple):
    """What the walk through version 4 meets differently in the two profiles."""
    options: tuple
    shown: set  # attributes of an object
    shown_above: set  # and of the directory above the exports
    bad_handle: int  # PUTFH of what is no handle
    closed: int  # READ with the stateid of a file that was closed
    moved_nothing: int  # RENAME of a name that is not there
    harmless: set  # operations that nothing makes fail


CLASSIC_ATTRIBUTES = set(v4.ATTRIBUTES) - {16, 18, 21, 22, 23, 28, 42, 43, 44, 45, 51, 75}
# Without a list there is no acl and no aclsupport; above the exports there are no statistics.
MODERN_ATTRIBUTES = set(v4.ATTRIBUTES) - {12, 13}
CLASSIC = Profile(("--classic",), CLASSIC_ATTRIBUTES, CLASSIC_ATTRIBUTES, 10001, 10020, 5,
                  {"ACCESS", "CLOSE", "GETATTR", "GETFH", "LOOKUPP", "RESTOREFH", "SAVEFH", "SETCLIENTID",
                   "RECLAIM_COMPLETE", "PUTROOTFH"})
MODERN = Profile((), MODERN_ATTRIBUTES, MODERN_ATTRIBUTES - {21, 22, 23, 42, 43, 44}, 70, 10025, 2,
                 {"SETCLIENTID", "RECLAIM_COMPLETE", "PUTROOTFH", "PUTPUBFH", "DELEGPURGE", "TEST_STATEID"})


def name(text):
    return v4.opaque(text.encode())


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
    # A segment that found no room at its receiver comes again behind later ones, also on this network.
    done = support.run(support.program("tshark"), "-n", "-2", "-o", "tcp.reassemble_out_of_order:TRUE", "-r", path,
                       *decode, *arguments, timeout=120)
    if done.returncode != 0:
        raise AssertionError(f"tshark failed: {done.stderr.decode()}")
    return done.stdout.decode(errors="replace").splitlines()


class Verdict:
    """What tshark makes of a capture: a list of problems, and how often what was answered."""

    def __init__(self, path, ports):
        self.problems = [f"suspicious: {line.strip()}" for line in
                         tshark(path, ports, "-Y", f"({SUSPICIOUS}) && !({HARMLESS})")]
        self.replies = collections.Counter()
        self.statuses4 = set()
        calls, answers = collections.Counter(), collections.Counter()
        fields = ("tcp.stream", "udp.stream", "rpc.msgtyp", "rpc.xid", "rpc.program",
                  "rpc.procedure", "nfs.status3", "nfs.nfsstat4", "tcp.analysis.retransmission")
        options = [word for field in fields for word in ("-e", field)]
        for row in tshark(path, ports, "-Y", "rpc", "-T", "fields", "-E", "occurrence=a", *options):
            tcp, udp, kinds, transactions, programs, procedures, statuses, statuses4, sent_again = [
                column.split(",") if column else [] for column in row.split("\t")]
            if len(kinds) != len(transactions):
                self.problems.append(f"a message without its kind: {row}")
            flow = ("tcp", tcp[0]) if tcp else ("udp", udp[0])
            for kind, transaction in zip(kinds, transactions):
                seen = {CALL: calls, REPLY: answers}[kind]
                # On a busy machine TCP may send bytes again that were there already.
                if not (sent_again and seen[(*flow, transaction)]):
                    seen[(*flow, transaction)] += 1
            if set(kinds) == {REPLY}:
                self.replies.update((int(program), int(procedure))
                                    for program, procedure in zip(programs, procedures))
            self.problems += [f"no status of NFS: {status}" for status in statuses
                              if int(status) not in STATUSES]
            self.statuses4.update(map(int, statuses4))
            self.problems += [f"no status of version 4: {status}" for status in statuses4
                              if int(status) not in STATUSES_4]
        self.calls = sum(calls.values())
        self.problems += [f"not answered: {call}" for call in calls - answers]
        self.problems += [f"answered, never called: {answer}" for answer in answers - calls]


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
            with support.Server(support.tree_to_change(cls.directory / "served"), "--rw") as server:
                cls.ports |= {server.nfs_port, server.mount_port}
                cls.succeed(support.CHANGE, server.url())
                cls.succeed(support.program("nfs-cp"), cls.tree / "sizes/1048577", server.url("/copy"))
            with support.Server(cls.tree, "--proto", "udp") as server:
                cls.ports |= {server.nfs_port, server.mount_port}
                cls.udp_port = server.nfs_port
                cls.use_over_udp(server)
            cls.sent = []
            for profile, minor in itertools.product((CLASSIC, MODERN), (0, 1)):
                served = cls.directory / f"version 4.{minor}{profile.options}"
                served.mkdir()
                with support.Server(served, "--rw", "--nfs-version", 4, "--nfs-port", VERSION_4_PORT,
                                    *profile.options) as server:
                    cls.ports.add(server.nfs_port)
                    cls.sent.append((profile, minor, cls.use_version_4(server, minor, profile)))
            for profile in (CLASSIC, MODERN):
                with support.Server(cls.tree, "--nfs-version", 4, *profile.options) as server:
                    cls.ports.add(server.nfs_port)
                    cls.read_version_4(server)
                    if profile is MODERN:
                        cls.succeed(support.COMPARE, server.url(), cls.tree)
            # More than this in a WRITE of version 4 libnfs cannot encode.
            (cls.directory / "original").write_bytes(support.pattern(3000))
            with support.Server(cls.directory / "served", "--rw", "--nfs-version", 4) as server:
                cls.ports.add(server.nfs_port)
                cls.succeed(support.program("nfs-cp"), cls.directory / "original", server.url("/original"))
                cls.succeed(support.program("nfs-cp"), server.url("/original"), cls.directory / "returned")
            assert (cls.directory / "returned").read_bytes() == support.pattern(3000)
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
            nfs.readdir(root, 8192, plus=True)
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

    @classmethod
    def use_version_4(cls, server, minor, profile):
        """Every operation with a success and, where there can be one, a failure. Returns (name, whether
        it succeeded) of all."""
        modern = profile is MODERN
        shown, shown_above = (which - (set() if minor else {v4.EXCLUSIVELY_SETTABLE})
                              for which in (profile.shown, profile.shown_above))
        export, data, setting = v4.opaque(server.export[1:].encode()), bytes(range(251)) * 300, v4.words(0o640)
        mode_and_times = v4.attributes(setting + v4.words(1) + v4.long(1_000_000_000) + v4.words(0) +
                                       v4.words(0), v4.MODE, v4.SET_ACCESS_TIME, v4.SET_MODIFY_TIME)

        with v4.Nfs4Client(server.address, server.nfs_port, minor) as client:
            done, refused = client.done, client.refused
            client.call(0).end()
            if minor == 1:
                refused(10071, "PUTROOTFH")
            client.begin()
            owner, other = client.owner(b"an owner"), client.owner(b"another owner")
            # The directory above the exports.
            at, handle, pseudo = done("PUTROOTFH", "GETFH", ("GETATTR", v4.EVERYTHING))
            assert at is None and pseudo[v4.TYPE] == v4.DIRECTORY and set(pseudo) == shown_above, pseudo
            listing = v4.long(0) + bytes(8) + v4.words(8192, 32768)
            entries, end = done("PUTROOTFH", ("READDIR", listing + v4.EVERYTHING))[1]
            assert end and [entry[0] for entry in entries] == [server.export[1:].encode()], entries
            for operation in (("CREATE", v4.words(2) + name("new") + v4.attributes()), ("REMOVE", name("gone")),
                              ("OPEN", v4.open_file(owner, b"new", v4.unchecked())),
                              ("SETATTR", v4.NO_STATE + v4.attributes(setting, v4.MODE))):
                refused(30, "PUTROOTFH", operation)
            refused(2, "PUTROOTFH", ("LOOKUP", name("no such export")))
            root = ("PUTFH", v4.opaque(done("PUTROOTFH", ("LOOKUP", export), "GETFH")[2]))
            refused(profile.bad_handle, ("PUTFH", v4.opaque(b"\7" * 16)))

            # What is made, and what cannot be.
            directory = v4.words(v4.DIRECTORY) + name("made")
            made = done(root, ("CREATE", directory + v4.attributes(setting, v4.MODE)), "GETFH",
                        ("GETATTR", v4.EVERYTHING), "LOOKUPP", "GETFH")
            assert set(made[3]) == shown, made[3]
            assert (made[3][v4.TYPE], made[3][v4.MODE]) == (v4.DIRECTORY, 0o640), made
            assert v4.opaque(made[5]) == root[1]
            refused(17, root, ("CREATE", directory + v4.attributes()))
            refused(10007, root, ("CREATE", v4.words(6) + name("socket") + v4.attributes()))
            link = v4.words(v4.SYMBOLIC_LINK) + name("where/to") + name("link") + v4.attributes()
            assert done(root, ("CREATE", link), "READLINK")[2] == b"where/to"
            refused(21, root, "READLINK")

            # A file from its making to its end.
            state, handle = client.open(root, owner, b"file", v4.unchecked(setting, v4.MODE))
            file = ("PUTFH", v4.opaque(handle))
            whole = ("READ", state + v4.long(0) + v4.words(len(data)))
            written = done(file, ("WRITE", state + v4.long(0) + v4.words(2) + v4.opaque(data)))[1]
            assert written[:2] == (len(data), 2), written
            assert done(file, whole)[1] == (1, data)
            assert done(file, ("READ", state + v4.long(100) + v4.words(9)))[1] == (0, data[100:109])
            for bad in (("WRITE", state + v4.long(0) + v4.words(2) + v4.opaque(b"x")), whole):
                refused(21, root, bad)
            size = done(file, ("SETATTR", v4.NO_STATE + v4.attributes(v4.long(9), v4.SIZE)),
                        ("GETATTR", v4.bitmap(v4.SIZE)))
            assert size[1:] == [[v4.SIZE], {v4.SIZE: 9}], size
            done(file, ("SETATTR", v4.NO_STATE + mode_and_times), ("GETATTR", v4.EVERYTHING))
            refused(10032, file, ("SETATTR", v4.NO_STATE + v4.attributes(v4.long(1), v4.FILE_ID)))
            done(file, ("ACCESS", v4.words(0x3F)), ("VERIFY", v4.attributes(v4.long(9), v4.SIZE)),
                 ("NVERIFY", v4.attributes(v4.long(8), v4.SIZE)))
            refused(10027, file, ("VERIFY", v4.attributes(v4.long(8), v4.SIZE)))
            refused(10009, file, ("NVERIFY", v4.attributes(v4.long(9), v4.SIZE)))
            if modern:
                state = cls.use_modern_states(client, root, file, state, owner, other)
            done(file, ("CLOSE", [owner, state]))
            refused(profile.closed, file, whole)
            guarded, exclusive = v4.words(1, 1) + v4.attributes(), v4.words(1, 2)
            for how in (guarded, exclusive + b"verifier"):
                refused(17, root, ("OPEN", v4.open_file(owner, b"file", how)))
            for _ in range(2):
                state, handle = client.open(root, owner, b"exclusive", exclusive + b"verifier")
            refused(17, root, ("OPEN", v4.open_file(owner, b"exclusive", exclusive + b"anything")))
            done(("PUTFH", v4.opaque(handle)), ("CLOSE", [owner, state]))
            refused(2, root, ("OPEN", v4.open_file(owner, b"missing")))
            refused(21, root, ("OPEN", v4.open_file(owner, b"made")))
            refused(10029, root, ("OPEN", v4.open_file(owner, b"link")))

            # Names.
            done(file, "SAVEFH", root, ("LINK", name("linked")), "RESTOREFH", ("GETATTR", v4.EVERYTHING))
            refused(20, root, "SAVEFH", file, ("LINK", name("linked")))
            done(root, "SAVEFH", ("LOOKUP", name("made")), ("RENAME", name("linked") + name("moved")))
            refused(profile.moved_nothing, root, "SAVEFH", ("RENAME", name("missing") + name("moved")))
            refused(2, root, ("LOOKUP", name("missing")))
            refused(20, file, ("LOOKUP", name("missing")))
            refused(20, file, ("READDIR", listing + v4.EVERYTHING))
            entries = done(root, ("READDIR", listing + v4.EVERYTHING))[1][0]
            assert sorted(entry[0] for entry in entries) == [b"exclusive", b"file", b"link", b"made"], entries
            refused(66, root, ("REMOVE", name("made")))
            done(root, ("REMOVE", name("file")))
            refused(2, root, ("REMOVE", name("file")))

            # What is not served, and what is asked of nobody.
            if modern:
                cls.use_modern_names(client, root, owner)
            else:
                refused(10004, ("COMMIT", v4.long(0) + v4.words(0)))
            refused(10044, ("ILLEGAL", b""))
            if minor == 0:
                refused(10022, ("SETCLIENTID_CONFIRM", v4.long(4711) + bytes(8)))
            else:
                # A reply that is kept is sent again, and nothing is done twice.
                again = (root, ("CREATE", v4.words(v4.DIRECTORY) + name("once") + v4.attributes()), "GETFH")
                first = done(*again, keep=True)
                client.turn -= 1
                assert done(*again, keep=True) == first
                refused(10067, root, *[("GETATTR", v4.EVERYTHING)] * 25, keep=True)
                refused(10070, root, *[("GETATTR", v4.EVERYTHING)] * 40)
                refused(10064, root, ("SEQUENCE", client.session + v4.words(1, 0, 0, 0)))
                refused(10052, ("SEQUENCE", bytes(16) + v4.words(1, 0, 0, 0)), sequence=False)
                refused(10052, ("DESTROY_SESSION", bytes(16)), sequence=False)
                refused(10022, ("DESTROY_CLIENTID", v4.long(4711)), sequence=False)
                refused(10074, ("DESTROY_CLIENTID", v4.long(client.number)), sequence=False)
                refused(22, ("EXCHANGE_ID", b"verifier" + v4.opaque(b"other") + v4.words(0x20000000, 0, 0)),
                        sequence=False)
                channel = v4.words(0, 65536, 65536, 4096, 16, 8, 0)
                refused(10022, ("CREATE_SESSION", v4.long(4711) + v4.words(1, 0) + channel * 2 +
                                v4.words(0, 0)), sequence=False)
            client.end()
            client.minor = 2
            refused(10021, "PUTROOTFH")
            return client.sent

    @classmethod
    def use_modern_states(cls, client, root, file, state, owner, other):
        """Files that are open are told apart by their stateids. Returns that of `file`, which is open for
        reading and writing in the end."""
        done, refused = client.done, client.refused
        read, write = (lambda state: ("READ", state + v4.long(0) + v4.words(9)),
                       lambda state: ("WRITE", state + v4.long(0) + v4.words(2) + v4.opaque(b"nine more")))
        first = state
        state, _ = client.open(root, owner, b"file")
        if client.minor == 0 and ("OPEN_CONFIRM", True) not in client.sent:
            state = done(file, ("OPEN_CONFIRM", [state, owner]))[1]
        assert state[4:] == first[4:] and state[:4] > first[:4], (first, state)
        verifier = done(file, write(state), read(state), ("COMMIT", v4.long(0) + v4.words(0)))
        assert verifier[1][2] == verifier[3] != bytes(8) and verifier[2] == (1, b"nine more"), verifier
        refused(21, root, ("COMMIT", v4.long(0) + v4.words(0)))
        refused(10024, file, read(first))
        # The special stateids read and write without an open, as far as nobody denies it.
        for special in (v4.NO_STATE, b"\xff" * 16):
            assert done(file, write(special), read(special))[2] == (1, b"nine more")
        refused(10015, root, ("OPEN", v4.open_file(other, b"file", access=1, deny=1)))
        theirs, _ = client.open(root, other, b"file", access=1, deny=0)
        refused(10038, file, write(theirs))
        done(file, ("CLOSE", [owner, state]))
        refused(10025, file, ("CLOSE", [owner, state]))
        done(file, ("CLOSE", [other, theirs]))
        client.open(root, owner, b"file", access=1)
        state, _ = client.open(root, owner, b"file", deny=2)
        refused(10012, file, write(v4.NO_STATE))
        refused(10025, root, ("OPEN_DOWNGRADE", [theirs, other, v4.words(1, 0)]))
        closed, state = state, done(file, ("OPEN_DOWNGRADE", [state, owner, v4.words(1, 0)]))[1]
        refused(22, file, ("OPEN_DOWNGRADE", [state, owner, v4.words(3, 0)]))
        refused(10038, file, write(state))
        refused(10025, file, ("DELEGRETURN", state))
        if client.minor == 0:
            refused(10025, file, ("OPEN_CONFIRM", [theirs, other]))
            for operation, arguments in (("RENEW", b""), ("RELEASE_LOCKOWNER", name("an owner of locks"))):
                done((operation, v4.long(client.number) + arguments))
                refused(10022, (operation, v4.long(4711) + arguments))
        else:
            tested = done(("TEST_STATEID", v4.words(3) + state + closed + theirs))
            assert tested == [[0, 10024, 10025]], tested
            refused(10037, ("FREE_STATEID", state))
            refused(10025, ("FREE_STATEID", theirs))
            bound = done(("BIND_CONN_TO_SESSION", client.session + v4.words(1, 0)), sequence=False)
            assert bound == [(client.session, 1, 0)], bound
            refused(10052, ("BIND_CONN_TO_SESSION", bytes(16) + v4.words(1, 0)), sequence=False)
        state, _ = client.open(root, owner, b"file")
        cls.use_locks(client, root, file, state, owner, other)
        return state

    @classmethod
    def use_locks(cls, client, root, file, state, owner, other):
        """Locks that two processes hold, one of which may only read. In the end there are none."""
        done, refused, everything = client.done, client.refused, (0, v4.TO_THE_END)
        ours, theirs = client.owner(b"a process"), client.owner(b"another process")
        their_file, _ = client.open(root, other, b"file", access=1)

        def lock(kind, *place, **options):
            return ("LOCK", v4.lock(kind, *place, *v4.new_locker(owner, state, ours), **options))

        def their_lock(kind, *place):
            return ("LOCK", v4.lock(kind, *place, *v4.new_locker(other, their_file, theirs)))

        def probe(kind, *place, process=theirs):
            return ("LOCKT", v4.lock_test(kind, *place, process))

        refused(10033, file, lock(v4.WRITE_LOCK, 100, 50, reclaim=1))
        first = done(file, lock(v4.WRITE_LOCK, 100, 50))[1]
        ours_now = (100, 50, v4.WRITE_LOCK, (client.number, b"a process"))
        for operation in (probe(v4.READ_LOCK, 149, 1), their_lock(v4.READ_LOCK, *everything)):
            assert refused(10010, file, operation)[-1] == ours_now, operation
        done(file, probe(v4.WRITE_LOCK, 0, 100), probe(v4.WRITE_LOCK, 150, v4.TO_THE_END),
             probe(v4.WRITE_LOCK, *everything, process=ours))
        # An owner that has locks goes on with their stateid.
        more = ("LOCK", v4.lock(v4.READ_LOCK, 1000, v4.TO_THE_END, *v4.known_locker(first, ours)))
        locked = done(file, more)[1]
        assert locked[4:] == first[4:] != state[4:] and locked[:4] > first[:4], (first, locked)
        assert refused(10010, file, probe(v4.WRITE_LOCK, 1 << 63, 1))[-1] == (
            1000, v4.TO_THE_END, v4.READ_LOCK, (client.number, b"a process"))
        their_locks = done(file, their_lock(v4.READ_LOCK, 5000, 10))[1]
        for place in ((7, 0), (v4.TO_THE_END - 5, 100)):
            refused(22, file, ("LOCK", v4.lock(v4.READ_LOCK, *place, *v4.known_locker(locked, ours))))
            refused(22, file, probe(v4.READ_LOCK, *place))
            refused(22, file, ("LOCKU", v4.unlock(*place, locked, ours)))
        refused(21, root, probe(v4.READ_LOCK, 0, 1))
        refused(10038, file, ("LOCK", v4.lock(v4.WRITE_LOCK, 0, 1, *v4.known_locker(their_locks, theirs))))
        # Their stateids stand for the open file that they are locks of.
        for used, expected in ((locked, 0), (their_locks, 10038), (first, 10024)):
            refused(expected, file, ("WRITE", used + v4.long(0) + v4.words(2) + v4.opaque(b"nine more")))
        assert done(file, ("READ", their_locks + v4.long(0) + v4.words(9)))[1] == (1, b"nine more")
        # Out of the middle of a range two are left.
        refused(10024, file, ("LOCKU", v4.unlock(110, 10, first, ours)))
        locked = done(file, ("LOCKU", v4.unlock(110, 10, locked, ours)), probe(v4.WRITE_LOCK, 110, 10))[1]
        for at, place in ((109, (100, 10)), (120, (120, 30))):
            assert refused(10010, file, probe(v4.READ_LOCK, at, 1))[-1] == (
                *place, v4.WRITE_LOCK, (client.number, b"a process"))
        release = (lambda held, process: ("RELEASE_LOCKOWNER", process.identity()) if client.minor == 0 else
                   ("FREE_STATEID", held))
        refused(10037, release(locked, ours))
        locked = done(file, ("LOCKU", v4.unlock(*everything, locked, ours)), probe(v4.WRITE_LOCK, 0, 5000))[1]
        done(release(locked, ours))
        refused(10025, file, ("READ", locked + v4.long(0) + v4.words(9)))
        assert refused(10010, file, probe(v4.WRITE_LOCK, *everything, process=ours))[-1] == (
            5000, 10, v4.READ_LOCK, (client.number, b"another process"))
        their_locks = done(file, ("LOCKU", v4.unlock(*everything, their_locks, theirs)))[1]
        done(release(their_locks, theirs))
        done(file, probe(v4.WRITE_LOCK, *everything, process=ours), ("CLOSE", [other, their_file]))

    @classmethod
    def use_modern_names(cls, client, root, owner):
        """What is asked without an open file, and what each operation says that has no object."""
        done, refused = client.done, client.refused
        assert done("PUTPUBFH", "GETFH") == done("PUTROOTFH", "GETFH")
        done(("DELEGPURGE", v4.long(client.number)))
        assert done(root, ("SECINFO", name("made")))[1] == [1]
        refused(2, root, ("SECINFO", name("missing")))
        if client.minor == 0:
            assert v4.opaque(done(root, ("SECINFO", name("made")), "GETFH")[2]) == root[1]
        else:
            refused(10020, root, ("SECINFO", name("made")), "GETFH")  # it is used up
            assert done(root, ("SECINFO_NO_NAME", v4.words(1)))[1] == [1]
            refused(2, "PUTROOTFH", ("SECINFO_NO_NAME", v4.words(1)))
            # EXCLUSIVE4_1 brings attributes with it.
            how = v4.words(1, 3) + b"verifier" + v4.attributes(v4.words(0o604), v4.MODE)
            state, handle = client.open(root, owner, b"attributed", how)
            _, shown, _ = done(("PUTFH", v4.opaque(handle)), ("GETATTR", v4.bitmap(v4.MODE)),
                               ("CLOSE", [owner, state]))
            assert shown == {v4.MODE: 0o604}, shown
            done(root, ("REMOVE", name("attributed")))
        for operation in ("GETFH", "SAVEFH", "RESTOREFH", "LOOKUPP", ("ACCESS", v4.words(1)),
                          ("GETATTR", v4.EVERYTHING)):
            refused(10020, operation)
        refused(2, "PUTROOTFH", "LOOKUPP")
        system, values = os.statvfs(cls.directory), done(root, ("GETATTR", v4.EVERYTHING))[1]
        assert values[v4.SPACE_TOTAL] == system.f_blocks * system.f_frsize, (system, values)
        assert (values[v4.FILES_TOTAL], values[v4.TIME_DELTA]) == (system.f_files, (1, 0)), (system, values)
        assert 0 <= values[v4.SPACE_USED] - values[v4.SIZE] < 512, values
        if client.minor == 1:
            assert {v4.SIZE, v4.MODE} <= set(values[v4.EXCLUSIVELY_SETTABLE]) <= set(values[0]), values

    @classmethod
    def read_version_4(cls, server):
        with v4.Nfs4Client(server.address, server.nfs_port, 1) as client:
            client.begin()
            path = ("PUTROOTFH", ("LOOKUP", v4.opaque(server.export[1:].encode())))
            client.refused(30, *path, ("REMOVE", v4.opaque(b"anything")))
            # Page by page.
            directory = (*path, ("LOOKUP", v4.opaque(b"crowded")))
            names, cookie, end = [], 0, False
            while not end:
                entries, end = client.done(*directory, (
                    "READDIR", v4.long(cookie) + bytes(8) + v4.words(4096, 8192) + v4.EVERYTHING))[3]
                names += [entry[0] for entry in entries]
                cookie = entries[-1][1]
            assert sorted(names) == [b"entry %06d" % number for number in range(300)], names
            sizes = ("PUTFH", v4.opaque(client.done(*path, ("LOOKUP", v4.opaque(b"sizes")), "GETFH")[3]))
            owner, content, end = client.owner(b"an owner"), b"", False
            state, handle = client.open(sizes, owner, b"1048577", access=1)
            while not end:
                end, data = client.done(("PUTFH", v4.opaque(handle)), (
                    "READ", state + v4.long(len(content)) + v4.words(1 << 20)))[1]
                content += data
            assert content == (cls.tree / "sizes/1048577").read_bytes(), len(content)
            client.done(("PUTFH", v4.opaque(handle)), ("CLOSE", [owner, state]))
            client.end()

    def test_nothing_is_malformed_and_every_call_has_its_reply(self):
        self.assertEqual(self.verdict.problems[:20], [])

    def test_the_capture_holds_what_it_is_about(self):
        replies = self.verdict.replies
        self.assertGreater(self.verdict.calls, 1500)
        for procedure, least in ((0, 3), (1, 100), (3, 500), (4, 1), (5, 7), (6, 300), (16, 1), (17, 20),
                                 (18, 1), (19, 2), (20, 1), (2, 6), (7, 5), (8, 4), (9, 5), (10, 2),
                                 (12, 4), (13, 3), (14, 10), (15, 3), (21, 1)):
            self.assertGreaterEqual(replies[(NFS, procedure)], least, f"NFS procedure {procedure}")
        for key in ((MOUNT, 0), (MOUNT, 1), (MOUNT, 5), (PORTMAP, 3), (PORTMAP, 4)):
            self.assertGreaterEqual(replies[key], 1, key)

    @staticmethod
    def served(profile, minor):
        """The names of the operations that a server takes, found by sending each without arguments."""
        names = set()
        with support.scratch() as tree, support.Server(tree, "--nfs-version", 4, *profile.options) as server:
            for number in range(3, 60):
                with v4.Nfs4Client(server.address, server.nfs_port, minor) as client:
                    client.begin()
                    sequence = v4.words(53) + client.session + v4.words(client.turn, 0, 0, 0) if minor else b""
                    status = client.call(1, v4.opaque(b"") + v4.words(minor, 1 + minor) + sequence +
                                         v4.words(number)).word()
                    if status not in (10004, 10044):
                        names.add(v4.NAMES.get(number, number))
                    client.end()
        return names

    def test_every_operation_of_version_4_was_done_and_refused(self):
        other = ({"EXCHANGE_ID", "CREATE_SESSION", "DESTROY_SESSION", "SEQUENCE", "DESTROY_CLIENTID",
                  "RECLAIM_COMPLETE"}, {"SETCLIENTID", "SETCLIENTID_CONFIRM"})  # of the other minor version
        never = {"DELEGRETURN"}  # there are no delegations
        for profile, minor, sent in self.sent:
            with self.subTest(options=profile.options, minor=minor):
                served = self.served(profile, minor) - other[minor]
                self.assertEqual({name for name, succeeded in sent if succeeded}, served - never)
                refused = {name for name, succeeded in sent if not succeeded}
                self.assertEqual(served - refused - profile.harmless, set())
        # tshark has read them as well.
        self.assertLessEqual({0, 2, 5, 17, 20, 21, 22, 30, 66, 70, 10001, 10004, 10007, 10009, 10010, 10012,
                              10015, 10020, 10021, 10022, 10024, 10025, 10027, 10029, 10032, 10033, 10037, 10038, 10044,
                              10052, 10064, 10067, 10070, 10071, 10074}, self.verdict.statuses4)

    def spoilt(self, port, change):
        """The problems once the packets of one port have gone through `change`, which may drop or
        double some."""
        path, content, position = self.directory / "spoilt.pcap", self.path.read_bytes(), 24
        order = "<" if content[0] in (0xd4, 0x4d) else ">"
        with open(path, "wb") as file:
            file.write(content[:position])
            while position < len(content):
                head = content[position:position + 16]
                end = position + 16 + struct.unpack_from(order + "I", head, 8)[0]
                data = content[position + 16:end]
                position = end
                if struct.pack(">H", port) in (data[34:36], data[36:38]):
                    changed = change(data)
                    for packet in changed if isinstance(changed, list) else [changed]:
                        file.write(head + packet if packet else b"")
        return Verdict(path, {port}).problems

    def test_a_spoilt_capture_would_be_noticed(self):
        listing, link = v4.words(7) + b"crowded\0", v4.words(27, 0, 8) + b"where/to"

        def replacing(old, new):
            return lambda data: data.replace(old, new)

        def in_a_listing(change):
            return lambda data: change(data) if listing in data and data[34:36] == struct.pack(
                ">H", self.udp_port) else data

        def calls_twice(port):
            return lambda data: [data, data] if data[36:38] == struct.pack(">H", port) else data

        for what, port, spoil in (
                ("", self.udp_port, lambda data: data),
                ("one reply to two calls", self.udp_port, calls_twice(self.udp_port)),
                ("", VERSION_4_PORT, calls_twice(VERSION_4_PORT)),  # which TCP does
                ("wrong length", self.udp_port, replacing(listing, v4.words(70000) + listing[4:])),
                ("strange status", self.udp_port,
                 in_a_listing(lambda data: data[:66] + v4.words(4711) + data[70:])),
                ("no reply", self.udp_port, in_a_listing(lambda data: None)),
                ("", VERSION_4_PORT, lambda data: data),
                ("wrong length", VERSION_4_PORT, replacing(link, v4.words(27, 0, 9000) + link[12:])),
                ("strange status", VERSION_4_PORT, replacing(link, v4.words(27, 4711, 8) + link[12:]))):
            with self.subTest(what, port=port):
                problems = self.spoilt(port, spoil)
                self.assertEqual(bool(problems), bool(what), problems)


if __name__ == "__main__":
    unittest.main(verbosity=2)
