#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether each public header is in one list of docs/compatibility.md: check_compatibility.py ROOT.

Of a header of the engine its row names the records that keep their layout: all that it has, each of which
tests/tree/test_layout.cpp holds, as it does those of the other headers.
"""
import re
import sys
from pathlib import Path

ROOT = Path(sys.argv[1])
RECORD = r"^(?:typedef )?struct (\w+)\s*\{.*?^\}(?: (\w+))?;"


def rows(page, heading):
    """The headers of the table below a heading, and what is named in the second column of each."""
    table = page.split(f"## {heading}\n")[1].split("\n## ")[0]
    for headers, rest in re.findall(r"^\| (`.*?) \| (.*?) \|$", table, re.M):
        for header in re.findall(r"`([\w.]+)`", headers):
            yield header, set(re.findall(r"`(\w+)`", rest))


def records(path):
    """The records that a header lays out."""
    return {name or f"{tag}_t" for tag, name in re.findall(RECORD, path.read_text(), re.M | re.S)}


def complaints():
    page = (ROOT / "docs/compatibility.md").read_text()
    application, engine = (list(rows(page, f"Headers {which}")) for which in ("for applications", "of the engine"))
    paths = {p.name: p for p in [*ROOT.glob("include/*.h"), *ROOT.glob("include/*.hpp"), ROOT / "src/hal/linux/qor_hal.h"]}
    listed = [header for header, _ in application + engine]
    for header in sorted(set(paths) | set(listed)):
        if listed.count(header) != 1 or header not in paths:
            yield f"{header}: in {listed.count(header)} rows" + ("" if header in paths else ", and not there")
    held = set(re.findall(r"RECORD\((\w+),", (ROOT / "tests/tree/test_layout.cpp").read_text()))
    renamed = {"rbtree_root_t": "rbtree_root"}
    for header, path in paths.items():
        for record in sorted({renamed.get(r, r) for r in records(path)} - held):
            yield f"{header}: tests/tree/test_layout.cpp does not hold {record}"
    for header, promised in engine:
        if header in paths and promised != records(paths[header]):
            yield f"{header}: has {sorted(records(paths[header]))}, of which {sorted(promised)} are promised"
    for target in "armhf", "x86_64":
        for kind in "abi", "numbers":
            if not (ROOT / f"abi/1.0/libqor_bus.{target}.{kind}").is_file():
                yield f"abi/1.0 has no {kind} of {target}"


wrong = list(complaints())
print("\n".join(wrong) or "each public header is in one list")
sys.exit(len(wrong) > 0)
