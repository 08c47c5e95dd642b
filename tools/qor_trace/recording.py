# SPDX-License-Identifier: Apache-2.0
"""Reads a recording: its head, its names, and the events of each lane with their full times."""
import os
import struct
from typing import NamedTuple

from . import events

MAGIC = b"QORTRC1\n"
HEAD, LANE, NAME, EVENT = 128, 128, 32, 16  # bytes of format 1.0; later minors may have more
SIZE_MAX = 4096
CONTEXTS_MAX = 1 << 16  # an event names its context with 16 bits
HALF = 0xffffffff
SPANS, STACKS = 31, 256  # classes in the mask: all that begins and ends; what threads are inside


class Refused(Exception):
    """What is wrong with a recording, in a line."""


class Event(NamedTuple):
    time: int  # ticks of the recording's clock
    type: int
    detail: int
    who: int
    session: int
    arg: int
    text: str  # what continues it


class Frame(NamedTuple):
    """What a thread is inside; its time is the clock without its lowest 20 bits."""
    time: int
    type: int
    detail: int
    who: int
    session: int
    arg: int


class Context(NamedTuple):
    name: str
    system: bool
    strict: bool
    limit: int  # runs at a time that a strict one is promised at most


class Lane(NamedTuple):
    index: int
    tid: int
    thread: str
    role: str
    depth: int
    frames: list
    written: int
    kept: int
    events: list

    @property
    def shared(self):
        """By threads that got no lane: what stands one after the other need not nest."""
        return self.index == 0

    @property
    def lost(self):
        return self.written - self.kept

    @property
    def label(self):
        return "threads without a lane" if self.shared else f"{self.role} {self.tid} {self.thread}"


def text_of(raw):
    """Bytes up to the first zero as text that any reader takes."""
    text = raw.partition(b"\0")[0].decode("utf-8", "replace")
    return "".join(c if c.isprintable() else "?" for c in text)


class Head:
    """The first bytes of a recording, checked."""

    def __init__(self, raw):
        if len(raw) < HEAD or raw[:8] != MAGIC:
            raise Refused("not a recording")
        self.order = {b"\4\3\2\1": "<", b"\1\2\3\4": ">"}.get(raw[8:12])
        if not self.order:
            raise Refused("damaged: its byte order cannot be told")
        (self.major, self.minor, self.head_size, self.lane_size, self.lanes, self.events,
         self.name_size, self.names, self.event_size, self.state, self.hz, self.clock, self.real,
         self.pid, _, self.names_lost, self.without_lane, _, self.mask) = struct.unpack_from(
             f"{self.order}2H4I4I3Q6I", raw, 12)
        self.program = text_of(raw[96:112])
        if self.major != 1:
            raise Refused(f"its format is {self.major}.{self.minor}, this reads 1.x")
        for size, least in ((self.head_size, HEAD), (self.lane_size, LANE),
                            (self.name_size, NAME), (self.event_size, EVENT)):
            if not least <= size <= SIZE_MAX or size % 4 != 0:
                raise Refused(f"damaged: a record of {size} bytes")
        if not 1 <= self.names <= CONTEXTS_MAX:
            raise Refused(f"damaged: {self.names} names")
        if self.lanes < 1 or self.events < 64 or self.events & (self.events - 1):
            raise Refused(f"damaged: {self.lanes} lanes of {self.events} events")
        if self.hz == 0:
            raise Refused("damaged: a clock of 0 Hz")

    @property
    def lanes_bytes(self):
        return self.lanes * self.lane_size

    @property
    def names_bytes(self):
        return self.names * self.name_size

    @property
    def ring_bytes(self):
        return self.events * self.event_size


class Ring:
    """A lane's head as it is at one moment."""

    def __init__(self, order, raw):
        low, high, self.half, self.tid = struct.unpack_from(f"{order}4I", raw)
        self.written = high << 32 | low
        self.thread = text_of(raw[16:32])
        self.role, self.depth, changes = struct.unpack_from(f"{order}3I", raw, 32)
        if changes % 2:
            self.depth = 0  # what the thread is inside was just being written
        self.raw_frames = list(struct.iter_unpack(f"{order}2I2i", raw[48:128]))


class Recording:
    """A recording that has been read. Times are ticks; ns() makes of them nanoseconds."""

    def __init__(self, head, contexts, lanes):
        self.head = head
        self.contexts = contexts
        self.lanes = lanes
        times = [e.time for lane in lanes for e in lane.events]
        self.begin = head.clock
        self.end = max([*times, *(f.time for lane in lanes for f in lane.frames), self.begin])
        self.first = min(times, default=self.begin)
        lossy = [lane for lane in lanes if lane.lost]
        self.lossy = bool(lossy)
        # From here on every lane has all of its events.
        self.complete = max([lane.events[0].time for lane in lossy if lane.events],
                            default=self.first)

    @property
    def hides(self):
        """Whether threads may be inside things that no event tells of: then it does not show who
        sent what."""
        return bool(self.head.mask & STACKS) and self.head.mask & SPANS != SPANS

    def ns(self, ticks):
        return ticks * 1_000_000_000 // self.head.hz

    def since_begin(self, time):
        """Nanoseconds from the recorder's start; negative for what an odd clock put before it."""
        return self.ns(time - self.begin)

    def who(self, number):
        """A context's name."""
        if number is None:
            return "unknown"
        if number == 0:
            return "outside"
        known = number < len(self.contexts) and self.contexts[number].name
        return known or f"context {number}"

    def is_system(self, number):
        return number is not None and number < len(self.contexts) and self.contexts[number].system


def read_fully(file, size):
    """So many bytes, or a refusal when the file ends before."""
    parts, missing = [], size
    while missing > 0:
        # A damaged head may ask for any number of bytes.
        part = file.read(min(missing, 1 << 24))
        if not part:
            raise Refused(f"cut: {missing} bytes are missing")
        parts.append(part)
        missing -= len(part)
    return b"".join(parts)


def read(file):
    """The recording in a file that is open for bytes. It may be written to meanwhile.

    What is cut is refused before its rings are read, where the file tells its size.
    """
    raw = file.read(HEAD)
    head = Head(raw)
    read_fully(file, head.head_size - HEAD)
    if file.seekable():
        lanes_at = file.tell()
        missing = (lanes_at + head.lanes_bytes + head.names_bytes + head.lanes * head.ring_bytes
                   - file.seek(0, os.SEEK_END))
        file.seek(lanes_at)
        if missing > 0:
            raise Refused(f"cut: {missing} bytes are missing")
    lanes = read_fully(file, head.lanes_bytes)
    names = read_fully(file, head.names_bytes)
    rings = read_fully(file, head.lanes * head.ring_bytes)
    after = lanes
    if file.seekable():
        file.seek(lanes_at)
        after = read_fully(file, head.lanes_bytes)
    return Recording(head, contexts_of(head, names), list(lanes_of(head, lanes, rings, after)))


def contexts_of(head, raw):
    found = []
    for at in range(0, len(raw), head.name_size):
        role, flags, limit, _ = struct.unpack_from(f"{head.order}I2HI", raw, at + 20)
        found.append(Context(text_of(raw[at:at + 20]), role == 1, flags & 1 == 1, max(1, limit)))
    return found


def lanes_of(head, before, rings, after):
    """Each lane that has been written to, with what is left of its events.

    The heads were read before and after the rings: what may have been overwritten in between is
    left out, and so is the oldest slot of a full lane, which may be half overwritten.
    """
    newest = head.clock
    found = []
    for i in range(head.lanes):
        at = i * head.lane_size
        ring = Ring(head.order, before[at:at + LANE])
        written_after = Ring(head.order, after[at:at + LANE]).written
        first = min(ring.written, max(0, max(ring.written, written_after) - head.events + 1))
        if ring.written or ring.depth:
            raw = memoryview(rings)[i * head.ring_bytes:(i + 1) * head.ring_bytes]
            slots = slots_of(head, raw, first, ring.written)
            decoded = events_of(slots, ring.half)
            newest = max([newest, *(e.time for e in decoded)])
            found.append((i, ring, len(slots), decoded))
    for i, ring, kept, decoded in found:
        frames = [frame_of(f, newest) for f in ring.raw_frames[:ring.depth]]
        role = events.ROLES[ring.role] if ring.role < len(events.ROLES) else "other"
        yield Lane(i, ring.tid, ring.thread, role, ring.depth, frames, ring.written, kept, decoded)


def split(word):
    """Type, detail and context of an event's second word."""
    return word & 0xff, word >> 8 & 0xff, word >> 16


def frame_of(raw, newest):
    """A frame's time has 32 bits: it is the one nearest to the newest event's."""
    low, word, session, arg = raw
    ahead = (low - (newest >> 20)) & HALF
    if ahead >> 31:
        ahead -= 1 << 32
    return Frame(max(0, (newest >> 20) + ahead) << 20, *split(word), session, arg)


def slots_of(head, raw, first, last):
    """The slots from first to last, oldest first, as tuples of four numbers. A copy that the
    process made of its own recording has emptied those that were overwritten meanwhile."""
    pad = "x" * (head.event_size - EVENT)
    slots = list(struct.iter_unpack(f"{head.order}2I2i{pad}", raw))
    start, count = first % head.events, last - first
    slots = (slots[start:] + slots[:start])[:count]
    empty = next((i for i, slot in enumerate(slots) if slot[1] & 0xff), len(slots))
    return slots[empty:]


def events_of(slots, newest_half):
    """A lane's events with full times and with the texts that continue them."""
    found, texts = [], {}
    for (low, word, session, arg), half in zip(slots, halves_of(slots, newest_half)):
        kind, detail, who = split(word)
        if kind == events.NAME:
            if found:  # else the event that it continues has been overwritten
                texts[len(found) - 1] = (texts.get(len(found) - 1, b"")
                                         + struct.pack("<I2i", word, session, arg)[1:])
            continue
        if kind != events.TIME:
            found.append(Event(half << 32 | low, kind, detail, who, session, arg, ""))
    for i, text in texts.items():
        found[i] = found[i]._replace(text=text_of(text))
    return found


def halves_of(slots, newest):
    """The upper halves of the slots' times.

    From the newest slot backwards they change at each TIME event. The lane's head may be one change
    behind what is in the ring, or ahead of it, so the last of these events has the word.
    """
    halves = [0] * len(slots)
    half = None
    for i in range(len(slots) - 1, -1, -1):
        _, word, before, now = slots[i]
        if word & 0xff == events.TIME:
            if half is None:
                halves[i:] = [now & HALF] * (len(slots) - i)
            halves[i] = now & HALF
            half = before & HALF
        elif half is not None:
            halves[i] = half
    return [newest] * len(slots) if half is None else halves
