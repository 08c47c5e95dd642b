# SPDX-License-Identifier: Apache-2.0
"""The summary as text: findings first, then counts and times."""
from collections import Counter, defaultdict
from datetime import datetime, timedelta, timezone

from . import events
from .picture import duration
from .spans import Span, inside_at_end

STATES = {1: "still recording, or ended without being stopped", 2: "ended in order"}


def table(head, rows):
    """Lines of aligned columns; texts to the left, the rest to the right."""
    rows = [[str(cell) for cell in row] for row in rows]
    left = [name.startswith("<") for name in head]
    head = [name.lstrip("<") for name in head]
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, *rows]:
        yield "  " + "  ".join(cell.ljust(width) if to_left else cell.rjust(width)
                               for cell, width, to_left in zip(row, widths, left)).rstrip()


def section(title, lines):
    lines = list(lines)
    return ["", title, *lines] if lines else []


def quantiles(ns):
    """p50, p99 and the largest, by nearest rank."""
    if not ns:
        return ["-"] * 3
    ns = sorted(ns)
    rank = [-(-len(ns) * percent // 100) - 1 for percent in (50, 99, 100)]
    return [duration(ns[i]) for i in rank]


def overlaps(spans):
    """The most of them at a time, with the moment from which on it was so, and who was inside."""
    steps = sorted([(s.since, 1, i) for i, s in enumerate(spans)]
                   + [(s.until, 0, i) for i, s in enumerate(spans) if s.until > s.since])
    inside, most = set(), (0, 0, [])
    for time, begins, i in steps:
        if not begins:
            inside.discard(i)
        elif spans[i].until > time:
            inside.add(i)
            if len(inside) > most[0]:
                most = len(inside), time, [spans[k] for k in sorted(inside)]
    return most


def turns(span):
    """Whether it takes one of the places that a strict module's limit counts."""
    if span.kind not in events.KINDS_OF_TURN:
        return False
    above = span.outer
    while above:
        if above.who == span.who and above.kind in events.KINDS_OF_TURN:
            return False  # it is part of that one
        above = above.outer
    return True


def findings(picture):
    """Strict modules that were in more places at a time than they are promised."""
    recording = picture.recording
    spans = defaultdict(list)
    for walk in picture.walks:
        for span in walk.spans:
            if 0 < span.who < len(recording.contexts) and recording.contexts[span.who].strict:
                if turns(span):
                    spans[span.who].append(span)
    for who in sorted(spans):
        limit = recording.contexts[who].limit
        most, time, inside = overlaps(spans[who])
        if most > limit:
            beside = ", ".join(f"{picture.label(s)} on {s.lane.label}" for s in inside)
            yield (f"finding: {recording.who(who)} is strict with a limit of {limit}, but {most} "
                   f"ran at a time at {at(recording, time)}: {beside}")


def at(recording, time):
    return f"{recording.since_begin(time) / 1e9:.6f} s"


def head_lines(picture):
    recording = picture.recording
    head = recording.head
    # Past the year 9999 there is no date; no 64 bits of nanoseconds reach it.
    real = datetime(1970, 1, 1, tzinfo=timezone.utc) + timedelta(microseconds=head.real // 1000)
    written, kept = (sum(getattr(lane, f) for lane in recording.lanes) for f in ("written", "kept"))
    yield (f"{head.program or 'a program'}, pid {head.pid}, {real:%Y-%m-%d %H:%M:%S} UTC; "
           f"{duration(recording.ns(recording.end - recording.begin))}, "
           f"{STATES.get(head.state, f'state {head.state}')}")
    yield f"events: {written} written, {kept} kept, {written - kept} lost"
    if recording.lossy:
        yield (f"complete from {at(recording, recording.complete)} on: what was before is not "
               "counted")
    if head.names_lost:
        yield f"{head.names_lost} contexts have no name: there was no room"
    if head.without_lane:
        yield f"{head.without_lane} threads share a lane: there were no more"
    if picture.strange and not recording.lossy:
        yield f"{picture.strange} requests were handled that are not in the recording"


def pending(message):
    """Neither handled to its end nor lost."""
    if message.unmatched or message.dropped is not None or message.lost is not None:
        return False
    handled = message.start and message.start.end is not None
    return not handled or (message.deferred is not None and message.completed is None)


def answer_begins(message):
    """When nothing more was to be done than to respond."""
    return max(t for t in (message.start.end, message.completed) if t is not None)


class Row:
    """A topic and who handled it."""

    def __init__(self):
        self.count = self.pending = self.unmatched = 0
        self.waiting, self.handling, self.open, self.responding = [], [], [], []

    def add(self, recording, message):
        self.count += 1
        self.pending += pending(message)
        self.unmatched += message.unmatched
        start = message.start
        if not start:
            return
        self.waiting.append(recording.ns(max(0, start.begin - message.time)))
        if start.end is None:
            return
        self.handling.append(recording.ns(start.ticks))
        if message.completed is not None:
            self.open.append(recording.ns(max(0, message.completed - message.deferred)))
        if message.response:
            taken = message.response.begin - answer_begins(message)
            self.responding.append(recording.ns(max(0, taken)))


def requests(picture):
    """Rows of requests and of calls, by topic and module."""
    recording = picture.recording
    found = defaultdict(Row)
    for message in picture.messages:
        who = message.start.who if message.start else message.to
        found[message.system, message.topic, who, "request"].add(recording, message)
    for span in picture.spans():
        counts = span.since >= picture.complete and span.topic is not None
        if span.kind == events.KIND_CALL and counts:
            row = found[picture.is_system(span), span.topic, span.who, "call"]
            row.count += 1
            row.pending += span.end is None
            if span.ticks is not None:
                row.handling.append(recording.ns(span.ticks))
    return found


def request_lines(picture):
    found = requests(picture)
    phases = [p for p in ("waiting", "handling", "open", "responding")
              if p != "open" or any(row.open for row in found.values())]
    groups = [f"{f'{p}: p50' if f == 'p50' else f}" for p in phases for f in ("p50", "p99", "max")]
    rows = []
    for (system, topic, who, how), row in sorted(found.items()):
        rows.append([picture.topic(topic, system), picture.recording.who(who), how, row.count,
                     row.pending, row.unmatched,
                     *(cell for p in phases for cell in quantiles(getattr(row, p)))])
    if rows:
        yield from table(["<topic", "<module", "<as", "count", "pending", "unmatched", *groups],
                         rows)


def loss_lines(picture):
    counts = Counter()
    for event, message in picture.losses:
        system = bool(message and message.system)
        if event.type == events.LOST:
            why = f"lost: {events.loss(event.detail)}"
        else:
            why = f"dropped: {events.reason(event.detail)}"
        topic = "task" if event.arg == -1 else picture.topic(event.arg, system)
        counts[topic, picture.recording.who(event.who), why] += 1
    if counts:
        yield from table(["<topic", "<of", "<why", "count"],
                         [[*key, count] for key, count in sorted(counts.items())])


def module_lines(picture):
    """The busiest first."""
    recording = picture.recording
    end = min(picture.until, recording.end)
    total = max(1, end - picture.complete)
    own, blocked = picture.busy(picture.complete, end)
    runs, longest = defaultdict(list), {}
    for span in picture.spans():
        if span.kind != events.WAITING and span.until >= picture.complete:
            ticks = span.until - span.since
            runs[span.owner].append(recording.ns(ticks))
            if ticks >= longest.get(span.owner, (0,))[0]:
                longest[span.owner] = ticks, picture.label(span)
    rows = [[recording.who(w), len(runs[w]), duration(recording.ns(own[w])),
             f"{100 * own[w] / total:.1f} %", duration(recording.ns(blocked[w])),
             *quantiles(runs[w]), longest[w][1]] for w in sorted(runs, key=lambda w: -own[w])]
    if rows:
        yield from table(["<module", "runs", "busy", "of the time", "blocked", "run: p50", "p99",
                          "max", "<the longest"], rows)


def thread_lines(picture):
    recording = picture.recording
    rows = []
    for walk in picture.walks:
        lane = walk.lane
        inside = []
        for frame, begun in inside_at_end(walk):
            since = duration(max(0, recording.ns(recording.end - begun)))
            inside.append(f"{inside_label(picture, frame)} ({since})")
        if lane.depth > len(inside) and not lane.shared:
            inside.append(f"{lane.depth - len(inside)} more")
        rows.append([lane.label, lane.written, lane.lost, " > ".join(inside) or "nothing"])
    if rows:
        yield from table(["<thread", "events", "lost", "<inside at the end (for how long)"], rows)


def inside_label(picture, frame):
    """Of a span, or of a frame that only the lane's head has kept."""
    who = picture.recording.who(frame.who)
    if isinstance(frame, Span):
        label = picture.label(frame)
        return label if frame.kind == events.WAITING else f"{who} {label}"
    if frame.type == events.WAIT:
        return events.wait(frame.detail, who)
    topic = "" if frame.detail in events.KINDS_WITHOUT_TOPIC else f" {picture.topic(frame.arg)}"
    return f"{who} {events.kind(frame.detail)}{topic}"


def lines(picture):
    """The whole summary, and whether there are findings."""
    found = list(findings(picture))
    return [*found, *([""] if found else []), *head_lines(picture),
            *section("Requests and calls, by topic and module", request_lines(picture)),
            *section("Losses", loss_lines(picture)),
            *section("Modules, the busiest first", module_lines(picture)),
            *section("Threads", thread_lines(picture))], bool(found)
