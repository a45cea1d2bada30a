"""What the end-to-end tests share: a running tool, trees of files, programs with a deadline."""

import contextlib
import os
import pathlib
import select
import shutil
import signal
import stat
import subprocess
import tempfile
import time
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
TOOL = os.environ.get("NFSLIB_TOOL", str(PROJECT / "build/release/bin/nfslib"))
COMPARE = os.environ.get("NFSLIB_COMPARE", str(PROJECT / "build/clang/bin/libnfs_compare"))
CHANGE = os.environ.get("NFSLIB_CHANGE", str(PROJECT / "build/clang/bin/libnfs_change"))
MOUNTS = os.environ.get("NFSLIB_MOUNTS", str(PROJECT / "build/clang/bin/mounts_in_one_process"))
# Instrumented builds are slower; the deadlines stretch with them.
PATIENCE = float(os.environ.get("NFSLIB_PATIENCE", "1"))
PROFILE = os.environ.get("NFSLIB_PROFILE", "").split()  # an option of the tool, for every server

ENVIRONMENT = {**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin:/sbin", "LC_ALL": "C.UTF-8"}


def program(name):
    """The full path of a program of the system; skips the test where it is not installed."""
    path = shutil.which(name, path=ENVIRONMENT["PATH"])
    if path is None:
        raise unittest.SkipTest(f"{name} is not installed")
    return path


def run(*command, timeout=30, **options):
    """Runs a program to its end and returns what it said, as bytes."""
    words = [word if isinstance(word, (bytes, os.PathLike)) else str(word) for word in command]
    return subprocess.run(words, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=ENVIRONMENT,
                          timeout=timeout * PATIENCE, check=False, **options)


def wait_until(condition, seconds, what):
    """Polls until `condition` holds, and fails when it does not within `seconds`."""
    deadline = time.monotonic() + seconds * PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s for {what}")
        time.sleep(0.01)


@contextlib.contextmanager
def scratch():
    """A directory that is gone afterwards, whatever permissions its content has."""
    with tempfile.TemporaryDirectory(prefix="nfslib-e2e-") as path:
        yield pathlib.Path(path)


class Server:
    """`nfslib serve SOURCE OPTIONS`, from its line `ready` on; `before` is the start of the command."""

    def __init__(self, source, *options, ready_within=10, before=()):
        self.diagnostics = tempfile.TemporaryFile()
        started = time.monotonic()
        self.process = subprocess.Popen(
            [*before, TOOL, "serve", os.fspath(source), *PROFILE, *map(str, options)], env=ENVIRONMENT,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.diagnostics)
        try:
            self._read_announcement(started + ready_within * PATIENCE)
        except BaseException:
            self.kill()
            raise
        self.start_seconds = time.monotonic() - started

    def _read_announcement(self, deadline):
        text = b""
        out = self.process.stdout.fileno()
        while not text.endswith(b"ready\n"):
            readable, _, _ = select.select([out], [], [], max(0, deadline - time.monotonic()))
            piece = os.read(out, 4096) if readable else b""
            if not piece:
                raise AssertionError(f"the tool did not get ready; it printed {text!r} and "
                                     f"said {self.errors()!r}")
            text += piece
        self.lines = text.decode().splitlines()
        values = dict(line.split(" ", 1) for line in self.lines[:-1])
        self.export = values["export"]
        self.address = values["address"]
        self.nfs_port = int(values["nfs-port"])
        self.mount_port = int(values.get("mount-port", 0))  # version 4 has none

    def url(self, path="/"):
        """The libnfs URL of an object of the tree. libnfs takes each byte as it is, but for "?"."""
        rest = f"mountport={self.mount_port}" if self.mount_port else "version=4"
        return f"nfs://{self.address}{self.export}{path}?nfsport={self.nfs_port}&{rest}"

    def errors(self):
        """What the tool has written to standard error so far."""
        if not self.diagnostics.closed:
            self.diagnostics.seek(0)
            self.said = self.diagnostics.read().decode(errors="replace")
        return self.said

    def stop(self, signal_number=signal.SIGTERM, within=2):
        """Ends the tool and returns its exit status; fails when it takes too long."""
        self.process.send_signal(signal_number)
        try:
            status = self.process.wait(within * PATIENCE)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the tool did not stop within {within} s") from None
        finally:
            self.kill()
        return status

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        self.errors()
        self.diagnostics.close()

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if self.process.poll() is not None:
            status = self.process.returncode
            self.kill()
        else:
            status = self.stop(within=5)
        if kind is None and status != 0:
            raise AssertionError(f"the tool ended with status {status}: {self.errors()}")


def pattern(size, seed=1):
    """`size` bytes that differ from place to place, so that a misplaced block shows."""
    block = b"".join((seed * 1_000_003 + i).to_bytes(8, "little") for i in range(min(size, 65536) // 8 + 1))
    out = bytearray()
    turn = 0
    while len(out) < size:
        out += turn.to_bytes(8, "little") + block[:-8]
        turn += 1
    return bytes(out[:size])


# File sizes at which transfers begin, end or split.
SIZES = [0, 1, 3, 4, 5, 4095, 4096, 4097, 32768, 65535, 65536, 65537, 1048575, 1048576, 1048577,
         3 * 1048576 + 7]

PLAIN_NAMES = ["plain", "with space", " leading and trailing ", "Grüße", "日本語 テキスト", "naïve café",
               "-dash", ".hidden", "..two dots", "...", "a#b", "100%", "50%41", "semi;colon", "quote'\"",
               "star*", "back\\slash", "dollar$HOME", "amp&ersand", "e" * 255]
# Legal on disk, and a trap for whoever prints a name a line or takes names for text.
ODD_NAMES = [b"new\nline", b"tab\there", b"\x01control", b"latin1-\xe9", b"\xff\xfe\xfd", b"\x7f",
             b"question?mark", b"\xc3\x28 broken utf-8", b"bytes-" + bytes(range(0x80, 0xff))]


def small_tree(root):
    """Every kind of object, sizes around the limits of a transfer, names with spaces and UTF-8."""
    root = pathlib.Path(root)
    root.mkdir(exist_ok=True)
    sizes = root / "sizes"
    sizes.mkdir()
    for size in SIZES:
        (sizes / str(size)).write_bytes(pattern(size, size))
    names = root / "names"
    names.mkdir()
    for name in PLAIN_NAMES:
        (names / name).write_text(f"the file called {name}\n")
    modes = root / "modes"
    modes.mkdir()
    for mode in (0o644, 0o755, 0o600, 0o444, 0o4755, 0o2711, 0o777):
        path = modes / f"{mode:o}"
        path.write_text(path.name)
        path.chmod(mode)
    (modes / "sticky directory").mkdir()
    (modes / "sticky directory").chmod(0o1777)
    (root / "empty directory").mkdir()
    links = root / "links"
    links.mkdir()
    (links / "to a file").symlink_to("../sizes/4096")
    (links / "to nothing").symlink_to("nowhere/at all")
    (links / "absolute").symlink_to("/etc/passwd")
    (links / "to ümläut").symlink_to("../names/Grüße")
    (links / "long").symlink_to("/".join(["x" * 100] * 10))
    (links / "loop").symlink_to("loop")
    (links / "hard").write_text("two names")
    os.link(links / "hard", links / "harder")
    deep_directory(root / "deep", 12)  # nfs-ls goes no further than 16
    return root


def tree_to_change(root):
    """What libnfs_change begins with."""
    for name in ("directory", "empty"):
        (root / name).mkdir(parents=True)
    for name in ("file", "doomed", "directory/inner"):
        (root / name).write_text(name)
    (root / "link").symlink_to("file")
    return root


def deep_directory(path, levels):
    for level in range(levels):
        path = path / f"level {level}"
    path.mkdir(parents=True)
    (path / "bottom").write_text("far down")


def odd_tree(root):
    """What only programs survive: strange names, special files, a hole, a hundred levels."""
    top = os.fsencode(root)
    os.mkdir(top)
    deep_directory(pathlib.Path(root) / "deep", 100)
    for name in ODD_NAMES:
        with open(os.path.join(top, name), "wb") as file:
            file.write(b"content of " + name)
    os.mkfifo(os.path.join(top, b"a pipe"))
    with open(os.path.join(top, b"mostly a hole"), "wb") as file:
        file.truncate(5_000_000)
        file.seek(3_000_000)
        file.write(b"in the middle")
    return pathlib.Path(root)


def crowded_directory(path, entries):
    path.mkdir()
    for number in range(entries):
        (path / f"entry {number:06}").write_text(str(number))


def names_below(root):
    """Relative path -> lstat of everything below `root`, itself not included."""
    found = {}
    for directory, subdirectories, files in os.walk(root):
        for name in subdirectories + files:
            path = os.path.join(directory, name)
            found[os.path.relpath(path, root)] = os.lstat(path)
    return found


def type_and_mode(status):
    """The ten letters of `ls -l`."""
    return stat.filemode(status.st_mode)


def listening_sockets():
    """(protocol, local address) of everything that listens in this network namespace."""
    listening = set()
    for protocol in ("tcp", "udp", "tcp6", "udp6"):
        with open(f"/proc/net/{protocol}", encoding="ascii") as table:
            for line in table.readlines()[1:]:
                fields = line.split()
                if protocol.startswith("udp") or fields[3] == "0A":
                    listening.add((protocol, fields[1]))
    return listening
