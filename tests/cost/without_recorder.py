#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the recorder costs those who do not use it: without_recorder.py CMAKE LIBRARY BUILD CMAKE_OPTION...

Builds the programs of round_trips.py with the library as it is and with one that has no recorder, and
compares the instructions of a synchronous request and of a round trip.
"""
import shutil
import sys
from pathlib import Path

import round_trips

# Instructions with the recorder, which does not record, by those without.
CEILINGS = {"calls": 1.015, "trips": 1.015}


def instructions(folder, mode):
    """Of one call or trip."""
    program = folder / "round_trips"
    few, many = (round_trips.instructions([program, str(count), *mode]) for count in (5000, 10000))
    return (many - few) / 5000


def main(cmake, library, folder, *options):
    if not shutil.which("valgrind"):
        round_trips.skip("valgrind is not installed")
    folders = {switch: Path(folder) / switch for switch in ("ON", "OFF")}
    for switch, place in folders.items():
        round_trips.build(cmake, library, place, [*options, f"-DQOR_TRACE={switch}"])
    exceeded = 0
    print("        without      with   ratio  ceiling")
    for name, ceiling in CEILINGS.items():
        mode = ["calls"] if name == "calls" else []
        with_it, without = (instructions(folders[switch], mode) for switch in ("ON", "OFF"))
        print(f"{name:7}{without:8.1f}{with_it:10.1f}{with_it / without:8.4f}{ceiling:9g}")
        exceeded += with_it > without * ceiling
    print(f"{exceeded or 'none'} exceeded")
    return exceeded > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
