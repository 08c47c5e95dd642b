# SPDX-License-Identifier: Apache-2.0
"""The summary: its columns, what it finds, and what each thread is inside at the end."""
import unittest

import recordings
from recordings import Recording
from tool import Topics, Picture, picture, read, row, summarise, summary


class Columns(unittest.TestCase):
    def test_waiting_handling_and_responding_have_their_quantiles(self):
        made = Recording(("a", "b"), events=4096)
        one, two = made.lane(), made.lane()
        for i in range(1, 101):
            one.start("task", 1, i).request(2, i, 1).end("task", 1, i)
            made.after(i * 1000)  # 1 us to 100 us
            two.start("request", 2, i, 1)
            made.after(i * 10 ** 6)
            two.end("request", 2, i)
            made.after(2000)
            one.start("response", 1, i, 1).end("response", 1, i)
        self.assertEqual(row(summarise(made), "1", "b", "request"), [
            "1", "b", "request", "100", "0", "0", "50.0 us", "99.0 us", "100 us",
            "50.0 ms", "99.0 ms", "100 ms", "2.00 us", "2.00 us", "2.00 us"])

    def test_an_open_request_has_a_column_of_its_own(self):
        made = Recording(("a", "b"))
        one = made.lane()
        self.assertNotIn("open", summarise(made))
        for session in (7, 8):
            one.request(2, session, 1).start("request", 2, session, 1)
            made.after(10 ** 6)
            one.put("deferred", 0, 2, session, 1).end("request", 2, session)
        made.after(4 * 10 ** 6)
        one.put("completed", 0, 2, 7, 0)
        made.after(1000)
        one.start("response", 0, 7, 1).end("response", 0, 7)
        text = summarise(made)
        self.assertIn("open: p50", text)
        self.assertEqual(row(text, "1", "b"), ["1", "b", "request", "2", "1", "0", *["0 ns"] * 3,
                                               *["1.00 ms"] * 3,
                                               *["5.00 ms"] * 3, *["1.00 us"] * 3])

    def test_what_nobody_has_handled_yet_is_pending(self):
        made = Recording(("a", "b"))
        lane = made.lane().request(2, 7, 1).request(2, 8, 1).request(2, 9, 1)
        lane.start("request", 2, 8, 1).start("request", 2, 9, 1).end("request", 2, 9)
        self.assertEqual(row(summarise(made), "1", "b")[3:6], ["3", "2", "0"])

    def test_calls_have_a_row_of_their_own(self):
        made = Recording(("a", "b"))
        made.lane().start("call", 2, 7, 1)
        made.after(300)
        made.lanes[-1].end("call", 2, 7)
        self.assertEqual(row(summarise(made), "1", "b", "call")[3:10],
                         ["1", "0", "0", "-", "-", "-", "300 ns"])

    def test_losses_are_counted_by_their_reason(self):
        made = Recording(("a", "b"))
        lane = made.lane()
        for _ in range(3):
            lane.put("drop", 1, 1, 7, 4)
        lane.put("drop", 64 + 2, 1, 7, 4).put("lost", 2, 2, 7, 4).put("lost", 33, 2, 7, -1)
        text = summarise(made)
        for wanted in (["4", "a", "dropped: no subscriber", "3"],
                       ["4", "a", "dropped: listener's, no memory", "1"],
                       ["4", "b", "lost: request, transfer", "1"],
                       ["task", "b", "lost: task, newest", "1"]):
            self.assertEqual(row(text, *wanted[:3]), wanted)

    def test_the_busiest_module_is_first_and_what_it_called_is_not_its_own(self):
        made = Recording(("a", "b", "c"))
        lane = made.lane()
        lane.start("task", 1, 1)
        made.after(2_000_000)
        lane.start("call", 2, 2, 5)
        made.after(7_000_000)
        lane.end("call", 2, 2)
        lane.put("wait", 5, 3, 0, -1)
        made.after(1_000_000)
        lane.put("waited", 5, 3).end("task", 1, 1)
        text = summarise(made)
        self.assertEqual(row(text, "b", "1"), ["b", "1", "7.00 ms", "70.0 %", "0 ns",
                                               *["7.00 ms"] * 3, "call 5"])
        self.assertEqual(row(text, "a", "1"), ["a", "1", "2.00 ms", "20.0 %", "1.00 ms",
                                               *["10.0 ms"] * 3, "task"])
        self.assertEqual([line.split()[0] for line in text.splitlines()
                          if line.endswith(("call 5", "task"))], ["b", "a"])

    def test_overwritten_events_are_told(self):
        made = Recording(events=64)
        lane = made.lane("busy")
        for i in range(200):
            made.after(1_000_000)
            lane.put("mark", arg=i)
        text = summarise(made)
        self.assertIn("events: 201 written, 63 kept, 138 lost", text)
        self.assertIn("complete from 0.138000 s on", text)
        self.assertEqual(row(text, "worker 101 busy"), ["worker 101 busy", "201", "138", "nothing"])

    def test_a_window_counts_what_was_sent_in_it(self):
        made = Recording(("a", "b"))
        lane = made.lane()
        for i in range(10):
            lane.request(2, i, 1).put("drop", 3, 0, i, 1)
            made.after(10 ** 9)
        found = picture(made, since=2, until=4.5)
        self.assertEqual([m.session for m in found.messages], [2, 3, 4])
        self.assertEqual([e.session for e, _ in found.losses], [2, 3, 4])


class AtTheEnd(unittest.TestCase):
    def inside(self, made):
        return row(summarise(made), "worker 101 worker")[3]

    def test_a_thread_is_shown_inside_what_it_has_not_left(self):
        made = Recording(("a", "b"), state=1)
        lane = made.lane().start("request", 1, 7, 4)
        made.after(3_000_000)
        lane.put("wait", 5, 2, 0, 100)
        made.after(2_000_000)
        made.lanes[0].put("mark")
        self.assertEqual(self.inside(made),
                         "a request 4 (5.00 ms) > waits for the start of b (2.00 ms)")
        self.assertIn("still recording", summarise(made))

    def test_what_was_overwritten_is_known_by_the_lane(self):
        made = Recording(("a", "b"), events=64)
        lane = made.lane().start("request", 1, 7, 4)
        made.after(1 << 30)
        for _ in range(100):
            lane.put("mark")
        self.assertEqual(self.inside(made), "a request 4 (1.07 s)")

    def test_what_is_deeper_than_the_lane_keeps_is_counted(self):
        made = Recording(("a", "b"), events=64)
        lane = made.lane()
        for i in range(7):
            lane.start("call", 1, i, 4)
        for _ in range(100):
            lane.put("mark")
        self.assertTrue(self.inside(made).endswith(" > 2 more"))

    def test_what_is_deeper_than_the_lane_keeps_is_known_by_its_events(self):
        made = Recording(("a", "b"))
        lane = made.lane()
        for i in range(7):
            lane.start("call", 1, i, i)
        self.assertEqual(self.inside(made),
                         " > ".join(f"a call {i} (0 ns)" for i in range(7)))


class Strict(unittest.TestCase):
    def strict(self, limit, *kinds, nested=False):
        """A strict module that is inside so many things at a time, each on a thread of its own."""
        made = Recording(())
        made.name("calm", flags=1, limit=limit)
        lanes = [made.lane() for _ in kinds]
        if nested:
            lanes = lanes[:1] * len(kinds)
        for i, (lane, kind) in enumerate(zip(lanes, kinds)):
            made.after(1000)
            lane.start(kind, 1, i, 4)
        made.after(1000)
        for i, (lane, kind) in reversed(list(enumerate(zip(lanes, kinds)))):
            lane.end(kind, 1, i)
        return list(summary.findings(picture(made)))

    def test_more_at_a_time_than_the_limit_is_a_finding(self):
        self.assertEqual(self.strict(1, "request", "task"), [
            "finding: calm is strict with a limit of 1, but 2 ran at a time at 0.000002 s: "
            "request 4 on worker 101 worker, task on worker 102 worker"])

    def test_as_many_as_the_limit_are_none(self):
        self.assertEqual(self.strict(2, "request", "task"), [])
        self.assertEqual(self.strict(0, "request"), [])  # 0 is 1

    def test_calls_and_filters_are_outside_of_the_promise(self):
        self.assertEqual(self.strict(1, "request", "call", "filter before", "init"), [])

    def test_what_lies_in_another_on_its_thread_is_one(self):
        self.assertEqual(self.strict(1, "task", "request", nested=True), [])

    def test_one_after_the_other_is_none(self):
        made = Recording(())
        made.name("calm", flags=1)
        one, two = made.lane(), made.lane()
        for lane in (one, two, one):
            lane.start("task", 1, 1)
            made.after(1000)
            lane.end("task", 1, 1)
        self.assertEqual(list(summary.findings(picture(made))), [])

    def test_a_module_that_is_not_strict_is_promised_nothing(self):
        made = Recording(())
        made.name("free", flags=4)
        made.lane().start("task", 1, 1)
        made.lane().start("task", 1, 2)
        made.after(1000).lane().put("mark")
        self.assertEqual(list(summary.findings(picture(made))), [])


class Names(unittest.TestCase):
    def test_topics_have_the_names_of_a_file(self):
        topics = Topics(["# topics\n", "\n", "1 load\n", "sys 1 the bus's own  # its table\n"])
        made = Recording(("a", "b"))
        made.lane().request(2, 7, 1).request(2, 8, 1, system=1).request(2, 9, 2)
        text = "\n".join(summary.lines(Picture(read(made), topics))[0])
        for name in ("1 load", "sys 1 the bus's own", "2"):
            row(text, name, "b", "request")

    def test_times_have_three_digits_and_a_unit(self):
        for ns, text in ((0, "0 ns"), (999, "999 ns"), (1000, "1.00 us"), (12_345, "12.3 us"),
                         (99_960, "100 us"), (1_500_000, "1.50 ms"), (2 * 10 ** 9, "2.00 s")):
            self.assertEqual(summary.duration(ns), text)

    def test_both_byte_orders_give_the_same_text(self):
        self.assertEqual(*(summarise(recordings.telemetry(order=order)) for order in "<>"))


if __name__ == "__main__":
    unittest.main()
