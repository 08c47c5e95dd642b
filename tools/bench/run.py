#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the scenarios: run.py own | base COMMIT | peers | page, [--rounds N] [--only WORD] [--watch-off]

own    this tree's library
base   this tree's library and that of another commit, built under build/base, in alternation
peers  this tree's library and the others, in alternation; writes docs/performance.md and its chart
page   runs nothing: writes both anew from the figures of the last time
"""
import argparse
import glob
import os
import subprocess
import sys

import report
from libraries import OWN
from rounds import Program, alternate, load, save

BUILD = "build/bench"
RESULTS = f"{BUILD}/peers.json"
PATH = f"{BUILD}/bench/scenarios/bench_bus"


def build(*targets, peers="OFF"):
    quiet = {"check": True, "stdout": subprocess.DEVNULL}
    subprocess.run(["cmake", "--preset", "bench", f"-DQOR_BENCH_PEERS={peers}"], **quiet)
    subprocess.run(["cmake", "--build", "--preset", "bench", "--target", *targets], **quiet)


def commit_of(name):
    """The number of a commit, or an end of the program."""
    found = subprocess.run(["git", "rev-parse", "--short=12", "--verify", name + "^{commit}"],
                           capture_output=True, text=True, check=False)
    if found.returncode != 0:
        sys.exit(f"there is no commit {name!r}")
    return found.stdout.strip()


def base_library(commit):
    """Builds the library of a commit as the preset 'bench' does; the folder that it is in."""
    tree, folder = f"build/base/{commit}", f"build/base/{commit}-build"
    subprocess.run(["git", "worktree", "prune"], check=True)
    if not os.path.isdir(tree):
        subprocess.run(["git", "worktree", "add", "--quiet", "--detach", tree, commit], check=True)
    subprocess.run(["cmake", "-S", tree, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                    "-DCMAKE_C_COMPILER=gcc", "-DCMAKE_CXX_COMPILER=g++",
                    "-DCMAKE_CXX_FLAGS=-w"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", folder, "--target", "qor_bus", "--", "--quiet"], check=True)
    return os.path.abspath(f"{folder}/src")


def loads(program):
    """Whether it really takes the library from where it is told to."""
    listed = program.call(LD_TRACE_LOADED_OBJECTS="1").stdout
    return f"=> {program.libraries}/libqor_bus" in listed


def options(arguments):
    return ("--watch-off",) if arguments.watch_off else ()


def versus_base(arguments, wanted):
    commit = commit_of(arguments.commit)
    build("bench_bus")
    libraries = {"base": base_library(commit), "now": os.path.abspath(f"{BUILD}/src")}
    programs = [Program("base", PATH, libraries["base"]),
                Program("now", PATH, libraries["now"], options(arguments))]
    for program in programs:
        if not loads(program):
            sys.exit(f"{PATH} does not load {program.libraries}/libqor_bus.so.1")
    report.print_base(alternate(programs, arguments.rounds, wanted))


def versus_peers(arguments, wanted):
    build("bench_bus", "bench_peers", peers="ON")
    found = sorted(glob.glob(f"{BUILD}/bench/peers/bench_*"))
    peers = [Program(path.rpartition("bench_")[2], path) for path in found
             if os.access(path, os.X_OK)]
    cases = alternate([Program(OWN, PATH, "", options(arguments))] + peers, arguments.rounds, wanted)
    save(RESULTS, cases, arguments.rounds)
    report.write_peers(cases, arguments.rounds)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("own", "base", "peers", "page"))
    parser.add_argument("commit", nargs="?")
    parser.add_argument("--rounds", type=int, help="5, or 1 of this tree's library alone")
    parser.add_argument("--only", default="", help="scenarios with this in their names")
    parser.add_argument("--watch-off", action="store_true", help="of this tree's library")
    arguments = parser.parse_args()
    if arguments.rounds is None:
        arguments.rounds = 1 if arguments.what == "own" else 5
    if (arguments.what == "base") != (arguments.commit is not None) or arguments.rounds < 1:
        parser.error("base, and only base, takes a commit; there is at least one round")

    def wanted(scenario):
        return arguments.only in scenario

    if arguments.what == "base":
        versus_base(arguments, wanted)
    elif arguments.what == "peers":
        versus_peers(arguments, wanted)
    elif arguments.what == "own":
        build("bench_bus")
        program = Program(OWN, PATH, "", options(arguments))
        report.print_own(alternate([program], arguments.rounds, wanted))
    else:
        report.write_peers(*load(RESULTS))


if __name__ == "__main__":
    main()
