"""What `cmake --install` puts down, moved elsewhere and used from there.

NFSLIB_BUILD is the build directory that is installed, NFSLIB_CXX its compiler.
"""

import os
import pathlib
import re
import sys
import unittest

from consumer import PROJECT, build_with_cmake, build_with_pkg_config, check, succeed
import consumer
import support

sys.path.insert(0, str(PROJECT / "tests/lint"))
import exported_symbols  # noqa: E402

BUILD = pathlib.Path(os.environ.get("NFSLIB_BUILD", PROJECT / "build/clang"))
COMMANDS = ("serve", "mount", "unmount", "list")


def options_of_help(text):
    """The options that a --help lists, as they are written on a command line."""
    return {option for names in re.findall(r"^  (-[-\w,]+)", text, re.MULTILINE)
            for option in names.split(",")}


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = cls.enterClassContext(support.scratch())
        first, cls.prefix = cls.work / "first", cls.work / "moved"
        succeed("cmake", "--install", BUILD, "--prefix", first)
        first.rename(cls.prefix)
        cls.libraries = next(cls.prefix.rglob("libnfslib.so")).parent
        cls.tool = cls.prefix / "bin/nfslib"

    def test_a_host_is_built_with_cmake(self):
        check(build_with_cmake(self.prefix, self.work), self.work)

    def test_a_host_is_built_with_pkg_config(self):
        program = build_with_pkg_config(self.work, self.libraries / "pkgconfig")
        check(program, self.work, self.libraries)

    def test_every_host_brings_along_what_it_needs(self):
        hosts = [path.stem for path in (self.libraries / "pkgconfig").glob("nfslib_*.pc")]
        self.assertGreaterEqual(len(hosts), 3)
        project = self.work / "all"
        project.mkdir()
        (project / "main.cpp").write_text("int main() {}")
        whole = ("-Wl,--whole-archive", "-Wl,--no-whole-archive")
        with self.subTest("pkg-config"):
            for host in hosts:
                flags = succeed("env", f"PKG_CONFIG_PATH={self.libraries / 'pkgconfig'}", "pkg-config", "--cflags",
                                "--libs", host).split()
                place = flags.index(f"-l{host}")
                flags[place:place + 1] = [whole[0], flags[place], whole[1]]
                succeed(consumer.COMPILER, project / "main.cpp", *flags, "-o", project / host)
        with self.subTest("CMake"):
            names = [host.removeprefix("nfslib_") for host in hosts]
            self.configure(project, f"nfslib 1 REQUIRED COMPONENTS {' '.join(names)}", f"""
                add_executable(every main.cpp)
                target_link_libraries(every {whole[0]} {' '.join(f'nfslib::{name}' for name in names)} {whole[1]})
                """, check=True)
            succeed("cmake", "--build", project / "build")

    def configure(self, project, package, rest="", check=False):
        """Runs CMake for a project that asks for the package; with `check` it has to succeed."""
        project.mkdir(exist_ok=True)
        (project / "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.23)\nproject(asks CXX)\nfind_package({package})\n{rest}")
        return (succeed if check else support.run)(
            "cmake", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={consumer.COMPILER}")

    def test_what_is_not_installed_is_named(self):
        for asked, answer in (("1.0 COMPONENTS nonesuch", "no component 'nonesuch'; installed are:.*posix"),
                              ("2.0", "version: 1.0.0")):
            done = self.configure(self.work / "asks", f"nfslib {asked} REQUIRED")
            self.assertNotEqual(done.returncode, 0, asked)
            self.assertRegex(re.sub(r"\s+", " ", done.stderr.decode()), answer)

    def test_nothing_points_back_to_where_it_was_made(self):
        # Debug information does, where there is any.
        places = [os.fsencode(place) for place in (PROJECT, self.work / "first")]
        for path in self.prefix.rglob("*"):
            if path.is_file() and not (content := path.read_bytes()).startswith((b"\x7fELF", b"!<arch>")):
                self.assertFalse([place for place in places if place in content], path)

    def test_manual_and_completion_know_every_option_and_no_other(self):
        page = (self.prefix / "share/man/man1/nfslib.1").read_text().replace("\\-", "-")
        documented = {option for tag in re.findall(r"^\.TP\n\.B[IR]? (-.*)$", page, re.MULTILINE)
                      for option in re.findall(r"(?<!\S)--?[a-z][-\w]*", tag)}
        real = {command: options_of_help(succeed(self.tool, command, "--help")) for command in COMMANDS}
        self.assertEqual(documented, set().union(*real.values()))
        for command, options in real.items():
            offered = set(self.complete(f"nfslib {command} -"))
            self.assertEqual(offered, options, command)
            self.assertLessEqual(offered, documented, command)
        self.assertLess(set(COMMANDS), set(self.complete("nfslib ")))

    def test_completion_of_values(self):
        (self.work / "archive $(touch evil).tar").touch()
        self.assertEqual(self.complete("nfslib serve --proto u"), ["udp"])
        self.assertEqual(self.complete("nfslib serve mem"), ["memory"])
        self.assertEqual(self.complete("nfslib mount --log-file arch"), ["archive $(touch evil).tar"])
        self.assertIn("root", self.complete("nfslib serve --group roo"))
        self.assertFalse((self.work / "evil").exists())

    def complete(self, line):
        """What bash offers at the end of the line."""
        script = """
            source "$1"
            COMP_WORDS=($2)
            case $2 in *' ') COMP_WORDS+=('') ;; esac
            COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
            cd "$3" && _nfslib nfslib && printf '%s\\n' "${COMPREPLY[@]}"
        """
        completion = self.prefix / "share/bash-completion/completions/nfslib"
        return succeed("bash", "-c", script, "bash", completion, line, self.work).splitlines()

    def test_manual_pages_are_clean_and_name_what_is_public(self):
        for page in ("man1/nfslib.1", "man3/nfslib.3"):
            done = support.run("man", "--warnings", "-l", self.prefix / "share/man" / page)
            self.assertEqual((done.returncode, done.stderr), (0, b""))
        page = (self.prefix / "share/man/man3/nfslib.3").read_text()
        classes, _ = exported_symbols.declared(PROJECT / "include/nfslib")
        hosts = [path.name for path in (PROJECT / "hosts/include/nfslib/hosts").iterdir()]
        self.assertEqual([name for name in [*classes, *hosts] if name not in page], [])


if __name__ == "__main__":
    unittest.main()
