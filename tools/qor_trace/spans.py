# SPDX-License-Identifier: Apache-2.0
"""What each thread was inside, and which messages it sent from there."""
from . import events

DEPTH_MAX = 64
UNKNOWN = object()  # inside something that the recording has not kept


class Span:
    """Something that a thread was inside. A begin or end that is not in the recording is None."""
    __slots__ = ("lane", "who", "kind", "detail", "session", "topic", "begin", "end", "parent",
                 "name", "sender", "result", "request", "since", "until", "depth", "row")

    def __init__(self, lane, who, kind, session, topic, begin=None, parent=None, name="",
                 detail=0):
        self.lane, self.who, self.kind, self.detail = lane, who, kind, detail
        self.session, self.topic = session, topic
        self.begin, self.end, self.parent, self.name = begin, None, parent, name
        self.sender = None  # who called, where that is not who the thread was inside
        self.result = None
        self.request = None  # the message that is handled here
        self.since = self.until = 0  # begin and end, or as far as the recording goes
        self.depth = 0  # how many it lies in
        self.row = None  # where it is drawn

    @property
    def outer(self):
        """What it lies in, if that is known."""
        return self.parent if isinstance(self.parent, Span) else None

    @property
    def owner(self):
        """Whose thread time it is: of a wait, who waits."""
        span = self
        while span and span.kind == events.WAITING:
            span = span.outer
        return span.who if span else 0

    @property
    def caller(self):
        """Who called, of a call."""
        if self.sender is None and self.outer:
            return self.outer.owner
        return self.sender

    @property
    def ticks(self):
        """How long it took, if that is known."""
        return None if None in (self.begin, self.end) else max(0, self.end - self.begin)


class Message:
    """A request from where it was sent until its response, or what became of it instead."""
    __slots__ = ("lane", "time", "publisher", "to", "session", "topic", "system", "cause", "start",
                 "deferred", "completed", "response", "dropped", "lost", "unmatched")

    def __init__(self, lane, event, publisher, cause):
        self.lane, self.time, self.publisher, self.cause = lane, event.time, publisher, cause
        self.to, self.session, self.topic = event.who, event.session, event.arg
        self.system = bool(event.detail & events.TO_SYSTEM)
        self.start = self.response = None  # spans
        self.deferred = self.completed = None  # times
        self.dropped = self.lost = None  # reasons
        self.unmatched = False


class Walk:
    """Goes through the events of a lane and keeps what it is inside."""

    def __init__(self, lane, hides):
        self.lane = lane
        self.hides = hides  # spans that are not told
        self.inside = []
        self.orphans = []  # spans and messages of what began before the first event that was kept
        self.sender = None  # of the next event, if it is not whom the thread is inside
        self.spans, self.messages, self.signs = [], [], []
        self.last = {}  # (session, topic): the message that was sent and may yet be refused
        self.refusals = []  # (event, message)

    def top(self):
        return self.inside[-1] if self.inside else None

    def run(self):
        handlers = {events.START: self.start, events.WAIT: self.start, events.END: self.end,
                    events.WAITED: self.end, events.REQUEST: self.request,
                    events.FROM: self.sent_from, events.DROP: self.drop}
        for event in self.lane.events:
            handler = handlers.get(event.type)
            if handler:
                handler(event)
            else:
                self.signs.append((event, self.top()))
            if event.type != events.FROM:
                self.sender = None
        self.finish()
        return self

    @staticmethod
    def kind(event):
        waits = event.type in (events.WAIT, events.WAITED)
        return events.WAITING if waits else event.detail

    def start(self, event):
        kind = self.kind(event)
        topic = event.arg if kind != events.WAITING else None
        span = Span(self.lane, event.who, kind, event.session, topic, event.time, self.top(),
                    event.text, event.detail)
        if kind != events.WAITING:
            span.sender = self.sender
        self.spans.append(span)
        if self.lane.shared:
            span.parent = None
        elif not self.inside:
            self.orphans.append(span)
        self.inside.append(span)

    def drop(self, event):
        message = None
        if event.detail == events.REFUSED:
            message = self.last.pop((event.session, event.arg), None)
        if message:
            message.dropped = event.detail
            self.refusals.append((event, message))
            self.signs.append((event, self.top()))
        else:
            self.signs.append((event, self.top()))

    def end(self, event):
        kind = self.kind(event)
        if kind != events.WAITING and not self.lane.shared:
            self.last.clear()  # what is dropped from here on is another
        for i in range(len(self.inside) - 1, -1, -1):
            span = self.inside[i]
            if (span.who, span.kind) == (event.who, kind) and (
                    kind == events.WAITING or span.session == event.session):
                self.leave(i, event)
                return
        if self.lane.lost and not self.inside and not self.lane.shared:
            span = Span(self.lane, event.who, kind, event.session, None, detail=event.detail)
            span.end, span.result = event.time, event.arg
            self.adopt(span)
            self.spans.append(span)
            self.orphans.append(span)

    def leave(self, i, event):
        """A thread that leaves a span has left what lies in it; other threads share no order."""
        for span in self.inside[i:i + 1 if self.lane.shared else None]:
            span.end = event.time
        self.inside[i].result = event.arg
        del self.inside[i:i + 1 if self.lane.shared else None]

    def adopt(self, parent):
        """All that has had no parent so far lies in this one."""
        for orphan in self.orphans:
            if isinstance(orphan, Message):
                orphan.cause = parent
                orphan.publisher = parent.owner if parent is not UNKNOWN else None
            else:
                orphan.parent = parent
        self.orphans.clear()

    def sent_from(self, event):
        self.sender = event.who

    def request(self, event):
        if event.detail & events.MOVED:
            self.signs.append((event, self.top()))
            return
        cause = None if self.lane.shared else self.top()
        message = Message(self.lane, event, self.sender, cause)
        self.messages.append(message)
        self.last[event.session, event.arg] = message
        if self.sender is None and not self.hides:
            if cause:
                message.publisher = cause.owner
            elif self.lane.shared:
                message.publisher = 0
            else:
                self.orphans.append(message)

    def finish(self):
        """What the lane was inside before its first event, and is still, its head has kept."""
        begun_before = 0
        if self.lane.lost and self.lane.events and not self.lane.shared:
            begun_before = max(0, self.lane.depth - len(self.inside))
        if begun_before > len(self.lane.frames):
            self.adopt(UNKNOWN)
        outer = []
        for frame in self.lane.frames[:begun_before]:
            if frame.time > self.lane.events[0].time:
                break  # nothing told of it: it began while that was not recorded
            kind = events.WAITING if frame.type == events.WAIT else frame.detail
            topic = frame.arg if kind != events.WAITING else None
            outer.append(Span(self.lane, frame.who, kind, frame.session, topic,
                              parent=outer[-1] if outer else None, detail=frame.detail))
        if outer:
            self.adopt(outer[-1])
            self.spans += outer
        for orphan in self.orphans:
            if isinstance(orphan, Message):
                orphan.publisher = 0  # the thread was inside nothing
            elif orphan.kind == events.KIND_CALL and orphan.sender is None:
                orphan.sender = 0


def inside_at_end(walk):
    """What a thread is inside when the recording ends, outermost first: pairs of a frame or span
    and the time of its begin, in the words of the lane's head where its events do not tell."""
    if walk.lane.shared:
        return [(span, span.begin) for span in walk.inside]
    found, spans = [], list(walk.inside)
    for frame in walk.lane.frames:
        same = [i for i, s in enumerate(spans)
                if (s.who, s.session) == (frame.who, frame.session) and s.detail == frame.detail]
        found.append((spans[same[0]], spans[same[0]].begin) if same else (frame, frame.time))
        del spans[:same[0] + 1 if same else 0]
    if walk.lane.depth > len(found):
        found += [(span, span.begin) for span in spans]
    return found


def settle(recording, span):
    """Fills in what follows from the whole lane."""
    events_kept = span.lane.events
    span.since = span.begin
    if span.begin is None:
        span.since = events_kept[0].time if events_kept else recording.first
    span.until = max(span.since, recording.end if span.end is None else span.end)
    above = span.outer
    while above and span.depth < DEPTH_MAX:
        span.depth, above = span.depth + 1, above.outer


def walk_all(recording):
    """The walks of all lanes."""
    walks = [Walk(lane, recording.hides).run() for lane in recording.lanes]
    for span in (s for walk in walks for s in walk.spans):
        settle(recording, span)
    return walks
