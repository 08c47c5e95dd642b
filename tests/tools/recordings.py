# SPDX-License-Identifier: Apache-2.0
"""Writes recordings by the page that describes them, docs/recording.md, for the tests of what reads
them. It shares no line with that. As a program it writes samples: recordings.py FOLDER."""
import random
import struct
import sys
from pathlib import Path

KIND = {"request": 0, "response": 1, "listen before": 2, "listen after": 3, "filter before": 4,
        "filter after": 5, "task": 6, "call": 7, "system": 8, "init": 9}
TYPE = {"time": 1, "from": 2, "request": 3, "start": 4, "end": 5, "drop": 6, "post": 7, "due": 8,
        "cancel": 9, "bypass": 10, "register": 11, "lifecycle": 12, "wait": 13, "waited": 14,
        "quit": 15, "mark": 16, "name": 17, "stall": 18, "line": 19, "deferred": 20,
        "completed": 21, "lost": 22, "missed": 23}


class Lane:
    """A thread's lane. Events go in with put() at the recording's time."""

    def __init__(self, recording, tid, thread, role):
        self.recording, self.tid, self.thread, self.role = recording, tid, thread, role
        self.slots = []
        self.frames = []
        self.changes = 0  # of the frames; odd while one is under way
        self.half = None
        self.half_of_newest = 0

    def put(self, kind, detail=0, who=0, session=0, arg=0, text=""):
        time = self.recording.now
        if self.half != time >> 32:
            before = 0 if self.half is None else self.half
            self.slot(time, TYPE["time"], 0, 0, before, time >> 32)
            self.half = time >> 32
        self.slot(time, TYPE.get(kind, kind), detail, who, session, arg)
        raw = text.encode()
        for at in range(0, len(raw), 11):
            part = raw[at:at + 11].ljust(11, b"\0")
            word, second, third = struct.unpack("<3I", b"\x11" + part)
            self.slots.append((time & 0xffffffff, word, second, third))
        if kind in ("start", "wait"):
            self.frames.append((time >> 20 & 0xffffffff, TYPE[kind] | detail << 8 | who << 16,
                                session & 0xffffffff, arg & 0xffffffff))
        elif kind in ("end", "waited"):
            self.frames.pop()
        self.recording.put_count += 1
        return self

    def slot(self, time, kind, detail, who, session, arg):
        self.slots.append((time & 0xffffffff, kind | detail << 8 | who << 16,
                           session & 0xffffffff, arg & 0xffffffff))

    def start(self, kind, who, session=0, topic=0, text=""):
        return self.put("start", KIND[kind], who, session, topic, text)

    def end(self, kind, who, session=0, result=0):
        return self.put("end", KIND[kind], who, session, result)

    def request(self, who, session=0, topic=0, system=0):
        return self.put("request", system, who, session, topic)

    def head(self, order):
        raw = struct.pack(f"{order}4I16s4I", len(self.slots) & 0xffffffff, len(self.slots) >> 32,
                          self.half or 0, self.tid, self.thread.encode(), self.role,
                          len(self.frames), self.changes, 0)
        frames = (self.frames + [(0, 0, 0, 0)] * 5)[:5]
        return raw + b"".join(struct.pack(f"{order}4I", *f) for f in frames)

    def ring(self, order, events):
        slots = [(0, 0, 0, 0)] * events
        for i, slot in enumerate(self.slots):
            slots[i % events] = slot
        return b"".join(struct.pack(f"{order}4I", *s) for s in slots)


class Recording:
    """A recording in the making; now is its clock."""

    def __init__(self, names=("a", "b"), events=1024, order="<", hz=10 ** 9, clock=5 << 32,
                 program="maker", state=2):
        self.order, self.events, self.hz, self.clock, self.now = order, events, hz, clock, clock
        self.program, self.state, self.mask = program, state, 351
        self.names = [("", 0, 0, 0, 0)]
        for name in names:
            self.name(name)
        self.put_count = 0  # of events that are not part of others
        self.lanes = [Lane(self, 0, "", 0)]

    def name(self, name, role=0, flags=0, limit=1, depth=0):
        self.names.append((name, role, flags, limit, depth))
        return len(self.names) - 1

    def lane(self, thread="worker", role=1):
        self.lanes.append(Lane(self, 100 + len(self.lanes), thread, role))
        return self.lanes[-1]

    def after(self, ticks):
        """Lets time pass."""
        self.now += ticks
        return self

    def bytes(self):
        head = struct.pack(
            f"{self.order}8sI2H4I4I3Q6I16s16x", b"QORTRC1\n", 0x01020304, 1, 0, 128, 128,
            len(self.lanes), self.events, 32, len(self.names), 16, self.state, self.hz, self.clock,
            1_800_000_000 * 10 ** 9, 4711, 8, 0, 0, len(self.lanes) - 1, self.mask,
            self.program.encode())
        names = b"".join(struct.pack(f"{self.order}20sI2HI", name.encode(), *rest)
                         for name, *rest in self.names)
        return (head + b"".join(lane.head(self.order) for lane in self.lanes) + names
                + b"".join(lane.ring(self.order, self.events) for lane in self.lanes))


def refused(raw):
    """Whether a reader must refuse these bytes."""
    if len(raw) < 128 or raw[:8] != b"QORTRC1\n":
        return True
    order = {b"\4\3\2\1": "<", b"\1\2\3\4": ">"}.get(raw[8:12])
    if order is None:
        return True
    major = struct.unpack_from(f"{order}H", raw, 12)[0]
    head, lane, lanes, events, name, names, event = struct.unpack_from(f"{order}7I", raw, 16)
    hz = struct.unpack_from(f"{order}Q", raw, 48)[0]
    sizes = ((head, 128), (lane, 128), (name, 32), (event, 16))
    if major != 1 or any(size < least or size > 4096 or size % 4 for size, least in sizes):
        return True
    if lanes == 0 or not 1 <= names <= 65536 or hz == 0:
        return True
    if events < 64 or bin(events).count("1") != 1:
        return True
    return len(raw) < head + lanes * (lane + events * event) + names * name


def telemetry(seed=1, rounds=40, workers=3, order="<", events=1024):
    """A made-up program: a sampler asks a judge, which alarms; with listeners, calls and losses."""
    chance = random.Random(seed)
    made = Recording(("manager", "sampler", "judge", "alarm", "recorder"), events, order,
                     program="telemetry")
    made.names[1] = ("manager", 1, 0, 1, 0)
    lanes = [made.lane(f"worker {i}") for i in range(workers)]
    made.after(1000)
    made.lanes[0].put("lifecycle", 0, 2, 0, 1)
    for who in (2, 3, 4, 5):
        lanes[0].start("init", who)
        made.after(chance.randrange(200_000, 900_000))
        lanes[0].end("init", who)
    for session in range(1, rounds + 1):
        one, two = chance.sample(lanes, 2)
        made.after(chance.randrange(2_000_000, 4_000_000))
        one.put("due", 0, 0, session, 0)
        one.start("task", 2, session, text="sample the load")
        made.after(chance.randrange(100_000, 300_000))
        one.request(3, session, 1)
        made.after(chance.randrange(10_000, 400_000))
        two.start("request", 3, session, 1)
        made.after(chance.randrange(50_000, 200_000))
        one.end("task", 2, session)
        if session % 5 == 0:
            made.after(chance.randrange(50_000, 200_000))
            two.start("call", 4, 1000 + session, 2)
            made.after(chance.randrange(100_000, 700_000))
            two.end("call", 4, 1000 + session)
        made.after(chance.randrange(100_000, 500_000))
        two.end("request", 3, session)
        made.after(chance.randrange(5_000, 50_000))
        one.start("listen after", 5, session, 1)
        made.after(chance.randrange(5_000, 50_000))
        two.start("response", 2, session, 1)
        made.after(chance.randrange(20_000, 200_000))
        two.end("response", 2, session)
        one.end("listen after", 5, session)
        if session % 13 == 0:
            one.start("task", 4, 5000 + session)
            one.request(3, 5000 + session, 3)
            one.put("drop", 3, 4, 5000 + session, 3)
            one.put("mark", 0, 0, 7, session)
            one.put("line", 4, text="no room for another alarm")
            made.after(100_000)
            one.end("task", 4, 5000 + session)
    return made


def coarse():
    """All of telemetry within some ticks of a slow clock: most of it takes no time."""
    made = telemetry(4)
    for lane in made.lanes:
        lane.slots = [(low // 4_000_000, *rest) for low, *rest in lane.slots]
    made.hz = 250
    return made


def samples():
    """Recordings of all sorts by name."""
    return {"whole": telemetry(), "lossy": telemetry(2, 400, order=">", events=256),
            "crowded": telemetry(3, 30, workers=2), "coarse": coarse(),
            "long": telemetry(5, 1500, events=16384), "empty": Recording(())}


if __name__ == "__main__":
    for name, sample in samples().items():
        (Path(sys.argv[1]) / f"{name}.qor").write_bytes(sample.bytes())
