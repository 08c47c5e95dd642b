# SPDX-License-Identifier: Apache-2.0
"""Which test programs come to which lines of a source, and how long each takes: kept beside the build."""
import concurrent.futures
import fnmatch
import json
import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

from programs import INSIDE, Changed, usual_time

PASSED_OVER = {"test_idle"}  # sleeps longer than a minute

# Beside the tests that the list of the sources names, for all sources and for some.
ALSO = {
    "": ["test_locked_calls", "test_init_faults"],
    "queues/key_tree.cpp": ["test_time_que*"],
    "queues/time_index.cpp": ["test_time_que*"],
    "user/qor_core_context_tasks.cpp": ["test_contract*", "test_fairness"],
    "user/user_admission.cpp": ["test_core_context_*", "test_contract*"],
    "user/user_init.cpp": ["test_failed_init*"],
    "user/user_run.cpp": ["test_contract*"],
}


def stamp(path):
    return f"{os.stat(path).st_mtime_ns} {os.stat(path).st_size}"


def own_programs(root, source):
    """The tests of a source, as the sources' list names them, those of its failing calls, and what ALSO has."""
    name = str(Path(source).relative_to(root / "src"))
    row = next(line for line in (root / "src/README.md").read_text().splitlines() if f"`{name}`" in line)
    named = re.findall(r"`(test_[\w*]+)\.cpp`", row)
    faults = [f"{test.rstrip('_*')}_faults" for test in named]
    return [*named, *faults, *ALSO[""], *ALSO.get(name, [])]


def lines_of(place, gcda, gcno, name):
    """The lines of a source that one run came to, and those that have code."""
    shutil.copy(gcno, gcda.with_suffix(".gcno"))
    told = subprocess.run(["llvm-cov", "gcov", "-t", str(gcda)], cwd=place, capture_output=True, text=True).stdout
    mine, reached, known = False, set(), set()
    for line in told.splitlines():
        head = re.match(r"\s*-:\s*0:Source:(.*)", line)
        if head:
            mine = Path(head[1]).name == name
        found = re.match(r"\s*(\d+\*?|#+|=+):\s*(\d+):", line) if mine else None
        if found:
            known.add(int(found[2]))
            if found[1][0].isdigit():
                reached.add(int(found[2]))
    return reached, known


class Reach:
    """For each source the lines that each program comes to."""

    def __init__(self, build, sources):
        kept = build.place / "mutation_reach.json"
        stamps = {name: stamp(build.place / "tests" / name) for name in build.programs if name not in PASSED_OVER}
        library = {source: stamp(source) for source in sources}
        told = json.loads(kept.read_text()) if kept.exists() else {}
        if told.get("library") != library:
            told = {"library": library, "programs": {}}
        programs = told["programs"]
        for name in set(programs) - set(stamps):
            del programs[name]
        changed = [name for name, now in stamps.items() if programs.get(name, {}).get("stamp") != now]
        if changed:
            for name, found in self.measure(build, sources, changed).items():
                programs[name] = {"stamp": stamps[name], **found}
            kept.write_text(json.dumps(told))
        self.usual = {name: found["usual"] for name, found in programs.items() if found["usual"] is not None}
        self.failed = sorted(set(programs) - set(self.usual))
        self.lines = {source: {name: set(found["lines"][source]) for name, found in programs.items()}
                      for source in sources}
        self.known = {source: set().union(*(found["known"][source] for found in programs.values()))
                      for source in sources}

        self.own = {source: own_programs(build.place.parents[1], source) for source in sources}

    @staticmethod
    def measure(build, sources, programs):
        found = {name: {"usual": None, "lines": {source: [] for source in sources},
                        "known": {source: [] for source in sources}} for name in programs}
        with tempfile.TemporaryDirectory() as place:
            base = Path(place)
            measured = Changed(build, base, ["--coverage"])
            for source in sources:
                if not measured.compile(source):
                    raise SystemExit(f"{source} does not compile")
            for library in set(build.programs.values()) - {INSIDE}:
                measured.link(library)

            def one(program):
                counts = base / "counts" / program
                mine = Changed(build, base / "of" / program, ["--coverage"])
                mine.place.mkdir(parents=True)
                mine.objects, mine.made = measured.objects, set(measured.made)
                for library in measured.made:
                    (mine.place / library).symlink_to(base / library)
                found[program]["usual"] = usual_time(mine, program, GCOV_PREFIX=str(counts))
                for source in sources:
                    name = Path(source).name
                    for gcda in counts.rglob(f"{name}.gcda"):
                        reached, has = lines_of(gcda.parent, gcda, base / f"{name}.gcno", name)
                        found[program]["lines"][source] = sorted(reached)
                        found[program]["known"][source] = sorted(has)
                shutil.rmtree(counts, ignore_errors=True)

            with concurrent.futures.ThreadPoolExecutor(2) as pool:
                list(pool.map(one, programs))
        return found

    def programs(self, source, site):
        """Those that come to the site: the source's own, and then the others, the fastest first that come
        to much of it."""
        wanted = {site.line} if site.line in self.known[source] else set(range(site.first, site.last + 1))
        by = self.lines[source]
        found = [program for program, lines in by.items() if program in self.usual and lines & wanted]
        if not site.function:
            found = [program for program, lines in by.items() if program in self.usual and lines]
        near = [program for program in found if any(fnmatch.fnmatch(program, name) for name in self.own[source])]
        far = set(found) - set(near)
        return (sorted(near, key=self.usual.get),
                sorted(far, key=lambda program: (self.usual[program] + 0.2) / len(by[program])))
