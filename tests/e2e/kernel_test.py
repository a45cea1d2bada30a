"""The client of the Linux kernel, in a virtual machine: few kernels here can mount NFS."""

import unittest

import support

HERE = support.PROJECT / "tests/e2e"
UNAVAILABLE = 77
# One machine runs one script after the other and says how each ended.
ALL = """tool=$1
run() { ./kernel_$1.sh "$tool" "${@:2}" 2>&1 || true; echo "end of $1"; }
run client; run writer; run client 4.0; run writer 4.0; run version4; run mounts "$2"
"""


class Kernel(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        done = support.run(HERE / "vm.sh", "-t", "1200", "bash", "-c", ALL, "bash", support.TOOL,
                           support.MOUNTS, timeout=1260, cwd=HERE)
        if done.returncode == UNAVAILABLE:
            raise unittest.SkipTest(done.stderr.decode().strip())
        cls.said = (done.stdout + done.stderr).decode(errors="replace")

    def passed(self, script, version=""):
        self.assertRegex(self.said, rf"kernel-{script}{version}: passed \(.*\)\s+end of {script}\s", self.said)

    def test_reading(self):
        for version in ("-3", "-4.0"):
            with self.subTest(version):
                self.passed("client", version)

    def test_ordinary_programs_change_a_mount(self):
        for name in ("git", "rsync", "sqlite3"):
            support.program(name)
        for version in ("-3", "-4.0"):
            with self.subTest(version):
                self.passed("writer", version)

    def test_what_only_version_4_has(self):
        self.passed("version4")

    def test_the_tool_mounts_and_leaves_nothing_behind(self):
        support.program("rpcbind")
        support.program("rpcinfo")
        self.passed("mounts")


if __name__ == "__main__":
    unittest.main(verbosity=2)
