# SPDX-License-Identifier: Apache-2.0
"""How recordings are read: byte order, time, overwritten events, texts, and what is refused."""
import io
import struct
import unittest

import recordings
from recordings import Recording
from tool import read, recording


def marks(made, lane=1):
    """The values of a lane's marks, with the time since the recorder's start."""
    found = read(made)
    lane = next(x for x in found.lanes if x.index == lane)
    return [(e.arg, e.time - found.begin) for e in lane.events if e.type == recordings.TYPE["mark"]]


def marked(steps, **more):
    """A recording of a mark after each of the steps, and what must be read of it."""
    made = Recording(**more)
    lane, wanted, time = made.lane(), [], 0
    for i, step in enumerate(steps):
        made.after(step)
        time += step
        lane.put("mark", arg=i)
        wanted.append((i, time))
    return made, wanted


class Time(unittest.TestCase):
    def test_gaps_of_any_length_are_read_exactly(self):
        made, wanted = marked([0, 1, 0, 2 ** 32, 5, 2 ** 40, 2 ** 32 - 1, 1, 3 * 2 ** 32])
        self.assertEqual(marks(made), wanted)

    def test_events_before_the_only_change_of_halves_keep_their_half(self):
        made, wanted = marked([2 ** 32 - 10] + [1] * 100, events=64, clock=0)
        self.assertEqual(marks(made), wanted[-63:])

    def test_overwritten_changes_of_halves_are_not_missed(self):
        made, wanted = marked([2 ** 33] + [2 ** 31] * 3 + [1] * 200, events=64)
        self.assertEqual(marks(made), wanted[-63:])

    def test_a_head_that_is_behind_its_ring_does_not_move_the_times(self):
        made, wanted = marked([1, 2, 2 ** 32, 1])
        made.lanes[1].half -= 1
        self.assertEqual(marks(made), wanted)

    def test_both_byte_orders_give_the_same(self):
        little, big = (read(recordings.telemetry(order=order)) for order in "<>")
        self.assertEqual([x.events for x in little.lanes], [x.events for x in big.lanes])
        self.assertEqual([x.frames for x in little.lanes], [x.frames for x in big.lanes])
        self.assertEqual(little.contexts, big.contexts)

    def test_frames_have_the_time_nearest_to_the_newest_event(self):
        made = Recording(clock=(7 << 52) - (3 << 20))
        lane = made.lane().start("request", 1)
        made.after(5 << 20)
        lane.put("mark")
        self.assertEqual(read(made).lanes[-1].frames[0].time, (7 << 52) - (3 << 20))


class Rings(unittest.TestCase):
    def test_a_ring_that_is_not_full_is_read_from_its_begin(self):
        made, wanted = marked([1] * 62)  # and the change of halves
        self.assertEqual(marks(made), wanted)

    def test_the_oldest_slot_of_a_full_ring_is_left_out(self):
        for count in (63, 64, 65, 200):
            made, wanted = marked([1] * count, events=64)
            found = read(made).lanes[-1]
            self.assertEqual((found.written, found.kept, found.lost), (count + 1, 63, count - 62))
            self.assertEqual(marks(made), wanted[-63:])

    def test_more_than_2_to_the_32_events_are_counted(self):
        made, _ = marked([1] * 70, events=64)
        raw = bytearray(made.bytes())
        struct.pack_into("<2I", raw, 128 + 128, 7, 1)
        found = read(bytes(raw)).lanes[-1]
        self.assertEqual((found.written, found.kept), (2 ** 32 + 7, 63))

    def test_what_was_written_while_it_was_read_is_left_out(self):
        made, wanted = marked([1] * 100, events=64)
        before = made.bytes()
        for i in range(20):
            made.after(1)
            made.lanes[1].put("mark", arg=100 + i)
        after = made.bytes()

        class Live(io.BytesIO):
            """The heads change between the first and the second time that they are read."""

            to_heads = 0

            def seek(self, where, whence=0):
                self.to_heads += where == 128
                if self.to_heads == 2:
                    self.getbuffer()[:] = after
                return super().seek(where, whence)

        file = Live(before)
        found = recording.read(file)
        values = [e.arg for e in found.lanes[-1].events]
        self.assertEqual(values, [arg for arg, _ in wanted[-63:]][20:])

    def test_what_a_copy_has_emptied_counts_as_lost(self):
        made, wanted = marked([1] * 100, events=64)
        for i in range(101, 111):  # the oldest; the 101st was written last
            made.lanes[1].slots[i - 64] = (0, 0, 0, 0)
        found = read(made).lanes[-1]
        self.assertEqual((found.written, found.kept), (101, 54))
        self.assertEqual(marks(made), wanted[-54:])

    def test_frames_that_are_being_written_are_left_out(self):
        made = Recording()
        made.lane().start("request", 1).changes = 3
        self.assertEqual(read(made).lanes[-1].frames, [])

    def test_lanes_that_were_never_taken_are_left_out(self):
        made = Recording()
        made.lane()
        made.lane().put("mark")
        self.assertEqual([lane.index for lane in read(made).lanes], [2])

    def test_what_stands_after_the_last_ring_is_ignored(self):
        made, wanted = marked([1, 2])
        self.assertEqual(marks(made.bytes() + b"\xff" * 1000), wanted)

    def test_larger_records_of_a_later_minor_are_read(self):
        made, wanted = marked([1, 2 ** 33, 3])
        raw = made.bytes()
        lanes, names = len(made.lanes), len(made.names)
        head = bytearray(raw[:128] + b"\1" * 8)
        struct.pack_into("<2H2I", head, 12, 1, 9, 136, 132)
        struct.pack_into("<I", head, 32, 40)
        struct.pack_into("<I", head, 40, 20)

        def widened(begin, size, count, more):
            return b"".join(raw[begin + i * size:begin + (i + 1) * size] + b"\2" * more
                            for i in range(count))

        at_names = 128 + 128 * lanes
        wide = (bytes(head) + widened(128, 128, lanes, 4) + widened(at_names, 32, names, 8)
                + widened(at_names + 32 * names, 16, lanes * made.events, 4))
        self.assertEqual(marks(wide), wanted)
        self.assertEqual(read(wide).contexts, read(raw).contexts)


class Texts(unittest.TestCase):
    def texts(self, *texts, events=1024):
        made = Recording(events=events)
        lane = made.lane()
        for text in texts:
            lane.put("line", 4, text=text)
        return [e.text for e in read(made).lanes[-1].events]

    def test_texts_of_any_length_continue_their_event(self):
        wanted = ["", "a", "x" * 11, "x" * 12, "abcdefghijklmnopqrstuvwxyz01234", "\u00e4\u00f6"]
        self.assertEqual(self.texts(*wanted), wanted)

    def test_a_text_whose_event_was_overwritten_is_left_out(self):
        self.assertEqual(self.texts("x" * 33, *["y"] * 30, events=64), ["y"] * 30)

    def test_what_no_terminal_should_get_becomes_question_marks(self):
        self.assertEqual(self.texts("a\x1b[31m\x07\n"), ["a?[31m??"])

    def test_names_of_contexts_have_their_promise(self):
        made = Recording(())
        made.name("calm", flags=1, limit=3)
        made.name("base", role=1, flags=4)
        made.name("")
        found = read(made)
        calm, base = found.contexts[1:3]
        self.assertEqual((calm.name, calm.strict, calm.limit, calm.system),
                         ("calm", True, 3, False))
        self.assertEqual((base.strict, base.system), (False, True))
        self.assertEqual([found.who(n) for n in (0, 1, 3, 99, None)],
                         ["outside", "calm", "context 3", "context 99", "unknown"])


class Refusals(unittest.TestCase):
    def refused(self, raw):
        with self.assertRaises(recording.Refused) as caught:
            read(raw)
        return str(caught.exception)

    def test_each_damage_of_the_head_is_named(self):
        whole = recordings.telemetry(rounds=3).bytes()
        for offset, layout, value, text in (
                (0, "B", 0, "not a recording"),
                (8, "I", 0x01020305, "damaged: its byte order cannot be told"),
                (12, "H", 2, "its format is 2.0, this reads 1.x"),
                (16, "I", 127, "damaged: a record of 127 bytes"),
                (20, "I", 130, "damaged: a record of 130 bytes"),
                (32, "I", 1 << 31, "damaged: a record of 2147483648 bytes"),
                (40, "I", 0, "damaged: a record of 0 bytes"),
                (24, "I", 0, "damaged: 0 lanes of 1024 events"),
                (28, "I", 1000, "damaged: 4 lanes of 1000 events"),
                (28, "I", 32, "damaged: 4 lanes of 32 events"),
                (36, "I", 0, "damaged: 0 names"),
                (48, "Q", 0, "damaged: a clock of 0 Hz")):
            raw = bytearray(whole)
            struct.pack_into(f"<{layout}", raw, offset, value)
            self.assertEqual(self.refused(bytes(raw)), text)

    def test_what_is_cut_is_refused_at_any_place(self):
        whole = recordings.telemetry(rounds=3).bytes()
        read(whole)
        for cut in (1, 16, 1000, len(whole) - 128 * 5, len(whole) - 130):
            self.assertEqual(self.refused(whole[:-cut]), f"cut: {cut} bytes are missing")
        self.assertEqual(self.refused(whole[:127]), "not a recording")
        self.assertEqual(self.refused(b""), "not a recording")

    def test_what_is_asked_for_beyond_the_file_is_never_read(self):
        raw = bytearray(recordings.telemetry(rounds=3).bytes())
        struct.pack_into("<2I", raw, 24, 0xffffffff, 1 << 31)
        self.assertIn("cut", self.refused(bytes(raw)))


if __name__ == "__main__":
    unittest.main()
