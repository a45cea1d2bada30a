"""A call that is sent again, because its reply was lost, is done once and gets the reply that it got."""

import itertools
import os
import socket
import struct
import unittest

import nfs4_client as v4
import support
from udp_client import NFS, UdpClient, call_message, opaque

GETATTR, SETATTR, CREATE, MKDIR, SYMLINK, REMOVE, RMDIR, RENAME, LINK = 1, 2, 8, 9, 10, 12, 13, 14, 15
GUARDED = 1
NOENT, EXIST, NOT_SYNC = 2, 17, 10002
LOCK_DENIED, BAD_SEQID = 10010, 10026
BADSLOT, SEQ_MISORDERED, RETRY_UNCACHED_REP, SEQ_FALSE_RETRY = 10053, 10063, 10068, 10076


class Retransmission(unittest.TestCase):
    def setUp(self):
        self.tree = self.enterContext(support.scratch()) / "tree"
        self.tree.mkdir()

    def serve(self, *options):
        return self.enterContext(support.Server(self.tree, "--rw", *options))

    def everything(self):
        return {name: support.type_and_mode(status) for name, status in support.names_below(self.tree).items()}


class Version3(Retransmission):
    transactions = itertools.count(0x3000)

    def call(self, procedure, arguments, transaction=None):
        """(status, reply)"""
        transaction = transaction or next(self.transactions)
        reply = self.send(call_message(transaction, NFS, 3, procedure, arguments))
        self.assertEqual(reply[:24], v4.words(transaction, 1, 0, 0, 0, 0))
        return struct.unpack_from(">I", reply, 24)[0], reply

    def check(self, server):
        """Each change is done; refused to who asks for it with another transaction; undone behind the
        server's back; and not done again, whichever of the two calls comes again."""
        for name in ("doomed", "old", "kept", "guarded"):
            (self.tree / name).write_text(name)
        (self.tree / "empty").mkdir()
        with UdpClient(server.address) as client:
            root = client.mount(server.mount_port, server.export)[0]

        def at(name):
            return opaque(root) + opaque(name)

        def handle(name):
            status, reply = self.call(3, at(name))
            self.assertEqual(status, 0, name)
            return reply[28:32 + struct.unpack_from(">I", reply, 28)[0]]

        def path(name):
            return os.fspath(self.tree / name)

        nothing, mode = v4.words(0, 0, 0, 0, 0, 0), v4.words(1, 0o640, 0, 0, 0, 0, 0)
        kept, guarded = handle(b"kept"), handle(b"guarded")
        changed = self.call(GETATTR, guarded)[1][-8:]
        for what, procedure, arguments, refusal, undo in (
                ("SETATTR", SETATTR, guarded + mode + v4.words(1) + changed, NOT_SYNC,
                 lambda: os.chmod(path("guarded"), 0o604)),
                ("CREATE", CREATE, at(b"file") + v4.words(GUARDED) + nothing, EXIST,
                 lambda: os.unlink(path("file"))),
                ("MKDIR", MKDIR, at(b"directory") + nothing, EXIST, lambda: os.rmdir(path("directory"))),
                ("SYMLINK", SYMLINK, at(b"link") + nothing + opaque(b"kept"), EXIST,
                 lambda: os.unlink(path("link"))),
                ("LINK", LINK, kept + at(b"linked"), EXIST, lambda: os.unlink(path("linked"))),
                ("REMOVE", REMOVE, at(b"doomed"), NOENT, lambda: os.link(path("kept"), path("doomed"))),
                ("RMDIR", RMDIR, at(b"empty"), NOENT, lambda: os.mkdir(path("empty"))),
                ("RENAME", RENAME, at(b"old") + at(b"new"), NOENT,
                 lambda: os.rename(path("new"), path("old")))):
            with self.subTest(what):
                before, (first, second) = self.everything(), itertools.islice(self.transactions, 2)
                done = self.call(procedure, arguments, first)
                after = self.everything()
                refused = self.call(procedure, arguments, second)
                self.assertEqual((done[0], refused[0]), (0, refusal))
                self.assertNotEqual(after, before)
                self.assertEqual(self.call(procedure, arguments, first), done)
                self.assertEqual(self.everything(), after)
                undo()
                undone = self.everything()
                self.assertNotEqual(undone, after)
                for transaction, reply in ((first, done), (second, refused)):
                    self.assertEqual(self.call(procedure, arguments, transaction), reply)
                self.assertEqual(self.everything(), undone)

    def test_over_one_connection(self):
        server = self.serve()
        connection = self.enterContext(socket.create_connection((server.address, server.nfs_port), 20))
        self.send = lambda call: v4.exchange(connection, call)
        self.check(server)

    def test_over_connections_of_their_own(self):
        server = self.serve()

        def send(call):
            with socket.create_connection((server.address, server.nfs_port), 20) as connection:
                return v4.exchange(connection, call)

        self.send = send
        self.check(server)

    def test_over_udp(self):
        server = self.serve("--proto", "udp")
        datagrams = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        datagrams.settimeout(20)
        datagrams.connect((server.address, server.nfs_port))

        def send(call):
            datagrams.send(call)
            return datagrams.recv(65536)

        self.send = send
        self.check(server)


class Version4(Retransmission):
    def begin(self, minor):
        server = self.serve("--nfs-version", 4)
        self.client = self.enterContext(v4.Nfs4Client(server.address, server.nfs_port, minor))
        self.client.begin()
        found = self.client.done("PUTROOTFH", ("LOOKUP", opaque(server.export[1:].encode())), "GETFH")
        self.root = ("PUTFH", opaque(found[2]))
        return server

    def twice(self, expected, *operations):
        """The results of operations that are sent again with the sequence ids they had."""
        owners = {piece for operation in operations if isinstance(operation[1], list)
                  for piece in operation[1] if isinstance(piece, v4.Owner)}
        results = self.client.refused(expected, *operations)
        reply = self.client.reply
        for owner in owners:
            owner.turn -= 1
        self.assertEqual(self.client.refused(expected, *operations), results)
        self.assertEqual(self.client.reply, reply)
        return results

    def misordered(self, owner, *operations):
        """Any other sequence id than the next and the last one is refused, and is not counted."""
        for distance in (1, -2, 1 << 31):
            turn, owner.turn = owner.turn, (owner.turn + distance) % (1 << 32)
            self.client.refused(BAD_SEQID, *operations)
            owner.turn = turn

    def test_sequence_ids_of_owners(self):
        self.begin(0)
        client, owner = self.client, self.client.owner(b"an owner")
        (self.tree / "file").write_text("content")
        opened = ("OPEN", v4.open_file(owner, b"file"))
        _, (state, flags), handle = client.done(self.root, opened, "GETFH")
        file = ("PUTFH", opaque(handle))
        if flags & 2:
            state = self.twice(0, file, ("OPEN_CONFIRM", [state, owner]))[1]
        # One open more would be seen by the stateid; who makes the file anew is told that it is there.
        state = self.twice(0, self.root, opened, "GETFH")[1][0]
        guarded = v4.words(1, GUARDED) + v4.attributes()
        making = ("OPEN", v4.open_file(owner, b"made", guarded))
        _, (made, _), handle = self.twice(0, self.root, making, "GETFH")
        self.twice(0, ("PUTFH", opaque(handle)), ("CLOSE", [owner, made]))
        missing = ("OPEN", v4.open_file(owner, b"missing"))
        client.refused(NOENT, self.root, missing)
        (self.tree / "missing").write_text("there by now")
        owner.turn -= 1
        client.refused(NOENT, self.root, missing)
        self.misordered(owner, self.root, ("OPEN", v4.open_file(owner, b"another", guarded)))
        self.assertEqual(set(self.everything()), {"file", "made", "missing"})
        self.lock_twice(file, state, owner)
        state, _ = client.open(self.root, owner, b"file", access=1)
        state = self.twice(0, file, ("OPEN_DOWNGRADE", [state, owner, v4.words(1, 0)]))[1]
        self.misordered(owner, file, ("CLOSE", [owner, state]))
        client.done(file, ("READ", state + v4.long(0) + v4.words(9)))
        self.twice(0, file, ("CLOSE", [owner, state]))

    def lock_twice(self, file, state, owner):
        client = self.client
        process, other = client.owner(b"a process"), client.owner(b"another process")

        def known(kind, *place):
            return "LOCK", v4.lock(kind, *place, *v4.known_locker(locked, process))

        def new(kind, *place, by):
            return "LOCK", v4.lock(kind, *place, *v4.new_locker(owner, state, by))

        locked = self.twice(0, file, new(v4.WRITE_LOCK, 0, 10, by=process))[1]
        locked = self.twice(0, file, known(v4.WRITE_LOCK, 20, 10))[1]
        self.misordered(process, file, known(v4.WRITE_LOCK, 40, 10))
        self.misordered(owner, file, new(v4.READ_LOCK, 40, 10, by=other))
        client.done(file, ("LOCKT", v4.lock_test(v4.WRITE_LOCK, 40, 10, other)))
        # Who was refused is refused again, also when the lock is gone by then.
        denied = new(v4.READ_LOCK, 20, 10, by=other)
        results = client.refused(LOCK_DENIED, file, denied)
        locked = self.twice(0, file, ("LOCKU", v4.unlock(20, 10, locked, process)))[1]
        owner.turn -= 1
        other.turn -= 1
        self.assertEqual(client.refused(LOCK_DENIED, file, denied), results)
        self.misordered(process, file, ("LOCKU", v4.unlock(0, 10, locked, process)))
        client.refused(LOCK_DENIED, file, ("LOCKT", v4.lock_test(v4.READ_LOCK, 0, 10, other)))
        self.twice(0, file, ("LOCKU", v4.unlock(0, 10, locked, process)))

    def test_slots_of_sessions(self):
        server = self.begin(1)
        client = self.client

        def make(name):
            return self.root, ("CREATE", v4.words(v4.DIRECTORY) + opaque(name) + v4.attributes()), "GETFH"

        def send_again(expected, *operations, **options):
            turn = client.turn
            client.turn -= 1
            client.refused(expected, *operations, **options)
            client.turn = turn

        for _ in range(2):
            client.done(*make(b"kept"), keep=True)
            reply = client.reply
            (self.tree / "kept").rmdir()
            for _ in range(2):
                send_again(0, *make(b"kept"), keep=True)
                self.assertEqual(client.reply, reply)
                client.socket.close()  # what comes again may come another way
                client.socket = socket.create_connection((server.address, server.nfs_port), 20)
            send_again(SEQ_FALSE_RETRY, *make(b"another"), keep=True)
            missing = self.root, ("REMOVE", opaque(b"missing"))
            client.refused(NOENT, *missing, keep=True)
            reply = client.reply
            (self.tree / "missing").mkdir()
            send_again(NOENT, *missing, keep=True)
            self.assertEqual(client.reply, reply)
            (self.tree / "missing").rmdir()
            client.done(*make(b"not kept"))
            (self.tree / "not kept").rmdir()
            send_again(RETRY_UNCACHED_REP, *make(b"not kept"))
            self.assertEqual(self.everything(), {})
        for distance in (1, 2, -2, 1 << 31):
            turn, client.turn = client.turn, client.turn + distance
            client.refused(SEQ_MISORDERED, *make(b"misordered"))
            client.turn = turn
        client.refused(BADSLOT, ("SEQUENCE", client.session + v4.words(1, client.slots, client.slots, 0)),
                       *make(b"misplaced"), sequence=False)
        for expected, turn in ((SEQ_MISORDERED, 2), (0, 1), (0, 2), (SEQ_MISORDERED, 1)):  # of another slot
            client.refused(expected, ("SEQUENCE", client.session + v4.words(turn, 1, 1, 0)), self.root,
                           sequence=False)
        self.assertEqual(self.everything(), {})
        client.done(*make(b"in order"))
        client.end()


if __name__ == "__main__":
    unittest.main(verbosity=2)
