"""A client of NFS version 4, minor versions 0 and 1, over TCP: it can send every operation that is
served, and reads every result to its last byte."""

import itertools
import socket
import struct

from udp_client import NFS, Decoder, Failure, call_message, opaque

NUMBERS = {
    "ACCESS": 3, "CLOSE": 4, "COMMIT": 5, "CREATE": 6, "DELEGPURGE": 7, "DELEGRETURN": 8, "GETATTR": 9,
    "GETFH": 10, "LINK": 11, "LOCK": 12, "LOCKT": 13, "LOCKU": 14, "LOOKUP": 15, "LOOKUPP": 16, "NVERIFY": 17,
    "OPEN": 18, "OPEN_CONFIRM": 20, "OPEN_DOWNGRADE": 21, "PUTFH": 22, "PUTPUBFH": 23, "PUTROOTFH": 24,
    "READ": 25, "READDIR": 26, "READLINK": 27, "REMOVE": 28, "RENAME": 29, "RENEW": 30, "RESTOREFH": 31,
    "SAVEFH": 32, "SECINFO": 33, "SETATTR": 34, "SETCLIENTID": 35, "SETCLIENTID_CONFIRM": 36, "VERIFY": 37,
    "WRITE": 38, "RELEASE_LOCKOWNER": 39, "BIND_CONN_TO_SESSION": 41, "EXCHANGE_ID": 42, "CREATE_SESSION": 43,
    "DESTROY_SESSION": 44, "FREE_STATEID": 45, "SECINFO_NO_NAME": 52, "SEQUENCE": 53, "TEST_STATEID": 55,
    "DESTROY_CLIENTID": 57, "RECLAIM_COMPLETE": 58, "ILLEGAL": 10044}
NAMES = {number: name for name, number in NUMBERS.items()}
# How the attributes that can be read are encoded: word, long, opaque, bitmap, time, fsid, ACL.
ATTRIBUTES = {**dict.fromkeys((0, 75), "b"),
              **dict.fromkeys((1, 2, 5, 6, 7, 9, 10, 11, 13, 15, 16, 17, 18, 26, 28, 29, 33, 34, 35), "w"),
              **dict.fromkeys((3, 4, 20, 21, 22, 23, 27, 30, 31, 42, 43, 44, 45, 55), "l"), 8: "f", 12: "a",
              **dict.fromkeys((19, 36, 37), "o"), **dict.fromkeys((47, 51, 52, 53), "t")}
TYPE, SIZE, FILE_ID, MODE, OWNER, SET_ACCESS_TIME, SET_MODIFY_TIME = 1, 4, 20, 33, 36, 48, 54
FILES_TOTAL, SPACE_TOTAL, SPACE_USED, TIME_DELTA, EXCLUSIVELY_SETTABLE = 23, 44, 45, 51, 75
DIRECTORY, SYMBOLIC_LINK = 2, 5
READ_LOCK, WRITE_LOCK, TO_THE_END = 1, 2, (1 << 64) - 1
NO_STATE = bytes(16)


def words(*values):
    return struct.pack(f">{len(values)}I", *values)


def long(value):
    return struct.pack(">Q", value)


def bitmap(*attributes):
    present = [sum(1 << number % 32 for number in attributes if number // 32 == word)
               for word in range(max(attributes, default=-1) // 32 + 1)]
    return words(len(present), *present)


def attributes(values=b"", *numbers):
    return bitmap(*numbers) + opaque(values)


EVERYTHING = bitmap(*ATTRIBUTES)


class Owner:
    """An open-owner or a lock-owner. In a list of arguments it stands for its next sequence id, which minor
    version 1 does not count: RFC 7530 section 9.1.7."""

    # Statuses behind which the same sequence id is due again.
    NOT_COUNTED = {10018, 10019, 10020, 10022, 10023, 10025, 10026, 10036}

    def __init__(self, client, name):
        self.client = client
        self.name = name
        self.turn = 1  # the next sequence id of slot 0

    def after(self, status):
        if self.client.minor == 0 and status not in self.NOT_COUNTED:
            self.turn += 1

    def identity(self):
        return long(self.client.number) + opaque(self.name)


def open_file(owner, name, how=words(0), access=3, deny=0):
    """The arguments of OPEN; `how` is openflag4."""
    return [owner, words(access, deny) + owner.identity() + how + words(0) + opaque(name)]


def lock(kind, offset, length, *locker, reclaim=0):
    """The arguments of LOCK; `locker` is what one of the next two functions returns."""
    return [words(kind, reclaim) + long(offset) + long(length), *locker]


def new_locker(open_owner, open_state, owner):
    return words(1), open_owner, open_state, owner, owner.identity()


def known_locker(state, owner):
    return words(0), state, owner


def lock_test(kind, offset, length, owner):
    return words(kind) + long(offset) + long(length) + owner.identity()


def unlock(offset, length, state, owner):
    return [words(WRITE_LOCK), owner, state + long(offset) + long(length)]


def unchecked(values=b"", *numbers):
    return words(1, 0) + attributes(values, *numbers)


def read_bitmap(decoder):
    present = [decoder.word() for _ in range(decoder.word())]
    return [32 * i + bit for i, word in enumerate(present) for bit in range(32) if word >> bit & 1]


def read_attributes(decoder):
    numbers = read_bitmap(decoder)
    inner = Decoder(decoder.opaque())
    read = {"w": inner.word, "l": inner.long, "o": inner.opaque, "b": lambda: read_bitmap(inner),
            "t": lambda: (inner.long(), inner.word()), "f": lambda: (inner.long(), inner.long()),
            "a": lambda: [(inner.word(), inner.word(), inner.word(), inner.opaque())
                          for _ in range(inner.word())]}
    values = {number: read[ATTRIBUTES[number]]() for number in numbers}
    inner.end()
    return values


def read_change(decoder):
    return decoder.word(), decoder.long(), decoder.long()


def read_state(decoder):
    return decoder.take(16)


def read_open(decoder):
    state, _, flags, _ = read_state(decoder), read_change(decoder), decoder.word(), read_bitmap(decoder)
    if decoder.word():
        raise AssertionError("a delegation")
    return state, flags


def read_flavors(decoder):
    return [decoder.word() for _ in range(decoder.word())]


def read_denied(decoder):
    return decoder.long(), decoder.long(), decoder.word(), (decoder.long(), decoder.opaque())


def read_entries(decoder):
    entries = []
    decoder.take(8)
    while decoder.word():
        cookie, name = decoder.long(), decoder.opaque()
        entries.append((name, cookie, read_attributes(decoder)))
    return entries, bool(decoder.word())


def read_identity(decoder):
    identity = decoder.long(), decoder.word()
    _, protection, _, _, _, implementations = (decoder.word(), decoder.word(), decoder.long(),
                                               decoder.opaque(), decoder.opaque(), decoder.word())
    if protection or implementations:
        raise AssertionError("state protection, or an implementation id")
    return identity


def read_channel(decoder):
    channel = [decoder.word() for _ in range(6)]
    for _ in range(decoder.word()):
        decoder.word()
    return channel


RESULTS = {
    "ACCESS": lambda decoder: (decoder.word(), decoder.word()),
    "BIND_CONN_TO_SESSION": lambda decoder: (decoder.take(16), decoder.word(), decoder.word()),
    "CLOSE": read_state,
    "COMMIT": lambda decoder: decoder.take(8),
    "CREATE": lambda decoder: (read_change(decoder), read_bitmap(decoder)),
    "GETATTR": read_attributes,
    "GETFH": Decoder.opaque,
    "LINK": read_change,
    "LOCK": read_state,
    "LOCKU": read_state,
    "OPEN": read_open,
    "OPEN_CONFIRM": read_state,
    "OPEN_DOWNGRADE": read_state,
    "READ": lambda decoder: (decoder.word(), decoder.opaque()),
    "READDIR": read_entries,
    "READLINK": Decoder.opaque,
    "REMOVE": read_change,
    "RENAME": lambda decoder: (read_change(decoder), read_change(decoder)),
    "SECINFO": read_flavors,
    "SECINFO_NO_NAME": read_flavors,
    "SETCLIENTID": lambda decoder: (decoder.long(), decoder.take(8)),
    "TEST_STATEID": lambda decoder: [decoder.word() for _ in range(decoder.word())],
    "WRITE": lambda decoder: (decoder.word(), decoder.word(), decoder.take(8)),
    "EXCHANGE_ID": read_identity,
    "CREATE_SESSION": lambda decoder: (decoder.take(16), decoder.word(), decoder.word(),
                                       read_channel(decoder), read_channel(decoder)),
    "SEQUENCE": lambda decoder: (decoder.take(16), *(decoder.word() for _ in range(5))),
}
# Of operations that were refused.
REFUSALS = {("LOCK", 10010): read_denied, ("LOCKT", 10010): read_denied,
            ("SETCLIENTID", 10017): lambda decoder: (decoder.opaque(), decoder.opaque())}


def exchange(connection, call):
    """Sends a call, and returns the record that comes back."""
    def receive(size):
        data = b""
        while len(data) < size:
            piece = connection.recv(size - len(data))
            if not piece:
                raise AssertionError("the server closed the connection")
            data += piece
        return data

    connection.sendall(words(0x80000000 | len(call)) + call)
    reply, last = b"", False
    while not last:
        mark = struct.unpack(">I", receive(4))[0]
        last = bool(mark >> 31)
        reply += receive(mark & 0x7FFFFFFF)
    return reply


class Nfs4Client:
    """One connection as uid 0, with the state of one client. Whoever uses it sends at a time one
    COMPOUND, a list of ("NAME", arguments)."""

    def __init__(self, address, port, minor):
        self.socket = socket.create_connection((address, port), 20)
        self.minor = minor
        self.transaction = itertools.count(0x40000)
        self.session = None
        self.sent = set()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def call(self, procedure, arguments=b""):
        transaction = next(self.transaction)
        reply = exchange(self.socket, call_message(transaction, NFS, 4, procedure, arguments))
        if reply[:24] != words(transaction, 1, 0, 0, 0, 0):
            raise Failure(f"an unusual reply: {reply[:24].hex()}")
        return Decoder(reply[24:])

    def owner(self, name):
        return Owner(self, name)

    def compound(self, *operations, sequence=True, keep=False):
        """(status, results): the result of each operation that was done, SEQUENCE's left out. `keep` asks
        the server to keep the reply, in case it is wanted again."""
        operations = [(one, []) if isinstance(one, str) else one for one in operations]
        if self.session and sequence:
            operations.insert(0, ("SEQUENCE", self.session + words(self.turn, 0, 0, keep)))
        operations = [(name, [pieces] if isinstance(pieces, bytes) else pieces) for name, pieces in operations]
        tag = b"a tag"
        decoder = self.call(1, opaque(tag) + words(self.minor, len(operations)) + b"".join(
            words(NUMBERS[name]) + b"".join(words(piece.turn) if isinstance(piece, Owner) else piece
                                            for piece in pieces) for name, pieces in operations))
        self.reply = decoder.data
        status = decoder.word()
        if decoder.opaque() != tag:
            raise AssertionError("the tag is another one")
        results, last = [], 0
        for (name, pieces), _ in zip(operations, range(decoder.word())):
            number, last = decoder.word(), decoder.word()
            if NAMES[number] != name:
                raise AssertionError(f"{name} is answered with {NAMES[number]}")
            self.sent.add((name, last == 0))
            for piece in pieces:
                if isinstance(piece, Owner):
                    piece.after(last)
            if name == "SETATTR":  # has a body whatever became of it
                results.append(read_bitmap(decoder))
            elif last == 0:
                results.append(RESULTS[name](decoder) if name in RESULTS else None)
            elif (name, last) in REFUSALS:
                results.append(REFUSALS[name, last](decoder))
        decoder.end()
        if results and last != status:
            raise AssertionError(f"the last operation has status {last}, the whole {status}")
        if not (self.session and sequence):
            return status, results
        self.turn += bool(results)  # a SEQUENCE that is refused leaves the slot as it was
        return status, results[1:]

    def done(self, *operations, **options):
        """The results of operations all of which have to succeed."""
        status, results = self.compound(*operations, **options)
        if status or len(results) != len(operations):
            raise Failure(f"status {status} from {operations}")
        return results

    def refused(self, expected, *operations, **options):
        """The results of those in front of the one that was refused, and its own where it has one."""
        status, results = self.compound(*operations, **options)
        if status != expected:
            raise AssertionError(f"status {status} instead of {expected} from {operations}")
        return results

    def open(self, directory, owner, *how, **options):
        """(stateid, filehandle) of a file, once its owner is confirmed where the server asks for that."""
        _, (state, flags), handle = self.done(directory, ("OPEN", open_file(owner, *how, **options)), "GETFH")
        if flags & 2:
            state = self.done(("PUTFH", opaque(handle)), ("OPEN_CONFIRM", [state, owner]))[1]
        return state, handle

    def begin(self):
        if self.minor == 0:
            client = words(0x40000000) + opaque(b"tcp") + opaque(b"127.0.0.1.0.0") + words(1)
            ((self.number, verifier),) = self.done(("SETCLIENTID", b"verifier" + opaque(b"a client") + client))
            self.done(("SETCLIENTID_CONFIRM", long(self.number) + verifier))
            return
        ((self.number, turn),) = self.done(("EXCHANGE_ID", b"verifier" + opaque(b"a client") + words(0, 0, 0)))
        channel = words(0, 1 << 20, 1 << 20, 4096, 32, 8, 0)
        security = words(0x40000000, 1, 1, 0) + opaque(b"client") + words(0, 0, 0)
        ((self.session, _, _, fore, _),) = self.done(
            ("CREATE_SESSION", long(self.number) + words(turn, 0) + channel + channel + security))
        self.slots = fore[5]
        self.turn = 1  # the next sequence id of slot 0
        self.done(("RECLAIM_COMPLETE", words(0)))

    def end(self):
        if self.minor == 1:
            self.done(("DESTROY_SESSION", self.session), sequence=False)
            self.session = None
            self.done(("DESTROY_CLIENTID", long(self.number)))
