#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether each promise in docs/reliability.md has a check that exists and a dated figure:
check_reliability.py ROOT.

A row is | id | promise | checks | figure |. A check in backquotes is a test (Suite.Name, where a trailing
* stands for the rest), a file or folder below tests, or a ./dev command.
"""
import re
import sys
from pathlib import Path


def tests_of(root):
    for path in (root / "tests").rglob("*.cpp"):
        for suite, name in re.findall(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", path.read_text(), re.M):
            yield f"{suite}.{name}"


def exists(root, tests, check):
    if check.startswith("./dev "):
        return (root / "tools/dev" / check.split()[1]).is_file()
    if check.startswith("tests/"):
        return (root / check).exists()
    if check.endswith("*"):
        return any(test.startswith(check[:-1]) for test in tests)
    return check in tests


def main(root):
    tests = set(tests_of(root))
    rows = re.findall(r"^\| ([A-Z]\d+) \| (.*?) \| (.*?) \| (.*?) \|$", (root / "docs/reliability.md").read_text(), re.M)
    ids = [row[0] for row in rows]
    complaints = [f"{name}: used twice" for name in set(ids) if ids.count(name) > 1]
    for name, _, checks, figure in rows:
        named = re.findall(r"`([^`]+)`", checks)
        complaints += [] if named else [f"{name}: has no check"]
        complaints += [f"{name}: no such check: {check}" for check in named if not exists(root, tests, check)]
        complaints += [] if re.search(r"20\d\d-\d\d-\d\d", figure) else [f"{name}: its figure has no date"]
    print("\n".join(complaints) or f"{len(rows)} promises, each with a check")
    return not rows or len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
