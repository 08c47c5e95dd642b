#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Replays what the real queue did through the transitions of que.pml: replay.py PROGRAM FAULTY CALLS.

PROGRAM, replay_que, writes down what happens under the queue's lock. Each entry must be the one that
the model allows next; the first that is not is refused. So must be logs that are damaged here, and
that of FAULTY, the same program with an error in que_wait().
"""
import array
import random
import subprocess
import sys
import tempfile
from collections import deque
from pathlib import Path

CAPACITY, GIVERS = 2, 2


class Refused(Exception):
    pass


class Waiters:
    def __init__(self, name):
        self.name, self.waiting, self.waking = ord(name), 0, 0

    def wake(self, things):
        """que_wake(): whether one is signalled."""
        if self.waking < things and self.waking < self.waiting:
            self.waking += 1
            return True
        return False


class Replay:
    """The state of que.pml, and what each of its steps must have been seen to do."""

    def __init__(self, log):
        self.log, self.at, self.calls = log, 0, 0
        self.begin()

    def begin(self):
        self.queue, self.quitting, self.inside = deque(), False, 0
        self.takers, self.givers = Waiters("t"), Waiters("g")
        self.asleep = {}
        self.given = {}

    def next(self):
        entry = self.log[self.at]
        self.at += 1
        return chr(entry >> 56), entry >> 48 & 255, entry & 0xFFFFFFFFFFFF

    def expect(self, what, thread, value):
        if self.at == len(self.log):
            raise Refused("the log ends")
        seen = self.next()
        if seen != (what, thread, value):
            raise Refused(f"{seen} where {(what, thread, value)} belongs")

    def changed(self, thread):
        self.expect("*", thread, ord("c"))
        for who, things in ((self.takers, len(self.queue)), (self.givers, CAPACITY - len(self.queue))):
            if who.wake(things):
                self.expect("1", thread, who.name)

    def goes_on(self, thread, call):
        """From where the thread has the lock to where it gives it up."""
        kind, number, timed = call
        gives = kind == "g"
        who = self.givers if gives else self.takers
        if not self.quitting and (len(self.queue) < CAPACITY if gives else self.queue):
            if gives:
                self.queue.append(number)
            else:
                number = self.queue.popleft()
            self.changed(thread)
            self.expect("r", thread, 1 if gives else number + 1)
            return
        if self.quitting or timed and self.log[self.at] >> 56 == ord("r"):
            self.expect("r", thread, 0)
            return
        self.inside += 1
        who.waiting += 1
        self.expect("w", thread, who.name)
        self.asleep[thread] = call

    def wakes(self, thread, value):
        call = self.asleep.pop(thread, None)
        who = self.givers if call and call[0] == "g" else self.takers
        if not call or value != who.name:
            raise Refused("who wakes did not sleep")
        who.waiting -= 1
        who.waking -= who.waking > 0
        self.inside -= 1
        if self.inside == 0:
            self.expect("*", thread, ord("c"))
        self.goes_on(thread, call)

    def quits(self, thread):
        self.quitting = True
        for who in (self.takers, self.givers):
            who.waking = who.waiting
            self.expect("*", thread, who.name)
        self.expect("*", thread, ord("s"))

    def step(self):
        what, thread, value = self.next()
        if what in "GgTt":
            if thread in self.asleep:
                raise Refused("who calls sleeps")
            gives = what in "Gg"
            if value != (self.given.get(thread, thread - GIVERS) + GIVERS if gives else 0):
                raise Refused(f"node {value} is not the next one of thread {thread}")
            if gives:
                self.given[thread] = value
            self.calls += 1
            self.goes_on(thread, (what.lower(), value, what in "gt"))
        elif what == "e":
            self.wakes(thread, value)
        elif what == "*" and value == ord("c") and not self.quitting:
            self.quits(thread)
        elif what == "q" and not self.asleep and self.quitting and value == len(self.queue):
            self.begin()
        else:
            raise Refused(f"{(what, thread, value)} out of place")

    def run(self):
        try:
            while self.at < len(self.log):
                self.step()
        except (Refused, IndexError) as reason:
            return f"entry {self.at}: {reason}"
        return None


def log_of(program, calls, *how):
    with tempfile.TemporaryDirectory() as place:
        path = Path(place) / "log"
        subprocess.run([program, path, str(calls), *how], check=True, timeout=300)
        log = array.array("Q")
        log.frombytes(path.read_bytes())
    return log


def damaged(log, how):
    """A copy with one entry gone, doubled, of another thread, or with another value."""
    copy, at = log[:], random.randrange(len(log) // 2)
    if how == "gone":
        del copy[at]
    elif how == "doubled":
        copy.insert(at, copy[at])
    elif how == "other thread":
        copy[at] ^= 1 << 48
    else:
        copy[at] ^= 1
    return copy


def main(program, faulty, calls):
    calls = int(calls)
    log = log_of(program, calls)
    replay = Replay(log)
    complaint = replay.run()
    print(f"replayed {replay.calls} calls, {replay.at} of {len(log)} entries: {complaint or 'each fits'}", flush=True)
    complaints = [complaint] if complaint or replay.calls < calls else []
    random.seed(1)
    for how in ("gone", "doubled", "other thread", "other value"):
        for _ in range(5):
            refusal = Replay(damaged(log[:20000], how)).run()
            if not refusal:
                complaints.append(f"a log with an entry {how} is not refused")
    refusal = Replay(log_of(faulty, 1000, "timed")).run()
    print(f"damaged logs are refused; the faulty queue: {refusal or 'NOT REFUSED'}")
    complaints += [] if refusal else ["the faulty queue is not refused"]
    print("\n".join(complaints))
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
