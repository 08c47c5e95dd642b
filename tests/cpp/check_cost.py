#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the C++ interface adds, counted beside a twin in C: check_cost.py CMAKE LIBRARY BUILD CMAKE_OPTION...

Builds the library of the folder LIBRARY for speed, in the folder BUILD, and the two programs of the
folder cost. Each runs with a number of rounds and with twice as many; the difference, by that number,
is what one takes.
"""
import os
import shutil
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[0] / "cost"))
sys.dont_write_bytecode = True
from round_trips import calls, instructions, skip  # noqa: E402  it counts round trips that way

ROUNDS = {"calls": 20000}  # so that what comes from the start, and differs, is next to nothing
FEWER = 2000
MOST = 1.02  # instructions, by those of the twin

# What is done, what the twin does beside it, and how many more allocations it may take.
PAIRS = [
    ("calls", "calls", 0),
    ("publications", "publications", 0),
    ("tasks", "tasks", 0),
    ("captures", "tasks", 1),
]


def build(cmake, library, folder, options):
    """The folder with the programs. Flags from outside would change the counts."""
    plain = {k: v for k, v in os.environ.items() if k not in ("CFLAGS", "CXXFLAGS", "CPPFLAGS", "LDFLAGS")}
    for command in (["-S", HERE / "cost", "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                     "-DCMAKE_C_FLAGS_RELEASE=-O2 -DNDEBUG", "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG",
                     f"-DLIBRARY_SOURCE={library}", *options], ["--build", folder]):
        done = subprocess.run([cmake, *command], env=plain, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode != 0:
            sys.exit(f"{done.stdout}the programs could not be built")


def count(folder, program, what):
    """Instructions and allocations per round."""
    rounds = ROUNDS.get(what, FEWER)
    runs = [[folder / program, what, str(rounds * times)] for times in (1, 2)]
    once, twice = map(instructions, runs)
    first, second = (calls(run, folder)["allocations"] for run in runs)
    return (twice - once) / rounds, round((second - first) / rounds, 2)


def main(cmake, library, folder, *options):
    if not shutil.which("valgrind"):
        skip("valgrind is not installed")
    folder = Path(folder)
    build(cmake, library, folder, options)
    wrong = []
    print("per round       instructions in C    in C++    more   allocations in C  in C++")
    for typed, twin, more in PAIRS:
        in_c, blocks_in_c = count(folder, "twin", twin)
        in_cpp, blocks_in_cpp = count(folder, "typed", typed)
        print(f"{typed:16}{in_c:17.1f}{in_cpp:10.1f}{in_cpp / in_c - 1:8.2%}{blocks_in_c:19.2f}{blocks_in_cpp:8.2f}")
        if in_cpp > in_c * MOST and not more:
            wrong.append(f"{typed}: more than {MOST:.0%} of the instructions")
        if blocks_in_cpp > blocks_in_c + more:
            wrong.append(f"{typed}: more than {more} allocations more")
    print("\n".join(wrong) or "none is exceeded")
    return len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
