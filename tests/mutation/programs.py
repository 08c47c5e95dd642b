# SPDX-License-Identifier: Apache-2.0
"""The test programs of a build, and the library that they are run with, one source of it changed."""
import json
import os
import re
import shlex
import signal
import subprocess
import time
from pathlib import Path

# The tests' own patience, and how long a program may take beyond some times its usual. What a test
# waits for in vain it is to say itself; only what does not get as far as that hangs.
PATIENCE = 5       # s
HANGS_AFTER = 15   # s
TIMES_USUAL = 2
SHORT = 5           # s; a program that usually takes less and hangs gets no second chance
MOST_WRITTEN = 256  # MB in a file
MOST_HELD = 4096    # MB of memory
COMPLAINT = re.compile(r"(Address|Leak|Thread|UndefinedBehavior)Sanitizer|runtime error:")
SHARED = {"libqor_bus.so.1": "src/libqor_bus.so.1.0.0", "libqor_bus_fault.so.1": "tests/libqor_bus_fault.so.1.0.0"}
INSIDE = ""  # of a program that has the library's objects in itself


def command_of(build, target):
    """What the build makes a target with, without the compiler's cache."""
    told = subprocess.run(["ninja", "-C", build, "-t", "commands", target], check=True, capture_output=True, text=True)
    made = [line for line in told.stdout.splitlines() if f"-o {target} " in line][-1]
    command = shlex.split(made.removeprefix(": && ").split(" && ")[0])
    return command[1:] if command[0].endswith("ccache") else command


class Build:
    """A build directory with all tests in it. Nothing in it is changed."""

    def __init__(self, place):
        self.place = place
        self.compiles = {}
        for entry in json.loads((place / "compile_commands.json").read_text()):
            if "qor_objects.dir" in entry["output"] if "output" in entry else "qor_objects.dir" in entry["command"]:
                command = shlex.split(entry["command"])
                self.compiles[entry["file"]] = command[1:] if command[0].endswith("ccache") else command
        self.links = {name: command_of(place, target) for name, target in SHARED.items()}
        self.programs = {}
        tests = place / "tests"
        for path in sorted(tests.glob("test_*")):
            if path.is_file() and os.access(path, os.X_OK):
                needed = subprocess.run(["readelf", "-d", path], capture_output=True, text=True, check=True).stdout
                self.programs[path.name] = next((name for name in SHARED if f"[{name}]" in needed), INSIDE)
        for name, library in self.programs.items():
            if library == INSIDE:
                self.links[name] = command_of(place, f"tests/{name}")

    def arguments(self, source):
        """What the source is parsed with."""
        return [word for word in self.compiles[source] if word.startswith(("-I", "-D", "-std"))]


class Changed:
    """The library with some sources compiled anew, in a place of its own."""

    def __init__(self, build, place, extra=()):
        self.build, self.place, self.extra = build, place, list(extra)
        self.objects = {}  # as the build names them, and the new ones
        self.made = set()

    def compile(self, source, text=None):
        """Whether the source, or another text in its place, compiles."""
        command = self.build.compiles[source]
        given = self.place / Path(source).name
        given.write_bytes(Path(source).read_bytes() if text is None else text)
        made = self.place / (Path(source).name + ".o")
        known = command[command.index("-o") + 1]
        words = []
        skip = False
        for word in command:
            if skip:
                skip = False
            elif word in ("-MT", "-MF", "-o", "-c"):
                skip = True
            elif word not in ("-MD", "-Werror", source):
                words.append(word)
        words += ["-w", "-iquote", str(Path(source).parent), *self.extra, "-o", str(made), "-c", str(given)]
        self.objects[known] = str(made)
        return subprocess.run(words, cwd=self.build.place, capture_output=True).returncode == 0

    def link(self, name):
        """The library or program of that name, linked with the new objects; None if that fails."""
        target = self.place / name
        if name in self.made:
            return target
        words = [self.objects.get(word, word) for word in self.build.links[name]]
        words[words.index("-o") + 1] = str(target)
        if name in self.build.programs:  # what is in the archive is left there
            at = next(i for i, word in enumerate(words) if word.endswith(".cpp.o"))
            words[at:at] = self.objects.values()
        done = subprocess.run([*words, *self.extra], cwd=self.build.place, capture_output=True, text=True)
        if done.returncode != 0:
            return None
        self.made.add(name)
        return target

    def run(self, program, patience, *arguments, **environment):
        """What a test program gives: its status, or None if it hangs, and what it says."""
        library = self.build.programs[program]
        path = self.link(library or program)
        if path is None:
            return 1, "not linked"
        if library:
            path = self.build.place / "tests" / program
        words = ["timeout", "--signal=KILL", str(2 * patience),  # if this here is ended meanwhile
                 "prlimit", f"--fsize={MOST_WRITTEN << 20}", str(path), "--gtest_fail_fast", *arguments]
        settings = dict(os.environ, LD_LIBRARY_PATH=str(self.place), QOR_TESTS_PATIENCE=str(PATIENCE),
                        ASAN_OPTIONS=f"hard_rss_limit_mb={MOST_HELD}", TSAN_OPTIONS="halt_on_error=1",
                        **environment)
        with open(self.place / "said", "w+", encoding="utf-8", errors="replace") as said:
            running = subprocess.Popen(words, cwd=self.build.place / "tests", stdin=subprocess.DEVNULL, stdout=said,
                                       stderr=subprocess.STDOUT, env=settings, start_new_session=True)
            try:
                status = running.wait(patience)
            except subprocess.TimeoutExpired:
                status = None
            try:
                os.killpg(running.pid, signal.SIGKILL)  # also what it has begun
            except ProcessLookupError:
                pass
            running.wait()
            said.seek(0)
            return status, said.read(4_000_000)


def under_way(said):
    """The test that was running when a program ended."""
    begun = re.findall(r"^\[ RUN      \] (\S+)", said, re.M)
    failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", said, re.M)
    return failed[0] if failed else begun[-1] if begun else None


def judge(changed, program, usual):
    """(verdict, test): whether a program notices. What a sanitizer does not say, a test must say again and
    again: on a busy machine one can also fail by itself."""
    patience = HANGS_AFTER + TIMES_USUAL * usual
    left_out = []
    for _ in range(3):
        only = [f"--gtest_filter=-{':'.join(left_out)}"] if left_out else []
        status, said = changed.run(program, patience, *only)
        if status == 0:
            return "passed", ""
        test = under_way(said) or ""
        if COMPLAINT.search(said):
            return "killed", test
        if status is None and usual < SHORT:
            return "hung", test
        alone = [f"--gtest_filter={test}"] if test else only
        again = [changed.run(program, patience, *alone)[0]]
        if again[0] != 0:
            again.append(changed.run(program, patience, *alone)[0])
        if 0 not in again:
            return "hung" if status is None and None in again else "killed", test
        if not test:
            return "passed", ""
        left_out.append(test)
    return "passed", ""


def usual_time(changed, program, **environment):
    """How long a program takes, or None when it fails."""
    begun = time.monotonic()
    status, _ = changed.run(program, 300, **environment)
    return time.monotonic() - begun if status == 0 else None
