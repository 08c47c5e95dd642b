# SPDX-License-Identifier: Apache-2.0
"""Damaged recordings: those that must be refused give one line and status 1, all others are read.

  test_damage.py [COUNT [SEED]]

None may end in a traceback, take more than 2 s of processor time, or more than 200 MB.
"""
import os
import random
import signal
import struct
import sys
import tempfile
import unittest
from collections import Counter
from pathlib import Path

import recordings
from recordings import Recording
from tool import Case

from qor_trace.__main__ import main  # noqa: E402 (tool has set the path)

COUNT, SEED = 300, 1
SECONDS, MEGABYTES = 2, 200


def strict():
    """A recording with a finding, waits, deferred requests and what is not ended."""
    made = Recording(())
    made.name("calm", flags=1, limit=1)
    made.name("other", role=1)
    one, two = made.lane(), made.lane()
    for i in range(40):
        one.start("request", 1, i, 3).put("deferred", 0, 1, i, 3)
        two.put("from", 0, 2, i, 3).request(1, i, 3)
        made.after(50_000_000)
        two.start("task", 1, i, text="a task of a longer name")
        made.after(1_000_000)
        one.end("request", 1, i).put("wait", 5, 2, 0, 100)
        two.put("completed", 0, 1, i, 0).end("task", 1, i).put("lost", 0, 1, i, 3)
        made.after(1_000_000)
        one.put("waited", 5, 2, 0, 100).put("lifecycle", 0, 1, 1, 2).put("stall", 0, 1, i, 4)
    one.start("request", 1, 900, 3)
    return made


def originals():
    yield recordings.telemetry(events=512).bytes()
    yield recordings.telemetry(2, 200, order=">", events=128).bytes()
    yield strict().bytes()


ORIGINALS = list(originals())


class Damage:
    """One way to damage a recording for each method."""

    def __init__(self, raw, chance):
        self.raw, self.chance = bytearray(raw), chance
        self.order = "<" if raw[8] == 4 else ">"
        self.lanes, self.events = struct.unpack_from(f"{self.order}2I", raw, 24)
        self.names = struct.unpack_from(f"{self.order}I", raw, 36)[0]
        self.at_names = 128 + 128 * self.lanes
        self.at_rings = self.at_names + 32 * self.names

    def put(self, offset, layout, value):
        struct.pack_into(self.order + layout, self.raw, offset, value)

    def odd(self, bits=32):
        """A number that is likely to hurt."""
        some = (0, 1, 2, 63, 64, 127, 128, 1 << 15, 1 << 16, (1 << 31) - 1, 1 << 31, (1 << 32) - 1,
                (1 << 63), (1 << 64) - 1, self.chance.getrandbits(bits))
        return self.chance.choice(some) % (1 << bits)

    def noise(self, begin, end, most):
        for _ in range(self.chance.randint(1, most)):
            self.raw[self.chance.randrange(begin, end)] = self.chance.randrange(256)

    def magic(self):
        self.noise(0, 12, 3)

    def head(self):
        self.noise(0, 128, 6)

    def field_of_head(self):
        offset, layout = self.chance.choice(
            [(12, "H"), (14, "H"), *((o, "I") for o in range(16, 48, 4)),
             *((o, "Q") for o in (48, 56, 64)), *((o, "I") for o in range(72, 96, 4))])
        self.put(offset, layout, self.odd({"H": 16, "I": 32, "Q": 64}[layout]))

    def cut(self):
        del self.raw[self.chance.randrange(len(self.raw)):]

    def cut_and_sizes(self):
        self.put(self.chance.choice((24, 28, 36)), "I", 1 << self.chance.randrange(0, 12))
        if self.chance.random() < 0.5:
            self.raw += bytes(self.chance.randrange(100_000))

    def lane_heads(self):
        self.noise(128, self.at_names, 20)

    def field_of_lane(self):
        for _ in range(3):
            lane = 128 + 128 * self.chance.randrange(self.lanes)
            self.put(lane + 4 * self.chance.randrange(32), "I", self.odd())

    def name_table(self):
        self.noise(self.at_names, self.at_rings, 30)

    def rings(self):
        self.noise(self.at_rings, len(self.raw), 2000)

    def times(self):
        for _ in range(self.chance.randint(1, 200)):
            slot = self.chance.randrange(self.lanes * self.events)
            self.put(self.at_rings + 16 * slot, "I", self.odd())

    def halves(self):
        """Changes of the upper half of the time, to anywhere."""
        for _ in range(self.chance.randint(1, 20)):
            at = self.at_rings + 16 * self.chance.randrange(self.lanes * self.events)
            for word, value in enumerate((self.odd(), 1, self.odd(), self.odd())):
                self.put(at + 4 * word, "I", value)

    def types(self):
        for _ in range(self.chance.randint(1, 300)):
            at = self.at_rings + 16 * self.chance.randrange(self.lanes * self.events)
            word = self.chance.randrange(30) | self.chance.randrange(12) << 8
            self.put(at + 4, "I", word | self.chance.randrange(9) << 16)

    def shuffled(self):
        """Events of a lane in any order."""
        begin = self.at_rings + 16 * self.events * self.chance.randrange(self.lanes)
        ring = [bytes(self.raw[begin + 16 * i:begin + 16 * i + 16]) for i in range(self.events)]
        self.chance.shuffle(ring)
        self.raw[begin:begin + 16 * self.events] = b"".join(ring)

    def random(self):
        self.raw[128:] = self.chance.randbytes(len(self.raw) - 128)


WAYS = [name for name in vars(Damage) if name not in ("put", "odd", "noise") and name[0] != "_"]


def damaged(number, seed):
    """(how, the bytes): always the same for the same numbers."""
    chance = random.Random(f"{seed} {number}")
    found = ORIGINALS[number % len(ORIGINALS)]
    damage = Damage(found, chance)
    ways = [WAYS[number % len(WAYS)], *chance.sample(WAYS, chance.choice((0, 0, 1)))]
    for way in ways:
        if len(damage.raw) == len(found):  # what else is there still stands where it stood
            getattr(damage, way)()
    return " and ".join(ways), bytes(damage.raw)


def run(folder, arguments):
    """(status, processor seconds, megabytes, standard error) of the tool in its own process."""
    output, errors = folder / "output", folder / "errors"
    child = os.fork()
    if child == 0:
        for path, descriptor in ((output, 1), (errors, 2)):
            os.dup2(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC), descriptor)
        signal.alarm(60)
        sys.stdout = os.fdopen(1, "w", closefd=False)
        sys.stderr = os.fdopen(2, "w", closefd=False)
        status = 99
        try:
            status = main(arguments)
        except BaseException:  # what the interpreter would print
            sys.excepthook(*sys.exc_info())
        finally:
            sys.stdout.flush()
            sys.stderr.flush()
            os._exit(status)
    _, status, used = os.wait4(child, 0)
    return (os.waitstatus_to_exitcode(status), used.ru_utime + used.ru_stime, used.ru_maxrss / 1024,
            errors.read_text(errors="replace"))


def judge(raw, status, seconds, megabytes, errors):
    """What is wrong with how the tool ended, or None."""
    if "Traceback" in errors:
        return "traceback"
    if seconds > SECONDS or megabytes > MEGABYTES:
        return f"{seconds:.1f} s, {megabytes:.0f} MB"
    if recordings.refused(raw):
        lines = errors.splitlines()
        if status != 1 or len(lines) != 1 or not lines[0].startswith("qor-trace: "):
            return f"must be refused, but status {status}"
    elif status not in (0, 2) or errors:
        return f"must be read, but status {status}"
    return None


def try_all(count, seed):
    """(complaints, counts by status, most seconds, most megabytes)"""
    complaints, counts, worst = [], Counter(), [0, 0]
    with tempfile.TemporaryDirectory() as scratch:
        folder = Path(scratch)
        for number in range(count):
            how, raw = damaged(number, seed)
            (folder / "damaged.qor").write_bytes(raw)
            for old in (folder / "ctf").glob("*"):
                old.unlink()
            outputs = [f"--{kind}={folder}/{kind}" for kind in ("ctf", "json", "dot", "svg")]
            status, seconds, megabytes, errors = run(folder, [*outputs, f"{folder}/damaged.qor"])
            counts[status] += 1
            worst = [max(worst[0], seconds), max(worst[1], megabytes)]
            wrong = judge(raw, status, seconds, megabytes, errors)
            if wrong:
                complaints.append(f"{number} of seed {seed} ({how}): {wrong}\n{errors}")
    return complaints, counts, worst


class Files(Case):
    def test_damaged_files_are_refused_or_read(self):
        complaints, counts, worst = try_all(COUNT, SEED)
        print(f"{COUNT} files of seed {SEED}: {counts[1]} refused, {counts[0] + counts[2]} read, "
              f"of these {counts[2]} with findings; at most {worst[0]:.2f} s and {worst[1]:.0f} MB")
        self.assertEqual(complaints, [])
        self.assertGreater(min(counts[0], counts[1], counts[2]), COUNT // 100)

    def test_the_program_ends_like_its_main(self):
        for number in range(0, 60, 4):
            _, raw = damaged(number, SEED)
            _, errors = self.run_tool(self.file(raw), status=1 if recordings.refused(raw) else
                                      run(self.folder, [str(self.file(raw))])[0])
            self.assertEqual(len(errors.splitlines()), recordings.refused(raw))


if __name__ == "__main__":
    COUNT, SEED = (*map(int, sys.argv[1:3]), *(COUNT, SEED)[len(sys.argv[1:3]):])
    unittest.main(argv=sys.argv[:1])
