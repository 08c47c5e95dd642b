#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether what is read out of a recording is what has happened: check_recording.py TOOL RECORDING COUNTS
or check_recording.py TOOL PROGRAM...

COUNTS says how often each thing has happened, as make_recording prints it; PROGRAM is make_recording
itself, with what it takes to run it, and makes a recording now. What qor-trace sums up must agree, and,
where babeltrace2 is installed, what that reads of the trace that qor-trace has written.
"""
import collections
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

# How an event of the trace is called: its name, and what stands for its kind, reason or the like.
EVENTS = {
    "requests": ("request", ""), "handled": ("start", "request"), "responded": ("start", "response"),
    "called": ("start", "call"), "ran": ("start", "task"), "filtered": ("start", "filter before"),
    "heard": ("start", "listen after"), "marks": ("mark", ""), "dropped": ("drop", ""), "completed": ("completed", ""),
}


def counts_of(text):
    return {name: int(count) for name, count in re.findall(r"^(\w+) (\d+)$", text, re.M) if name in EVENTS}


def read_by_babeltrace(tool, recording, folder):
    """How many events there are of each name and kind."""
    subprocess.run([tool, "--ctf", folder / "ctf", recording], check=True, stdout=subprocess.DEVNULL)
    told = subprocess.run(["babeltrace2", folder / "ctf"], check=True, capture_output=True, text=True).stdout
    found = collections.Counter()
    for line in told.splitlines():
        name = re.search(r" (\w+): \{ vtid", line)[1]
        if 'who = "qor_' in line:
            continue  # what the modules of the library itself do is not counted
        kind = re.search(r'kind = \( "([^"]+)"', line)
        found[name, kind[1] if kind else ""] += 1
    return found


def summed_up(tool, recording):
    """Requests and calls as the summary's first table counts them."""
    told = subprocess.run([tool, recording], check=True, capture_output=True, text=True).stdout
    table = told.partition("Requests and calls")[2].partition("\n\n")[0]
    found = collections.Counter()
    for kind, count in re.findall(r"^  \d+ .*? (request|call) +(\d+)", table, re.M):
        found[kind] += int(count)
    return found


def main(tool, *rest):
    with tempfile.TemporaryDirectory() as scratch:
        folder = Path(scratch)
        if rest[-1].endswith("counts"):
            recording, counts = Path(rest[0]), counts_of(Path(rest[1]).read_text())
        else:
            recording = folder / "made.rec"
            counts = counts_of(subprocess.run([*rest, recording], check=True, capture_output=True, text=True).stdout)
        wrong = [f"{name}: not counted" for name in EVENTS.keys() - counts.keys()]
        sums = summed_up(tool, recording)
        wrong += [f"summary: {sums[kind]} of {kind}, not {counts[name]}"
                  for kind, name in (("request", "requests"), ("call", "called")) if sums[kind] != counts[name]]
        if shutil.which("babeltrace2"):
            found = read_by_babeltrace(tool, recording, folder)
            wrong += [f"babeltrace2: {name}: {found[EVENTS[name]]}, not {count}"
                      for name, count in counts.items() if found[EVENTS[name]] != count]
        else:
            print("babeltrace2 is not installed: only the summary is compared")
    print("\n".join(wrong) or f"{sum(counts.values())} counted")
    return len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
