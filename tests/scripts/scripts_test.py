"""Runs the scripts in a copy of the tree. cmake copies the existing build; apt-get installs nothing.

usage, in tests/: python3 -m scripts.scripts_test CHECKER LIBDIAGSIM [unittest arguments]
"""
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECKER, LIBRARY = map(os.path.abspath, sys.argv[1:3])
SECONDS = 60  # for one test

# Each appends its command line to the file `calls`. They wait on FIFOs.
FAKES = {
    "cmake": r"""
cache=build/release/CMakeCache.txt home="CMAKE_HOME_DIRECTORY:INTERNAL=$PWD"
if [ "$1" = --preset ]; then
    [ ! -e $cache ] || grep -Fqx "$home" $cache || exit
    mkdir -p build/release/{app,sim}
    echo "$home" >$cache
else
    echo "[3/7] Building"
    [ ! -e "$TREE/go" ] || read -r _ <"$TREE/go"
    cp "$CHECKER" build/release/app
    cp "$LIBRARY" build/release/sim/libdiagsim.so
    cp "${CHECKER%/*/*}/sim/diagsim-run" build/release/sim
fi""",
    "apt-get": r"""
case $1${OFFLINE:+ offline} in
    update*offline)
        printf 'Err:%s http://archive\n' {1..99}
        echo 'W: Failed to fetch http://archive/Release  No route to host' ;;
    install*offline) exit 100 ;;
    install)
        if [ -e "$TREE/busy" ]; then (trap '' INT; echo unpacking; exec sleep 30) >"$TREE/busy"; fi
        ln -sf /bin/true "$TREE/../bin/ninja" ;;
esac""",
    "dpkg": "", "apt-cache": "", "id": "echo 0", "ninja": ""}


class Scripts(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tools = tempfile.TemporaryDirectory(dir="/tmp")
        cls.addClassCleanup(cls.tools.cleanup)
        tools = {name: f"/usr/bin/{name}" for name in os.listdir("/usr/bin")}
        for name, target in {**tools, "python3": sys.executable}.items():
            if name not in FAKES:
                os.symlink(target, os.path.join(cls.tools.name, name))

    def setUp(self):
        outside = tempfile.TemporaryDirectory(dir="/tmp")
        self.addCleanup(outside.cleanup)
        for folder in (outside.name, self.tools.name):
            os.chmod(folder, 0o755)
        self.tree = pathlib.Path(outside.name, "a b:c")
        for folder in ("script", "tests/e2e", "tests/soak"):
            shutil.copytree(ROOT / folder, self.tree / folder)
        shutil.copy(ROOT / "CMakePresets.json", self.tree)
        self.bin, self.calls = pathlib.Path(outside.name, "bin"), self.tree / "calls"
        self.bin.mkdir()
        for name, text in FAKES.items():
            (self.bin / name).write_text(f'#!/bin/bash\necho "{name} $*" >>"$TREE/calls"\n{text}\n')
            (self.bin / name).chmod(0o755)
        decoy = pathlib.Path(outside.name, "decoy", "tests")
        decoy.mkdir(parents=True)
        signal.signal(signal.SIGALRM, lambda *_: self.fail("it hangs"))
        signal.alarm(SECONDS)
        self.environment = {"PATH": f"{self.bin}:{self.tools.name}", "CDPATH": str(decoy.parent), "TERM": "xterm",
                            "TMPDIR": str(self.tree), "TREE": str(self.tree),
                            "CHECKER": CHECKER, "LIBRARY": LIBRARY}

    def start(self, command, **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        process = subprocess.Popen(["bash", "-c", command], cwd=self.tree, env=self.environment, text=True,
                                   stdin=subprocess.DEVNULL, start_new_session=True, **options)
        self.addCleanup(lambda: process.poll() is None and os.killpg(process.pid, signal.SIGKILL))
        return process

    def run_script(self, command, status=0, **options):
        """Its output and errors, after it ended with that status."""
        process = self.start(command, **options)
        output, errors = process.communicate()
        self.assertEqual(process.returncode, status, f"{command}\n{output}\n{errors}")
        return output, errors

    def without_ninja(self):
        (self.bin / "ninja").unlink()

    def test_neither_the_path_nor_the_reader_changes_a_verdict(self):
        (self.tree / "link").symlink_to("script/run")
        (self.tree / "refuse.json").write_text('{"requests": {"start": {"refuse": true}}}')
        output, errors = self.run_script("./link")
        self.assertIn("start response (accepted)", output)
        self.assertEqual((output.splitlines()[-1], errors), ("adsppm-check: exit status 0", ""))
        self.run_script("cd script; ./run ../refuse.json >&- 2>&-", 1)
        self.run_script("script/run refuse.json >/dev/full", 1)
        self.run_script("set -o pipefail; script/run | true")
        self.assertIn("1 of 1 exit 0", self.run_script("script/soak 1")[0])
        self.run_script("cd build/release; python3 ../../tests/e2e/e2e.py app/adsppm-check sim/libdiagsim.so "
                        "Checker.test_exact_traffic_of_a_good_run")

    def test_nothing_runs_without_the_device(self):
        self.environment["LIBRARY"] = str(ROOT / "README.md")
        output, errors = self.run_script("script/run", 2)
        self.assertEqual((output, errors.count("\n")), ("", 1), errors)
        self.assertIn("was not started", self.run_script("script/soak 1", 1)[1])

    def test_help_and_mistakes_install_nothing(self):
        self.without_ninja()
        scripts = [path.name for path in (ROOT / "script").iterdir() if path.is_file()]
        for name in scripts:
            self.assertGreater(len(self.run_script(f"script/{name} --help")[0]), 50, name)
            self.run_script(f"script/{name} --bogus", 2)
        for mistake in ("run absent/scenario.json", "soak 0", "test -R", "build absent", "fuzz absent",
                        "setup --run --ci"):
            self.run_script(f"script/{mistake}", 2)
        self.assertFalse(self.calls.exists())

    def test_an_interrupted_installation_is_repaired_by_the_next_run(self):
        self.without_ninja()
        os.mkfifo(self.tree / "busy")
        process = self.start("script/run")
        with open(self.tree / "busy") as busy:
            busy.readline()
            os.killpg(process.pid, signal.SIGINT)
            self.assertEqual(busy.read(), "")  # ends with those that apt-get started
        output, errors = process.communicate()
        self.assertEqual(process.returncode, 130, output + errors)
        (self.tree / "busy").unlink()
        (self.bin / "ninja").symlink_to("/bin/true")  # unpacked, not configured
        self.calls.unlink()
        self.run_script("script/run")
        self.assertRegex(self.calls.read_text(), "dpkg --configure -a\napt-get update\napt-get install")
        self.run_script("rm calls; script/run; ! grep apt-get calls")

    def test_a_failed_installation_says_why_in_three_lines(self):
        self.without_ninja()
        self.environment["OFFLINE"] = "yes"
        errors = self.run_script("script/run", 2)[1].splitlines()
        self.assertEqual(len(errors), 3, errors)
        self.assertRegex(errors[0], "No route to host$")

    def test_a_build_follows_a_moved_tree_and_names_a_file_of_another_user(self):
        self.run_script("script/build; sed -i 's/=.*/=elsewhere/' build/release/CMakeCache.txt; script/build")
        self.run_script("chmod 555 build/release")
        user = {} if os.getuid() else {"user": 65534, "group": 65534, "extra_groups": []}
        _, errors = self.run_script("script/run", 2, **user)
        self.assertEqual(errors.count("\n"), 1, errors)

    def test_a_long_build_shows_progress_on_a_terminal(self):
        os.mkfifo(self.tree / "go")
        terminal, other_end = pty.openpty()
        process = self.start("script/build", stdout=None, stderr=other_end)
        shown = b""
        while b"[3/7]" not in shown:
            shown += os.read(terminal, 4096)
        (self.tree / "go").write_text("go\n")
        self.assertEqual(process.wait(), 0)

    @unittest.skipUnless(shutil.which("git"), "needs git")
    def test_a_release_holds_what_it_says_or_is_refused_in_one_line(self):
        version = re.search(r"adsppm-check ([0-9.]+)", pathlib.Path(CHECKER).read_bytes().decode("latin-1")).group(1)
        package = f"mkdir -p build/packages; %s >build/packages/a_{version}_$1.deb\n"

        def change(path, text):
            (self.tree / path).parent.mkdir(parents=True, exist_ok=True)
            (self.tree / path).write_text(text)

        def commit(then="git rev-parse HEAD >.cache/ci-passed"):
            self.run_script(f"git add . && git commit -qm a && {then}")

        def refused(reason, version=version):
            _, errors = self.run_script(f"script/release {version}", 1)
            self.assertRegex(errors, f"^script/release: .*{reason}.*\n$")
        for role in ("AUTHOR", "COMMITTER"):
            self.environment.update({f"GIT_{role}_NAME": "a", f"GIT_{role}_EMAIL": "a@a.invalid"})
        change("CMakeLists.txt", f"project(tavrik VERSION {version} LANGUAGES CXX\n")
        change("debian/changelog", "tavrik (9.9.9) unstable;\n")
        change("CHANGELOG.md", f"# Changes\n\n## {version}\n\n## 1.0.0\n")
        change("docs/man/a.1", f".Dt A 1\n.Os tavrik {version}\n")
        change(".gitignore", "/build/\n/.cache/\n/calls\n/tmp.*\n")
        # Stands for a build that depends on its folder.
        change("script/package", package % "pwd")
        change("script/test-device", "")
        change(".cache/ci-passed", "")
        self.run_script("script/release 1", 2)
        refused("no git repository")
        self.run_script("git init -q .")
        commit()
        refused(f"CMakeLists.txt has version {version}", "1.0.0")
        refused("debian/changelog has version 9.9.9")
        change("debian/changelog", f"tavrik ({version}) unstable;\n")
        refused("the tree has changes")
        commit("true")
        refused("ci/run has not passed on this commit")
        self.run_script("git rev-parse HEAD >.cache/ci-passed")
        refused(f"two builds of a_{version}_amd64.deb differ")
        change("script/package", package % "echo")
        commit()
        output, _ = self.run_script(f"script/release {version}")
        self.assertRegex(output, f"git tag -a v{version} .* [0-9a-f]{{40}}\n")
        output, _ = self.run_script(f"cd build/releases/{version}; sha256sum -c SHA256SUMS; tar tf *.gz; git tag")
        for line in (f"a_{version}_armhf.deb: OK", f"tavrik-{version}.tar.gz: OK", f"tavrik-{version}/script/release"):
            self.assertIn(line + "\n", output)
        self.run_script(f"git tag v{version}")
        refused(f"the tag v{version} exists")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
