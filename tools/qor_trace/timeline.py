# SPDX-License-Identifier: Apache-2.0
"""Draws a timeline as SVG: a row per module, what it was inside, and what was sent to whom."""
from collections import Counter
from datetime import datetime, timedelta, timezone
from xml.sax.saxutils import escape

from . import events
from .picture import duration
from .spans import Span

WIDTH, LEFT, RIGHT, ROW, BAR = 1280, 190, 30, 38, 20
ARROWS_MAX = 300  # more hide each other
# From three bars of less than two pixels on, a column of five pixels shows their share of the time.
NARROW, COLUMN, CROWD = 2, 5, 3
LETTER = 6.6  # about the width of one, of 12 pixels
STYLE = """
text { font: 12px "DejaVu Sans", Verdana, sans-serif; fill: #222 }
.title { font-size: 18px; font-weight: bold }
.sub { fill: #666 } .small { font-size: 10px; fill: #666 } .in { font-size: 10px; fill: #fff }
.name { font-weight: bold } .end { text-anchor: end } .mid { text-anchor: middle }
.page { fill: #fff } .odd { fill: #f5f7fa } .grid { stroke: #d5dae0 } .axis { stroke: #555 }
.sent { stroke: #1d3f66; fill: none } .back { stroke: #2f7d46; stroke-dasharray: 4 2; fill: none }
.queue { fill: #e8a200 } .gone { fill: #c3162b }
"""
# Group of kinds: colour and what the legend says.
GROUPS = {
    "request": ("#3b72b0", "handles a request"),
    "response": ("#4c9a62", "handles a response"),
    "task": ("#7a5ea8", "task or timer"),
    "call": ("#2a9aa8", "called synchronously"),
    "listen": ("#b0698f", "listener"),
    "filter": ("#a4713c", "filter"),
    "init": ("#7d7d7d", "init, system call"),
    "wait": ("url(#blocked)", "blocked until another module is ready"),
}
UNITS = (("s", "seconds", 10 ** 9), ("ms", "milliseconds", 10 ** 6),
         ("\u00b5s", "microseconds", 1000), ("ns", "nanoseconds", 1))
DEFINITIONS = """<defs>
<pattern id="blocked" width="6" height="6" patternUnits="userSpaceOnUse"
 patternTransform="rotate(45)">
<rect width="6" height="6" fill="#fbe3e3"/><rect width="2.5" height="6" fill="#d06060"/></pattern>
<pattern id="partly" width="8" height="8" patternUnits="userSpaceOnUse"
 patternTransform="rotate(45)">
<rect width="3" height="8" fill="#999" opacity="0.35"/></pattern>
<marker id="to" viewBox="0 0 8 8" refX="8" refY="4" markerWidth="7" markerHeight="7" orient="auto">
<path d="M0,0 L8,4 L0,8 z" fill="#1d3f66"/></marker>
<marker id="fro" viewBox="0 0 8 8" refX="8" refY="4" markerWidth="7" markerHeight="7" orient="auto">
<path d="M0,0 L8,4 L0,8 z" fill="#2f7d46"/></marker>
</defs>"""


def group(kind):
    if kind == events.WAITING:
        return "wait"
    word = events.kind(kind).split()[0]
    return word if word in GROUPS else "init"


def step_of(span, divisions=10):
    """The round number of nanoseconds, 1, 2 or 5 with zeros, that cuts a span into divisions."""
    power = 1
    while power * divisions < span:
        power *= 10
    fits = (power * n // 10 for n in (1, 2, 5, 10) if power * n >= 10)
    return next((s for s in fits if s * divisions >= span), power)


class Drawing:
    """A picture as SVG."""

    def __init__(self, picture):
        self.picture = picture
        self.recording = recording = picture.recording
        self.begin = max(picture.since, min(recording.first, recording.begin))
        kept = [lane.events[0].time for lane in recording.lanes if lane.lost and lane.events]
        if picture.whole and kept:
            self.begin = min(kept)  # what other lanes have from before is little
        self.end = max(self.begin + 1, min(picture.until, recording.end))
        self.spans = [s for s in picture.spans() if s.until >= self.begin and s.since <= self.end]
        self.messages = [m for m in picture.messages if m.start]
        self.rows = picture.rows(self.spans)
        if any(not m.cause for m in self.messages) and (0, 0) not in self.rows:
            self.rows.insert(0, (0, 0))
        self.rows.sort(key=lambda row: (recording.is_system(row[0]), row))
        self.range_ns = max(1, recording.ns(self.end - self.begin))
        self.top = 0
        self.place = {}

    def x(self, time):
        share = (min(max(time, self.begin), self.end) - self.begin) / (self.end - self.begin)
        return LEFT + share * (WIDTH - LEFT - RIGHT)

    def y(self, row):
        """The middle of a row's bars."""
        return self.top + ROW * self.place[row] + 4 + BAR / 2

    # Above the rows

    def title(self):
        head = self.recording.head
        real = datetime(1970, 1, 1, tzinfo=timezone.utc) + timedelta(microseconds=head.real // 1000)
        name = head.program or "a program"
        kept = sum(lane.kept for lane in self.recording.lanes)
        lost = sum(lane.lost for lane in self.recording.lanes)
        yield (f'<text class="title" x="16" y="28">{escape(name)}: what its modules did, and when'
               '</text>')
        shown = duration(self.range_ns)
        yield (f'<text class="sub" x="16" y="48">process {head.pid}, recorded from '
               f'{real:%Y-%m-%d %H:%M:%S} UTC on; {shown} shown; {kept:,} events, '
               f'{lost:,} more lost. A row is a module; (2), (3): the same module on another '
               'thread at that time.</text>')

    def legend(self, present):
        """What the picture has, each with its sign; sets where the rows begin."""
        entries = [(f'<rect x="{{x}}" y="{{y}}" width="22" height="12" rx="2" fill="{colour}"/>',
                    text) for name, (colour, text) in GROUPS.items() if name in present]
        signs = {
            "queue": ('<rect class="queue" x="{x}" y="{m}" width="22" height="4"/>',
                      "a request waits in the module's queue"),
            "sent": ('<path class="sent" marker-end="url(#to)" d="M{x},{m} h22"/>',
                     "request: sent, then handled"),
            "back": ('<path class="back" marker-end="url(#fro)" d="M{x},{m} h22"/>',
                     "its response"),
            "gone": ('<path class="gone" d="M{x},{y} m6,2 h8 l-4,8 z"/>',
                     "message dropped or lost"),
            "partly": ('<rect x="{x}" y="{y}" width="22" height="12" fill="url(#partly)"/>',
                       "older events were overwritten: not complete"),
        }
        entries += [entry for name, entry in signs.items() if name in present]
        x, y = 16, 64
        for sign, text in entries:
            wide = 30 + LETTER * len(text) + 26
            if x + wide > WIDTH - 8 and x > 16:
                x, y = 16, y + 20
            yield sign.format(x=x, y=y, m=y + 6)
            yield f'<text x="{x + 30}" y="{y + 11}">{escape(text)}</text>'
            x += wide
        self.top = y + 70

    def axis(self):
        """Lines of the grid, numbers above and below, and what they are."""
        step = step_of(self.range_ns)
        unit, words, scale = next(u for u in UNITS if step >= u[2] or u[2] == 1)
        begin = self.recording.since_begin(self.begin)
        base = 0 if abs(begin) < 100_000 * scale else begin - begin % (step * 100)
        bottom = self.top + ROW * len(self.rows)
        first = -(-(begin - base) // step) * step
        for tick in range(first, begin - base + self.range_ns + 1, step):
            x = self.x(self.begin + (tick + base - begin) * self.recording.head.hz / 10 ** 9)
            text = f"{tick // scale:,}" if scale > 1 or step >= 1 else tick
            yield f'<line class="grid" x1="{x:.1f}" y1="{self.top}" x2="{x:.1f}" y2="{bottom}"/>'
            for at, y in ((self.top - 5, self.top), (bottom + 17, bottom + 4)):
                yield f'<line class="axis" x1="{x:.1f}" y1="{y - 4}" x2="{x:.1f}" y2="{y}"/>'
                yield f'<text class="mid" x="{x:.1f}" y="{at - (2 if at < y else 0)}">{text}</text>'
        zero = f", 0 is {base / 10 ** 9:,.9g} s after" if base else " since"
        title = (f"{words}{zero} the recording began; one division is {step // scale:,} {unit}")
        for y in (self.top - 26, bottom + 36):
            yield f'<text class="mid sub" x="{(LEFT + WIDTH - RIGHT) / 2}" y="{y}">{title}</text>'
        for y in (self.top, bottom):
            yield f'<line class="axis" x1="{LEFT}" y1="{y}" x2="{WIDTH - RIGHT}" y2="{y}"/>'

    # The rows

    def labels(self):
        begin = max(self.begin, self.picture.complete)
        begin = begin if begin < self.end else self.begin
        busy, _ = self.picture.busy(begin, self.end)
        runs = Counter(s.owner for s in self.spans if s.kind != events.WAITING)
        for i, (owner, beside) in enumerate(self.rows):
            y = self.top + ROW * i
            if i % 2 == 0:
                yield (f'<rect class="odd" x="8" y="{y}" width="{WIDTH - 8 - RIGHT}" '
                       f'height="{ROW}"/>')
            name = self.recording.who(owner) + (f" ({beside + 1})" if beside else "")
            yield f'<text class="name end" x="{LEFT - 10}" y="{y + 16}">{escape(name)}</text>'
            if not beside:
                share = 100 * busy[owner] / (self.end - begin)
                many = "1 run" if runs[owner] == 1 else f"{runs[owner]:,} runs"
                busy_for = f"{share:.1f}" if share >= 0.1 or not share else "less than 0.1"
                said = f"{many}, {busy_for} % busy" if runs[owner] else "no runs"
                yield f'<text class="small end" x="{LEFT - 10}" y="{y + 30}">{said}</text>'

    def level(self, span):
        """In how many of its own row's spans it lies."""
        level, above = 0, span.outer
        while above and level < 4:
            level += above.row == span.row
            above = above.outer
        return level

    def bars(self):
        crowds = Counter()
        placed = []
        for span in sorted(self.spans, key=lambda s: s.since):
            left, right = self.x(span.since), self.x(span.until)
            column = (span.row, int(left / COLUMN)) if right - left < NARROW else None
            crowds[column] += 1
            placed.append((self.level(span), column, left, right, span))
        share = Counter()
        for level, column, left, right, span in sorted(placed, key=lambda p: p[0]):
            if column and crowds[column] >= CROWD:
                share[(*column, group(span.kind))] += (right - left) / COLUMN
            else:
                yield self.bar(level, left, max(right, left + 1), span)
        yield from self.columns(share)

    def columns(self, share):
        """Stacks of what took which share of the time in a column of pixels."""
        heights = Counter()
        for (row, column, name), covered in sorted(share.items()):
            height = max(1, min(1, covered) * BAR)
            bottom = self.y(row) + BAR / 2 - heights[row, column]
            height = min(height, BAR - heights[row, column])
            heights[row, column] += height
            yield (f'<rect class="column" x="{column * COLUMN}" y="{bottom - height:.1f}" '
                   f'width="{COLUMN}" height="{height:.1f}" fill="{GROUPS[name][0]}"/>')

    def bar(self, level, left, right, span):
        y = self.y(span.row) - BAR / 2 + 3 * level
        label = self.picture.label(span)
        title = (f"{self.recording.who(span.owner)}: {label}, "
                 f"{duration(self.recording.ns(span.until - span.since))}"
                 f"{'' if span.end is not None else ', not ended'}, on {span.lane.label}")
        drawn = (f'<rect x="{left:.2f}" y="{y:g}" width="{right - left:.2f}" '
                 f'height="{BAR - 4 * level}" rx="{2 if right - left > 6 else 0}" '
                 f'fill="{GROUPS[group(span.kind)][0]}"><title>{escape(title)}</title></rect>')
        room = int((right - left - 8) / 6)
        if room >= 5 and level == 0 and span.kind != events.WAITING:
            short = label if len(label) <= room else label[:room - 1] + "\u2026"
            drawn += f'\n<text class="in" x="{left + 4:.1f}" y="{y + 14:g}">{escape(short)}</text>'
        return drawn

    def queues(self):
        """Requests that wait, below the bars of who handles them."""
        last = {}  # row: where its last bar ends
        for message in sorted(self.messages, key=lambda m: m.time):
            row = message.start.row
            left, right = self.x(message.time), self.x(message.start.begin)
            if row in self.place and right >= last.get(row, 0) + 1:
                last[row] = right
                yield (f'<rect class="queue" x="{left:.1f}" width="{max(0.5, right - left):.1f}" '
                       f'y="{self.y(row) + BAR / 2 + 3:g}" height="4"/>')

    def arrows(self):
        """(class, from row, from time, to row, to time)"""
        for message in self.messages:
            inside = isinstance(message.cause, Span)
            source = message.cause.row if inside else (message.publisher, 0)
            source = source if source in self.place else (0, 0)
            ends = [(source, message.time, message.start, message.start.begin, "sent")]
            if message.response:
                ends.append((message.start.row, message.start.until, message.response,
                             message.response.begin, "back"))
            for row, time, target, begin, name in ends:
                if row in self.place and target.row in self.place and time >= self.begin:
                    yield name, row, time, target.row, begin

    def arrow(self, name, source, time, target, begin):
        down = self.y(target) - self.y(source)
        # From edge to edge of the bars, or along the middle within a row.
        edge = 0 if down == 0 else (BAR / 2 if down > 0 else -BAR / 2)
        marker = "to" if name == "sent" else "fro"
        return (f'<path class="{name}" marker-end="url(#{marker})" d="M{self.x(time):.1f},'
                f'{self.y(source) + edge:g} L{self.x(begin):.1f},{self.y(target) - edge:g}"/>')

    def losses(self):
        drawn = {}
        for event, message in self.picture.losses:
            owner = message.to if message else event.who
            row = (owner, 0) if (owner, 0) in self.place else (event.who, 0)
            x = self.x(event.time)
            if row in self.place and self.begin <= event.time <= self.end and abs(
                    x - drawn.get(row, -WIDTH)) > 6:
                drawn[row] = x
                yield (f'<path class="gone" d="M{x - 4:.1f},{self.y(row) - BAR / 2 - 4:g} '
                       'h8 l-4,8 z"/>')

    def gap(self):
        """Where a lane has lost events."""
        if self.recording.lossy and self.recording.complete > self.begin:
            wide = self.x(self.recording.complete) - LEFT
            yield (f'<rect x="{LEFT}" y="{self.top}" width="{wide:.1f}" '
                   f'height="{ROW * len(self.rows)}" fill="url(#partly)"/>')

    def draw(self):
        self.place = {row: i for i, row in enumerate(self.rows)}
        arrows = list(self.arrows())
        bars, queues, losses = list(self.bars()), list(self.queues()), list(self.losses())
        gap = list(self.gap())
        present = {group(s.kind) for s in self.spans}
        present |= {name for name, found in (("queue", queues), ("gone", losses), ("partly", gap))
                    if found}
        if len(arrows) <= ARROWS_MAX:
            present |= {arrow[0] for arrow in arrows}
        yield from self.title()
        yield from self.legend(present)
        hints = []
        if len(arrows) > ARROWS_MAX:
            hints.append(f"{len(arrows):,} requests and responses are too many to be drawn as "
                         "arrows; --from and --to show a part.")
            arrows = []
        if any('class="column"' in bar for bar in bars):
            hints.append("Bars that are less high stand for many short ones: their share of time.")
        if hints:
            yield f'<text class="sub" x="16" y="{self.top - 39}">{" ".join(hints)}</text>'
            self.top += 14
        yield from self.labels()
        yield from self.gap()
        yield from self.axis()
        yield from self.bars()
        yield from self.queues()
        yield from (self.arrow(*arrow) for arrow in arrows)
        yield from self.losses()


def text(picture):
    drawing = Drawing(picture)
    body = list(drawing.draw())
    height = drawing.top + ROW * len(drawing.rows) + 52
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
           f'viewBox="0 0 {WIDTH} {height}">\n<style>{STYLE}</style>\n{DEFINITIONS}\n'
           f'<rect class="page" width="{WIDTH}" height="{height}"/>\n')
    yield "\n".join(body)
    yield "\n</svg>\n"
