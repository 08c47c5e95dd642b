# SPDX-License-Identifier: Apache-2.0
"""Writes a Common Trace Format 1.8 trace: a folder of one stream per lane and their description."""
import hashlib
import os
import struct

from . import events
from .recording import Refused

MAGIC = 0xC1FC1FC1
OTHER = 0  # the number of what this version does not know

HEAD = """/* CTF 1.8 */
typealias integer {{ size = 8; align = 8; signed = false; }} := uint8_t;
typealias integer {{ size = 32; align = 8; signed = false; }} := uint32_t;
typealias integer {{ size = 64; align = 8; signed = false; }} := uint64_t;
typealias integer {{ size = 32; align = 8; signed = true; }} := int32_t;

trace {{
    major = 1;
    minor = 8;
    uuid = "{uuid}";
    byte_order = le;
    packet.header := struct {{ uint32_t magic; uint8_t uuid[16]; uint32_t stream_id; }};
}};

env {{
    tracer_name = "libqor_bus";
    procname = "{program}";
    vpid = {pid};
}};

clock {{
    name = "monotonic";
    freq = {hz};
    offset_s = {seconds};
    offset = {ticks};
}};

typealias integer {{ size = 64; align = 8; signed = false; map = clock.monotonic.value; }}
    := time_t;

stream {{
    id = 0;
    packet.context := struct {{
        time_t timestamp_begin;
        time_t timestamp_end;
        uint64_t content_size;
        uint64_t packet_size;
        uint64_t events_discarded;
    }};
    event.header := struct {{ uint8_t id; time_t timestamp; }};
    event.context := struct {{ int32_t vtid; string thread; }};
}};
"""


def quoted(text):
    return text.replace("\\", "\\\\").replace('"', '\\"')


def types():
    """Each number with the name and the fields of its events."""
    return {OTHER: events.OTHER, **events.FIELDS}


def described(number, name, fields):
    """The description of one type of event."""
    lines = []
    for field, source in fields:
        values = events.NAMED.get((number, field))
        if field == "who" and source == "who":
            lines.append("string who;")
        elif source == "text":
            lines.append(f"string {field};")
        elif values:
            names = ", ".join(f'"{quoted(text)}" = {value}' for value, text in values.items())
            lines.append(f"enum : uint8_t {{ {names} }} {field};")
        else:
            lines.append(f"int32_t {field};")
            if field == "topic":
                lines.append("string topic_name;")
    body = "".join(f"        {line}\n" for line in lines)
    return (f'\nevent {{\n    id = {number};\n    name = "{name}";\n    stream_id = 0;\n'
            f"    fields := struct {{\n{body}    }};\n}};\n")


def zero_ended(text):
    """A string. Where one is empty, babeltrace2 shows the one before: a dash stands for it."""
    return (text or "-").encode("utf-8", "replace") + b"\0"


class Writer:
    """Writes the streams of a picture."""

    def __init__(self, picture):
        self.picture = picture
        head = picture.recording.head
        self.uuid = hashlib.sha256(f"{head.__dict__}".encode()).digest()[:16]
        self.known = types()

    def metadata(self):
        head = self.picture.recording.head
        # The clock's own zero, in ticks since 1970.
        seconds, ticks = divmod(head.real * head.hz // 10 ** 9 - head.clock, head.hz)
        digits = self.uuid.hex()
        uuid = "-".join(digits[i:j] for i, j in ((0, 8), (8, 12), (12, 16), (16, 20), (20, 32)))
        yield HEAD.format(uuid=uuid, program=quoted(head.program), hz=head.hz, seconds=seconds,
                          pid=head.pid, ticks=ticks)
        for number, (name, fields) in self.known.items():
            yield described(number, name, fields)

    def fields(self, event, number):
        """An event's fields as bytes."""
        for field, source in self.known[number][1]:
            value = getattr(event, source)
            if field == "who" and source == "who":
                yield zero_ended(self.picture.recording.who(value))
            elif source == "text":
                yield zero_ended(value)
            elif (number, field) in events.NAMED:
                yield struct.pack("<B", value)
            else:
                yield struct.pack("<i", value)
                if field == "topic":
                    system = number == events.REQUEST and bool(event.detail & events.TO_SYSTEM)
                    yield zero_ended(self.picture.topics.names.get((system, value), ""))

    def packet(self, begin, end, body, discarded):
        head = struct.pack("<I16sI", MAGIC, self.uuid, 0)
        size = 8 * (len(head) + 40 + len(body))
        return head + struct.pack("<5Q", begin, end, size, size, discarded) + body

    def stream(self, lane, kept):
        """Two packets of nothing, between which events were lost, then one with all the others."""
        thread = struct.pack("<I", lane.tid) + zero_ended(lane.label)
        time = kept[0].time
        body = bytearray()
        for event in kept:
            time = max(time, event.time)  # readers take no steps back
            number = event.type if event.type in self.known else OTHER
            body += struct.pack("<BQ", number, time) + thread
            body += b"".join(self.fields(event, number))
        first = kept[0].time
        begin = min(first, self.picture.recording.begin)
        return (self.packet(begin, begin, b"", 0) + self.packet(begin, first, b"", lane.lost)
                + self.packet(first, time, bytes(body), lane.lost))


def write(picture, folder):
    """Writes the trace into a folder, which is made, or empty: old streams would be read, too."""
    os.makedirs(folder, exist_ok=True)
    if os.listdir(folder):
        raise Refused(f"{folder}: not empty")
    writer = Writer(picture)
    with open(os.path.join(folder, "metadata"), "w", encoding="utf-8") as file:
        file.writelines(writer.metadata())
    for lane in picture.recording.lanes:
        kept = picture.events(lane)
        if kept:
            with open(os.path.join(folder, f"lane_{lane.index}"), "wb") as file:
                file.write(writer.stream(lane, kept))
