#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Soaks buses for so many minutes and makes a page of it: report.py MINUTES [--preset NAME] [--cycle S]
[--seed N].

A bus lives for a cycle of 60 s. Its ledger must be exact, its workers busy 65 to 75 % of the time, its
memory the same at the same points of each cycle, and a round trip take as long at the end as at first.
"""
import argparse
import html
import random
import statistics
import subprocess
import sys
from collections import namedtuple
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
WIDTH, HEIGHT, MARGIN = 900, 200, 60
ENOUGH = 9  # cycles, for a median of each third

Second = namedtuple("Second", "time what busy resident")
Cycle = namedtuple("Cycle", "number time up resting closed resident trip calibration requests tasks starved")


def emulator(folder):
    return [word for word in (folder / "tests/soak/emulator").read_text().split(";") if word]


def soak(arguments, folder, seed):
    """The status of the driver, and its lines."""
    command = [*emulator(folder), folder / "tests/soak/soak_driver", "--seed", str(seed), "--seconds",
               str(arguments.minutes * 60), "--cycle", str(arguments.cycle)]
    lines = []
    with subprocess.Popen(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace") as driver:
        for line in driver.stdout:
            lines.append(line.rstrip())
            if not line.startswith("second "):
                print(lines[-1], flush=True)
    return driver.returncode, lines


def read(lines):
    seconds = [Second(float(w[1]), w[2], float(w[3]), int(w[4])) for w in map(str.split, lines) if w[:1] == ["second"]]
    cycles = [Cycle(int(w[1]), float(w[2]), *map(int, w[3:])) for w in map(str.split, lines) if w[:1] == ["cycle"]]
    return seconds, cycles


def busy_of(cycle, before, seconds):
    begin = before.time if before else 0
    return statistics.mean(s.busy for s in seconds if begin <= s.time < cycle.time)


def drift(cycles):
    """How much longer a round trip takes in the last third than in the first, in parts of it."""
    third = max(1, len(cycles) // 3)
    ratios = [cycle.trip / cycle.calibration for cycle in cycles]
    return statistics.median(ratios[-third:]) / statistics.median(ratios[:third]) - 1


def judge(status, seconds, cycles, native):
    """What is asked, what was found, and whether that is right; the last is None where nothing is asked."""
    yield "the driver, whose ledger is exact, ends with status 0", f"{status}", status == 0
    if len(cycles) < 3:
        yield "there are three cycles at least", f"{len(cycles)}", False
        return
    shares = [busy_of(cycle, before, seconds) for cycle, before in zip(cycles, [None, *cycles])]
    inside = sum(0.65 <= s.busy <= 0.75 for s in seconds) / len(seconds)
    yield ("the workers are busy 65 to 75 % of each cycle", f"{100 * min(shares):.1f} to {100 * max(shares):.1f} %; "
           f"of the single seconds {100 * inside:.0f} % are", min(shares) >= 0.65 and max(shares) <= 0.75)
    for point in ("up", "closed"):
        blocks = {getattr(cycle, point) for cycle in cycles}
        yield (f"the library has the same number of blocks when a bus is {point}",
               ", ".join(map(str, sorted(blocks))), len(blocks) == 1)
    resident = [cycle.resident for cycle in cycles[1:]]
    span = max(resident) - min(resident)
    yield ("resident memory stays within 1 MiB from the second cycle on",
           f"{span} KiB" + ("" if native else ", the emulator's included"), span <= 1024 if native else None)
    slower = drift(cycles)
    yield ("a round trip, divided by the calibration, takes less than 10 % longer or shorter at the end",
           f"{100 * slower:+.1f} %" + ("" if len(cycles) >= ENOUGH else f", of less than {ENOUGH} cycles"),
           abs(slower) < 0.1 if len(cycles) >= ENOUGH else None)
    yield "allocations that failed", f"{sum(cycle.starved for cycle in cycles)}", all(c.starved for c in cycles)
    yield ("requests answered and tasks run, in all",
           f"{sum(cycle.requests for cycle in cycles)}, {sum(cycle.tasks for cycle in cycles)}", None)


def chart(title, unit, points, low=None, high=None, band=None):
    """An SVG of points over seconds."""
    values = [y for _, y in points] + list(band or ())
    low, high = min(values) if low is None else low, max(values) if high is None else high
    high = high if high > low else low + 1
    last = max(x for x, _ in points) or 1

    def place(x, y):
        return MARGIN + (WIDTH - 2 * MARGIN) * x / last, HEIGHT - 30 - (HEIGHT - 60) * (min(y, high) - low) / (high - low)

    parts = [f'<text x="{MARGIN}" y="16" font-weight="bold">{html.escape(title)}</text>']
    if band:
        (_, top), (_, bottom) = place(0, band[1]), place(0, band[0])
        parts.append(f'<rect x="{MARGIN}" y="{top:.1f}" width="{WIDTH - 2 * MARGIN}" height="{bottom - top:.1f}" '
                     'fill="#dfeedd"/>')
    for y in (low, (low + high) / 2, high):
        left, level = place(0, y)
        parts.append(f'<line x1="{left}" x2="{WIDTH - MARGIN}" y1="{level:.1f}" y2="{level:.1f}" stroke="#ccc"/>'
                     f'<text x="{left - 6}" y="{level + 4:.1f}" text-anchor="end">{y:.4g}</text>')
    for x in (0, last / 2, last):
        parts.append(f'<text x="{place(x, low)[0]:.1f}" y="{HEIGHT - 10}" text-anchor="middle">{x:.0f} s</text>')
    line = " ".join("{:.1f},{:.1f}".format(*place(x, y)) for x, y in points)
    parts.append(f'<polyline points="{line}" fill="none" stroke="#2a5d9f" stroke-width="1.2"/>')
    parts.append(f'<text x="{WIDTH - MARGIN}" y="16" text-anchor="end">{html.escape(unit)}</text>')
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" font-family="sans-serif" '
            f'font-size="12">{"".join(parts)}</svg>')


def page(title, verdicts, seconds, cycles):
    rows = "".join(f"<tr><td>{html.escape(asked)}</td><td>{html.escape(found)}</td><td>"
                   f"{'' if good is None else 'yes' if good else '<b>NO</b>'}</td></tr>"
                   for asked, found, good in verdicts)
    charts = []
    if seconds and cycles:
        charts = [
            chart("workers inside handlers and tasks", "% of their time",
                  [(s.time, 100 * s.busy) for s in seconds], 0, 100, (65, 75)),
            chart("resident memory", "KiB", [(s.time, s.resident) for s in seconds]),
            chart("a round trip on a resting bus, divided by the calibration", "times",
                  [(c.time, c.trip / c.calibration) for c in cycles], 0),
            chart("a round trip on a resting bus", "us", [(c.time, c.trip / 1000) for c in cycles], 0),
            chart("blocks of the library when a bus is up", "blocks", [(c.time, c.up) for c in cycles], 0),
            chart("requests in a cycle", "requests", [(c.time, c.requests) for c in cycles], 0),
        ]
    return (f'<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8"><title>{html.escape(title)}</title></head>'
            f'<body style="font-family: sans-serif"><h1>{html.escape(title)}</h1>\n<table border="1" cellpadding="4">'
            f'{rows}</table>\n<p>{"</p>".join("<p>" + each for each in charts)}</p>\n</body></html>\n')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", type=int)
    parser.add_argument("--preset", default="gcc")
    parser.add_argument("--cycle", type=int, default=60)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    arguments = parser.parse_args()
    folder = ROOT / "build" / arguments.preset
    print(f"--seed {arguments.seed}", flush=True)
    status, lines = soak(arguments, folder, arguments.seed)
    seconds, cycles = read(lines)
    verdicts = list(judge(status, seconds, cycles, not emulator(folder)))
    title = f"{arguments.minutes} minutes of buses, {arguments.preset}, seed {arguments.seed}"
    report = folder / "soak.html"
    report.write_text(page(title, verdicts, seconds, cycles))
    for asked, found, good in verdicts:
        print(f"{'' if good is None else 'yes: ' if good else 'NO: '}{asked}: {found}")
    print(f"{report.relative_to(ROOT)} has the plots")
    return any(good is False for _, _, good in verdicts)


if __name__ == "__main__":
    sys.exit(main())
