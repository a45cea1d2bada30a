"""The client of the Linux kernel, in a virtual machine: few kernels here can mount NFS."""

import unittest

import support

HERE = support.PROJECT / "tests/e2e"
UNAVAILABLE = 77
# One machine runs one script after the other and says how each ended.
ALL = 'for script in client writer mounts; do ./kernel_$script.sh "$@" 2>&1 || true; echo "end of $script"; done'


class Kernel(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        done = support.run(HERE / "vm.sh", "-t", "900", "bash", "-c", ALL, "bash", support.TOOL,
                           support.MOUNTS, timeout=960, cwd=HERE)
        if done.returncode == UNAVAILABLE:
            raise unittest.SkipTest(done.stderr.decode().strip())
        cls.said = (done.stdout + done.stderr).decode(errors="replace")

    def passed(self, script):
        self.assertRegex(self.said, rf"kernel-{script}: passed \(.*\)\s+end of {script}\s", self.said)

    def test_version_3_over_tcp(self):
        self.passed("client")

    def test_ordinary_programs_change_a_version_3_mount(self):
        for name in ("git", "rsync", "sqlite3"):
            support.program(name)
        self.passed("writer")

    def test_the_tool_mounts_and_leaves_nothing_behind(self):
        support.program("rpcbind")
        support.program("rpcinfo")
        self.passed("mounts")


if __name__ == "__main__":
    unittest.main(verbosity=2)
