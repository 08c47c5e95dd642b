#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The fleet with a broker of its own: fleet.py BROKER STATION CENTRE SAMPLES.

Starts two stations, kills one and starts it again, and prints the centre's table. Fails unless the
table tells exactly what a client beside the centre has seen at the broker.
"""
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time

BROKER, STATION, CENTRE, SAMPLES = sys.argv[1:5]
WHOLE = (int(SAMPLES), 0, int(SAMPLES) - 1)  # how many verdicts, first, last
PATIENCE = 60  # s
BEFORE, MEANWHILE = 5, 5  # verdicts of one before it is killed, and of the other while it is away


def free_port():
    """One that nobody listens on now."""
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Program:
    """A process with its output in a file."""

    def __init__(self, folder, name, *words):
        self.name = name
        self.path = folder / name
        with open(self.path, "w", encoding="utf-8") as output:
            self.process = subprocess.Popen(words, stdout=output, stderr=subprocess.STDOUT)

    def text(self):
        return self.path.read_text(encoding="utf-8", errors="replace")

    def ended(self):
        """Waits until it has ended by itself, in good order."""
        status = self.process.wait(PATIENCE)
        if status:
            raise SystemExit(f"{self.name} ended with status {status}:\n{self.text()}")

    def end(self, number):
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def kill(self):
        """Whatever it is doing."""
        if self.process.poll() is None:
            self.end(signal.SIGKILL)


def wait_for(what, condition):
    """Until the condition holds."""
    by = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > by:
            raise SystemExit(f"waited in vain for {what}")
        time.sleep(0.01)


def listens(port):
    with socket.socket() as one:
        return one.connect_ex(("127.0.0.1", port)) == 0


def numbers(beside, station):
    """Of all verdicts that the client beside has seen."""
    return [int(n) for n in re.findall(rf"^fleet/{station}/verdict (\d+) ", beside.text(), re.M)]


def stretches(numbers_seen):
    """Cut where a station begins to count anew: how many, first, last."""
    runs = []
    for number in numbers_seen:
        if number == 0:
            runs.append([])
        runs[-1].append(number)
    return [(len(run), run[0], run[-1]) for run in runs]


def rows(table, station):
    """Of the table, in order: "away", or how many, first, last and how many are missing."""
    found = []
    for line in table.splitlines():
        words = line.split()
        if words[:1] == [station] and len(words) >= 4 and words[1] != "is":
            found.append("away" if words[3] == "away" else tuple(int(w) for w in words[4:8]))
    return found


def run(started, folder):
    """All of it; gives the table, and what was seen beside."""
    def start(name, *words):
        started.append(Program(folder, name, *words))
        return started[-1]

    port = free_port()
    conf = folder / "broker.conf"
    conf.write_text(f"listener {port} 127.0.0.1\nuser root\nallow_anonymous true\nlog_type all\n")
    broker = start("broker", BROKER, "-c", str(conf))
    wait_for("the broker", lambda: listens(port))
    beside = start("beside", "mosquitto_sub", "-V", "5", "-h", "127.0.0.1", "-p", str(port), "-q",
                   "1", "-i", "beside", "-v", "-t", "fleet/+/verdict")
    centre = start("centre", CENTRE, str(port))
    for name in ("beside", "centre"):
        wait_for(f"the subscriptions of {name}",
                 lambda name=name: f"Sending SUBACK to {name}" in broker.text())

    north = start("north", STATION, str(port), "north", SAMPLES)
    south = start("south", STATION, str(port), "south")
    wait_for("verdicts", lambda: len(numbers(beside, "south")) >= BEFORE)
    south.end(signal.SIGKILL)
    wait_for("word of its end", lambda: "south is away" in centre.text())
    had = len(numbers(beside, "north"))
    wait_for("verdicts", lambda: len(numbers(beside, "north")) >= had + MEANWHILE)
    again = start("south again", STATION, str(port), "south", SAMPLES)
    north.ended()
    again.ended()
    wait_for("word of both ends", lambda: centre.text().count("south is away") == 2
             and "north is away" in centre.text())
    wait_for("all verdicts", lambda: all(
        stretches(numbers(beside, name))[-1] == WHOLE for name in ("north", "south")))
    if centre.end(signal.SIGTERM):
        raise SystemExit(f"the centre failed:\n{centre.text()}")
    return centre.text(), beside


def main():
    """0, or 1 with a line for each station that is told wrongly."""
    started = []
    with tempfile.TemporaryDirectory(prefix="qor_fleet_") as folder:
        try:
            table, beside = run(started, pathlib.Path(folder))
            seen = {name: stretches(numbers(beside, name)) for name in ("north", "south")}
        finally:
            for program in reversed(started):
                program.kill()
    print("\n".join(line for line in table.splitlines() if not line.startswith("[")))
    wrong = 0
    for name, count in (("north", 1), ("south", 2)):
        told = rows(table, name)
        expected = [row for one in seen[name] for row in (one + (0,), "away")]
        if told != expected or len(seen[name]) != count:
            print(f"{name}: the table has {told}, and at the broker were {seen[name]}")
            wrong = 1
    return wrong


sys.exit(main())
