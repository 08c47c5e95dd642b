# SPDX-License-Identifier: Apache-2.0
"""Writes who talks to whom as a graph for graphviz's dot."""
import math
from collections import Counter

from . import events

LEGEND = "solid: requests   dashed: calls on the caller's thread   dotted: what listeners see"
HEAD = """digraph "{program}" {{
  label="{program}: who talks to whom, by topic, with counts\\n{legend}\\n ";
  labelloc=t; fontname="sans-serif"; rankdir=LR; nodesep=0.4; ranksep=1.4;
  node [shape=box, style="rounded,filled", fillcolor="#e8f0fa", color="#4a6a94",
        fontname="sans-serif"];
  edge [fontname="sans-serif", fontsize=10, color="#444444"];
"""
STYLES = {"request": "solid", "call": "dashed", "listen": "dotted"}


def quoted(text):
    return text.replace("\\", "\\\\").replace('"', '\\"')


def edges(picture):
    """(from, to, how, topic): how often; a context that is not known is None."""
    found = Counter()
    publishers = {}
    for message in picture.messages:
        to = message.start.who if message.start else message.to
        topic = picture.topic(message.topic, message.system)
        found[message.publisher, to, "request", topic] += 1
        publishers.setdefault((message.session, message.topic), set()).add(message.publisher)
    for span in picture.spans():
        if span.topic is None:
            continue
        topic = picture.topic(span.topic, picture.is_system(span))
        if span.kind == events.KIND_CALL:
            found[span.caller, span.who, "call", topic] += 1
        elif span.kind in events.KINDS_LISTEN:
            # A listener's copy does not tell who published it; a request of its session does.
            known = publishers.get((span.session, span.topic), set())
            if len(known) == 1:
                found[*known, span.who, "listen", topic] += 1
    return found


def name(number):
    return "unknown" if number is None else f"c{number}"


def text(picture):
    recording = picture.recording
    found = edges(picture)
    yield HEAD.format(program=quoted(recording.head.program or "a program"), legend=LEGEND)
    for number in sorted({n for key in found for n in key[:2]}, key=name):
        system = recording.is_system(number)
        style = ' fillcolor="#eeeeee", color="#888888",' if system or not number else ""
        yield f'  {name(number)} [{style}label="{quoted(recording.who(number))}"];\n'
    order = sorted(found.items(), key=lambda item: [str(k) for k in item[0]])
    for (source, target, how, topic), count in order:
        width = 1 + math.log10(count)
        yield (f'  {name(source)} -> {name(target)} [style={STYLES[how]}, penwidth={width:.1f}, '
               f'label="{quoted(topic)}: {count}"];\n')
    yield "}\n"
