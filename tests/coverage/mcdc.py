#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints which conditions of the library's decisions have decided by themselves: mcdc.py BUILD.

A decision is an expression of conditions with && and ||. A condition counts when there were two runs in
which the decision came out differently and of its conditions none but this one had another effect. What
clang cannot follow is counted as left out, a decision of one condition is one of the branches that
./dev coverage looks at.
"""
import collections
import json
import re
import shlex
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
CONDITIONS = 6  # where a record of llvm-cov's has them


def told(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True)


def decisions(build):
    """{source: {place: [whether each condition has decided]}}"""
    data = build / "mcdc.profdata"
    told("llvm-profdata-19", "merge", "-sparse", "-o", data, *(build / "profiles").iterdir())
    out = told("llvm-cov-19", "export", build / "src/libqor_bus.so", f"-instr-profile={data}").stdout
    found = collections.defaultdict(dict)
    for file in json.loads(out)["data"][0]["files"]:
        name = Path(file["filename"])
        if (ROOT / "src") in name.parents:
            for record in file["mcdc_records"]:
                seen = found[str(name.relative_to(ROOT))].setdefault(tuple(record[:2]), [False] * len(record[CONDITIONS]))
                seen[:] = [one or other for one, other in zip(seen, record[CONDITIONS])]
    return found


def left_out(build):
    """[(source, line)] of what clang says it cannot follow."""
    found = set()
    for entry in json.loads((build / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        out = words.index("-o") + 1
        if "/qor_objects.dir/" in words[out]:
            words[out] = "/dev/null"
            said = subprocess.run(words, cwd=entry["directory"], check=True, capture_output=True, text=True).stderr
            found |= set(re.findall(rf"^{ROOT}/(src/\S+?):(\d+):\d+: warning: unsupported MC/DC", said, re.M))
    return found


def main(build):
    parts = collections.defaultdict(collections.Counter)
    missed = []
    for source, own in decisions(build).items():
        text = (ROOT / source).read_text().splitlines()
        for (line, _), seen in sorted(own.items()):
            for part in (Path(source).parts[1], "src"):
                parts[part].update(decisions=1, whole=all(seen), conditions=len(seen), decided=sum(seen))
            if not all(seen):
                which = ", ".join(str(i + 1) for i, decided in enumerate(seen) if not decided)
                missed.append(f"{source}:{line}: {which} of {len(seen)}: {text[line - 1].strip()}")
    for source, _ in left_out(build):
        for part in (Path(source).parts[1], "src"):
            parts[part]["out"] += 1
    print(f"{'':10}{'conditions that decided':>28}{'decisions, all of them':>28}{'left out':>10}")
    for part in sorted(parts, key=lambda part: (part == "src", part)):
        of = parts[part]
        print(f"{part:10}" + "".join(f"{of[some]:12} of {of[every]:5} {100 * of[some] / max(of[every], 1):5.1f} %"
                                     for some, every in (("decided", "conditions"), ("whole", "decisions")))
              + f"{of['out']:10}")
    print("\n".join(missed))
    return not parts


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve()))
