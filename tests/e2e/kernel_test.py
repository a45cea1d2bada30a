"""The client of the Linux kernel, in a virtual machine: few kernels here can mount NFS."""

import unittest

import support

HERE = support.PROJECT / "tests/e2e"
UNAVAILABLE = 77
# Both profiles do what the same programs ask for; version 4 alone is what the client comes down to.
READING = ("3 --classic", "3", "4.0", "4.1", "4")
CHANGING = ("4.0 --classic", "3", "4.0", "4.1")
VERSIONS = ("3", "4.0", "4.1")
# One machine runs one script after the other and says how each ended.
ALL = f"""tool=$1
run() {{ ./kernel_$1.sh "$tool" "${{@:2}}" 2>&1 && status=0 || status=$?
  words="$*"; echo "end of ${{words%% /*}}: status $status"; }}
{"; ".join(f"run client {how}" for how in READING)}
{"; ".join(f"run writer {how}" for how in CHANGING)}
{"; ".join(f"run outside {how}" for how in VERSIONS)}
run version4 --classic; run version4; run modern; run locks 4.0; run locks 4.1; run archive; run mounts "$2"
"""


class Kernel(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        done = support.run(HERE / "vm.sh", "-t", "1500", "bash", "-c", ALL, "bash", support.TOOL,
                           support.MOUNTS, timeout=1560, cwd=HERE)
        if done.returncode == UNAVAILABLE:
            raise unittest.SkipTest(done.stderr.decode().strip())
        cls.said = (done.stdout + done.stderr).decode(errors="replace")

    def passed(self, run):
        # A line each, whatever else a shell has to say meanwhile about programs that were killed.
        self.assertRegex(self.said, rf"(?m)^end of {run}: status 0\s*$", self.said)

    def test_reading(self):
        for how in READING:
            with self.subTest(how):
                self.passed(f"client {how}")

    def test_ordinary_programs_change_a_mount(self):
        for name in ("git", "rsync", "sqlite3"):
            support.program(name)
        for how in CHANGING:
            with self.subTest(how):
                self.passed(f"writer {how}")

    def test_changes_where_the_tree_is_served_from(self):
        for how in VERSIONS:
            with self.subTest(how):
                self.passed(f"outside {how}")

    def test_what_only_version_4_has(self):
        for run in ("version4 --classic", "version4"):
            with self.subTest(run):
                self.passed(run)

    def test_what_the_modern_profile_is_for(self):
        self.passed("modern")

    def test_locks(self):
        support.program("sqlite3")
        for how in ("4.0", "4.1"):
            with self.subTest(how):
                self.passed(f"locks {how}")

    def test_the_tool_mounts_and_leaves_nothing_behind(self):
        support.program("rpcbind")
        support.program("rpcinfo")
        self.passed("mounts")

    def test_an_archive_is_mounted(self):
        support.program("zstd")
        self.passed("archive")


if __name__ == "__main__":
    unittest.main(verbosity=2)
