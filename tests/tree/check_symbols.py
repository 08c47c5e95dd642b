#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Who may use whose functions and data: check_symbols.py NM OBJECT... fails on a use that points upwards.

The ranks are those of check_includes.py. An object file uses what objects of its own or a lower rank
define, whether or not it includes their headers. UPWARDS has the uses that are needed, and only those.
"""
import subprocess
import sys
from pathlib import Path

from check_includes import RANK, stem

UPWARDS = {
    ("qor_bus.cpp", "qor_main"),  # creating a bus queues the start-up
    ("qor_context_core.cpp", "qor_impl_context_class"),  # the registry starts with the system class
}


def symbols(nm, path):
    """The names that an object file defines, and those that it leaves to others."""
    defined, used = set(), set()
    for line in subprocess.run([nm, "-gC", path], text=True, check=True, capture_output=True).stdout.splitlines():
        kind, name = line[line.index(" ") + 1:].lstrip().split(" ", 1)
        (used if kind in "Uw" else defined).add(name)
    return defined, used


def main(nm, paths):
    sources = {Path(p).name.removesuffix(".o"): symbols(nm, p) for p in paths}
    home = {name: source for source, (defined, _) in sources.items() for name in defined}
    uses = {(source, name) for source, (_, used) in sources.items() for name in used if name in home}
    upward = {(s, n) for s, n in uses if RANK[stem(home[n])] > RANK[stem(s)]}
    complaints = [f"{s} (rank {RANK[stem(s)]}) uses {n} of {home[n]} (rank {RANK[stem(home[n])]})"
                  for s, n in upward - UPWARDS]
    complaints += [f"{s} no longer uses {n}: drop the exception" for s, n in UPWARDS - upward]
    print("\n".join(sorted(complaints)) or f"{len(uses)} uses, {len(UPWARDS)} of them upwards")
    return len(complaints) > 0


sys.exit(main(sys.argv[1], sys.argv[2:]))
