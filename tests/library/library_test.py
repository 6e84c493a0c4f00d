"""The library as other projects use it: installed, as a subproject, and the symbols of its archive.

usage: library_test.py SOURCE_FOLDER BUILD_FOLDER LIBDIAGSIM [unittest arguments]
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE, BUILD, PRELOAD = sys.argv[1:4]
COMPILERS = [name for name in ("g++", "clang++") if shutil.which(name)]


def run(*command, **more):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **more)
    if done.returncode:
        raise AssertionError(f"{' '.join(command)}: exit status {done.returncode}\n{done.stdout}")
    return done.stdout


class Library(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.prefix = os.path.join(cls.folder.name, "installed")
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        # A package may be moved.
        cls.prefix = shutil.move(cls.prefix, cls.prefix + " elsewhere")
        # The loader divides by blanks and colons.
        cls.preload = shutil.copy(PRELOAD, cls.folder.name)
        with open(f"{SOURCE}/CMakeLists.txt") as project:
            cls.version = re.search(r"VERSION (\d+\.\d+\.\d+)", project.read()).group(1)
        cls.program = os.path.join(cls.folder.name, "program")
        shutil.copytree(HERE, cls.program)
        os.rename(f"{cls.program}/CMakeLists.txt.in", f"{cls.program}/CMakeLists.txt")
        include = os.path.join(cls.prefix, "include")
        headers = [os.path.relpath(os.path.join(base, name), include)
                   for base, _, names in os.walk(include) for name in names]
        with open(f"{cls.program}/every_header.h", "w") as out:
            out.writelines(f"#include <{header}>\n" for header in sorted(headers))

    def installed(self, name):
        for base, _, names in os.walk(self.prefix):
            if name in names:
                return os.path.join(base, name)
        self.fail(f"{name} is not installed")

    def check(self, program):
        environment = {**os.environ, "LD_PRELOAD": self.preload}
        self.assertEqual(run(program, env=environment), f"{self.version} good 174 7\n")

    def build(self, name, compiler, standard, *options):
        folder = os.path.join(self.folder.name, name)
        run("cmake", "-G", "Ninja", "-S", self.program, "-B", folder, f"-DSTANDARD={standard}",
            f"-DCMAKE_CXX_COMPILER={compiler}", *options)
        run("cmake", "--build", folder, "-j", "2")
        self.check(os.path.join(folder, "program"))

    def test_found_by_cmake(self):
        for compiler in COMPILERS:
            self.build("found-" + compiler, compiler, 17, "-DCMAKE_PREFIX_PATH=" + self.prefix)

    def test_found_by_pkg_config(self):
        search = os.path.dirname(self.installed("tavrik.pc"))
        # pkg-config divides by blanks.
        os.symlink(self.prefix, os.path.join(self.folder.name, "link"))
        search = search.replace(self.prefix, os.path.join(self.folder.name, "link"))
        flags = run("pkg-config", "--cflags", "--libs", "tavrik",
                    env={**os.environ, "PKG_CONFIG_PATH": search}).split()
        for compiler in COMPILERS:
            program = os.path.join(self.folder.name, "pkg-" + compiler)
            run(compiler, "-std=c++20", "-I", f"{self.program}/own", f"{self.program}/program.cpp",
                f"{self.program}/own_names.cpp", *flags, "-o", program)
            self.check(program)

    def test_as_a_subproject(self):
        self.build("subproject", COMPILERS[-1], 20, "-DSUBPROJECT=" + SOURCE)

    def test_the_archive_defines_nothing_outside_its_namespaces(self):
        symbols = run("nm", "-C", "--defined-only", "--extern-only", self.installed("libtavrik.a"))
        ours = re.compile(r"\btavrik(_\w+)?::|^(std|__gnu_cxx)::|^void std::|^DW\.ref\.__gxx_personality_v0$")
        names = {line.split(" ", 2)[2] for line in symbols.splitlines() if re.match(r"[0-9a-f]+ \w ", line)}
        self.assertGreater(len(names), 200)
        self.assertEqual(sorted(name for name in names if not ours.search(name)), [])

    def test_installed_programs_run_against_the_simulated_device(self):
        for scenario, status in ((), 0), (("start-refused.json",), 1):
            done = subprocess.run([self.installed("diagsim-run"), *scenario, self.installed("adsppm-check")],
                                  stdout=subprocess.PIPE, text=True)
            self.assertEqual(done.returncode, status, done.stdout)
            self.assertIn("host    start request", done.stdout)
        self.assertRegex(run("strings", self.installed("adsppm-check")), r"(?m)^adsppm-check \d+\.\d+\.\d+$")
        done = subprocess.run([self.installed("diagsim-run"), "nothing"], stderr=subprocess.PIPE, text=True)
        self.assertEqual((done.returncode, done.stderr), (2, "diagsim-run: cannot find nothing\n"))

    def test_the_line_examples_tell_a_pass_from_a_failure(self):
        line, folder = os.path.join(SOURCE, "examples", "line"), os.path.join(self.folder.name, "line")
        os.mkdir(folder)
        path = os.pathsep.join([os.path.dirname(self.installed("diagtap")), os.environ["PATH"]])
        pytest_case = "import pathlib, test_adsp as case; case.test_metric_collection_starts_and_stops(pathlib.Path('.'))"
        for name, scenario, status in (("good", "", 0), ("bad", "start-refused.json", 1)):
            command = ["diagsim-run", *scenario.split(), "adsppm-check"]
            environment = {**os.environ, "PATH": path, "PYTHONPATH": line, "CHECK": " ".join(command)}
            for program in (["sh", line + "/check.sh", name, *command], [sys.executable, "-B", "-c", pytest_case]):
                done = subprocess.run(program, cwd=folder, env=environment, stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE, text=True)
                self.assertEqual(done.returncode, status, done)
            self.assertEqual("start refused" in done.stderr, status == 1, done)
            self.assertEqual(sorted(os.listdir(os.path.join(folder, name))),
                             ["junit.xml", "log.txt", "report.json", "run.pcapng"])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
