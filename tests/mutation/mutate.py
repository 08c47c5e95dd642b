#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Changes the library by one small fault after the other, and sees whether the tests notice.

Of the sources in SOURCES, mutants are drawn by seed, one of each source in turn, until there are as
many as asked for that count: not what does not compile, nor what gives the same code as the source or
as a mutant before it. Each is run with the test programs that come to its line, the nearest first,
under ASan and UBSan; what concerns locks, waking or atomic operations and is alive then,
with --races also under TSan by the programs that are in that build. The results go to a file, a line each, from which a run goes on.
"""
import argparse
import collections
import concurrent.futures
import hashlib
import json
import re
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from programs import Build, Changed, judge
from reach import Reach
from sites import sites_of

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
SOURCES = ["src/queues/*.cpp", "src/user/*.cpp", "src/bus/qor_sched_*.cpp", "src/bus/qor_topic_*.cpp",
           "src/pool/*.cpp", "src/maps/*.cpp"]
WANTED = 0.95  # of those that are not equivalent, killed
UNCOUNTED = ("not compiled", "same code", "code of another")


class Equivalents:
    """Changes that nobody can notice, each with its reason, in the file of that name.

    A paragraph each: source and function; after "| " the line above, if the function has several such;
    the lines as they are after "- ", the changed after "+ "; and the reason, indented.
    """

    def __init__(self):
        self.reasons = []
        text = (HERE / "equivalents").read_text()
        for part in re.findall(r"(?:^[^#\n].*\n)+", text, re.M):
            found = re.fullmatch(r"(\S+) (\S*)\n(?:\| (.*)\n)?- (.*)\n\+ (.*)((?:\n  \S.*)+)\n", part)
            if not found:
                sys.exit(f"equivalents: not understood:\n{part}")
            self.reasons.append((found.group(1, 2, 4, 5), found[3], " ".join(found[6].split())))

    def of(self, site):
        change = (site.file, site.function, site.before, site.after.strip())
        return next((reason for told, above, reason in self.reasons
                     if told == change and above in (None, site.above)), None)


class Drawn:
    """The mutants of each source in the order in which they are drawn.

    What is next is decided by each mutant's own text, so that a changed line changes its place alone.
    """

    def __init__(self, seed, sites):
        self.left = {file: sorted(found, key=lambda site: self.lot(seed, site)) for file, found in sites.items()}

    @staticmethod
    def lot(seed, site):
        told = "\n".join([str(seed), site.file, site.function, site.kind, site.before, site.after])
        return hashlib.sha256(told.encode()).hexdigest(), site.start

    def next_of(self, file):
        return self.left[file].pop(0) if self.left[file] else None


class Code:
    """What a source is compiled to, optimised and without what is for debuggers."""

    def __init__(self, build):
        self.build = build

    def of(self, source, text, place):
        given = place / Path(source).name
        given.write_bytes(text)
        words = [*self.build.compiles[source][:1], *self.build.arguments(source), "-iquote", str(Path(source).parent),
                 "-O2", "-w", "-fPIC", "-fvisibility=hidden", "-fno-exceptions", "-fno-rtti", "-fno-threadsafe-statics",
                 "-nostdinc++", "-S", "-o", "-", str(given)]
        done = subprocess.run(words, capture_output=True)
        return hashlib.sha256(done.stdout).hexdigest() if done.returncode == 0 else None


class Run:
    def __init__(self, options):
        self.options = options
        self.build = Build(ROOT / "build/asan")
        self.watching = Build(ROOT / "build/tsan") if options.races else None
        self.files = sorted(str(path.relative_to(ROOT)) for glob in SOURCES for path in ROOT.glob(glob))
        self.texts = {file: (ROOT / file).read_bytes() for file in self.files}
        self.sites = {file: sites_of(ROOT, file, self.build.arguments(str(ROOT / file))) for file in self.files}
        self.reach = Reach(self.build, [str(ROOT / file) for file in self.files])
        self.equivalents = Equivalents()
        self.code = Code(self.build)
        self.lock = threading.Lock()
        self.results = {}  # by the site's key
        self.codes = collections.defaultdict(dict)
        with tempfile.TemporaryDirectory() as place:
            for file in self.files:
                self.codes[file][self.code.of(str(ROOT / file), self.texts[file], Path(place))] = ""

    def head(self):
        digests = {file: hashlib.sha256(text).hexdigest()[:16] for file, text in self.texts.items()}
        return {"seed": self.options.seed, "sources": digests}

    def resume(self):
        """Takes over what an earlier run has found for the same sources and seed."""
        kept = self.options.resume
        if kept and kept.exists():
            lines = [json.loads(line) for line in kept.read_text().splitlines()]
            if lines[0] != self.head():
                sys.exit(f"{kept}: of another seed, or of other sources")
            for line in lines[1:]:
                self.results[line["key"]] = line
                self.codes[line["file"]].setdefault(line["code"], line["key"])
        if kept:
            kept.parent.mkdir(parents=True, exist_ok=True)
            with kept.open("w") as out:
                for line in [self.head(), *self.results.values()]:
                    out.write(json.dumps(line) + "\n")

    def note(self, site, code, verdict, by="", took=0.0):
        result = {"key": site.key(), "file": site.file, "line": site.line, "kind": site.kind, "verdict": verdict,
                  "by": by, "seconds": round(took, 1), "code": code, "function": site.function, "before": site.before,
                  "after": site.after.strip()}
        with self.lock:
            self.results[site.key()] = result
            if self.options.resume:
                with self.options.resume.open("a") as out:
                    out.write(json.dumps(result) + "\n")
            if verdict not in UNCOUNTED:
                done = sum(1 for one in self.results.values() if one["verdict"] not in UNCOUNTED)
                print(f"{done} {site.file}:{site.line} {verdict}{' by ' + by if by else ''} ({took:.0f} s)", flush=True)
                if verdict == "survived":
                    print(f"  - {site.before}\n  + {site.after.strip()}", flush=True)

    def counted(self, site, text, place):
        """The code of a mutant that counts, or None; what does not is noted."""
        code = self.code.of(str(ROOT / site.file), text, place)
        with self.lock:
            same = self.codes[site.file].setdefault(code, site.key()) if code else None
        if code and same == site.key():
            return code
        self.note(site, code, "not compiled" if not code else "same code" if same == "" else "code of another")
        return None

    def slot(self, file):
        """One mutant of a source that counts."""
        with tempfile.TemporaryDirectory() as place:
            while True:
                with self.lock:
                    site = self.drawn.next_of(file)
                    known = self.results.get(site.key()) if site else None
                if not site:
                    return
                if known and known["verdict"] in UNCOUNTED:
                    continue
                if known and (known["verdict"] != "survived" or not self.options.again):
                    return
                text = site.apply(self.texts[file])
                code = known["code"] if known else self.counted(site, text, Path(place))
                if code:
                    self.judge(site, code, text, Path(place))
                    return

    def judge(self, site, code, text, place):
        begun = time.monotonic()
        reason = self.equivalents.of(site)
        if reason:
            self.note(site, code, "equivalent", reason)
            return
        verdict, by = self.tried(self.build, site, text, place / "asan")
        if verdict == "survived" and site.shared and self.watching:
            verdict, by = self.tried(self.watching, site, text, place / "tsan")
        self.note(site, code, verdict, by, time.monotonic() - begun)

    def tried(self, build, site, text, place):
        place.mkdir()
        changed = Changed(build, place)
        source = str(ROOT / site.file)
        if not changed.compile(source, text):
            return "killed", "the build"
        near, far = self.reach.programs(source, site)
        spent = 0.0
        for program in near + far:
            if program not in build.programs:
                continue
            if program in far:
                spent += self.reach.usual[program]
            if spent > self.options.seconds:
                break
            verdict, test = judge(changed, program, self.reach.usual[program])
            if verdict != "passed":
                return verdict, f"{program} {test}".strip()
        return "survived", ""

    def run(self):
        self.resume()
        self.drawn = Drawn(self.options.seed, self.sites)
        left = {file: len(found) for file, found in self.sites.items()}
        slots = []
        for turn in range(max(left.values())):
            slots += [file for file in self.files if left[file] > turn]
        with concurrent.futures.ThreadPoolExecutor(self.options.jobs) as pool:
            list(pool.map(self.slot, slots[: self.options.count]))
        return self.report()

    def report(self):
        by = collections.defaultdict(collections.Counter)
        for result in self.results.values():
            by[result["file"]][result["verdict"]] += 1
        print(f"\n{'':40} sites drawn uncounted killed  hung equivalent survived  score")
        total = collections.Counter()
        for file in self.files:
            self.row(file, len(self.sites[file]), by[file])
            total += by[file]
        score = self.row("all", sum(map(len, self.sites.values())), total)
        for result in self.results.values():
            if result["verdict"] == "survived":
                print(f"\n{result['file']}:{result['line']} {result['function']}\n- {result['before']}"
                      f"\n+ {result['after']}")
        for program in self.reach.failed:
            print(f"\n{program} fails or hangs without a change, and was left out")
        return score < WANTED

    @staticmethod
    def row(name, sites, of):
        drawn = sum(of.values())
        dead = of["killed"] + of["hung"]
        judged = dead + of["survived"]
        score = dead / judged if judged else 1.0
        uncounted = sum(of[verdict] for verdict in UNCOUNTED)
        print(f"{name:40} {sites:5} {drawn:5} {uncounted:9} {of['killed']:6} {of['hung']:5} {of['equivalent']:10} "
              f"{of['survived']:8} {score:6.1%}")
        return score


def main():
    parser = argparse.ArgumentParser(prog="./dev mutate")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=570, help="how many mutants, those that count")
    parser.add_argument("--resume", type=lambda name: Path(name).resolve(), help="file of results, gone on with if there")
    parser.add_argument("--again", action="store_true", help="runs what has survived once more")
    parser.add_argument("--seconds", type=float, default=1e9, help="of a source's own tests all, of others so many s at most")
    parser.add_argument("--races", action="store_true", help="what concerns several threads is also run in build/tsan")
    parser.add_argument("--jobs", type=int, default=2)
    return Run(parser.parse_args()).run()


if __name__ == "__main__":
    sys.exit(main())
