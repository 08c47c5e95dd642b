#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a request and its response cost, counted: round_trips.py CMAKE LIBRARY BUILD CMAKE_OPTION...

Builds the library of the folder LIBRARY for speed, in the folder BUILD, and a program of two modules
and one worker that play ping-pong with payloads of 8 bytes. The program runs with a number of round
trips and with twice as many; the difference, by that number, is what one takes. Times depend on the
machine and its mood, counts do not: what has been made short cannot grow unseen.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

# What this prints with gcc 12.2, glibc 2.36 and valgrind 3.19, which is 6306, and some 3 % for other versions
# of them. Whoever saves some lowers it.
INSTRUCTIONS = 6520

# The most per round trip.
CEILINGS = {
    "instructions": INSTRUCTIONS,
    "between strict": INSTRUCTIONS * 1.1,  # instructions again
    "locks there": 16,
    "system calls": 0.3,  # without those that read the clock, which only valgrind sees as such
    "clock readings": 6,
    "locks": 16,
    "allocations": 2,  # calls of malloc, calloc and realloc
    "callocs": 0,
    "formats": 0,  # calls of snprintf and vsnprintf
}

TRIPS = 5000


def skip(why):
    print(f"skipped: {why}")  # CTest looks for this
    sys.exit(0)


def build(cmake, library, folder, options):
    """The folder with the programs. Flags from outside would change the counts."""
    plain = {k: v for k, v in os.environ.items() if k not in ("CFLAGS", "CXXFLAGS", "CPPFLAGS", "LDFLAGS")}
    project = Path(__file__).resolve().parent / "project"
    for command in (["-S", project, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                     f"-DLIBRARY_SOURCE={library}", *options], ["--build", folder]):
        done = subprocess.run([cmake, *command], env=plain, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode != 0:
            sys.exit(f"{done.stdout}the programs could not be built")


def run(command, **environment):
    """What a command writes on standard error; it must succeed."""
    done = subprocess.run(command, env=os.environ | environment, text=True, capture_output=True)
    if done.returncode != 0:
        sys.exit(f"{done.stdout}{done.stderr}failed: {' '.join(map(str, command))}")
    return done.stderr


def instructions(program):
    with tempfile.TemporaryDirectory() as scratch:
        profile = run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={scratch}/out", *program])
    return int(re.search(r"Collected\s*: (\d+)", profile)[1])


def calls(program, folder):
    """How often it calls what libcount_calls counts."""
    told = run(program, LD_PRELOAD=str(folder / "libcount_calls.so"))
    return {name: int(count) for name, count in re.findall(r"^(\w+): (\d+)$", told, re.M)}


def counts(folder, trips):
    """The counts of a whole run, by their names in CEILINGS."""
    program = [folder / "round_trips", str(trips)]
    strict = [*program, "strict"]
    found = {"instructions": instructions(program), "between strict": instructions(strict)}
    # One thread runs at a time here, so nothing is seen of what contention brings; one worker has none.
    trace = run(["valgrind", "--tool=none", "--trace-syscalls=yes", *program])
    # The name is in the line at which a call begins; the end of a long one has a line without.
    begun = re.findall(r"^SYSCALL\[\d+,\d+\]\( *\d+\) (\w+)", trace, re.M)
    found["clock readings"] = begun.count("sys_clock_gettime")
    found["system calls"] = len(begun) - found["clock readings"]
    found.update(calls(program, folder))
    found["locks there"] = calls(strict, folder)["locks"]
    return found


def main(cmake, library, folder, *options):
    if not shutil.which("valgrind"):
        skip("valgrind is not installed")
    folder = Path(folder)
    build(cmake, library, folder, options)
    once, twice = counts(folder, TRIPS), counts(folder, 2 * TRIPS)
    exceeded = []
    print("per round trip        counted   ceiling")
    for name, ceiling in CEILINGS.items():
        count = round((twice[name] - once[name]) / TRIPS, 2) or 0  # less than that comes from the start
        print(f"{name:16}{count:13.2f}{ceiling:10g}")
        if count > ceiling:
            exceeded.append(f"{name}: {count:g} per round trip, {ceiling:g} at most")
    print("\n".join(exceeded) or "none is exceeded")
    return len(exceeded) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
