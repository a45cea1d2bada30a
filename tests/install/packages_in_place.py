"""Installs the Debian packages given to it, uses them, removes them: on a machine to be thrown away."""

import os
import pathlib
import subprocess
import sys

# Before `support` is read, which takes the tool from here.
os.environ["NFSLIB_TOOL"] = "/usr/bin/nfslib"
import consumer  # noqa: E402
from consumer import succeed, support  # noqa: E402

NAMES = ["nfslib-tools", "libnfslib-dev", "libnfslib1"]  # in the order in which they can go


def files_of_the_machine():
    """What is where packages put things. The rest of the machine may change meanwhile."""
    return set(succeed("find", "/usr", "/etc", "/opt", "-xdev").splitlines())


def expect(condition, what):
    if not condition:
        raise AssertionError(what)


def use(work):
    expect(succeed("dpkg", "--verify", *NAMES) == "", "what was installed is not what is in the packages")
    expect("libnfslib.so.1 " in succeed(support.program("ldconfig"), "-p"), "ldconfig does not know the library")

    served = work / "served"
    served.mkdir()
    (served / "file").write_text("through the installed tool\n")
    with support.Server(served, "--nfs-version", 4) as server:
        text = succeed(support.program("nfs-cat"), server.url("/file"))
        expect(text == "through the installed tool\n", text)

    for section in ("1", "3"):
        page = pathlib.Path(succeed("man", "-w", section, "nfslib").strip())
        expect(page == pathlib.Path(f"/usr/share/man/man{section}/nfslib.{section}.gz"), page)
        done = support.run("man", "--warnings", "-l", page)
        expect(b"nfslib" in done.stdout and not done.stderr and done.returncode == 0, done)
    completes = succeed("bash", "-c", "source /usr/share/bash-completion/completions/nfslib; complete -p nfslib")
    expect("_nfslib" in completes, completes)

    flags = succeed("pkg-config", "--cflags", "--libs", "nfslib").split()
    expect(flags == ["-lnfslib", "-pthread"], f"flags for what is in its usual place: {flags}")
    for build in (lambda: consumer.build_with_cmake("/usr", work), lambda: consumer.build_with_pkg_config(work)):
        consumer.check(build(), work)


def main():
    before = files_of_the_machine()
    expect(not any("libnfslib" in path for path in before), "the library is on this machine already")
    with support.scratch() as work:
        # Machines that are to be small leave manuals out.
        succeed("dpkg", "--path-include=/usr/share/*", "-i", *sys.argv[1:])
        installed = files_of_the_machine() - before
        use(work)
    owned = {path for name in NAMES for path in succeed("dpkg", "-L", name).splitlines()}
    expect(installed <= owned, f"in no package: {sorted(installed - owned)}")
    expect(subprocess.call(["dpkg", "-r", "libnfslib1"]) != 0, "the library went from under the tool")
    succeed("dpkg", "-r", *NAMES)
    succeed("dpkg", "-P", *NAMES)
    after = files_of_the_machine()
    expect(after == before, f"left behind: {sorted(after - before)}; missing: {sorted(before - after)}")


if __name__ == "__main__":
    main()
