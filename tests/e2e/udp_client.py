"""A client of NFS version 3 over UDP: the system's own clients speak it no more."""

import itertools
import select
import socket
import struct

PORTMAP, NFS, MOUNT = 100000, 100003, 100005
UDP = 17
DIRECTORY = 2
LARGEST_DATAGRAM = 65507


class Failure(Exception):
    """The server answered, and the answer is a refusal."""


class Decoder:
    def __init__(self, data):
        self.data = data
        self.position = 0

    def take(self, size):
        if self.position + size > len(self.data):
            raise AssertionError(f"the reply of {len(self.data)} bytes is cut short")
        self.position += size
        return self.data[self.position - size:self.position]

    def word(self):
        return struct.unpack(">I", self.take(4))[0]

    def long(self):
        return struct.unpack(">Q", self.take(8))[0]

    def opaque(self):
        size = self.word()
        value = self.take(size)
        if self.take(-size % 4).strip(b"\0"):
            raise AssertionError("the padding of an opaque is not zero")
        return value

    def attributes(self):
        """fattr3, of which the tests look at the type alone."""
        kind = self.word()
        self.take(80)
        return {"type": kind}

    def optional_attributes(self):
        return self.attributes() if self.word() else None

    def end(self):
        if self.position != len(self.data):
            raise AssertionError(f"{len(self.data) - self.position} bytes follow the results")


def opaque(value):
    return struct.pack(">I", len(value)) + value + b"\0" * (-len(value) % 4)


def call_message(transaction, program, version, procedure, arguments):
    """A call as uid 0 with AUTH_SYS."""
    credential = struct.pack(">I", 0) + opaque(b"client") + struct.pack(">III", 0, 0, 0)
    return (struct.pack(">IIIIIII", transaction, 0, 2, program, version, procedure, 1) + opaque(credential) +
            struct.pack(">II", 0, 0) + arguments)


class UdpClient:
    """Repeats a call that gets no answer within a second."""

    def __init__(self, address):
        self.address = address
        self.transaction = itertools.count(0x10000)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.longest_reply = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def call(self, port, program, version, procedure, arguments=b"", attempts=5):
        transaction = next(self.transaction)
        call = call_message(transaction, program, version, procedure, arguments)
        for _ in range(attempts):
            self.socket.sendto(call, (self.address, port))
            while select.select([self.socket], [], [], 1)[0]:
                reply, sender = self.socket.recvfrom(65536)
                if struct.unpack(">I", reply[:4])[0] != transaction:
                    continue  # the answer to a call that was repeated
                if sender != (self.address, port):
                    raise AssertionError(f"the reply comes from {sender}")
                self.longest_reply = max(self.longest_reply, len(reply))
                return self._accepted(reply)
        raise Failure(f"no answer to procedure {procedure} of program {program}")

    @staticmethod
    def _accepted(reply):
        decoder = Decoder(reply)
        _, kind, rejected, _flavor = (decoder.word() for _ in range(4))
        if kind != 1 or rejected:
            raise Failure("the call was rejected")
        decoder.opaque()
        status = decoder.word()
        if status:
            raise Failure(f"accept status {status}")
        return decoder

    def get_port(self, program, version, protocol=UDP):
        decoder = self.call(111, PORTMAP, 2, 3, struct.pack(">IIII", program, version, protocol, 0))
        port = decoder.word()
        decoder.end()
        return port

    def mount(self, port, path):
        decoder = self.call(port, MOUNT, 3, 1, opaque(path.encode()))
        status = decoder.word()
        if status:
            raise Failure(f"MNT status {status}")
        handle = decoder.opaque()
        flavors = [decoder.word() for _ in range(decoder.word())]
        decoder.end()
        return handle, flavors


class NfsClient:
    """NFS version 3 procedures of one server. A status other than 0 raises Failure."""

    def __init__(self, client, port):
        self.client = client
        self.port = port

    def _call(self, procedure, arguments):
        decoder = self.client.call(self.port, NFS, 3, procedure, arguments)
        status = decoder.word()
        if status:
            raise Failure(f"status {status}")
        return decoder

    def null(self):
        self.client.call(self.port, NFS, 3, 0).end()

    def getattr(self, handle):
        decoder = self._call(1, opaque(handle))
        attributes = decoder.attributes()
        decoder.end()
        return attributes

    def lookup(self, directory, name):
        decoder = self._call(3, opaque(directory) + opaque(name))
        handle = decoder.opaque()
        attributes = decoder.optional_attributes()
        decoder.optional_attributes()
        decoder.end()
        return handle, attributes

    def readlink(self, handle):
        decoder = self._call(5, opaque(handle))
        decoder.optional_attributes()
        target = decoder.opaque()
        decoder.end()
        return target

    def read(self, handle, offset, count):
        decoder = self._call(6, opaque(handle) + struct.pack(">QI", offset, count))
        decoder.optional_attributes()
        returned, end = decoder.word(), bool(decoder.word())
        data = decoder.opaque()
        decoder.end()
        if returned != len(data):
            raise AssertionError(f"READ counts {returned} bytes and sends {len(data)}")
        return data, end

    def read_file(self, handle, count):
        """The whole file in READs of `count`, whatever part of it a reply brings."""
        content, end, short = bytearray(), False, 0
        while not end:
            data, end = self.read(handle, len(content), count)
            if not data and not end:
                raise AssertionError(f"an empty READ at {len(content)} that is not the end")
            short += len(data) < count and not end
            content += data
        return bytes(content), short

    def readdir(self, directory, count, plus=False):
        """(name, file id) of all entries, in pages of `count` bytes, and the number of pages."""
        entries, cookie, verifier, pages, end = [], 0, bytes(8), 0, False
        while not end:
            limits = struct.pack(">II", count, count) if plus else struct.pack(">I", count)
            decoder = self._call(17 if plus else 16, opaque(directory) + struct.pack(">Q", cookie) +
                                 verifier + limits)
            decoder.optional_attributes()
            verifier = decoder.take(8)
            before = len(entries)
            while decoder.word():
                file_id, name, cookie = decoder.long(), decoder.opaque(), decoder.long()
                entries.append((name, file_id))
                if plus:
                    decoder.optional_attributes()
                    if decoder.word():
                        decoder.opaque()
            end = bool(decoder.word())
            decoder.end()
            pages += 1
            if len(entries) == before and not end:
                raise AssertionError("a page without entries that is not the last")
        return entries, pages
