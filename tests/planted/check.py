#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Plants faults in a copy of the tree, and sees whether the tests notice: check.py [PATCH]...

A patch lies beside this file. Lines before its first hunk say what it breaks and which tests, as
PROGRAM.SUITE.NAME, must fail then; without it they pass. A test that does not end has failed.
"""
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
PATIENCE = 30  # s; without a fault a test takes one at most


class Fault:
    def __init__(self, patch):
        self.patch, self.name = patch, patch.stem
        head = patch.read_text().partition("\n--- ")[0]
        self.tests = re.findall(r"^# Killed by: (\w+)\.(\S+)$", head, re.M)
        if not self.tests or not re.search(r"^# Breaks: \S", head, re.M):
            sys.exit(f"{patch.name}: does not say what it breaks, or which test kills it")


def run(place, *command):
    """Whether a command succeeds; what it says is shown if it does not."""
    done = subprocess.run(command, cwd=place, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        print(done.stdout)
    return done.returncode == 0


def build(place, tests):
    return run(place, "cmake", "--build", "--preset", "gcc", "--target", *sorted({program for program, _ in tests}))


def passes(place, program, test):
    try:
        done = subprocess.run([place / "build/gcc/tests" / program, f"--gtest_filter={test}"], cwd=place,
                              timeout=PATIENCE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    except subprocess.TimeoutExpired:
        return False
    return done.returncode == 0 and "[  PASSED  ] 1 test." in done.stdout


def apply(place, fault, *how):
    """The whole patch, or nothing of it."""
    command = ["patch", "-p1", "--fuzz=0", "--silent", "--no-backup-if-mismatch", "-r", "-", *how, "-i", fault.patch]
    return run(place, *command, "--dry-run") and run(place, *command)


def planted(place, fault):
    """Why a fault is to be complained of, or None."""
    if not apply(place, fault):
        return "does not apply"
    try:
        if not build(place, fault.tests):
            return "does not build"
        survived = [f"{program}.{test}" for program, test in fault.tests if passes(place, program, test)]
        return f"SURVIVED {', '.join(survived)}" if survived else None
    finally:
        apply(place, fault, "--reverse")


def check(place, faults):
    tests = sorted({test for fault in faults for test in fault.tests})
    shutil.copytree(ROOT, place, symlinks=True, ignore=shutil.ignore_patterns("build", ".git", ".cache"))
    if not run(place, "cmake", "--preset", "gcc", "-DQOR_EXAMPLES=OFF", "-DQOR_WERROR=OFF") or not build(place, tests):
        return ["the tree does not build"]
    complaints = [f"{program}.{test} fails without a fault" for program, test in tests
                  if not passes(place, program, test)]
    if complaints:
        return complaints
    for fault in faults:
        complaint = planted(place, fault)
        print(f"{fault.name}: {complaint or 'killed'}", flush=True)
        if complaint:
            complaints.append(fault.name)
    return complaints


def main(patches):
    faults = [Fault(patch) for patch in patches or sorted(HERE.glob("*.patch"))]
    with tempfile.TemporaryDirectory() as place:
        complaints = check(Path(place) / "tree", faults)
    print("\n".join(complaints) or f"{len(faults)} faults, each killed")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main([Path(patch).resolve() for patch in sys.argv[1:]]))
