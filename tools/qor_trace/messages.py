# SPDX-License-Identifier: Apache-2.0
"""Finds each request's handling and response.

Sessions repeat, so a request is known by its session and topic (and, for its response, by its
publisher) only while no other of the same is under way. What cannot be told apart is counted as
unmatched and never guessed.
"""
from . import events

# The order of what stands at one tick: causes first.
SENT, MOVED, BEGUN, PUT_OFF, ENDED, COMPLETED, GONE, ANSWERED = range(8)


class Pool:
    """Messages of one key that wait for their next step; None is one that is not known."""

    def __init__(self):
        self.waiting = []
        self.count = 0
        self.mixed = False
        self.taken = []  # while nothing has shown that there were others

    def add(self, message):
        self.waiting.append(message)
        self.count += 1
        if self.mixed or self.count > 1:
            self.mix()

    def mix(self):
        """Which of them goes on next cannot be told."""
        self.mixed = True
        for each in filter(None, self.waiting):
            each.unmatched = True

    def take(self):
        """The only message that waits, or None when it may be one of several."""
        found = None if self.mixed else self.waiting[0]
        self.count -= 1
        if self.count == 0:
            self.waiting.clear()
            self.mixed = False
        if found:
            self.taken.append(found)
        return found


class Pools(dict):
    """The pools by their keys."""

    def __missing__(self, key):
        self[key] = Pool()
        return self[key]

    def any(self, key):
        return key in self and self[key].count > 0


class Matcher:
    """Goes through what happened to messages, in order of time."""

    def __init__(self, recording):
        self.lossy, self.known_from = recording.lossy, recording.complete
        self.sent, self.handled, self.open = Pools(), Pools(), Pools()
        self.early = set()  # those that may be answered although no start could be told as theirs
        self.strange = 0  # starts without a request
        self.losses = []  # (event, the message that it ended or None)

    def run(self, walks):
        steps = []
        for walk in walks:
            self.losses += walk.refusals
            refused = {id(event) for event, _ in walk.refusals}
            steps += ((m.time, SENT, m) for m in walk.messages if m.dropped is None)
            for span in walk.spans:
                handles = span.kind in (events.KIND_REQUEST, events.KIND_SYSTEM)
                if span.begin is not None and handles:
                    steps.append((span.begin, BEGUN, span))
                elif span.begin is not None and span.kind == events.KIND_RESPONSE:
                    steps.append((span.begin, ANSWERED, span))
                if span.end is not None and handles:
                    steps.append((span.end, ENDED, span))
            steps += self.signs(walk, refused)
        does = (self.send, self.move, self.begin, self.put_off, self.finish, self.complete, self.go,
                self.answer)
        steps.sort(key=lambda s: s[:2])
        known = not self.lossy
        for time, step, what in steps:
            if not known and time >= self.known_from:
                self.forget()
                known = True
            does[step](what)
        if self.lossy:
            self.doubt()
        return self

    def forget(self):
        """From here on every event is there. What was sent before may have gone on unseen: should
        it still be under way, then there will be a step too many, or one too few at the end."""
        for pools in (self.sent, self.handled, self.open):
            pools.clear()

    def doubt(self):
        """Where something is left over, the steps may have been those of what was sent before."""
        for pools, step in ((self.sent, "start"), (self.handled, "response")):
            for pool in pools.values():
                if pool.count and pool.taken:
                    for message in pool.waiting:
                        message.unmatched = True
                    self.undo(pool, step)

    @staticmethod
    def signs(walk, refused):
        order = {events.REQUEST: MOVED, events.DEFERRED: PUT_OFF, events.COMPLETED: COMPLETED,
                 events.DROP: GONE, events.LOST: GONE}
        for event, inside in walk.signs:
            if event.type in order and id(event) not in refused:
                yield event.time, order[event.type], (event, inside)

    def send(self, message):
        pool = self.sent[message.session, message.topic]
        pool.add(message)
        if pool.mixed:
            for each in pool.waiting:
                if each not in self.early:
                    self.early.add(each)
                    self.ready(each)

    def move(self, what):
        """The same message goes to another queue."""
        event, _ = what
        if self.sent.any((event.session, event.arg)):
            pool = self.sent[event.session, event.arg]
            if not pool.mixed:
                pool.waiting[0].to = event.who

    def begin(self, span):
        key = span.session, span.topic
        if self.sent.any(key):
            message = self.sent[key].take()
            if message:
                message.start, span.request = span, message
        elif span.kind == events.KIND_REQUEST:
            self.strange += 1
            if self.lossy and key in self.sent:
                self.undo(self.sent[key], "start")

    @staticmethod
    def undo(pool, step):
        """A step of a message that was overwritten: any that was taken may have been that one's."""
        for message in pool.taken:
            message.unmatched = True
            span = getattr(message, step)
            if span:
                span.request = None
                setattr(message, step, None)
        pool.taken.clear()

    def put_off(self, what):
        event, inside = what
        while inside and (inside.kind, inside.session) != (events.KIND_REQUEST, event.session):
            inside = inside.outer
        message = inside.request if inside else None
        if message:
            message.deferred = event.time
        self.open[event.who, event.session].add(message)

    def complete(self, what):
        event, _ = what
        key = event.who, event.session
        message = self.open[key].take() if self.open.any(key) else None
        if message and event.detail == events.BY_DISCARD:
            message.dropped = events.DISCARDED
            event = event._replace(type=events.DROP, detail=events.DISCARDED, arg=message.topic)
            self.losses.append((event, message))
        elif message:
            message.completed = event.time
            if message.start and message.start.end is not None and message.start.end <= event.time:
                self.ready(message)

    def finish(self, span):
        message = span.request
        if message and message.dropped is None and (
                message.deferred is None or message.completed is not None):
            self.ready(message)

    def ready(self, message):
        """Its response may begin from here on."""
        self.handled[message.session, message.topic, message.publisher].add(message)

    def answer(self, span):
        key = span.session, span.topic, span.who
        unknown = span.session, span.topic, None
        if self.handled.any(unknown):
            if self.handled.any(key):
                self.handled[key].mix()
            else:
                key = unknown  # so that is who sent it
        if self.handled.any(key):
            message = self.handled[key].take()
            if message:
                message.response, span.request = span, message
                message.publisher = span.who
        elif self.lossy and key in self.handled:
            self.undo(self.handled[key], "response")

    def go(self, what):
        event, _ = what
        message = None
        key = event.session, event.arg
        if self.was_waiting(event):
            message = self.sent[key].take()
            if message and event.type == events.LOST:
                self.ready(message)  # its publisher is told by a response
        elif event.type == events.DROP and self.handled.any((*key, event.who)):
            message = self.handled[*key, event.who].take()
        if message and event.type == events.LOST:
            message.lost = event.detail
        elif message:
            message.dropped = event.detail
        self.losses.append((event, message))

    def was_waiting(self, event):
        """Whether what was lost is a request that nobody has begun to handle."""
        if not self.sent.any((event.session, event.arg)):
            return False
        if event.type == events.LOST:
            return event.detail < 16  # else it is a listener's or a task
        return event.detail == events.DISCARDED
