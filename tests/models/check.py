#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks a model in every setting, and that it fails without each of its guards: check.py CC MODEL.

The model's first comment lists the guards, a name with an underscore each that takes one away.
SETTINGS has what a model is checked with; a guard must be missed in one of them.
"""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

SETTINGS = {
    "strict_queue": [["-DLIMIT=1"], ["-DLIMIT=2"], ["-DLIMIT=1", "-DQUITS"], ["-DLIMIT=2", "-DQUITS"]],
    "deferred": [[], ["-DFAILS"]],
}


def states(compiler, model, defines):
    """Looks at every state: how many there are, and whether one is wrong."""
    with tempfile.TemporaryDirectory() as place:
        def run(*command):
            return subprocess.run(command, cwd=place, check=True, capture_output=True, text=True).stdout

        run("spin", "-a", *defines, str(model))
        run(compiler, "-O2", "-w", "-DSAFETY", "-o", "pan", "pan.c")
        told = run("./pan", "-m100000")
    errors = re.search(r"errors: (\d+)", told)
    count = re.search(r"(\d+) states, stored", told)
    if not errors or not count or "max search depth too small" in told:
        sys.exit(f"{model.name} {' '.join(defines)}: not searched to its end\n{told}")
    return int(count[1]), errors[1] != "0"


def main(compiler, model):
    comment = model.read_text().split("*/")[1]
    guards = re.findall(r"^ \*   ([A-Z]+(?:_[A-Z]+)+) ", comment, re.M)
    settings = SETTINGS[model.stem]
    complaints = [] if guards else ["no guards are listed"]
    for setting in settings:
        count, wrong = states(compiler, model, setting)
        print(f"{model.name} {' '.join(setting)}: {count} states")
        if wrong:
            complaints.append(f"fails with {' '.join(setting)}")
    for guard in guards:
        missed = any(states(compiler, model, [*setting, f"-D{guard}"])[1] for setting in settings)
        print(f"{model.name} without its guard, {guard}: {'fails' if missed else 'holds'}")
        if not missed:
            complaints.append(f"{guard} is not missed")
    print("\n".join(complaints) or f"{len(guards)} guards, each missed")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], Path(sys.argv[2]).resolve()))
