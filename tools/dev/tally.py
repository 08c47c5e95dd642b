#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums up test results: tally.py STATUS RESULTS.xml... prints 'N passed, N failed'.

Where a program has run all its tests at once, each counts: its results lie in a folder whole beside.
STATUS is that of the run as a whole: where it is not 0 although no test failed (a build broke, a
check complained), that counts as one failure.
"""
import sys
from pathlib import Path
from xml.etree import ElementTree


def tests_of(program):
    """How many of a program's tests have passed and failed, by what it has written when it ended; None
    if it is not such a program, or did not come to its end."""
    if not program.exists():
        return None
    cases = list(ElementTree.parse(program).iter("testcase"))
    failed = sum(case.find("failure") is not None for case in cases)
    return sum(case.get("result") == "completed" for case in cases) - failed, failed


def main(status, *results):
    passed = failed = 0
    for path in map(Path, results):
        for case in ElementTree.parse(path).iter("testcase"):
            outcome, skipped = case.get("status"), case.find("skipped")
            inside = tests_of(path.parent / "whole" / f"{case.get('name')}.xml")
            if outcome == "run":
                passed += inside[0] if inside else 1
            elif outcome == "fail":
                passed += inside[0] if inside else 0
                failed += max(inside[1], 1) if inside else 1
            elif outcome == "notrun" and not skipped.get("message", "").startswith("SKIP_"):
                failed += 1  # it did not skip itself: its program was not built, for instance
    if status != "0" and failed == 0:
        failed = 1
    print(f"{passed} passed, {failed} failed")
    return failed > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
