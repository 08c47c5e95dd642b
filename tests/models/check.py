#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Searches models state by state: check.py CC [large] MODEL...

In each setting of SETTINGS there must be no error, no limit reached, every statement reached in one of
them, and, where it is asked for, no run that goes on for ever. The model's first comment lists its
guards, a name with an underscore each that takes one away and the function that has it: each must be
missed. A statement that cannot be reached says why: /* not reached: ... */ on its line.
"""
import re
import resource
import subprocess
import sys
import tempfile
from pathlib import Path

ENDS = "ends"  # stands for a second search: that every run comes to an end
SETTINGS = {
    "strict_queue": [[ENDS, "-DLIMIT=1"], ["-DLIMIT=2"], ["-DLIMIT=1", "-DQUITS"], ["-DLIMIT=2", "-DQUITS"]],
    "deferred": [[ENDS], ["-DFAILS"]],
    "que": [[ENDS], ["-DCAPACITY=2"], [ENDS, "-DCAPACITY=2", "-DQUITS"], ["-DCAPACITY=2", "-DDESTROYS"], ["-DWATCHES"],
            ["-DTAKERS=1", "-DWATCHES", "-DQUITS"]],
    "time_que": [[ENDS, "-DSPURIOUS=0"], ["-DSPURIOUS=0", "-DCAPACITY=3", "-DDELAYS=1", "-DIN_ORDER"],
                 ["-DSPURIOUS=0", "-DDELAYS=1", "-DTAKES_OUT"], ["-DSPURIOUS=0", "-DDESTROYS"]],
    "private_queue": [[ENDS, "-DPOSTS=1"], ["-DPOSTS=2"], ["-DPOSTS=1", "-DCANCELS"],
                      ["-DPOSTS=1", "-DDEPTH=1", "-DQUITS"], ["-DPOSTS=1", "-DDEPTH=1", "-DFAILS"]],
    "start": [[ENDS], ["-DAFTER=1"], ["-DBEFORE=0"], ["-DBEFORE=1", "-DQUITS"], ["-DFAILS"]],
    "end": [[ENDS], ["-DTASKS=2", "-DQUITS"], ["-DTASKS=2", "-DTASK_QUITS"]],
}
LARGE = {
    "strict_queue": [[ENDS, "-DLIMIT=2", "-DDEPTH=2", "-DQUITS"]],
    "deferred": [[ENDS, "-DFAILS"]],
    "que": [[ENDS, "-DWATCHES", "-DQUITS"], [ENDS, "-DCAPACITY=2", "-DDESTROYS"],
            ["-DTAKERS=3", "-DITEMS=3", "-DCAPACITY=2", "-DSPURIOUS=2", "-DQUITS"]],
    "time_que": [["-DSPURIOUS=1"], ["-DSPURIOUS=0", "-DTAKES_OUT"], ["-DSPURIOUS=0", "-DQUITS"]],
    "private_queue": [["-DCANCELS"], ["-DQUITS"], ["-DFAILS"], ["-DLIMIT=2"]],
    "start": [[ENDS, "-DQUITS"], ["-DFAILS", "-DQUITS"]],
    "end": [["-DQUITS"], ["-DTASK_QUITS"], ["-DTASKS=4"]],
}
MEMORY = 4096  # MiB
PATIENCE = 120  # s of CPU time
DEPTH = 1000000
LIMITS = ["max search depth too small", "MEMLIM", "memory limit", "out of memory", "Bit statespace", "Hash-Compact",
          "VECTORSZ", "interrupted"]
STATE = re.compile(r"state +(?P<state>\d+) -.* (?:\S*/)?(?P<file>\w+\.(?:pml|inc)):(?P<line>\d+) => (?P<what>.*)")
UNREACHED = re.compile(r"(?:\S*/)?(?P<file>\w+\.(?:pml|inc)):(?P<line>\d+), state (?P<state>\d+), (?P<what>.*)")
REASON = re.compile(r"/\* not reached: \S")


class Search:
    """One search of a model, and what pan has said of it."""

    def __init__(self, compiler, model, defines, ends=False, quick=False):
        self.model, self.ends = model, ends
        self.name = " ".join([model.stem, *defines, *([ENDS] if ends else [])])
        began = seconds()
        with tempfile.TemporaryDirectory() as place:
            def run(*command):
                return subprocess.run(command, cwd=place, capture_output=True, text=True)

            def make(*command):
                done = run(*command)
                if done.returncode != 0 or "Error" in done.stdout:
                    sys.exit(f"{self.name}: {done.stdout}{done.stderr}")

            make("spin", "-a", *defines, str(model))
            make(compiler, "-O0" if quick else "-O2", "-w", "-DNP" if ends else "-DSAFETY", f"-DMEMLIM={MEMORY}", "-o", "pan", "pan.c")
            table = run("./pan", "-d").stdout
            self.told = run("./pan", f"-m{DEPTH}", *(["-l"] if ends else [])).stdout
        self.seconds = seconds() - began
        unreached = {(where, number) for where, number, _ in parts(self.told, UNREACHED)}
        self.all = {where_what for _, _, where_what in parts(table, STATE)}
        self.reached = {what for where, number, what in parts(table, STATE) if (where, number) not in unreached}
        errors = re.search(r"errors: (\d+)", self.told)
        count = re.search(r"(\d+) states, stored", self.told)
        memory = re.search(r"([\d.]+)\s+total actual memory usage", self.told)
        if not errors or not count or not memory or "Full statespace search" not in self.told:
            sys.exit(f"{self.name}: not understood\n{self.told}")
        self.wrong, self.count, self.memory = errors[1] != "0", int(count[1]), float(memory[1])
        limits = [limit for limit in LIMITS if limit in self.told]
        if limits and not self.wrong:
            sys.exit(f"{self.name}: not searched to its end: {', '.join(limits)}\n{self.told}")

    def __str__(self):
        return f"{self.name}: {self.count} states, {self.memory:.0f} MB, {self.seconds:.1f} s"


def seconds():
    """CPU time of the programs that have been run."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def parts(told, form):
    """What pan says of each process: its name, the number of a state, and what else form finds."""
    found, process = [], ""
    for line in told.splitlines():
        head = re.match(r"(?:unreached in )?(proctype \w+|init)$", line)
        process = head[1] if head else process
        state = form.search(line)
        if state and process:
            found.append((process, int(state["state"]), (state["file"], int(state["line"]), state["what"])))
    return found


def unexplained(model, searches):
    """Statements that no search has reached and that do not say why, or that say so and were reached."""
    files = {path.name: path.read_text().splitlines() for path in [model, *model.parent.glob("*.inc")]}
    every = set().union(*(search.all for search in searches))
    reached = set().union(*(search.reached for search in searches))
    complaints = []
    for name, line, what in sorted(every):
        why = REASON.search(files[name][line - 1])
        if (name, line, what) not in reached and not why:
            complaints.append(f"{name}:{line}: {what} is not reached")
    for name, line in {(name, line) for name, line, _ in every}:
        states = [state for state in every if state[:2] == (name, line)]
        if REASON.search(files[name][line - 1]) and all(state in reached for state in states):
            complaints.append(f"{name}:{line} is reached")
    return complaints


def check_settings(compiler, model, settings):
    complaints, searches = [], []
    for setting in settings:
        defines = [word for word in setting if word != ENDS]
        for ends in [False] + [True] * (ENDS in setting):
            search = Search(compiler, model, defines, ends)
            print(search, flush=True)
            searches.append(search)
            if search.wrong:
                complaints.append(f"{search.name} fails:\n{search.told}")
    return complaints + unexplained(model, [search for search in searches if not search.ends])


def is_missed(compiler, model, guard):
    """The first setting that fails without the guard."""
    settings = SETTINGS[model.stem]
    searches = [(setting, False) for setting in settings] + [(setting, True) for setting in settings if ENDS in setting]
    for setting, ends in searches:
        defines = [word for word in setting if word != ENDS]
        if Search(compiler, model, [*defines, f"-D{guard}"], ends, quick=True).wrong:
            return " ".join(defines + [ENDS] * ends) or "no setting"
    return None


def check(compiler, model, large):
    complaints = check_settings(compiler, model, SETTINGS[model.stem] + (LARGE[model.stem] if large else []))
    comment = model.read_text().split("*/")[1]
    guards = re.findall(r"^ \*   ([A-Z]+(?:_[A-Z]+)+) +(.*(?:\n \*    .*)*)", comment, re.M)
    complaints += [] if guards else ["no guards are listed"]
    for guard, what in guards:
        if not re.search(r"\w\(\)", what):
            complaints.append(f"{guard}: which function has it?")
        setting = is_missed(compiler, model, guard)
        print(f"{model.stem} without its guard, {guard}: {f'fails with {setting}' if setting else 'holds'}", flush=True)
        if not setting:
            complaints.append(f"{guard} is not missed")
    print("\n".join(complaints) or f"{model.stem}: {len(guards)} guards, each missed", flush=True)
    return complaints


def main(compiler, *rest):
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY << 20, MEMORY << 20))
    resource.setrlimit(resource.RLIMIT_CPU, (PATIENCE, PATIENCE))  # of each program that is run
    models = [Path(word).resolve() for word in rest if word != "large"]
    return any([check(compiler, model, "large" in rest) for model in models])


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
