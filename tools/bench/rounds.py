# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmark programs in alternation and sums up what they print."""
import json
import os
import statistics
import subprocess
import sys
from dataclasses import asdict, dataclass, field

LIMIT = 60  # seconds that a run may take; those that hang are ended
# Scenarios whose pace the scenario sets itself: only their latencies say anything.
PACED = ("pool-wake-up", "task-in-handler", "timer-lateness", "timers-beside")


@dataclass(frozen=True)
class Program:
    """A benchmark program, perhaps with another library than the one beside it."""
    name: str
    path: str
    libraries: str = ""
    arguments: tuple = ()

    def call(self, *arguments, **more):
        environment = dict(os.environ, **more)
        if self.libraries:
            environment["LD_LIBRARY_PATH"] = self.libraries
        return subprocess.run([self.path, *arguments], env=environment, timeout=LIMIT,
                              capture_output=True, text=True, check=False)

    def cases(self):
        """What it can run: (scenario, workers) in its own order."""
        for line in self.call("--list").stdout.splitlines():
            scenario, *workers = line.split()
            for number in workers:
                yield scenario, int(number)

    def run(self, scenario, workers):
        """One run's figures, or None with a word on standard error."""
        try:
            done = self.call(scenario, "--workers", str(workers), *self.arguments)
            return json.loads(done.stdout)
        except subprocess.TimeoutExpired:
            problem = f"not over after {LIMIT} s"
        except json.JSONDecodeError:
            problem = f"status {done.returncode}: {(done.stdout + done.stderr).strip()}"
        print(f"{self.name}: {scenario} with {workers}: {problem}", file=sys.stderr)
        return None


@dataclass
class Case:
    """The runs of one scenario with one number of workers, by the programs' names."""
    scenario: str
    workers: int
    runs: dict = field(default_factory=dict)

    @property
    def paced(self):
        return self.scenario.startswith(PACED)

    def values(self, name, figure):
        return [run[figure] for run in self.runs.get(name, []) if run.get(figure) is not None]

    def median(self, name, figure):
        values = self.values(name, figure)
        return statistics.median(values) if values else None

    def ratio(self, name, other, figure):
        """The median of name over that of other; None unless both are above 0."""
        over, under = self.median(name, figure), self.median(other, figure)
        return over / under if over and under and over > 0 and under > 0 else None


def alternate(programs, rounds, wanted=lambda scenario: True):
    """Runs each case with all programs that have it, forwards and backwards in turn, so that what
    changes on the machine meanwhile meets all of them."""
    cases = {}
    able = {program.name: set(program.cases()) for program in programs}
    for program in programs:
        for key in program.cases():
            if wanted(key[0]):
                cases.setdefault(key, Case(*key))
    for number in range(rounds):
        order = programs if number % 2 == 0 else programs[::-1]
        for key, case in cases.items():
            for program in order:
                if key in able[program.name]:
                    run = program.run(*key)
                    if run:
                        case.runs.setdefault(program.name, []).append(run)
        print(f"round {number + 1} of {rounds} is over", file=sys.stderr)
    return list(cases.values())


def save(path, cases, rounds):
    with open(path, "w", encoding="utf-8") as file:
        json.dump({"rounds": rounds, "cases": [asdict(case) for case in cases]}, file, indent=1)


def load(path):
    """The cases and the number of rounds that were saved there."""
    with open(path, encoding="utf-8") as file:
        saved = json.load(file)
    return [Case(**case) for case in saved["cases"]], saved["rounds"]
