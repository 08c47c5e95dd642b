# SPDX-License-Identifier: Apache-2.0
"""What all outputs share: a recording with its spans and messages, names, a window of time."""
import re
from collections import Counter

from . import events
from .messages import Matcher
from .recording import Refused
from .spans import walk_all


class Topics:
    """Names of topics: lines of a number and a name; 'sys' before the number for one of the bus's
    own, '#' before a comment."""
    LINE = re.compile(r"\s*(?:(sys)\s+)?(-?\d+)\s+(\S.*?)\s*(?:#.*)?")

    def __init__(self, lines=()):
        self.names = {}
        for number, line in enumerate(lines, 1):
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            match = self.LINE.fullmatch(line.rstrip("\n"))
            if not match or not match[3].isprintable():
                raise Refused(f"line {number} is not a number and a name")
            self.names[bool(match[1]), int(match[2])] = match[3]

    def label(self, topic, system=False):
        number = f"sys {topic}" if system else str(topic)
        name = self.names.get((system, topic))
        return f"{number} {name}" if name else number


def duration(ns):
    """Nanoseconds in the unit that leaves three digits, such as 12.3 us."""
    for limit, unit, scale in ((1000, "ns", 1), (10 ** 6, "us", 10 ** 3), (10 ** 9, "ms", 10 ** 6)):
        if ns < limit:
            break
    else:
        unit, scale = "s", 10 ** 9
    value = ns / scale
    digits = 0 if scale == 1 else 2 if value < 9.995 else 1 if value < 99.95 else 0
    return f"{value:.{digits}f} {unit}"


class Picture:
    """A recording that has been understood."""

    def __init__(self, recording, topics, since=None, until=None):
        self.recording, self.topics = recording, topics
        hz = recording.head.hz
        self.whole = since is None
        self.since = min(recording.first, recording.begin)
        if since is not None:
            self.since = recording.begin + round(since * hz)
        self.until = recording.end if until is None else recording.begin + round(until * hz)
        self.walks = walk_all(recording)
        matcher = Matcher(recording).run(self.walks)
        self.strange = matcher.strange
        # From here on nothing is missing.
        self.complete = max(self.since, recording.complete) if recording.lossy else self.since
        self.losses = [(e, m) for e, m in matcher.losses if self.complete <= e.time <= self.until]
        self.messages = [m for walk in self.walks for m in walk.messages
                         if self.complete <= m.time <= self.until]

    def spans(self):
        """What overlaps the window."""
        return [s for walk in self.walks for s in walk.spans
                if s.since <= self.until and s.until >= self.since]

    def busy(self, begin, end):
        """Ticks per owner in a window: in spans of its own but not in what lies in them, and
        blocked in waits."""
        own, blocked = Counter(), Counter()
        for span in self.spans():
            ticks = min(span.until, end) - max(span.since, begin)
            if ticks > 0:
                (blocked if span.kind == events.WAITING else own)[span.owner] += ticks
                if span.outer and span.outer.kind != events.WAITING:
                    own[span.outer.owner] -= ticks
        return own, blocked

    def events(self, lane):
        return [e for e in lane.events if self.since <= e.time <= self.until]

    def topic(self, topic, system=False):
        return self.topics.label(topic, system)

    def label(self, span):
        """What a span is, without its context's name."""
        if span.kind == events.WAITING:
            return events.wait(span.detail, self.recording.who(span.who))
        text = events.kind(span.kind)
        if span.name:
            return f"{text} {span.name}"
        if span.topic is None or span.kind in events.KINDS_WITHOUT_TOPIC:
            return text
        return f"{text} {self.topic(span.topic, self.is_system(span))}"

    def is_system(self, span):
        """Whether its topic is one of the bus's own, which have numbers of their own."""
        return (span.kind == events.KIND_SYSTEM or bool(span.request and span.request.system)
                or self.recording.is_system(span.who))

    def rows(self, spans):
        """Gives each of these spans a row of its owner's: (owner, 0) or, beside others, (owner, 1)
        and so on; all other spans have none. Returns the rows.

        What lies in a span of the same owner on the same thread shares its row.
        """
        for walk in self.walks:
            for span in walk.spans:
                span.row = None
        found = {}
        for span in sorted(spans, key=lambda s: (s.since, s.depth)):
            owner = span.owner
            above = span.outer
            while above and above.owner != owner:
                above = above.outer
            if above and above.row:
                span.row = above.row
                continue
            ends = found.setdefault(owner, [])
            free = next((i for i, end in enumerate(ends) if end <= span.since), len(ends))
            ends[free:free + 1] = [span.until]
            span.row = owner, free
        return [(owner, i) for owner in sorted(found) for i in range(len(found[owner]))]
