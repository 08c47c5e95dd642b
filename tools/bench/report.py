# SPDX-License-Identifier: Apache-2.0
"""Prints what the rounds gave, and writes it into the page."""
import os
import platform
import subprocess

import chart
from libraries import LIBRARIES, OWN, title

PAGE = "docs/performance.md"
BEGIN = "<!-- begin: written by ./dev bench --peers -->"
END = "<!-- end: written by ./dev bench --peers -->"


def number(value):
    """Three digits that count, with commas, or a dash."""
    if value is None:
        return "-"
    if abs(value) < 1000:
        return f"{value:.3g}"
    drop = 10 ** (len(str(int(abs(value)))) - 3)
    return f"{round(value / drop) * drop:,}"


def ratio(value):
    if value is None:
        return "-"
    return f"{value:.2f}" if 0.1 <= abs(value) < 100 else number(value)


def aligned(head, rows):
    """A table as text."""
    widths = [max(len(row[i]) for row in [head] + rows) for i in range(len(head))]
    for row in [head] + rows:
        yield "  ".join([row[0].ljust(widths[0])] +
                        [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])])


def print_own(cases):
    """One round of this tree's library."""
    head = ["scenario", "workers", "per second", "CPU ns/op", "p50 us", "p99 us", "switches"]
    rows = []
    for case in cases:
        figures = ["p50_us", "p99_us", "switches"]
        pace = [None, None] if case.paced else [case.median(OWN, "rate"),
                                                case.median(OWN, "cpu_ns_per_op")]
        rows.append([case.scenario, str(case.workers),
                     *map(number, pace + [case.median(OWN, figure) for figure in figures])])
    print("\n".join(aligned(head, rows)))


def print_base(cases):
    """Ratios of this tree to another commit: below 1 is less than there was."""
    head = ["scenario", "workers", "base/s", "now/s", "ratio", "CPU/op", "p50: base", "now", "ratio",
            "p99: base", "now", "ratio"]
    rows = []
    for case in cases:
        def both(figure, shown=True):
            return [number(case.median(name, figure) if shown else None) for name in ("base", "now")]

        def over(figure, shown=True):
            return ratio(case.ratio("now", "base", figure) if shown else None)

        rate = not case.paced
        rows.append([case.scenario, str(case.workers), *both("rate", rate), over("rate", rate),
                     over("cpu_ns_per_op", rate), *both("p50_us"), over("p50_us"),
                     *both("p99_us"), over("p99_us")])
    print("\n".join(aligned(head, rows)))


def machine():
    """What the figures were taken on, in a line."""
    model = "an unknown processor"
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        for line in lines:
            if line.startswith("model name"):
                model = line.partition(":")[2].strip()
                break
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True,
                              check=True).stdout.strip()
    return (f"{len(os.sched_getaffinity(0))} x {model}, Linux {platform.release().split('-')[0]}, "
            f"g++ {compiler}")


def versions(names):
    """The libraries by name, with the versions of their packages."""
    for name in names:
        package = LIBRARIES[name].package
        if package:
            found = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package],
                                   capture_output=True, text=True, check=False).stdout
            yield f"{title(name)} {found.partition('-')[0] or '(unknown version)'}"


def markdown(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|---|" + "---:|" * (len(head) - 1)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def spread(case, name, figure):
    values = case.values(name, figure)
    return f"{number(min(values))} to {number(max(values))}"


def by_library(cases, row):
    """The rows of a table: a case's own library first; its name stands in the first of them only."""
    for case in cases:
        label = f"{case.scenario}, {case.workers}"
        for name in sorted(case.runs, key=list(LIBRARIES).index):
            yield [label, title(name), *row(case, name)]
            label = ""


def rates(cases):
    head = ["scenario, threads", "library", "per second", "lowest to highest", "of ours",
            "CPU ns per operation", "of ours"]

    def row(case, name):
        return [number(case.median(name, "rate")), spread(case, name, "rate"),
                ratio(case.ratio(name, OWN, "rate")), number(case.median(name, "cpu_ns_per_op")),
                ratio(case.ratio(name, OWN, "cpu_ns_per_op"))]

    return markdown(head, by_library(cases, row))


def latencies(cases):
    head = ["scenario, threads", "library", "half within, us", "lowest to highest",
            "99 % within, us", "lowest to highest", "99 %, of ours"]

    def row(case, name):
        return [number(case.median(name, "p50_us")), spread(case, name, "p50_us"),
                number(case.median(name, "p99_us")), spread(case, name, "p99_us"),
                ratio(case.ratio(name, OWN, "p99_us"))]

    return markdown(head, by_library(cases, row))


def text(cases, rounds):
    names = sorted({name for case in cases for name in case.runs}, key=list(LIBRARIES).index)
    return "\n\n".join([
        f"{machine()}; {', '.join(versions(names))}. Medians of rounds in which the libraries took "
        f"turns, {rounds} in all; \"of ours\" is a figure over that of qor_bus in the same case.",
        "![rates and latencies of the scenarios by library](img/performance.svg)",
        "### Operations per second", rates([case for case in cases if not case.paced]),
        "### Latencies", latencies([case for case in cases if case.paced])])


def write_peers(cases, rounds):
    """Replaces what stands between the marks of the page; what is around them stays."""
    cases = [case for case in cases if case.runs]
    before, _, rest = open(PAGE, encoding="utf-8").read().partition(BEGIN)
    _, mark, after = rest.partition(END)
    if not mark:
        raise SystemExit(f"{PAGE} has not both of its marks:\n{BEGIN}\n{END}")
    with open(PAGE, "w", encoding="utf-8") as page:
        page.write(f"{before}{BEGIN}\n\n{text(cases, rounds)}\n\n{END}{after}")
    chart.write(cases)
    print(f"written: {PAGE}, {chart.PATH}")
