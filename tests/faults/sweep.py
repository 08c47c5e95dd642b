#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Lets every call of the library that can fail do so, wherever it is made: sweep.py BUILD [short|count].

What can fail is listed in calls.txt. What there is to fail is read from the library's objects: every
call instruction whose relocation names such a function, and every place that takes its address. The
scenarios of faults_driver then say which of them they reach, and by which way: a site is a call with
up to four return addresses. Each site is failed alone and with all that follows, in a process of its
own, in each scenario that meets it; short: in the first one; count: likewise, for a build that counts
what is reached, and nothing is judged: SILENT has the ways of optimised code. Wrong are a sanitizer's
complaint, a leak, more than PATIENCE seconds, what the driver complains of, a line that is not one, a
call that failed without a result or a line that says so, and a scenario that does not work without a
fault afterwards in the same process.
"""
import collections
import concurrent.futures
import functools
import os
import re
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
CALLS = [line for line in (HERE / "calls.txt").read_text().splitlines() if not line.startswith("#")]
PATIENCE = 10  # s
ATTEMPTS = 5   # until a site is met that depends on the threads' order
FLOOR = 69     # places there are; fewer: the objects are not read as they should be
LINE = re.compile(r"\[\w+\]\[(err|wrn|inf)\]\[\w+\]\[\d+\]:.")

# What may fail without anybody being told: the call, a function on the way to it, and why.
SILENT = [
    ("calloc", "time_index_build", "a queue without its index is searched"),
    ("malloc", "time_index_build", "a queue without its index is searched"),
    ("malloc", "time_index_enter", "a queue without its index is searched"),
    ("calloc", "lane_use::lane_use", "a thread without a lane uses the one that is shared"),
    ("pthread_setspecific", "lane_use::lane_use", "a thread without a lane uses the one that is shared"),
    ("pthread_setspecific", "thread_record_set", "a thread without a record is taken for one of the application's"),
    ("pthread_key_create", "qor_thread_pool_init", "without records names are set more often"),
    ("calloc", "bus_helper_start", "without a helper, who waits for a start runs the init"),
    ("pthread_create", "bus_helper_start", "without a helper, who waits for a start runs the init"),
    ("pthread_create", "bus_crew_start", "a bus runs with the workers that it has"),
    ("pthread_create", "qor_impl_context_start", "a console that is missing shows in a report of the start only"),
    ("pthread_create", "qor_thread_pool_create_thread", "a pool runs with the threads that it has"),
    ("pthread_attr_setdetachstate", "qor_thread_pool_create_thread", "the state is a constant, which is never refused"),
    ("pthread_attr_setstacksize", "", "what is refused once is asked for again"),
    ("pthread_attr_setschedpolicy", "", "a refusal shows at the next step"),
    ("pthread_attr_init", "impl_console_stack_refused", "what is not known is not found"),
    ("pthread_getschedparam", "", "a priority that a running thread does not get is not reported"),
    ("pthread_setschedparam", "", "a priority that a running thread does not get is not reported"),
    ("pthread_condattr_init", "queue_admit", "a poster that cannot wait is refused, as the full queue's others are"),
    ("pthread_condattr_setclock", "queue_admit", "a poster that cannot wait is refused"),
    ("pthread_cond_init", "queue_admit", "a poster that cannot wait is refused"),
]

# What the library does not get over until it is mended: a call, and who makes it on which way. What
# follows depends on the order of the threads.
KNOWN = []


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def places_of(item):
    """What an object has: {(source or None, function, offset behind the call or None): callee}. The
    source is told where a function is private to it: others may have one of that name."""
    private = {line.split()[-1] for line in run("nm", item).splitlines() if line.split()[-2] == "t"}
    source = item.name.removesuffix(".o")
    found, function, start, code = {}, None, 0, ""
    for line in run("objdump", "-dr", "--no-show-raw-insn", item).splitlines():
        head = re.match(r"([0-9a-f]+) <(.+)>:$", line)
        if head:
            start, function = int(head[1], 16), head[2]
            continue
        relocation = re.match(r"\s+([0-9a-f]+): R_\w+\s+(\w+)", line)
        if not relocation:
            code = line
        elif relocation[2] in CALLS:
            called = re.search(r"\tcall\b", code)
            offset = int(relocation[1], 16) + 4 - start if called else None
            found[source if function in private else None, function, offset] = relocation[2]
    return found


def found_in(objects):
    sources = [item.name for item in objects]
    assert len(sources) == len(set(sources)), "two sources have one name"
    return {place: callee for item in objects for place, callee in places_of(item).items()}


class Library:
    """The linked library: which place an address behind a call is."""

    def __init__(self, path, private):
        self.functions, source = [], None
        for line in run("readelf", "-sW", path).partition(".symtab")[2].splitlines():
            field = line.split()
            if len(field) > 7 and field[3] == "FILE":
                source = field[7]
            elif len(field) > 7 and field[3] == "FUNC" and field[6] != "UND":
                begin = int(field[1], 16)
                # The linker makes hidden functions local ones, of no source.
                where = source if field[4] == "LOCAL" and (source, field[7]) in private else None
                self.functions.append((begin, begin + int(field[2], 0), where, field[7]))
        # Of a function's names the one that it has inside, as in the objects.
        self.functions.sort(key=lambda function: (*function[:2], not function[3].startswith("qor_")))

    def place(self, address):
        for begin, end, source, name in self.functions:
            if begin < address <= end:
                return source, name, address - begin
        sys.exit(f"{address:x}: in no function of the library")

    def names(self):
        return {(source, name) for _, _, source, name in self.functions}


def lines_of(text):
    return [line for line in text.splitlines() if line and not line.startswith(("@ ", "site "))]


def tags(lines):
    return {re.sub(r"\[\d+\]:.*", "", line) for line in lines}


class Run:
    """What a run of the driver has said."""

    def __init__(self, driver, scenario, *fault):
        environment = {**os.environ, "ASAN_OPTIONS": "exitcode=99", "UBSAN_OPTIONS": "print_stacktrace=1"}
        try:
            done = subprocess.run([driver, scenario, *fault], capture_output=True, text=True,
                                  timeout=PATIENCE, env=environment)
        except subprocess.TimeoutExpired:
            self.complaints, self.hits, self.sites, self.failed = [f"not over after {PATIENCE} s"], 1, set(), set()
            return
        told = {which: [int(number) for number in numbers] for which, *numbers in re.findall(
            r"^@ (\w+) refused (\d+) hits (\d+) live (-?\d+)$", done.stdout, re.M)}
        sites = re.findall(r"^site (\w+) (\S*) \d+ (\d+)$", done.stdout, re.M)
        self.sites = {(callee, chain) for callee, chain, _ in sites}
        self.failed = {(callee, chain) for callee, chain, failed in sites if failed != "0"}
        self.complaints = re.findall(r"^@ wrong: (.*)$", done.stdout, re.M)
        self.complaints += re.findall(r"^SUMMARY: .*$|runtime error: .*$", done.stderr, re.M)[:1]
        if (done.returncode != 0 or len(told) != 2) and not self.complaints:
            self.complaints.append(f"status {done.returncode}: {done.stderr.strip()[-300:]}")
        if len(told) != 2:
            self.hits = 1
            return
        faulty, _, clean = done.stdout.partition("@ faulty ")
        self.refused, self.hits, self.live = told["faulty"]
        self.live_after = told["clean"][2]
        self.lines, self.lines_after = lines_of(faulty), lines_of(clean.partition("\n")[2])
        self.complaints += [f"prints {line!r}" for line in self.lines + self.lines_after if not LINE.match(line)]

    def judge(self, sound, callee, functions):
        """What is wrong, given what a run without faults says."""
        if self.complaints:
            return self.complaints
        if self.live > sound.live or self.live_after > sound.live_after:
            return [f"keeps {self.live}, then {self.live_after} blocks or locks; without a fault "
                    f"{sound.live}, then {sound.live_after}"]
        if tags(self.lines_after) - tags(sound.lines + sound.lines_after):
            return ["afterwards, without a fault, prints " + repr(self.lines_after)]
        told = self.refused > 0 or tags(self.lines) - tags(sound.lines)
        if not told and not any(callee == call and (not on_way or on_way in functions) for call, on_way, _ in SILENT):
            return ["silent: no result and no line says that a call has failed"]
        return []


def way(library, site):
    """The functions of a site, innermost first."""
    return [named(library.place(int(address, 16))[1]) for address in site[1].split(",")]


def try_site(driver, library, sound, scenario, how, site):
    """(whether the site was met, complaints, all sites that were met then, those that failed)"""
    for _ in range(ATTEMPTS):
        done = Run(driver, scenario, how, site[1])
        if done.hits > 0:
            return True, done.judge(sound[scenario], site[0], way(library, site)), done.sites, done.failed | {site}
    return False, [], set(), set()


def sweep(build, short):
    driver = build / "tests/faults/faults_driver"
    found = found_in(sorted((build / "src/CMakeFiles/qor_objects.dir").rglob("*.o")))
    library = Library(build / "tests/faults/libqor_bus_sites.so", {place[:2] for place in found})
    scenarios = run(driver).split()
    sound, met, complaints, known = {}, collections.defaultdict(list), [], []
    for scenario in scenarios:
        for _ in range(3):
            sound[scenario] = Run(driver, scenario)
            complaints += [f"{scenario}, without a fault: {text}" for text in sound[scenario].complaints]
            for site in sorted(sound[scenario].sites):
                if scenario not in met[site]:
                    met[site].append(scenario)
    if complaints:
        sys.exit("\n".join(complaints))
    tries = [(scenario, how, site) for site in met for scenario in (met[site][:1] if short else met[site])
             for how in ("alone", "onward")]
    failed, behind = {"alone": set(), "onward": set()}, set()
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        done = pool.map(lambda one: try_site(driver, library, sound, *one), tries)
        for (scenario, how, site), (hit, wrong, sites, hits) in zip(tries, done):
            behind |= sites - met.keys()
            if hit:
                failed[how].add(site)
            is_known = any((one[0], *way(library, one)) in KNOWN for one in hits)
            for text in wrong:
                (known if is_known else complaints).append(
                    f"faults_driver {scenario} {how} {site[1]}\n"
                    f"    {' < '.join([site[0], *way(library, site)])}\n    {text}")
    return found, library, met, failed, behind, len(tries), known, complaints


@functools.lru_cache(None)
def named(symbol):
    return run("c++filt", symbol).strip().replace("(anonymous namespace)::", "").partition("(")[0]


def places(found, library, sites):
    """The places that sites belong to; a call by pointer counts for the place that took the address."""
    result = set()
    for callee, chain in sites:
        place = library.place(int(chain.split(",")[0], 16))
        result |= {place} & found.keys() or {other for other in found if other[2] is None and found[other] == callee}
    return result


def main(build, how):
    found, library, met, failed, behind, runs, known, complaints = sweep(build, how in (["short"], ["count"]))
    if how == ["count"]:
        print(f"{runs} faults")
        return 0
    reached = places(found, library, met.keys() | behind)
    alone, onward = (places(found, library, failed[how]) for how in ("alone", "onward"))
    print(f"{'':30}{'found':>8}{'reached':>9}{'alone':>8}{'onward':>8}{'sites':>8}{'alone':>8}{'onward':>8}")
    for callee in [*CALLS, "all"]:
        def of(group):
            return sum(callee in ("all", found[place]) for place in group)

        def sites_of(group):
            return sum(callee in ("all", site[0]) for site in group)
        print(f"{callee:30}{of(found):8}{of(reached):9}{of(alone):8}{of(onward):8}"
              f"{sites_of(met):8}{sites_of(failed['alone']):8}{sites_of(failed['onward']):8}")
    print(f"{len(behind)} more sites are met only behind another fault")
    for place in sorted(found.keys() - reached, key=str):
        gone = "" if place[:2] in library.names() else ", which is not linked"
        print(f"not reached: {found[place]} in {named(place[1])}{gone}")
    for place in sorted(reached - alone, key=str):
        print(f"reached behind another fault only: {found[place]} in {named(place[1])}")
    for site in sorted(site for how in failed for site in met.keys() - failed[how]):
        print(f"not met again: {site[0]} {site[1]}")
    for text in known:
        print(f"known: {text}")
    for text in complaints:
        print(text)
    print(f"{runs} faults in {len({name for names in met.values() for name in names})} scenarios: {len(complaints)} "
          f"complaints and {len(known)} known; {len(reached)} of {len(found)} places reached")
    return len(complaints) > 0 or len(found) < FLOOR or reached != found.keys()


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve(), sys.argv[2:]))
