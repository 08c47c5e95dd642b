# SPDX-License-Identifier: Apache-2.0
"""Which test programs come to which lines of a source, and how long each takes: kept beside the build."""
import concurrent.futures
import hashlib
import json
import os
import re
import shutil
import subprocess
import tempfile
import threading
from pathlib import Path

from programs import INSIDE, Changed, usual_time

PASSED_OVER = {"test_idle"}  # sleeps longer than a minute


def digest(build, sources):
    told = hashlib.sha256()
    for path in [*sources, *(build.place / "tests" / name for name in build.programs)]:
        told.update(f"{path} {os.stat(path).st_mtime_ns} {os.stat(path).st_size}".encode())
    return told.hexdigest()


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
        now = digest(build, sources)
        told = json.loads(kept.read_text()) if kept.exists() else {}
        if told.get("digest") != now:
            told = {"digest": now, **self.measure(build, sources)}
            kept.write_text(json.dumps(told))
        self.usual = told["usual"]
        self.failed = told["failed"]
        self.lines = {source: {program: set(lines) for program, lines in by.items()}
                      for source, by in told["lines"].items()}
        self.known = {source: set(lines) for source, lines in told["known"].items()}

    @staticmethod
    def measure(build, sources):
        usual, failed = {}, []
        lines = {source: {} for source in sources}
        known = {source: set() for source in sources}
        lock = threading.Lock()
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
                took = usual_time(mine, program, GCOV_PREFIX=str(counts))
                with lock:
                    if took is None:
                        failed.append(program)
                    else:
                        usual[program] = took
                for source in sources:
                    name = Path(source).name
                    for gcda in counts.rglob(f"{name}.gcda"):
                        reached, has = lines_of(gcda.parent, gcda, base / f"{name}.gcno", name)
                        with lock:
                            lines[source][program] = sorted(reached)
                            known[source] |= has
                shutil.rmtree(counts, ignore_errors=True)

            with concurrent.futures.ThreadPoolExecutor(2) as pool:
                list(pool.map(one, [name for name in build.programs if name not in PASSED_OVER]))
        return {"usual": usual, "failed": sorted(failed), "lines": lines,
                "known": {source: sorted(has) for source, has in known.items()}}

    def programs(self, source, site):
        """Those that come to the site, the nearest and fastest first."""
        wanted = {site.line} if site.line in self.known[source] else set(range(site.first, site.last + 1))
        by = self.lines[source]
        found = [program for program, lines in by.items() if program in self.usual and lines & wanted]
        if not site.function:
            found = [program for program, lines in by.items() if program in self.usual and lines]
        return sorted(found, key=lambda program: (self.usual[program] + 0.2) / len(by[program]))
