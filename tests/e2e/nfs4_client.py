"""A client of NFS version 4, minor versions 0 and 1, over TCP: it can send every operation that is
served, and reads every result to its last byte."""

import itertools
import socket
import struct

from udp_client import NFS, Decoder, Failure, opaque

NUMBERS = {
    "ACCESS": 3, "CLOSE": 4, "COMMIT": 5, "CREATE": 6, "GETATTR": 9, "GETFH": 10, "LINK": 11,
    "LOOKUP": 15, "LOOKUPP": 16, "NVERIFY": 17, "OPEN": 18, "PUTFH": 22, "PUTROOTFH": 24, "READ": 25,
    "READDIR": 26, "READLINK": 27, "REMOVE": 28, "RENAME": 29, "RENEW": 30, "RESTOREFH": 31,
    "SAVEFH": 32, "SETATTR": 34, "SETCLIENTID": 35, "SETCLIENTID_CONFIRM": 36, "VERIFY": 37,
    "WRITE": 38, "EXCHANGE_ID": 42, "CREATE_SESSION": 43, "DESTROY_SESSION": 44, "SEQUENCE": 53,
    "DESTROY_CLIENTID": 57, "RECLAIM_COMPLETE": 58, "ILLEGAL": 10044}
NAMES = {number: name for name, number in NUMBERS.items()}
# How the attributes that can be read are encoded: word, long, opaque, bitmap, time, fsid, ACL.
ATTRIBUTES = {0: "b", **dict.fromkeys((1, 2, 5, 6, 7, 9, 10, 11, 13, 15, 17, 26, 29, 33, 34, 35), "w"),
              **dict.fromkeys((3, 4, 20, 27, 30, 31, 55), "l"), 8: "f", 12: "a",
              **dict.fromkeys((19, 36, 37), "o"), **dict.fromkeys((47, 52, 53), "t")}
TYPE, SIZE, FILE_ID, MODE, OWNER, SET_ACCESS_TIME, SET_MODIFY_TIME = 1, 4, 20, 33, 36, 48, 54
DIRECTORY, SYMBOLIC_LINK = 2, 5
NO_STATE = bytes(16)


def words(*values):
    return struct.pack(f">{len(values)}I", *values)


def long(value):
    return struct.pack(">Q", value)


def bitmap(*attributes):
    present = [sum(1 << number % 32 for number in attributes if number // 32 == word) for word in (0, 1)]
    return words(len(present), *present)


def attributes(values=b"", *numbers):
    return bitmap(*numbers) + opaque(values)


EVERYTHING = bitmap(*ATTRIBUTES)


def open_file(name, how=words(0), access=3):
    """The arguments of OPEN; `how` is openflag4."""
    return words(0, access, 0) + long(1) + opaque(b"an owner") + how + words(0) + opaque(name)


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
    "CLOSE": read_state,
    "CREATE": lambda decoder: (read_change(decoder), read_bitmap(decoder)),
    "GETATTR": read_attributes,
    "GETFH": Decoder.opaque,
    "LINK": read_change,
    "OPEN": read_open,
    "READ": lambda decoder: (decoder.word(), decoder.opaque()),
    "READDIR": read_entries,
    "READLINK": Decoder.opaque,
    "REMOVE": read_change,
    "RENAME": lambda decoder: (read_change(decoder), read_change(decoder)),
    "SETCLIENTID": lambda decoder: (decoder.long(), decoder.take(8)),
    "WRITE": lambda decoder: (decoder.word(), decoder.word(), decoder.take(8)),
    "EXCHANGE_ID": read_identity,
    "CREATE_SESSION": lambda decoder: (decoder.take(16), decoder.word(), decoder.word(),
                                       read_channel(decoder), read_channel(decoder)),
    "SEQUENCE": lambda decoder: (decoder.take(16), *(decoder.word() for _ in range(5))),
}


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

    def _receive(self, size):
        data = b""
        while len(data) < size:
            piece = self.socket.recv(size - len(data))
            if not piece:
                raise AssertionError("the server closed the connection")
            data += piece
        return data

    def call(self, procedure, arguments=b""):
        transaction = next(self.transaction)
        credential = words(0) + opaque(b"client") + words(0, 0, 0)
        call = words(transaction, 0, 2, NFS, 4, procedure, 1) + opaque(credential) + words(0, 0) + arguments
        self.socket.sendall(words(0x80000000 | len(call)) + call)
        reply = b""
        last = False
        while not last:
            mark = struct.unpack(">I", self._receive(4))[0]
            last = bool(mark >> 31)
            reply += self._receive(mark & 0x7FFFFFFF)
        if reply[:24] != words(transaction, 1, 0, 0, 0, 0):
            raise Failure(f"an unusual reply: {reply[:24].hex()}")
        return Decoder(reply[24:])

    def compound(self, *operations, sequence=True, keep=False):
        """(status, results): the result of each operation that was done, SEQUENCE's left out. `keep` asks
        the server to keep the reply, in case it is wanted again."""
        operations = [(one, b"") if isinstance(one, str) else one for one in operations]
        if self.session and sequence:
            self.turn += 1
            operations.insert(0, ("SEQUENCE", self.session + words(self.turn, 0, 0, keep)))
        tag = b"a tag"
        decoder = self.call(1, opaque(tag) + words(self.minor, len(operations)) + b"".join(
            words(NUMBERS[name]) + arguments for name, arguments in operations))
        status = decoder.word()
        if decoder.opaque() != tag:
            raise AssertionError("the tag is another one")
        results, last = [], 0
        for (name, _), _ in zip(operations, range(decoder.word())):
            number, last = decoder.word(), decoder.word()
            if NAMES[number] != name:
                raise AssertionError(f"{name} is answered with {NAMES[number]}")
            self.sent.add((name, last == 0))
            if name == "SETATTR":  # has a body whatever became of it
                results.append(read_bitmap(decoder))
            elif last == 0:
                results.append(RESULTS[name](decoder) if name in RESULTS else None)
        decoder.end()
        if results and last != status:
            raise AssertionError(f"the last operation has status {last}, the whole {status}")
        return status, results[1:] if self.session and sequence else results

    def done(self, *operations, **options):
        """The results of operations all of which have to succeed."""
        status, results = self.compound(*operations, **options)
        if status or len(results) != len(operations):
            raise Failure(f"status {status} from {operations}")
        return results

    def refused(self, expected, *operations, **options):
        status, _ = self.compound(*operations, **options)
        if status != expected:
            raise AssertionError(f"status {status} instead of {expected} from {operations}")

    def begin(self):
        if self.minor == 0:
            client = words(0x40000000) + opaque(b"tcp") + opaque(b"127.0.0.1.0.0") + words(1)
            ((number, verifier),) = self.done(("SETCLIENTID", b"verifier" + opaque(b"a client") + client))
            self.done(("SETCLIENTID_CONFIRM", long(number) + verifier))
            return
        ((self.number, turn),) = self.done(("EXCHANGE_ID", b"verifier" + opaque(b"a client") + words(0, 0, 0)))
        channel = words(0, 1 << 20, 1 << 20, 4096, 32, 8, 0)
        security = words(0x40000000, 1, 1, 0) + opaque(b"client") + words(0, 0, 0)
        ((self.session, *_),) = self.done(
            ("CREATE_SESSION", long(self.number) + words(turn, 0) + channel + channel + security))
        self.turn = 0
        self.done(("RECLAIM_COMPLETE", words(0)))

    def end(self):
        if self.minor == 1:
            self.done(("DESTROY_SESSION", self.session), sequence=False)
            self.session = None
            self.done(("DESTROY_CLIENTID", long(self.number)))
