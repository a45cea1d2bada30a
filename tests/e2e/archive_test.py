"""Archives as libnfs sees them, packed by the programs that people pack with."""

import os
import pathlib
import pty
import signal
import subprocess
import tarfile
import time
import unittest

import support

FORMATS = {
    # suffix: the command that packs the tree in the current directory, and whether it keeps every
    # kind of object
    ".tar": ["tar --sort=name -cf {file} .", True],
    ".tar.gz": ["tar --sort=name -czf {file} .", True],
    ".tar.bz2": ["tar --sort=name -cjf {file} .", True],
    ".tar.xz": ["tar --sort=name -c . | xz -1 -T1 --block-size=1MiB > {file}", True],
    ".tar.zst": ["tar --sort=name -c . | zstd -q > {file}", True],
    ".cpio": ["find . | cpio --quiet -o -H newc > {file}", True],
    ".cpio.gz": ["find . | cpio --quiet -o -H newc | gzip > {file}", True],
    ".zip": ["zip -qry {file} .", False],
    "-stored.zip": ["zip -0qry {file} .", False],
    ".7z": ["7z a -bd -mx=1 -snl {file} .", False],
    ".iso": ["genisoimage -quiet -R -o {file} .", False],
}


def tree_to_pack(root, whole):
    """A tree with every kind of object (`whole`), or one that every format can keep."""
    if whole:
        support.small_tree(root)
        pathlib.Path(root, "pipes").mkdir()
        os.mkfifo(root / "pipes/pipe")
        with open(root / "mostly a hole", "wb") as file:
            file.truncate(5_000_000)
            file.seek(3_000_000)
            file.write(b"in the middle")
        return root
    (root / "sizes").mkdir(parents=True)
    for size in support.SIZES:
        (root / "sizes" / f"of {size}").write_bytes(support.pattern(size, size))
    (root / "names").mkdir()
    for name in ("plain", "with space", "Grüße", "日本語", ".hidden", "a#b"):
        (root / "names" / name).write_text(name)
    (root / "deep/er").mkdir(parents=True)
    (root / "deep/er/down").write_text("bottom")
    (root / "link").symlink_to("names/plain")
    return root


class Archives(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(support.scratch())

    def pack(self, tree, file, command):
        program = command.split()[0]
        for word in (program, *(part.split()[0] for part in command.split("|")[1:])):
            support.program(word)
        done = support.run("sh", "-ec", f"cd '{tree}' && " + command.format(file=f"'{file}'"), timeout=120)
        self.assertEqual(done.returncode, 0, done.stderr)
        return file

    def test_every_format_shows_what_was_packed(self):
        trees = {whole: tree_to_pack(self.directory / f"tree-{whole}", whole) for whole in (False, True)}
        for suffix, (command, whole) in FORMATS.items():
            with self.subTest(suffix):
                tree = trees[whole]
                file = self.pack(tree, self.directory / f"packed{suffix}", command)
                with support.Server(file) as server:
                    self.assertEqual(server.export, "/packed-stored" if "stored" in suffix else "/packed")
                    done = support.run(support.COMPARE, server.url(), tree, timeout=120)
                    self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout.decode())

    def test_side_by_side(self):
        tree = self.directory / "tree"
        tree.mkdir()
        for number in range(12):
            (tree / str(number)).write_bytes(support.pattern(1_500_000 + number, number))
        for suffix in (".tar.zst", ".tar.gz", ".zip", ".7z"):
            with self.subTest(suffix):
                file = self.pack(tree, self.directory / f"packed{suffix}", FORMATS[suffix][0])
                with support.Server(file, "--archive-cache", "64M") as server:
                    url = server.url
                    clients = [subprocess.Popen([support.program("nfs-cat"), url(f"/{number}")],
                                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
                               for number in range(12)]
                    for number, client in enumerate(clients):
                        content, _ = client.communicate(timeout=120 * support.PATIENCE)
                        self.assertTrue(content == (tree / str(number)).read_bytes(), number)


class Starting(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(support.scratch())

    def fails(self, why, *words):
        done = support.run(support.TOOL, "serve", *words)
        self.assertEqual((done.returncode, done.stdout), (1, b""), done.stderr)
        self.assertRegex(done.stderr.decode(), rf"\Anfslib: [^\n]*{why}[^\n]*\.\n\Z")

    def tar(self, entries, size):
        path = self.directory / "large.tar"
        with tarfile.open(path, "w", format=tarfile.USTAR_FORMAT) as archive:
            with open("/dev/zero", "rb") as zeros:
                for number in range(entries):
                    member = tarfile.TarInfo(f"member {number}")
                    member.size = size
                    archive.addfile(member, zeros)
        return path

    def test_what_cannot_be_served(self):
        text = self.directory / "notes.txt"
        text.write_text("not packed\n")
        self.fails("no archive .*tar and cpio .*zip, 7z and ISO 9660", text)
        self.fails("cannot be changed; leave out --rw", self.tar(1, 1), "--rw")

    def test_damage_is_told_in_a_line(self):
        path = self.tar(2, 100_000)
        os.truncate(path, 150_000)
        with support.Server(path) as server:
            self.assertRegex(server.errors(), r"\Anfslib: \S+ has 1 problem; [^\n]+\n\Z")
        with support.Server(path, "--log-level", "warn") as server:
            self.assertIn("cannot be read any further", server.errors())

    def test_progress_on_a_terminal_and_a_prompt_end(self):
        path = self.tar(1, 300_000_000)
        support.run("gzip", "-1", path, timeout=120)
        terminal, other = pty.openpty()
        tool = subprocess.Popen([support.TOOL, "serve", f"{path}.gz"], env=support.ENVIRONMENT,
                                stdout=subprocess.DEVNULL, stderr=other)
        os.close(other)
        try:
            support.wait_until(lambda: os.read(terminal, 4096).find(b"entries, ") >= 0, 20, "a bar")
            began = time.monotonic()
            tool.send_signal(signal.SIGINT)
            tool.wait(5 * support.PATIENCE)
            self.assertLess(time.monotonic() - began, 2 * support.PATIENCE)
            self.assertEqual(tool.returncode, 0)
        finally:
            tool.kill()
            tool.wait()
            os.close(terminal)


if __name__ == "__main__":
    unittest.main(verbosity=2)
