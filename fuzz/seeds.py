#!/usr/bin/env python3
"""Writes the seeds of the fuzz targets to fuzz/corpus: one small file a case, named by what it is.

    python3 fuzz/seeds.py

Files that a fuzzer found stay beside them; only the seeds are written anew. So do seeds that Python
cannot make: archive/solid.7z is what `7z a -ms=on` made of the files of archive/ustar.tar.
"""

import bz2
import gzip
import io
import lzma
import pathlib
import struct
import tarfile
import zipfile
import zlib

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
NFS, MOUNT, PORTMAP = 100003, 100005, 100000
ROOT, FILE, EMPTY, LINK, DIRECTORY, OLD, ELSEWHERE, UNKNOWN = range(8)
LARGEST = 0xFFFFFFFF


def words(*values):
    return b"".join(struct.pack(">I", value) for value in values)


def longs(*values):
    return b"".join(struct.pack(">Q", value) for value in values)


def opaque(value):
    return words(len(value)) + value + bytes(-len(value) % 4)


def handle(number):
    """What fuzz/served_tree.h replaces with the handle of an object."""
    return opaque(b"nfslib-fuzz-obj" + bytes([number]))


def value(number):
    """What it replaces with 16 bytes of the modern profile's state; see fuzz/compound_fuzz.cpp."""
    return b"nfslib-fuzz-sid" + bytes([number])


def write(target, name, content):
    directory = CORPUS / target
    directory.mkdir(parents=True, exist_ok=True)
    (directory / name).write_bytes(content)


def arguments():
    """(name, program, procedure, arguments) of good calls and of some that are not."""
    yield "null", NFS, 0, b""
    for name, number in (("root", ROOT), ("file", FILE), ("old", OLD), ("elsewhere", ELSEWHERE),
                         ("unknown", UNKNOWN)):
        yield f"getattr-{name}", NFS, 1, handle(number)
    yield "getattr-short-handle", NFS, 1, opaque(b"short")
    yield "getattr-long-handle", NFS, 1, opaque(bytes(64))
    for name in (b"file", b"directory", b"none", b".", b"..", b"", b"a/b", b"x" * 300, b"[%1]\xff\0"):
        label = name[:9].hex() or "empty"
        yield f"lookup-{label}", NFS, 3, handle(ROOT) + opaque(name)
    yield "lookup-in-a-file", NFS, 3, handle(FILE) + opaque(b"file")
    yield "lookup-length", NFS, 3, handle(ROOT) + words(LARGEST)
    yield "access", NFS, 4, handle(FILE) + words(0x3F)
    yield "readlink", NFS, 5, handle(LINK)
    yield "readlink-of-a-file", NFS, 5, handle(FILE)
    for offset, count in ((0, 300), (299, 100), (300, 1), (0, LARGEST), (2**64 - 1, LARGEST),
                          (2**63, 1), (0, 0)):
        yield f"read-{offset}-{count}", NFS, 6, handle(FILE) + longs(offset) + words(count)
    yield "read-a-directory", NFS, 6, handle(DIRECTORY) + longs(0) + words(100)
    for cookie, count in ((0, 4096), (3, 200), (2**64 - 1, 4096), (0, 0), (0, LARGEST), (20, 512)):
        start = handle(DIRECTORY) + longs(cookie) + bytes(8)
        yield f"readdir-{cookie}-{count}", NFS, 16, start + words(count)
        yield f"readdirplus-{cookie}-{count}", NFS, 17, start + words(count, count)
    yield "readdir-of-a-file", NFS, 16, handle(FILE) + longs(0) + bytes(8) + words(4096)
    all_set = words(1, 0o12644, 1, 7, 1, 8, 1) + longs(10) + words(1, 2, 5, 0)
    for name, number in (("file", FILE), ("link", LINK), ("directory", DIRECTORY), ("root", ROOT)):
        yield f"setattr-{name}", NFS, 2, handle(number) + all_set + words(1, 2, 3)
    yield "setattr-huge", NFS, 2, handle(FILE) + words(0, 0, 0, 1) + longs(2**64 - 1) + words(0, 3, 0)
    for mode in range(4):
        yield f"create-{mode}", NFS, 8, handle(ROOT) + opaque(b"new") + words(mode) + all_set
    yield "create-again", NFS, 8, handle(ROOT) + opaque(b"file") + words(0) + words(0, 0, 0, 0, 0, 0)
    yield "mkdir", NFS, 9, handle(DIRECTORY) + opaque(b"new") + all_set
    yield "symlink", NFS, 10, handle(ROOT) + opaque(b"new") + all_set + opaque(b"to")
    for name in (b"empty", b"link", b"directory", b"..", b"none"):
        yield f"remove-{name.decode()}", NFS, 12, handle(ROOT) + opaque(name)
        yield f"rmdir-{name.decode()}", NFS, 13, handle(ROOT) + opaque(name)
    for name, source, directory, target in (
            ("file", b"file", DIRECTORY, b"moved"), ("over", b"file", ROOT, b"empty"),
            ("into-itself", b"directory", DIRECTORY, b"in"), ("directory", b"directory", ROOT, b"d"),
            ("same", b"file", ROOT, b"file"), ("root", b".", ROOT, b"x")):
        yield f"rename-{name}", NFS, 14, handle(ROOT) + opaque(source) + handle(directory) + opaque(target)
    yield "link", NFS, 15, handle(FILE) + handle(DIRECTORY) + opaque(b"second")
    yield "link-to-a-directory", NFS, 15, handle(DIRECTORY) + handle(ROOT) + opaque(b"second")
    yield "write", NFS, 7, handle(FILE) + longs(0) + words(4, 2) + opaque(b"data")
    yield "write-far", NFS, 7, handle(FILE) + longs(2**63 - 2) + words(4, 0) + opaque(b"data")
    yield "write-more-than-sent", NFS, 7, handle(FILE) + longs(0) + words(400, 2) + opaque(b"data")
    yield "commit", NFS, 21, handle(FILE) + longs(0) + words(0)
    for name, number in (("fsstat", 18), ("fsinfo", 19), ("pathconf", 20)):
        yield name, NFS, number, handle(ROOT)
    yield "no-such-procedure", NFS, 99, b""
    yield "mnt", MOUNT, 1, opaque(b"/tree")
    yield "mnt-unknown", MOUNT, 1, opaque(b"/nowhere")
    yield "mnt-length", MOUNT, 1, words(LARGEST) + b"/tree"
    yield "umnt", MOUNT, 3, opaque(b"/tree")
    yield "export", MOUNT, 5, b""
    yield "getport", PORTMAP, 3, words(NFS, 3, 6, 0)
    yield "getport-outside", PORTMAP, 3, words(100021, 4, 6, 0)
    yield "getport-short", PORTMAP, 3, words(NFS, 3)
    yield "dump", PORTMAP, 4, b""


def call(program, procedure, body, credential=None, verifier=b"", xid=1):
    if credential is None:
        credential = words(1) + opaque(words(0) + opaque(b"host") + words(0, 0, 2, 10, 20))
    version = 2 if program == PORTMAP else 3
    return words(xid, 0, 2, program, version, procedure) + credential + words(0) + \
        opaque(verifier) + body


def record(*calls):
    content = b"".join(calls)
    return words(0x80000000 | len(content)) + content


def rpc_call():
    for name, program, procedure, body in arguments():
        choice = (NFS, MOUNT, PORTMAP).index(program) << 1
        write("rpc_call", name, bytes([choice, procedure, 0]) + body)
        if name.startswith("read"):
            write("rpc_call", name + "-udp", bytes([choice | 1, procedure, 1]) + body)


def connection():
    null = call(NFS, 0, b"")
    lookup = call(NFS, 3, handle(ROOT) + opaque(b"file"))
    read = call(NFS, 6, handle(FILE) + longs(0) + words(300))
    listing = call(NFS, 17, handle(DIRECTORY) + longs(0) + bytes(8) + words(4096, 4096))
    write("connection", "one", record(null))
    write("connection", "three-records", record(null) + record(lookup) + record(read))
    write("connection", "three-calls-in-a-record", record(null, lookup, listing))
    write("connection", "mount-and-read", record(call(MOUNT, 1, opaque(b"/tree"))) + record(read))
    removal = call(NFS, 12, handle(ROOT) + opaque(b"file"))
    creation = call(NFS, 8, handle(ROOT) + opaque(b"file") + words(2) + bytes(8))
    move = call(NFS, 14, handle(ROOT) + opaque(b"directory") + handle(ROOT) + opaque(b"moved"))
    write("connection", "successor", record(removal) + record(creation, read) + record(lookup))
    write("connection", "moved-listing", record(listing, move, listing) + record(listing))
    write("connection", "mount-of-nothing", record(call(MOUNT, 1, opaque(b"/no"))) + record(null))
    write("connection", "unknown-program", record(call(100227, 0, b"")) + record(null))
    write("connection", "not-last", words(len(null)) + null + record(null))
    write("connection", "empty-record", words(0x80000000) + record(null))
    write("connection", "too-long", words(0x80000000 | (1 << 20) + 1) + null)
    write("connection", "hopeless", words(LARGEST) + null)
    write("connection", "cut", record(lookup)[:-5])
    write("connection", "half-a-mark", record(null) + b"\x80\0")
    many_groups = words(1) + opaque(words(0) + opaque(b"host") + words(0, 0, 17, *range(17)))
    for name, credential in (
            ("auth-none", words(0, 0)), ("auth-6", words(6) + opaque(b"token")),
            ("auth-17-groups", many_groups), ("auth-length", words(1, LARGEST)),
            ("auth-401", words(0) + opaque(bytes(404))),
            ("auth-user", words(1) + opaque(words(0) + opaque(b"") + words(1000, 1000, 0))),
            ("auth-short-body", words(1, 4, 0)),
            ("auth-long-name", words(1) + opaque(words(0) + opaque(b"n" * 256) + words(0, 0, 0)))):
        write("connection", name, record(call(NFS, 1, handle(ROOT), credential)) + record(null))
    write("connection", "verifier", record(call(NFS, 1, handle(ROOT), verifier=b"abcde")))
    write("connection", "verifier-length",
          record(words(1, 0, 2, NFS, 3, 0, 0, 0, 0, LARGEST)) + record(null))


def operations():
    """(name, operations of one COMPOUND of minor version 0 behind PUTROOTFH)."""
    def op(number, arguments=b""):
        return words(number) + arguments

    def put(number):
        return op(22, handle(number))

    def bitmap(*bits):
        return words(len(bits), *bits)

    def opened(name, how=words(0), claim=0):
        return op(18, words(0, 3, 0) + longs(1) + opaque(b"owner") + how + words(claim) +
                  (opaque(name) if claim == 0 else b""))

    state = words(0) + bytes(12)
    getattr_all = op(9, bitmap(0xEC1ABFFF, 0xB0803E))
    get_handle = op(10)
    everything = bitmap(0xFFFFFFFF, 0xFFFFFFFF, 0xFF)
    # size 3, mode, owner, group, both times
    settable = bitmap(0x10, 0x00410032)
    values = opaque(longs(3) + words(0o640) + opaque(b"1000") + opaque(b"100") + words(1) + longs(5) +
                    words(0) + words(0))
    yield "root", [getattr_all, get_handle, op(3, words(0x3F)), op(16),
                   op(26, longs(0) + bytes(8) + words(512, 4096) + everything)]
    yield "lookup", [op(15, opaque(b"tree")), getattr_all, op(15, opaque(b"directory")), op(16), get_handle]
    for name in (b"..", b"", b"a/b", b"none"):
        yield f"lookup-{name.hex() or 'empty'}", [put(ROOT), op(15, opaque(name))]
    for name, number in (("file", FILE), ("link", LINK), ("directory", DIRECTORY), ("old", OLD),
                         ("elsewhere", ELSEWHERE), ("unknown", UNKNOWN)):
        yield f"object-{name}", [put(number), getattr_all, op(3, words(0x3F)), op(32), op(31), op(27)]
    yield "verify", [put(FILE), op(37, bitmap(0x10) + opaque(longs(300))),
                     op(17, bitmap(0x10) + opaque(longs(300)))]
    yield "open-read-close", [put(ROOT), opened(b"file"), get_handle, op(25, state + longs(0) + words(300)),
                              op(25, state + longs(2**64 - 1) + words(LARGEST)), op(4, words(1) + state)]
    yield "open-by-handle", [put(FILE), opened(b"", claim=4), op(38, state + longs(2) + words(2) + opaque(b"data")),
                             getattr_all, op(4, words(1) + state), op(25, state + longs(0) + words(1))]
    for name, how in (("unchecked", words(1, 0) + settable + values), ("guarded", words(1, 1) + settable + values),
                      ("exclusive", words(1, 2) + bytes(8)), ("exclusive-4-1", words(1, 3) + bytes(8) + settable + values),
                      ("mode-9", words(1, 9))):
        yield f"create-{name}", [put(ROOT), opened(b"new", how), put(ROOT), opened(b"new", how)]
    yield "setattr", [put(FILE), op(34, state + settable + values), getattr_all]
    yield "setattr-unknown", [put(FILE), op(34, state + everything + opaque(bytes(40)))]
    yield "changes", [put(DIRECTORY), op(6, words(2) + opaque(b"made") + settable + values), put(DIRECTORY),
                      op(6, words(5) + opaque(b"to") + opaque(b"link") + bitmap() + opaque(b"")), put(FILE),
                      op(32), put(DIRECTORY), op(11, opaque(b"second")), put(DIRECTORY), op(32), put(ROOT),
                      op(29, opaque(b"second") + opaque(b"moved")), op(28, opaque(b"moved"))]
    yield "readdir", [put(DIRECTORY), op(26, longs(0) + bytes(8) + words(100, 600) + everything),
                      op(26, longs(3) + bytes(8) + words(100, 600) + everything),
                      op(26, longs(2**64 - 1) + bytes(8) + words(100, LARGEST) + bitmap(0))]
    yield "readdir-length", [put(DIRECTORY), op(26, longs(0) + bytes(8) + words(100, 600, LARGEST))]
    yield "client", [op(35, bytes(8) + opaque(b"owner") + words(0x40000000) + opaque(b"tcp") + opaque(b"0.0.0.0") +
                        words(1)), op(36, longs(1) + bytes(8))]
    yield "illegal", [op(2)]
    yield "not-supported", [op(12, bytes(40))]


def compounds(*bodies):
    return b"".join(struct.pack(">H", len(body)) + body for body in bodies)


def compound_body(minor, operations_list):
    return opaque(b"tag") + words(minor, len(operations_list)) + b"".join(operations_list)


def stateful(client, opened, locked):
    """(name, operation) on a file that is open, with the stateids of the open and of a lock."""
    owner = client + b"r\0\0\0"
    yield "read", words(25) + opened + longs(0) + words(100)
    yield "write", words(38) + locked + longs(5) + words(2) + opaque(b"written")
    yield "resize", words(34) + opened + words(1, 16, 8) + longs(7)
    yield "close", words(4, 3) + opened
    yield "downgrade", words(21) + opened + words(3, 1, 0)
    yield "confirm", words(20) + opened + words(3)
    yield "lock", words(12, 2, 0) + longs(20, 5) + words(0) + locked + words(1)
    yield "lock-new", words(12, 4, 0) + longs(0, 2**64 - 1) + words(1, 3) + opened + words(0) + owner
    yield "lock-test", words(13, 1) + longs(0, 2**64 - 1) + owner
    yield "unlock", words(14, 2, 1) + locked + longs(3, 2)
    yield "release", words(39) + owner
    yield "free", words(45) + locked
    yield "test", words(55, 2) + opened + locked
    yield "renew", words(30) + client
    yield "return", words(8) + opened
    yield "commit", words(5) + longs(0) + words(0)
    yield "bind", words(41) + value(3) + words(1, 0)


def compound():
    for name, operations_list in operations():
        write("compound", name, compounds(compound_body(0, [words(24)] + operations_list)))
    write("compound", "minor-2", compounds(compound_body(2, [words(24)])))
    write("compound", "count", compounds(opaque(b"") + words(0, LARGEST)))
    write("compound", "tag-length", compounds(words(LARGEST, 0, 0)))
    channel = words(0, 1 << 20, 1 << 20, 4096, 16, 64, 0)
    exchange = words(42) + bytes(8) + opaque(b"owner") + words(0x101, 0, 0)
    security = words(2, 0, 1, 0) + opaque(b"host") + words(0, 0, 1, 5)
    create = words(43) + longs(1) + words(1, 0) + channel + channel + words(0x40000000) + security
    session = struct.pack("<QQ", 1, 1)
    for cached in (0, 1):
        sequence = words(53) + session + words(1, 0, 63, cached)
        work = compound_body(1, [sequence, words(22) + handle(FILE), words(9, 2, 0xEC1ABFFF, 0xB0803E)])
        write("compound", f"session-{cached}", compounds(
            compound_body(1, [exchange]), compound_body(1, [create]), work, work,
            compound_body(1, [words(44) + session]), compound_body(1, [words(57) + longs(1)])))
    for minor, client in ((0, 0), (1, 4)):
        for name, operation in stateful(*(value(client + i) for i in range(3))):
            first = [words(53) + value(3) + words(3, 0, 0, 1)] if minor else []
            at_file = words(22) + handle(FILE)
            one = compound_body(minor, first + [at_file, operation])
            write("compound", f"modern-{minor}-{name}", compounds(one, one))
    gss = words(1, 6, 1) + opaque(b"from server") + opaque(b"from client")
    write("compound", "gss", compounds(compound_body(1, [exchange]), compound_body(
        1, [words(43) + longs(1) + words(1, 0) + channel + channel + words(0) + gss])))


def records():
    integers = words(0, 1, LARGEST, 7)
    time_stamp = longs(1_700_000_000) + words(5)
    ace = words(0, 0, 0x1F) + opaque(b"OWNER@")
    cases = [
        ("uint32", integers), ("uint64", longs(0, 2**64 - 1)), ("int64", longs(2**63)),
        ("bool", words(0, 1, 2)), ("string", opaque(b"abc") + opaque(b"")),
        ("bytes", opaque(bytes(range(9)))), ("uint32s", words(2, 5, 6, LARGEST)),
        ("fixed-string", opaque(b"0123456789abcdef") + opaque(b"0123456789abcdefg")),
        ("counts", words(1, 2, 3, LARGEST)), ("opaque12", bytes(range(12))),
        ("time", time_stamp), ("device", words(8, 1)), ("fsid", longs(1, 2)),
        ("handle", opaque(bytes(range(16))) + opaque(b"short")),
        ("stateid", words(1) + bytes(range(12))), ("client-owner", bytes(8) + opaque(b"owner")),
        ("ace", ace), ("acl", words(2) + ace + ace),
        ("impl-id", opaque(b"example.org") + opaque(b"client") + time_stamp),
        ("channel", words(0, 1, 2, 3, 4, 5, 0) + words(0, 1, 2, 3, 4, 5, 1, 9)),
        ("protect-ops", words(1, 2, 1, 3)),
        ("ssv", words(1, 2, 1, 3) + words(1) + opaque(b"oid") + words(1) + opaque(b"oid") +
         words(1, 2)),
        ("head", call(NFS, 1, b"")), ("verifier", bytes(8)),
    ]
    for number, (name, content) in enumerate(cases):
        write("records", name, bytes([number]) + content)
        write("records", name + "-length", bytes([number]) + words(LARGEST, LARGEST) + content)


def path():
    for name, text in (("root", "/"), ("plain", "/a/b\nc"), ("dots", "a//./../../b/.\n../x/y"),
                       ("only-dots", "../../..\n.."), ("spaces", " / . \n ..."), ("empty", ""),
                       ("utf-8", "/Grüße/日本\n…"), ("slashes", "////\n//")):
        write("path", name, text.encode())


def tar(format_, *members):
    """`members` are (name, content, the fields of the header that differ)."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", format=format_) as archive:
        for name, content, fields in members:
            header = tarfile.TarInfo(name)
            header.size = len(content)
            for field, its_value in fields.items():
                setattr(header, field, its_value)
            archive.addfile(header, io.BytesIO(content))
    content = out.getvalue().rstrip(b"\0")
    return content + bytes(-len(content) % 512 + 1024)  # not all of the usual 10 KiB


def sparse_tar():
    """As GNU tar stores it: in the header the parts (offset, size), behind it what they hold."""
    def octal(*numbers):
        return b"".join(b"%011o\0" % number for number in numbers)
    header = b"holes".ljust(100, b"\0") + b"0000644\0" + b"0000000\0" * 2 + octal(1024, 0) + b" " * 8 + b"S"
    header = header.ljust(257, b"\0") + b"ustar  \0"
    header = header.ljust(386, b"\0") + octal(1000, 512, 400_000, 512)
    header = header.ljust(483, b"\0") + octal(500_000)
    header = header.ljust(512, b"\0")
    header = header[:148] + b"%06o\0 " % sum(header) + header[156:]
    return header + b"a" * 512 + b"b" * 512 + bytes(1024)


def cpio(*members):
    """The "newc" format of (name, mode, inode, number of links, content)."""
    out = b""
    for name, mode, inode, links, content in (*members, (b"TRAILER!!!", 0, 0, 1, b"")):
        fields = (inode, mode, 0, 0, links, 1_500_000_000, len(content), 0, 0, 0, 0, len(name) + 1, 0)
        out += b"070701" + b"".join(b"%08X" % field for field in fields) + name + b"\0"
        out += bytes(-len(out) % 4) + content
        out += bytes(-len(out) % 4)
    return out


def zipped():
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w") as archive:
        for name, method in (("stored", zipfile.ZIP_STORED), ("d/deflated", zipfile.ZIP_DEFLATED),
                             ("d/bzip2", zipfile.ZIP_BZIP2), ("Grüße", zipfile.ZIP_DEFLATED)):
            archive.writestr(zipfile.ZipInfo(name), b"some of the text " * 20, method)
    return out.getvalue()


def zstd(content):
    """A frame of raw blocks, and of one that repeats a byte, for each 4 KiB; RFC 8878."""
    out = struct.pack("<II", 0x184D2A50, 3) + b"\0\0\0"  # to be skipped
    for start in range(0, len(content), 4096):
        piece = content[start:start + 4096]
        same = len(set(piece)) == 1
        block = (len(piece) << 3) | (2 if same else 0) | 1
        out += struct.pack("<IBH", 0xFD2FB528, 0x60, len(piece) - 256) + struct.pack("<I", block)[:3]
        out += piece[:1] if same else piece
    return out


def nested_zip():
    """Two members whose content is at one place and that claim different sizes: the second's header
    stands in the extra field of the first."""
    content = zlib.compress(b"abcd")[2:-4]
    def local(name, extra, size):
        return struct.pack("<IHHHIIIIHH", 0x04034B50, 20, 0, 8, 0, 0, len(content), size, len(name),
                           extra) + name
    second = local(b"b", 0, 4)
    first = local(b"a", len(second) + 4, 3) + struct.pack("<HH", 0xCAFE, len(second))
    directory = b""
    for name, size, at in ((b"a", 3, 0), (b"b", 4, len(first))):
        directory += struct.pack("<IHHHHIIIIHHHHHII", 0x02014B50, 20, 20, 0, 8, 0, 0, len(content), size,
                                 len(name), 0, 0, 0, 0, 0, at) + name
    body = first + second + content
    return body + directory + struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, 2, 2, len(directory), len(body), 0)


def archive():
    text = b"".join(b"%d bottles, " % number for number in range(300))
    plain = [("d", b"", {"type": tarfile.DIRTYPE}), ("d/text", text, {}), ("d/same", b"", {
        "type": tarfile.LNKTYPE, "linkname": "d/text"}), ("link", b"", {
            "type": tarfile.SYMTYPE, "linkname": "../d/text"}), ("./x/../zeros", bytes(3000), {}),
             ("later", b"", {"type": tarfile.LNKTYPE, "linkname": "end"}), ("end", b"end", {})]
    ustar = tar(tarfile.USTAR_FORMAT, *plain)
    circle = tar(tarfile.USTAR_FORMAT, *(
        (name, b"", {"type": tarfile.LNKTYPE, "linkname": to})
        for name, to in (("a", "b"), ("b", "a"), ("a/b", "a"), ("d", "d/e"))), ("b", b"b", {}))
    long_name = "deep/" * 60 + "n" * 200
    holes = {"GNU.sparse.major": "1", "GNU.sparse.minor": "0", "GNU.sparse.name": "holes",
             "GNU.sparse.realsize": "500000"}
    parts = b"2\n1000\n512\n400000\n512\n".ljust(512, b"\0")
    large = tar(tarfile.GNU_FORMAT, ("zeros", bytes(5_000_000), {}), ("text", text, {}))
    for name, content in (
            ("ustar.tar", ustar), ("circle.tar", circle), ("gnu-sparse.tar", sparse_tar()),
            ("gnu.tar", tar(tarfile.GNU_FORMAT, (long_name, b"gnu", {"uid": 1 << 40}))),
            ("pax.tar", tar(tarfile.PAX_FORMAT, (long_name + "é", b"pax", {"mtime": 1.5, "uid": 1 << 40}))),
            ("pax-sparse.tar", tar(tarfile.PAX_FORMAT, (
                "sparse", parts + b"a" * 512 + b"b" * 512, {"pax_headers": holes}))),
            ("ustar.tar.gz", gzip.compress(ustar, mtime=0) + gzip.compress(b"", mtime=0) + bytes(9)),
            ("ustar.tar.bz2", bz2.compress(ustar[:1536], 1) + bz2.compress(ustar[1536:])),
            ("ustar.tar.xz", lzma.compress(ustar[:1536], preset=0) + lzma.compress(ustar[1536:], preset=1)),
            ("ustar.tar.lzma", lzma.compress(ustar, lzma.FORMAT_ALONE)), ("ustar.tar.zst", zstd(ustar)),
            ("large.tar.gz", gzip.compress(large, mtime=0)),
            ("members.zip", zipped()), ("nested.zip", nested_zip()),
            ("links.cpio", cpio((b"d", 0o40755, 1, 2, b""), (b"d/a", 0o100644, 2, 2, b""),
                                (b"d/b", 0o100600, 2, 2, b"content"), (b"l", 0o120777, 3, 1, b"d/a")))):
        write("archive", name, content)


if __name__ == "__main__":
    rpc_call()
    connection()
    compound()
    records()
    path()
    archive()
