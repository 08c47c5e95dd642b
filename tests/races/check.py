#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Stresses whole buses and queues under ThreadSanitizer and AddressSanitizer, with threads delayed.

check.py run [--seed N] [--seconds N] [--combinations N]
                          so many combinations (12) of what is stressed, sanitizer, workers and how many
                          of the library's calls are delayed, drawn by a seed that is printed and that
                          repeats them, so many seconds each (10), as many at once as there are processors; and the
                          clocks
check.py valgrind [--seconds N]  stresses the queues under helgrind and under drd, so many seconds (10) with
                          each number of workers
check.py planted [WORD]...  plants the faults of planted/ whose names have one of the words in a copy of
                          the tree: combinations must find each within a minute
"""
import argparse
import concurrent.futures
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
WORKERS = (1, 2, 4, 16)
PERCENTS = (1, 10, 50)
SANITIZERS = ("tsan", "asan")
STRESSED = ("bus", "queues")
PATIENCE = 60  # s, for a planted fault, and for a program to end after its time
SURROUNDINGS = dict(os.environ, TSAN_OPTIONS="detect_deadlocks=1 second_deadlock_stack=1 halt_on_error=1",
                    UBSAN_OPTIONS="print_stacktrace=1")
FOUND = r"not so: .*|(?:WARNING|ERROR): (?:Thread|Address|Leak)Sanitizer: .*|runtime error: .*"


def draw(dice, count, stressed=STRESSED):
    """Twelve have each number of workers with each percentage, and as much of the others."""
    combinations = []
    while len(combinations) < count:
        numbers = [(workers, percent) for workers in WORKERS for percent in PERCENTS]
        others = [(what, sanitizer) for what in stressed for sanitizer in SANITIZERS] * 6
        others = others[:12]
        dice.shuffle(numbers)
        dice.shuffle(others)
        combinations += [other + number + (dice.randrange(1 << 31),) for other, number in zip(others, numbers)]
    return combinations[:count]


def stress(place, combination, seconds):
    """The status of one combination, None if it did not end, and what it said."""
    what, sanitizer, workers, percent, seed = combination
    command = [place / "build" / sanitizer / "tests/races" / f"races_{what}", "--seed", str(seed), "--workers",
               str(workers), "--percent", str(percent), "--seconds", str(seconds)]
    try:
        done = subprocess.run(command, cwd=place, env=SURROUNDINGS, timeout=seconds + PATIENCE,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace")
    except subprocess.TimeoutExpired as over:
        return None, (over.stdout or b"").decode(errors="replace")
    return done.returncode, done.stdout


def titled(combination):
    return "{} under {}, {} workers, {} % delayed, seed {}".format(*combination)


def run(arguments):
    seed = arguments.seed if arguments.seed is not None else random.SystemRandom().randrange(1 << 31)
    print(f"--seed {seed}", flush=True)
    complaints = []
    dice = random.Random(seed)
    combinations = draw(dice, arguments.combinations)
    clocks = [("clocks", sanitizer, 2, 10, dice.randrange(1 << 31)) for sanitizer in SANITIZERS]
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        outcomes = pool.map(lambda one: stress(ROOT, one, arguments.seconds), combinations + clocks)
    for combination, (status, said) in zip(combinations + clocks, outcomes):
        print(f"{titled(combination)}: {said.strip() if status == 0 else 'FAILED'}", flush=True)
        if status != 0:
            print(said)
            complaints.append(f"{titled(combination)}: " + ("does not end" if status is None else f"status {status}"))
    print(f"{len(combinations)} combinations of {arguments.seconds} s, {len(complaints)} complaints")
    return complaints


def valgrind(arguments):
    """The queues alone: with a whole bus either tool takes too long to tell anything."""
    complaints = []
    for tool in ("helgrind", "drd"):
        for workers in (1, 4):
            command = ["valgrind", f"--tool={tool}", "-q", "--fair-sched=yes", "--error-exitcode=9",
                       f"--suppressions={HERE}/{tool}.supp", ROOT / "build/gcc/tests/races/races_queues", "--seed",
                       str(random.SystemRandom().randrange(1 << 31)), "--workers", str(workers), "--percent", "1",
                       "--seconds", str(arguments.seconds)]
            done = subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, errors="replace")
            print(f"queues under {tool}, {workers} workers: {done.stdout.strip() if done.returncode == 0 else 'FAILED'}",
                  flush=True)
            if done.returncode != 0:
                print(done.stdout[:8000])
                complaints.append(f"{tool}, {workers} workers: status {done.returncode}")
    return complaints


def quietly(place, *command):
    """Whether a command succeeds; what it says is shown if it does not."""
    done = subprocess.run(command, cwd=place, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        print(done.stdout)
    return done.returncode == 0


def build(place, names):
    return all(quietly(place, "cmake", "--build", "--preset", sanitizer, "--target", *names)
               for sanitizer in SANITIZERS)


def plant(place, patch, *how):
    """The whole patch, or nothing of it."""
    command = ["patch", "-p1", "--fuzz=0", "--silent", "--no-backup-if-mismatch", "-r", "-", *how, "-i", str(patch)]
    return quietly(place, *command, "--dry-run") and quietly(place, *command)


def hunt(place, patch):
    """Plants one fault and looks for it; why it is to be complained of, or None."""
    stressed = re.findall(r"^# Found by: (\w+)$", patch.read_text(), re.M)
    if not stressed or not re.search(r"^# Breaks: \S", patch.read_text(), re.M) or not plant(place, patch):
        return "does not apply, or does not say what it breaks and what finds it"
    try:
        if not build(place, [f"races_{what}" for what in stressed]):
            return "does not build"
        begun = time.monotonic()
        for combination in draw(random.SystemRandom(), 100, stressed):
            status, said = stress(place, combination, 5)
            took = time.monotonic() - begun
            found = re.search(FOUND, said)
            if took > PATIENCE:
                break
            if status != 0:
                print(f"{patch.stem}: found after {took:.1f} s by {titled(combination)}: "
                      f"{found[0][:90] if found else said[-500:]}", flush=True)
                return None if found else f"ended with status {status}"
        return "NOT FOUND"
    finally:
        plant(place, patch, "--reverse")


def planted(arguments):
    patches = [patch for patch in sorted(HERE.glob("planted/*.patch"))
               if not arguments.words or any(word in patch.stem for word in arguments.words)]
    complaints = []
    with tempfile.TemporaryDirectory() as directory:
        place = Path(directory) / "tree"
        shutil.copytree(ROOT, place, symlinks=True, ignore=shutil.ignore_patterns("build", ".git", ".cache"))
        if not all(quietly(place, "cmake", "--preset", sanitizer, "-DQOR_WERROR=OFF") for sanitizer in SANITIZERS):
            return ["the tree does not build"]
        for patch in patches:
            complaint = hunt(place, patch)
            if complaint:
                complaints.append(f"{patch.stem}: {complaint}")
    print(f"{len(patches)} faults planted, {len(complaints)} complaints")
    return complaints


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(required=True)
    command = commands.add_parser("run")
    command.add_argument("--seed", type=int)
    command.add_argument("--seconds", type=int, default=10)
    command.add_argument("--combinations", type=int, default=12)
    command.set_defaults(call=run)
    command = commands.add_parser("valgrind")
    command.add_argument("--seconds", type=int, default=10)
    command.set_defaults(call=valgrind)
    command = commands.add_parser("planted")
    command.add_argument("words", nargs="*")
    command.set_defaults(call=planted)
    arguments = parser.parse_args()
    complaints = arguments.call(arguments)
    print("\n".join(complaints), end="\n" if complaints else "")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main())
