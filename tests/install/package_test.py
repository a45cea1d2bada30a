"""The Debian packages that scripts/package.sh has built, which NFSLIB_PACKAGES holds.

They are installed in a copy of this machine's file system that keeps no change (an overlay in a mount
namespace), which takes root; without it that is skipped.
"""

import os
import pathlib
import subprocess
import sys
import unittest

from consumer import PROJECT, succeed
import support

PACKAGES = pathlib.Path(os.environ.get("NFSLIB_PACKAGES", PROJECT / "build/package"))

# The root directory as it is, with every change kept in memory and lost at the end. $1 is an empty
# directory, $2 one that has to be seen inside too, and may be on another file system; the rest is run.
COPY = """
    set -e
    scratch=$1 project=$2
    shift 2
    mount -t tmpfs tmpfs "$scratch"
    mkdir "$scratch/upper" "$scratch/work" "$scratch/root"
    mount -t overlay overlay "$scratch/root" \\
      -o "lowerdir=/,upperdir=$scratch/upper,workdir=$scratch/work"
    for directory in /proc /sys /dev; do mount --rbind $directory "$scratch/root$directory"; done
    mkdir -p "$scratch/root$project"
    mount --bind -o ro "$project" "$scratch/root$project"
    exec chroot "$scratch/root" env -C "$project/tests/install" "$@"
"""


def in_a_copy(work, *command):
    """How a command is run on the copy of the machine, on a network of its own."""
    return [PROJECT / "tests/support/private_network.sh", "unshare", "--mount", "sh", "-c", COPY, "sh", work,
            PROJECT, *command]


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = cls.enterClassContext(support.scratch())
        cls.packages = {path.name.partition("_")[0]: path for path in PACKAGES.glob("*.deb")}
        assert set(cls.packages) == {"libnfslib1", "libnfslib-dev", "nfslib-tools"}, cls.packages

    def test_lintian_finds_nothing(self):
        done = support.run(support.program("lintian"), "--tag-display-limit", "0", *self.packages.values(),
                           timeout=120)
        found = [line for line in done.stdout.decode().splitlines() if line.startswith(("E:", "W:"))]
        self.assertEqual((done.returncode, found), (0, []), done.stderr)

    def test_the_library_exports_what_the_list_has(self):
        succeed("dpkg-deb", "-x", self.packages["libnfslib1"], self.work / "library")
        library = next(self.work.rglob("libnfslib.so.1"))
        succeed(sys.executable, PROJECT / "tests/lint/exported_symbols.py", PROJECT / "include/nfslib", library,
                PROJECT / "cmake/nfslib.symbols")

    def test_they_are_installed_used_and_removed_without_a_trace(self):
        copy = self.work / "copy"
        copy.mkdir()
        if os.geteuid() != 0:
            self.skipTest("packages are installed by root only")
        if (probe := support.run(*in_a_copy(copy, "true"))).returncode != 0:
            self.skipTest(f"no copy of the file system to be had: {probe.stderr.decode().strip()}")
        command = [sys.executable, "-B", "packages_in_place.py", *self.packages.values()]
        done = subprocess.run(in_a_copy(copy, *command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=300, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    unittest.main()
