#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether the tables by which a call is chosen have each request and task call of the headers, and no
other: check_chooser.py ROOT. A row of the first is a word, one of the second an ending that "requests",
"tasks" or both take."""
import re
import sys
from pathlib import Path


def rows(text, first):
    """The cells of the table whose head begins so."""
    table = re.search(rf"^\| {first} \|.*\n\|[-|]+\n((?:\|.*\n)+)", text, re.M)[1]
    return [[cell.strip() for cell in line.strip("|").split(" | ")] for line in table.splitlines()]


def chosen(page):
    """All names that the tables stand for. Those with _ret take _s as well; _full is _name and _s."""
    endings = {"req": {""}, "task": {""}}
    for cell, *_ in rows(page, "ending"):
        for ending in re.findall(r"`(\w+)`", cell):
            for kind in ("req", "task"):
                if "requests" in cell and kind == "req" or "tasks" in cell and kind == "task" or "(" not in cell:
                    endings[kind] |= {ending}
    if {"_ret", "_s"} <= endings["req"]:
        endings["req"].add("_ret_s")
    for cell, who, returned in rows(page, "call"):
        if not who or not returned:
            sys.exit(f"{cell}: who runs it, when, and what it returns?")
        for word in re.findall(r"`(\w+)`", cell):
            yield from (word + ending for ending in endings["req" if word.endswith("req") else "task"])
    yield from re.findall(r"`(qor_context_\w*cancel)`", page)


def main(root):
    header = (root / "include/qor_context_module.h").read_text()
    declared = set(re.findall(r"^QOR_API int32_t (\w+)\(", header, re.M))
    found = list(chosen((root / "docs/guide/requests.md").read_text().partition("## Which call\n")[2]))
    wrong = [f"not in the tables: {name}" for name in declared - set(found)]
    wrong += [f"no such call: {name}" for name in set(found) - declared]
    wrong += [f"twice: {name}" for name in set(found) if found.count(name) > 1]
    print("\n".join(sorted(wrong)) or f"{len(found)} calls")
    return len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
