# SPDX-License-Identifier: Apache-2.0
"""Draws the rounds: a row for each scenario, a point for each library, on logarithmic axes."""
import math

from libraries import LIBRARIES, OWN

PATH = "docs/img/performance.svg"

LEFT, RIGHT, WIDTH = 190, 45, 900  # margins and width of the picture
ROW = 24
STYLE = ("text{font-family:Helvetica,Arial,sans-serif;font-size:12px;fill:#333}"
         ".title{font-size:15px;font-weight:bold}.sub{fill:#666}"
         ".end{text-anchor:end}.mid{text-anchor:middle}"
         ".odd{fill:#f1f4f7}.page{fill:#fff}.grid{stroke:#ccc}.fine{stroke:#e8e8e8}")


def point(x, y, library):
    """The mark of a library."""
    size = 6 if library.shape == "diamond" else 4.5
    at = {
        "circle": f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{size}"',
        "square": f'<rect x="{x - size + .5:.1f}" y="{y - size + .5:.1f}" width="{2 * size - 1}" '
                  f'height="{2 * size - 1}"',
        "triangle": f'<path d="M{x:.1f} {y - size:.1f}l{size} {2 * size - 1}h{-2 * size}z"',
        "diamond": f'<path d="M{x:.1f} {y - size:.1f}l{size} {size}l{-size} {size}l{-size} {-size}z"',
    }[library.shape]
    return f'{at} fill="{library.colour}" stroke="#fff"/>'


class Panel:
    """Rows below each other on one axis."""

    def __init__(self, top, cases, figure, heading, unit):
        self.top, self.cases, self.figure = top, cases, figure
        self.heading, self.unit = heading, unit
        values = [value for case in cases for name in case.runs
                  for value in case.values(name, figure) if value > 0]
        self.low = math.floor(math.log10(min(values)))
        self.high = max(math.ceil(math.log10(max(values))), self.low + 1)

    @property
    def height(self):
        return 44 + ROW * len(self.cases) + 38

    def x(self, value):
        """Where a value stands; what is not above 0 (a timer that came early) stands at the left."""
        place = math.log10(value) if value > 0 else self.low
        share = (max(place, self.low) - self.low) / (self.high - self.low)
        return LEFT + share * (WIDTH - LEFT - RIGHT)

    def axis(self, bottom):
        first = self.top + 44
        for power in range(self.low, self.high + 1):
            for digit in range(1, 10) if power < self.high else (1,):
                x = self.x(digit * 10 ** power)
                kind = "grid" if digit == 1 else "fine"
                yield (f'<line class="{kind}" x1="{x:.1f}" y1="{first}" x2="{x:.1f}" '
                       f'y2="{bottom}"/>')
            yield (f'<text class="mid" x="{self.x(10 ** power):.1f}" y="{bottom + 15}">'
                   f'{10 ** power:,}</text>')
        yield (f'<text class="mid sub" x="{(LEFT + WIDTH - RIGHT) / 2}" y="{bottom + 31}">'
               f'{self.unit}</text>')

    def row(self, case, y):
        yield f'<text class="end" x="{LEFT - 10}" y="{y + 4}">{case.scenario}, {case.workers}</text>'
        for name in sorted(case.runs, key=list(LIBRARIES).index, reverse=True):  # ours on top
            library = LIBRARIES[name]
            values = case.values(name, self.figure)
            yield (f'<line x1="{self.x(min(values)):.1f}" y1="{y}" x2="{self.x(max(values)):.1f}" '
                   f'y2="{y}" stroke="{library.colour}" stroke-width="1.5"/>')
            yield point(self.x(case.median(name, self.figure)), y, library)

    def draw(self):
        yield f'<text class="title" x="12" y="{self.top + 24}">{self.heading}</text>'
        bottom = self.top + 44 + ROW * len(self.cases)
        for i in range(0, len(self.cases), 2):
            yield (f'<rect class="odd" x="{LEFT}" y="{self.top + 44 + ROW * i}" '
                   f'width="{WIDTH - LEFT - RIGHT}" height="{ROW}"/>')
        yield from self.axis(bottom)
        for i, case in enumerate(self.cases):
            yield from self.row(case, self.top + 44 + ROW * i + ROW // 2)


def legend(names):
    """The lines above the panels, and where they end."""
    lines = ['<text class="sub" x="12" y="20">A row is a scenario and its number of threads. Points '
             'are medians, bars reach from the lowest round to the highest. The axes are '
             'logarithmic.</text>']
    x, y = 12, 44
    for name in names:
        library = LIBRARIES[name]
        width = 34 + 7.2 * len(library.title)
        if x + width > WIDTH - RIGHT:
            x, y = 12, y + 20
        lines.append(point(x + 6, y - 4, library))
        lines.append(f'<text x="{x + 17}" y="{y}">{library.title}</text>')
        x += width
    return lines, y + 14


def chosen(cases):
    """Of each scenario the case that most libraries have, but none that only this one has."""
    def rank(case):
        return len(case.runs), case.workers == 2

    rows = {}
    for case in cases:
        if OWN in case.runs and len(case.runs) > 1:
            other = rows.get(case.scenario)
            if not other or rank(case) > rank(other):
                rows[case.scenario] = case
    return list(rows.values())


def write(cases):
    """The picture of the cases, with an axis for the rates and one for the latencies."""
    cases = chosen(cases)
    if not cases:
        return
    names = [name for name in LIBRARIES if any(name in case.runs for case in cases)]
    parts, top = legend(names)
    for paced, figure, heading, unit in (
            (False, "rate", "Rates: further right is better", "operations per second"),
            (True, "p99_us", "Latencies: further left is better",
             "microseconds within which 99 % happen")):
        rows = [case for case in cases if case.paced == paced]
        if rows:
            panel = Panel(top, rows, figure, heading, unit)
            parts += panel.draw()
            top += panel.height
    with open(PATH, "w", encoding="utf-8") as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{top + 10}" '
                   f'viewBox="0 0 {WIDTH} {top + 10}">\n<style>{STYLE}</style>\n'
                   f'<rect class="page" width="{WIDTH}" height="{top + 10}"/>\n'
                   + "\n".join(parts) + "\n</svg>\n")
