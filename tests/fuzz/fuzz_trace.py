#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Damages recordings whose events are known, by numbers, and has qor-trace read them:

  fuzz_trace.py replay            those of corpus/trace, and says how many of the tool's lines they reach
  fuzz_trace.py run SECONDS       goes on from these
  fuzz_trace.py hunt SECONDS      the same from nothing
  fuzz_trace.py collect SECONDS   keeps in corpus/trace what reached new lines

A recording is refused with one line and status 1, or read with status 0 or 2 and no line; which, is
reckoned beside. An input is a list of numbers, the first for the recording, the last for the
arguments, those between for what is done to it: a line of corpus/trace/inputs.
"""
import contextlib
import io
import mmap
import os
import random
import signal
import struct
import sys
import tempfile
import time
import traceback
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path.insert(0, str(ROOT / "tests/tools"))

from recordings import refused  # noqa: E402 (the path comes first)
from test_damage import WAYS, Damage  # noqa: E402

from qor_trace.__main__ import main  # noqa: E402 (tool has set the path)

GOLDEN = [(ROOT / "tests/recorded/data" / name).read_bytes() for name in ("x86_64.rec", "armhf.rec")]
INPUTS = HERE / "corpus/trace/inputs"
TOOL = str(ROOT / "tools/qor_trace") + os.sep
PATIENCE = 10  # s, for one recording
LONGEST = 6


class Lines:
    """Which lines of the tool have been run; a function all of whose lines have is not watched."""

    def __init__(self):
        self.all, self.seen, self.left, self.fresh = set(), set(), {}, False
        for path in sorted(Path(TOOL).glob("*.py")):
            self.add(compile(path.read_text(), str(path), "exec"))

    def add(self, code):
        """Of functions; what a module does when it is loaded has been done."""
        for inner in code.co_consts:
            if hasattr(inner, "co_lines"):
                if inner.co_name[0] == "<" or inner.co_flags & 2:  # no class
                    lines = {line for _, _, line in inner.co_lines() if line and line > inner.co_firstlineno}
                    self.all |= {(inner.co_filename, line) for line in lines}
                self.add(inner)

    def watch(self, frame, what, _):
        code = frame.f_code
        if not code.co_filename.startswith(TOOL):
            return None
        left = self.left.get(code)
        if left is None:
            left = self.left[code] = {line for _, _, line in code.co_lines() if (code.co_filename, line) in self.all}
        if not left:
            return None
        if what == "line" and frame.f_lineno in left:
            left.discard(frame.f_lineno)
            if (code.co_filename, frame.f_lineno) not in self.seen:
                self.seen.add((code.co_filename, frame.f_lineno))
                self.fresh = True
        return self.watch


class Change(Damage):
    """Ways beside those of the damage that is tested: what stands closest to what is right."""

    def cut_short(self):
        del self.raw[self.chance.randrange(200):]

    def near_in_head(self):
        offset, layout = self.chance.choice([(12, "H"), (14, "H"), *((o, "I") for o in range(16, 48, 4)), (48, "Q")])
        value, = struct.unpack_from(f"{self.order}{layout}", self.raw, offset)
        value = self.chance.choice((0, value - 1, value + 1, value + 2, value + 4, value // 2, 2 * value))
        self.put(offset, layout, max(0, value))


NEAR = ("cut_short", "near_in_head", "near_in_head")


def made(numbers):
    """The bytes that an input stands for."""
    golden = GOLDEN[numbers[0] % len(GOLDEN)]
    raw = golden
    for number in numbers[1:-1]:
        chance = random.Random(number)
        damage = Change(golden, chance)  # what is where, before any damage
        damage.raw = bytearray(raw)
        with contextlib.suppress(struct.error, ValueError, IndexError):  # it is not there any more
            getattr(damage, chance.choice(NEAR if chance.random() < 0.4 else WAYS))()
        raw = bytes(damage.raw)
    return raw


class Pipe(io.BytesIO):
    def seekable(self):
        return False


def arguments_for(number, folder, path):
    """(arguments, whether they are good)"""
    chance = random.Random(number)
    arguments = [f"--{kind}={folder}/{kind}" for kind in ("ctf", "json", "dot", "svg") if chance.random() < 0.5]
    good = True
    for option in ("from", "to"):
        if chance.random() < 0.2:
            value = chance.choice(("0", "0.0001", "0.0003", "-1", "1e3", "1e99", "nan", "x"))
            arguments.append(f"--{option}={value}")
            good = good and value not in ("1e99", "nan", "x")
    if chance.random() < 0.3:
        text = chance.choice(("", "3 temperature\n", "# no\n\n sys 1 run # yes\n-2 x y\n", "three\n", "3\n", "1 \a\n"))
        (folder / "topics").write_text(text, encoding="utf-8")
        arguments.append(f"--topics={folder}/topics")
        good = good and text not in ("three\n", "3\n", "1 \a\n")
    way = chance.random()
    if way < 0.05:
        return [*arguments, f"{path}-not-there"], False
    if way < 0.08:
        return [*arguments, *chance.choice(((), ("--pid=1", str(path)), ("--pid=999999999",), ("--unknown",)))], False
    if way < 0.2:
        return [*arguments, f"--pid={os.getpid()}"], good
    if way < 0.4:
        return [*arguments, "-"], good
    return [*arguments, str(path)], good


class Late(Exception):
    """The tool took too long."""


def late(*_):
    raise Late


def called(arguments, raw, path, lines):
    """(status, standard error) of the tool, called here."""
    errors = io.TextIOWrapper(io.BytesIO(), encoding="utf-8", write_through=True)
    before = sys.stdin, sys.stdout, sys.stderr
    with open(path, "rb") as file:
        mapped = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) if raw else None
    sys.stdin, sys.stdout, sys.stderr = io.TextIOWrapper(Pipe(raw)), io.TextIOWrapper(io.BytesIO()), errors
    signal.alarm(PATIENCE)
    sys.settrace(lines.watch)
    try:
        status = main(arguments)
    except SystemExit as end:
        status = end.code
    except Late:
        status = f"no end within {PATIENCE} s"
    except Exception:  # whatever the interpreter would print
        status = traceback.format_exc()
    finally:
        sys.settrace(None)
        signal.alarm(0)
        sys.stdin, sys.stdout, sys.stderr = before
        if mapped:
            mapped.close()
    return status, errors.buffer.getvalue().decode("utf-8", "replace")


def wrong(numbers, folder, lines):
    """What is wrong with how the tool ends, or None."""
    raw = made(numbers)
    path = folder / "damaged.qor"
    path.write_bytes(raw)
    for old in (folder / "ctf").glob("*"):
        old.unlink()
    arguments, good = arguments_for(numbers[-1], folder, path)
    status, errors = called(arguments, raw, path, lines)
    # A process has mapped its recording if that begins as one.
    if not good or refused(raw):
        one = errors.startswith("qor-trace: ") and errors.count("\n") == 1 and errors.endswith("\n")
        return None if status == 1 and one else f"must be refused, but {status!s}, {errors!r}"
    return None if status in (0, 2) and not errors else f"must be read, but {status!s}, {errors!r}"


def kept():
    return [[int(number) for number in line.split()] for line in INPUTS.read_text().splitlines() if line[0] != "#"]


def grown(corpus, chance):
    """An input that is new: one that there is with a change more, or other arguments."""
    numbers = list(chance.choice(corpus)) if corpus and chance.random() < 0.7 else [chance.randrange(2), 0]
    if chance.random() < 0.8 and len(numbers) < LONGEST:
        numbers.insert(len(numbers) - 1, chance.getrandbits(32))
    numbers[-1] = chance.getrandbits(32)
    return numbers


def go(folder, lines, corpus, seconds):
    """Tries what is in a corpus, then what grows of it. Gives how many, and the first that fails."""
    chance = random.Random()
    for count, numbers in enumerate(corpus, 1):
        complaint = wrong(numbers, folder, lines)
        if complaint:
            return count, f"not so: {complaint}\ninput: {numbers}"
    count, end = len(corpus), time.monotonic() + seconds
    corpus = list(corpus)
    while time.monotonic() < end:
        numbers, lines.fresh = grown(corpus, chance), False
        complaint = wrong(numbers, folder, lines)
        count += 1
        if complaint:
            return count, f"not so: {complaint}\ninput: {numbers}"
        if lines.fresh:
            corpus.append(numbers)
    lines.corpus = corpus
    return count, None


def told(lines):
    """How many lines have been run, printed; whether they are enough."""
    seen = len(lines.seen & lines.all)
    print(f"trace: its corpus reaches {seen} of {len(lines.all)} lines, {100 * seen / len(lines.all):.1f} %")
    return 100 * seen >= 95 * len(lines.all)


def run(what, seconds="0"):
    signal.signal(signal.SIGALRM, late)
    lines = Lines()
    corpus = [] if what == "hunt" or not INPUTS.exists() else kept()
    with tempfile.TemporaryDirectory() as folder:
        count, complaint = go(Path(folder), lines, corpus, float(seconds))
    if complaint:
        print(complaint)
        return 77
    if what == "collect":
        INPUTS.parent.mkdir(parents=True, exist_ok=True)
        text = "".join(" ".join(map(str, numbers)) + "\n" for numbers in lines.corpus)
        INPUTS.write_text("# Inputs of fuzz_trace.py.\n" + text)
    if what in ("replay", "collect"):
        return 0 if told(lines) else 1
    print(f"trace: {count} inputs, none fails")
    return 0


if __name__ == "__main__":
    sys.exit(run(*sys.argv[1:]))
