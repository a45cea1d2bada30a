"""The client of the Linux kernel, in a virtual machine: few kernels here can mount NFS."""

import unittest

import support

HERE = support.PROJECT / "tests/e2e"
UNAVAILABLE = 77


class Kernel(unittest.TestCase):
    def test_version_3_over_tcp(self):
        done = support.run(HERE / "vm.sh", "-t", "480", HERE / "kernel_client.sh", support.TOOL,
                           timeout=600)
        if done.returncode == UNAVAILABLE:
            self.skipTest(done.stderr.decode().strip())
        self.assertEqual(done.returncode, 0, (done.stdout + done.stderr).decode(errors="replace"))
        self.assertIn(b"passed", done.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
