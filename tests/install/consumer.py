"""Builds the host in consumer/ against an installed copy of the library, and reads what it serves."""

import os
import pathlib
import shlex
import subprocess
import sys

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/e2e"))
import support  # noqa: E402

SOURCE = pathlib.Path(__file__).resolve().parent / "consumer"
COMPILER = os.environ.get("NFSLIB_CXX", "c++")
STRICT = ["-std=c++20", "-Wall", "-Wextra", "-Werror"]


def succeed(*command, **options):
    """What a program printed; fails when its status says that it failed."""
    done = support.run(*command, timeout=300, **options)
    output = (done.stdout + done.stderr).decode(errors="replace")
    if done.returncode != 0:
        raise AssertionError(f"{shlex.join(map(str, command))} ended with {done.returncode}:\n{output}")
    return done.stdout.decode()


def build_with_cmake(prefix, work):
    """The consumer, built against the package below `prefix` through find_package."""
    succeed("cmake", "-G", "Ninja", "-S", SOURCE, "-B", work / "cmake", f"-DCMAKE_PREFIX_PATH={prefix}",
            f"-DCMAKE_CXX_COMPILER={COMPILER}", f"-DCMAKE_CXX_FLAGS={' '.join(STRICT[1:])}")
    succeed("cmake", "--build", work / "cmake")
    return work / "cmake/consumer"


def build_with_pkg_config(work, pkg_config_path=""):
    """The consumer, built in one command; the files of pkg-config are looked for in that path first."""
    flags = succeed("env", f"PKG_CONFIG_PATH={pkg_config_path}", "pkg-config", "--cflags", "--libs",
                    "nfslib_posix", "nfslib_memory")
    program = work / "with_pkg_config"
    succeed(COMPILER, *STRICT, SOURCE / "consumer.cpp", *shlex.split(flags), "-o", program)
    return program


def check(program, work, library_path=""):
    """Runs the consumer and reads a file of each of its exports as an NFS client."""
    nfs_cat = support.program("nfs-cat")
    directory = work / "served"
    directory.mkdir(exist_ok=True)
    (directory / "file").write_text("a file of this machine\n")
    environment = {**support.ENVIRONMENT, "LD_LIBRARY_PATH": library_path}
    with subprocess.Popen([program, directory], env=environment, stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as host:
        try:
            port = host.stdout.readline().strip()  # empty when the host has ended
            if not port:
                raise AssertionError(f"the consumer ended with {host.wait()}")
            for path, text in (("own/note", "from a host outside the tree\n"),
                               ("directory/file", "a file of this machine\n")):
                read = succeed(nfs_cat, f"nfs://127.0.0.1/{path}?nfsport={port}&version=4")
                if read != text:
                    raise AssertionError(f"{path} reads {read!r}, not {text!r}")
            host.stdin.close()
            if (status := host.wait(30)) != 0:
                raise AssertionError(f"the consumer ended with {status}")
        finally:
            if host.poll() is None:
                host.kill()
