#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the models to the code: hashes.py [renew].

In hashes each modelled function has the hash of its text without comments and spaces. When a function
has changed, whoever changed it looks whether its models still hold, changes them if they do not, runs
'hashes.py renew' and says so in a line of CHANGES: the date, the function, the first twelve digits of
its new hash, and why the model still holds or how it was changed.
"""
import hashlib
import re
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
LINE = re.compile(r"(\w+) (\S+) (\w+) (\w{64}|-)")
CHANGE = re.compile(r"\d{4}-\d\d-\d\d (\w+) (\w{12}): \S.*")


def text_of(source, function):
    """A function's definition: from a line that begins with no space to a brace that does not."""
    found = re.findall(rf"^(?![# ])[^\n;]*\b{function}\([^;{{}}]*?\)(?: const)?\n{{\n.*?^}}", source, re.M | re.S)
    if len(found) != 1:
        sys.exit(f"{function}: {len(found)} definitions")
    return re.sub(r"\s+", "", re.sub(r"/\*.*?\*/|//[^\n]*", "", found[0], flags=re.S))


def hash_of(file, function):
    return hashlib.sha256(text_of((ROOT / file).read_text(), function).encode()).hexdigest()


def lines_of(name):
    return [line for line in (HERE / name).read_text().splitlines() if line and not line.startswith("#")]


def check(entries):
    complaints = []
    changes = [CHANGE.fullmatch(line) or sys.exit(f"CHANGES is not understood: {line}") for line in lines_of("CHANGES")]
    told = {change.groups() for change in changes}
    for model, file, function, digits in entries:
        if not (HERE / f"{model}.pml").exists():
            complaints.append(f"{model}: there is no such model")
        now = hash_of(file, function)
        if now != digits:
            complaints.append(f"{function} in {file} has changed: does {model}.pml still hold?")
        elif (function, now[:12]) not in told:
            complaints.append(f"{function} {now[:12]}: CHANGES does not say what became of {model}.pml")
    for model in HERE.glob("*.pml"):
        if model.stem not in {entry[0] for entry in entries}:
            complaints.append(f"{model.name}: which functions is it a model of?")
    print("\n".join(complaints) or f"{len(entries)} functions, each as it was modelled")
    return len(complaints) > 0


def main(*arguments):
    lines = (HERE / "hashes").read_text().splitlines()
    entries = [(LINE.fullmatch(line) or sys.exit(f"hashes is not understood: {line}")).groups()
               for line in lines if line and not line.startswith("#")]
    if arguments == ("renew",):
        head = [line for line in lines if line.startswith("#")]
        renewed = [" ".join([*entry[:3], hash_of(*entry[1:3])]) for entry in entries]
        (HERE / "hashes").write_text("\n".join(head + renewed) + "\n")
        return 0
    return check(entries)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
