#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the coverage of each part of src against its goal: check.py FILE, of gcovr's --json.

Prints lines, functions and branches of each part, then every line and every branch that was missed,
with its source. What is excluded stands in the file excluded, a line of src at a time: where, its
text (the line before and a '|' go first where the text alone is there twice), and why. An exclusion
of what was reached, or of what there is not, is wrong like a miss.
"""
import collections
import json
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
GOALS = {"lines": 1.0, "functions": 1.0, "branches": 0.99}
EXCLUSIONS_MAX = 15


class Line:
    def __init__(self):
        self.count, self.branches = 0, []

    def add(self, told):
        """What another object with the same line says."""
        self.count += told["count"]
        for i, branch in enumerate(branch for branch in told["branches"] if not branch["throw"]):
            self.branches[i:i + 1] = [sum(self.branches[i:i + 1]) + branch["count"]]

    def missed(self):
        return [i for i, count in enumerate(self.branches) if count == 0]


class Source:
    def __init__(self, told):
        self.name = told["file"]
        self.text = [line.strip() for line in (ROOT / self.name).read_text().splitlines()]
        self.functions = collections.Counter()
        for function in told["functions"]:
            self.functions[function["lineno"], function["name"]] += function["execution_count"]
        self.lines = collections.defaultdict(Line)
        for line in told["lines"]:
            if not line["gcovr/noncode"]:
                self.lines[line["line_number"]].add(line)

    def places(self, text):
        """The lines with that text."""
        before, _, line = text.rpartition(" | ")
        return [i + 1 for i, there in enumerate(self.text) if there == line and self.text[i - 1].endswith(before)]

    def misses(self):
        """{line: what was missed there}; of a line that was not reached, its branches go without saying."""
        found = {}
        for number, line in sorted(self.lines.items()):
            if line.count == 0:
                found[number] = "not reached"
            elif line.missed():
                found[number] = f"{', '.join(map(str, line.missed()))} of {len(line.branches)} branches not taken"
        return found


def exclusions():
    """[(file, text of the line)]"""
    blocks = (HERE / "excluded").read_text().split("\n\n")[1:]  # the head goes first
    found = [tuple(line.strip() for line in block.strip().split("\n", 2)) for block in blocks]
    for block in found:
        if len(block) != 3 or not all(block):
            sys.exit(f"excluded: not a file, a line and a reason: {block}")
    return [block[:2] for block in found]


def exclude(sources):
    """Takes the excluded lines out: complaints."""
    excluded = exclusions()
    complaints = []
    if len(excluded) > EXCLUSIONS_MAX:
        complaints.append(f"{len(excluded)} lines are excluded; {EXCLUSIONS_MAX} may be")
    for name, text in excluded:
        source = sources.get(name)
        places = source.places(text) if source else []
        if len(places) != 1:
            complaints.append(f"excluded: {name} has {len(places)} lines like that: {text}")
        elif places[0] not in source.misses():
            complaints.append(f"excluded, but not missed: {name}:{places[0]}: {text}")
        else:
            del source.lines[places[0]]
    return complaints


def figures(sources):
    """{what: (reached, all)}"""
    lines = [line for source in sources for line in source.lines.values()]
    functions = [count for source in sources for count in source.functions.values()]
    branches = [count for line in lines for count in line.branches]
    return {"lines": (sum(line.count > 0 for line in lines), len(lines)),
            "functions": (sum(count > 0 for count in functions), len(functions)),
            "branches": (sum(count > 0 for count in branches), len(branches))}


def report(sources):
    """Prints the figures of each part and of the whole: complaints."""
    parts = collections.defaultdict(list)
    for source in sources:
        parts[Path(source.name).parts[1]].append(source)
    complaints = []
    print("".join([f"{'':10}"] + [f"{what:>22}" for what in GOALS]))
    for part, own in [*sorted(parts.items()), ("src", sources)]:
        found = figures(own)
        print("".join([f"{part:10}"] + [f"{reached:7} of {total:5} {100 * reached / max(total, 1):5.1f} %"
                                        for reached, total in found.values()]))
        complaints += [f"{part}: {what} below {100 * GOALS[what]:.0f} %"
                       for what, (reached, total) in found.items() if reached < GOALS[what] * total]
    return complaints


def main(told):
    sources = {source["file"]: Source(source) for source in json.loads(Path(told).read_text())["files"]}
    complaints = exclude(sources)
    complaints += report(sources.values())
    for source in sources.values():
        for number, what in source.misses().items():
            print(f"{source.name}:{number}: {what}: {source.text[number - 1]}")
        for (number, name), count in source.functions.items():
            if count == 0:
                print(f"{source.name}:{number}: not called: {name}")
    print("\n".join(complaints) or "the goals are met")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
