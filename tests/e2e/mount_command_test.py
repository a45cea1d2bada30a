"""`nfslib mount` where it cannot: a clear sentence, and nothing stays behind."""

import os
import pathlib
import subprocess
import unittest

import support


def kernel_has_nfs():
    subprocess.run(["modprobe", "nfs"], env=support.ENVIRONMENT, stderr=subprocess.DEVNULL, check=False)
    return "nodev\tnfs\n" in pathlib.Path("/proc/filesystems").read_text()


def traces():
    """Everything that a mount could leave behind."""
    records = pathlib.Path("/run/nfslib")
    return {"listening": support.listening_sockets(),
            "addresses": support.run("ip", "-o", "address", "show", "dev", "lo").stdout,
            "mounts": pathlib.Path("/proc/self/mounts").read_text(),
            "records": sorted(os.listdir(records)) if records.exists() else [],
            # Those on our network: elsewhere on the machine somebody else may run the tool.
            "processes": support.run("pgrep", "-x", "nfslib", "--ns", os.getpid(), "--nslist", "net").stdout}


@unittest.skipIf(os.geteuid() != 0, "needs root")
class Refused(unittest.TestCase):
    def setUp(self):
        scratch = self.enterContext(support.scratch())
        scratch.chmod(0o755)
        self.tree, self.point = scratch / "tree", scratch / "point"
        self.tree.mkdir()
        self.point.mkdir()
        self.before = traces()

    def refuses(self, why, *words, through=()):
        """The tool ends with one line on standard error, after `nfslib WORDS` by way of a program."""
        done = support.run(*through, support.TOOL, *words, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (1, b""), done.stderr)
        self.assertRegex(done.stderr.decode(), rf"\Anfslib: [^\n]*{why}[^\n]*\.\n\Z")
        self.assertEqual(traces(), self.before)

    def in_a_machine(self, prepared_by):
        """A program before the tool, in whose own table of mounts the shell has prepared something."""
        if support.run("unshare", "--mount", "true").returncode != 0:
            self.skipTest("needs the privilege to have mounts of its own")
        return ("unshare", "--mount", "--", "sh", "-ec", prepared_by + '; exec "$@"', "sh")

    def test_a_mount_point_that_is_none(self):
        file = self.tree / "file"
        file.touch()
        link = self.tree / "link"
        link.symlink_to("nowhere")
        loop = self.tree / "loop"
        loop.symlink_to("loop")
        for options in (), ("--alias", "--daemon"):
            self.refuses(f"{file}/below .*not", "mount", self.tree, file / "below", *options)
            self.refuses(f"{file} is not a directory", "mount", self.tree, file, *options)
            self.refuses("/nowhere does not exist; create", "mount", self.tree, link, *options)
            self.refuses("/loop leads through too many symbolic links", "mount", self.tree, loop, *options)
            self.refuses(f"{self.point}/none does not exist; create", "mount", self.tree,
                         self.point / "none", *options)
        self.refuses("/none does not exist; name", "mount", self.tree / "none", self.point)

    def test_a_mount_point_that_is_busy(self):
        machine = self.in_a_machine(f"mount -t tmpfs tmpfs '{self.point}'")
        for point in self.point, f"{self.point}/", f"{self.tree}/../point":
            self.refuses("mounted on .*/point already; unmount it", "mount", self.tree, point,
                         through=machine)

    def test_not_root(self):
        nobody = (support.program("setpriv"), "--reuid=65534", "--regid=65534", "--clear-groups")
        if support.run(*nobody, support.TOOL, "--help").returncode != 0:
            self.skipTest(f"an ordinary user cannot run {support.TOOL}")
        for options in (), ("--daemon",), ("--nfs-version", 3):
            self.refuses("Only root can mount; .*sudo", "mount", self.tree, self.point, *options,
                         through=nobody)

    def test_no_program_that_mounts(self):
        mount = support.program("mount.nfs")
        # What is no file to be executed is as good as not there.
        self.refuses("no NFS client; install .*nfs-common", "mount", self.tree, self.point,
                     through=self.in_a_machine(f"mount --bind /dev/null '{mount}'"))

    def test_no_client_in_the_kernel(self):
        support.program("mount.nfs")
        if kernel_has_nfs():
            self.skipTest("this kernel has an NFS client")
        for options in (), ("--alias",), ("--daemon", "--alias"), ("--nfs-version", 4):
            self.refuses("kernel .* has no NFS client .*nfslib serve", "mount", self.tree, self.point,
                         *options)

    def test_unmounting_what_is_not_mounted(self):
        for point in self.point, self.tree / "none", "/":
            self.refuses("Nothing is mounted .*nfslib list", "unmount", point)
        done = support.run(support.TOOL, "list")
        self.assertEqual((done.returncode, done.stdout.decode().count("\n"), done.stderr), (0, 1, b""))


if __name__ == "__main__":
    unittest.main(verbosity=2)
