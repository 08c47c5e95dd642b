# SPDX-License-Identifier: Apache-2.0
"""Writes Chrome's trace format: a row per module, arrows from what was sent to where it went."""
import json

from . import events
from .spans import Span

LEAST = 0.001  # microseconds: readers find no slice at a moment that is its end
INSTANTS = {events.DROP, events.LOST, events.MARK, events.LIFECYCLE, events.STALL, events.QUIT,
            events.BYPASS, events.MISSED, events.LINE, events.POST, events.CANCEL}


class Writer:
    """Makes the records of a picture."""

    def __init__(self, picture):
        self.picture = picture
        self.recording = picture.recording
        self.pid = picture.recording.head.pid
        self.threads = {}  # row: its number
        self.arrows = 0

    def us(self, time):
        """Microseconds since the recorder's start; the format knows no other unit."""
        return self.recording.since_begin(time) / 1000

    def record(self, phase, row, us, name, **more):
        return {"ph": phase, "pid": self.pid, "tid": self.threads[row], "ts": us, "name": name,
                **more}

    def ends(self, span):
        """Where its slice begins and ends."""
        begin = self.us(span.since)
        return begin, max(self.us(span.until), begin + LEAST)

    def names(self):
        program = self.recording.head.program or "a program"
        yield {"ph": "M", "pid": self.pid, "tid": 0, "name": "process_name",
               "args": {"name": program}}
        for (owner, beside), number in self.threads.items():
            name = self.recording.who(owner) + (f" ({beside + 1})" if beside else "")
            yield {"ph": "M", "pid": self.pid, "tid": number, "name": "thread_name",
                   "args": {"name": name}}
            yield {"ph": "M", "pid": self.pid, "tid": number, "name": "thread_sort_index",
                   "args": {"sort_index": number}}

    def slice(self, span):
        args = {"thread": span.lane.label, "session": span.session}
        if span.result is not None and span.kind != events.WAITING:
            args["result"] = span.result
        for what, known in (("begin", span.begin), ("end", span.end)):
            if known is None:
                args[what] = "not in the recording"
        begin, end = self.ends(span)
        return self.record("X", span.row, begin, self.picture.label(span), dur=end - begin,
                           cat=events.kind(span.kind), args=args)

    def arrow(self, name, source, time, target):
        """From a moment inside a span to the begin of another. What was sent from inside nothing
        gets a short slice on the row of 'outside' to begin in."""
        self.arrows += 1
        common = {"cat": name, "id": self.arrows}
        sent = self.us(time)
        row = source.row if source else (0, 0)
        if source:
            begin, end = self.ends(source)
            sent = max(begin, min(sent, end - LEAST))
        else:
            yield self.record("X", row, sent, f"sends a {name}", dur=LEAST, cat="sent", args={})
        yield self.record("s", row, sent, name, **common)
        yield self.record("f", target.row, self.us(target.since), name, bp="e", **common)

    def message(self, message):
        """The arrows of a request, and of its response."""
        if message.start:
            cause = message.cause
            cause = cause if isinstance(cause, Span) and cause.row else None
            yield from self.arrow("request", cause, message.time, message.start)
        if message.start and message.response:
            end = message.start.until
            yield from self.arrow("response", message.start, end, message.response)

    def instant(self, event, inside):
        owner = inside.owner if inside else event.who
        row = (owner, 0) if (owner, 0) in self.threads else (0, 0)
        if inside and inside.row:
            row = inside.row
        name, fields = events.FIELDS[event.type]
        args = {}
        for field, source in fields:
            value = getattr(event, source)
            names = events.NAMED.get((event.type, field), {})
            args[field] = self.recording.who(value) if field == "who" else names.get(value, value)
        return self.record("i", row, self.us(event.time), name, s="t", args=args)

    def records(self):
        picture = self.picture
        spans = picture.spans()
        rows = sorted({(0, 0), *picture.rows(spans)})
        self.threads = {row: i for i, row in enumerate(rows, 1)}
        yield from self.names()
        yield from map(self.slice, spans)
        for message in picture.messages:
            ends = [s for s in (message.start, message.response) if s]
            if all(s.row for s in ends):
                yield from self.message(message)
        for walk in picture.walks:
            for event, inside in walk.signs:
                if event.type in INSTANTS and picture.since <= event.time <= picture.until:
                    yield self.instant(event, inside)


def text(picture):
    """The file, a record a line."""
    yield '{"displayTimeUnit": "ns", "traceEvents": [\n'
    for i, record in enumerate(Writer(picture).records()):
        yield (",\n" if i else "") + json.dumps(record)
    yield "\n]}\n"
