# SPDX-License-Identifier: Apache-2.0
"""The command line."""
import argparse
import contextlib
import os
import sys

from . import chrome, ctf, graph, live, recording, summary, timeline
from .picture import Picture, Topics

EXAMPLES = """examples:
  qor-trace run.qor                       print the summary
  qor-trace --topics topics.txt run.qor   with the names of topics ('3 temperature' on a line)
  qor-trace --svg run.svg --from 1.2 --to 1.3 run.qor
                                          draw a tenth of a second as a timeline
  qor-trace --json run.json run.qor       for https://ui.perfetto.dev or about:tracing
  qor-trace --ctf run.ctf run.qor         for babeltrace2 run.ctf, or Trace Compass
  qor-trace --dot talk.dot run.qor && dot -Tsvg -o talk.svg talk.dot
                                          who talks to whom
  qor-trace --pid 4711                    what a running process does

status: 0; 1 if the recording cannot be read or an output not be written, with one line on standard
error; 2 if there is a finding: a strict module ran more often at a time than its limit"""


class Parser(argparse.ArgumentParser):
    """One line and status 1: status 2 is a finding."""

    def error(self, message):
        self.exit(1, f"qor-trace: {message} (qor-trace --help has examples)\n")


def parser():
    made = Parser(prog="qor-trace", epilog=EXAMPLES, allow_abbrev=False,
                  formatter_class=argparse.RawDescriptionHelpFormatter,
                  description="Reads a recording of libqor_bus and prints a summary: what each "
                              "topic and module took, what was lost, what each thread is inside.")
    made.add_argument("recording", nargs="?", metavar="RECORDING",
                      help="a file, or - for standard input")
    made.add_argument("--pid", type=int, metavar="N",
                      help="read the recording that a running process writes into a file")
    made.add_argument("--topics", metavar="FILE",
                      help="names of topics: a number and a name a line")
    made.add_argument("--from", type=float, dest="since", metavar="S",
                      help="leave out what was before, in seconds since the recording began")
    made.add_argument("--to", type=float, dest="until", metavar="S",
                      help="leave out what was after")
    made.add_argument("--ctf", metavar="DIR",
                      help="write a Common Trace Format 1.8 trace into a new folder")
    made.add_argument("--json", metavar="FILE", help="write Chrome's trace format, with arrows")
    made.add_argument("--dot", metavar="FILE", help="write a graph of who talks to whom")
    made.add_argument("--svg", metavar="FILE", help="draw a timeline")
    return made


def load(args):
    """The picture of what the arguments name."""
    topics = Topics()
    if args.topics:
        with open(args.topics, encoding="utf-8", errors="replace") as file:
            topics = named(args.topics, Topics, file)
    if args.pid is not None:
        read = named(f"process {args.pid}", live.read, args.pid)
    elif args.recording == "-":
        read = named("standard input", recording.read, sys.stdin.buffer)
    else:
        with open(args.recording, "rb") as file:
            read = named(args.recording, recording.read, file)
    return Picture(read, topics, args.since, args.until)


def named(name, function, argument):
    """What a function gives; a refusal names what was refused."""
    try:
        return function(argument)
    except recording.Refused as refused:
        raise recording.Refused(f"{name}: {refused}") from None


def write(picture, args):
    if args.ctf:
        ctf.write(picture, args.ctf)
    for path, module in ((args.json, chrome), (args.dot, graph), (args.svg, timeline)):
        if path:
            with open(path, "w", encoding="utf-8") as file:
                file.writelines(module.text(picture))



def check(arguments_of, args):
    if (args.recording is None) == (args.pid is None):
        arguments_of.error("name one recording, or a process with --pid")
    for value in (args.since, args.until):
        if value is not None and not abs(value) < 1e15:
            arguments_of.error("--from and --to take seconds")


def main(arguments=None):
    arguments_of = parser()
    args = arguments_of.parse_args(arguments)
    check(arguments_of, args)
    try:
        picture = load(args)
        lines, found = summary.lines(picture)
        for stream in (sys.stdout, sys.stderr):
            stream.reconfigure(errors="replace")
        write(picture, args)
        print("\n".join(lines), flush=True)
    except BrokenPipeError:
        with contextlib.suppress(OSError):
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except (recording.Refused, OSError) as error:
        named_file = isinstance(error, OSError) and error.filename
        text = f"{error.filename}: {error.strerror}" if named_file else error
        print(f"qor-trace: {text}", file=sys.stderr)
        return 1
    return 2 if found else 0


if __name__ == "__main__":
    sys.exit(main())
