# SPDX-License-Identifier: Apache-2.0
"""What is written for other programs: each format is read by something else than this tool."""
import json
import shutil
import subprocess
import unittest
from xml.etree import ElementTree

import recordings
from recordings import Recording
from tool import Case, Picture, Topics, picture, read

from qor_trace import chrome, ctf, graph, timeline  # noqa: E402 (tool has set the path)

SVG = "{http://www.w3.org/2000/svg}"


def slices(trace, row):
    """The slices of a row: (begin, end, name)."""
    return [(e["ts"], e["ts"] + e["dur"], e["name"]) for e in trace["traceEvents"]
            if e["ph"] == "X" and e["tid"] == row]


class Chrome(unittest.TestCase):
    def trace(self, made):
        return json.loads("".join(chrome.text(picture(made))))

    def rows(self, trace):
        return {e["args"]["name"]: e["tid"] for e in trace["traceEvents"]
                if e["name"] == "thread_name"}

    def test_every_arrow_has_both_ends_in_slices(self):
        for made in recordings.samples().values():
            trace = self.trace(made)
            ends, found = {}, {row: slices(trace, row) for row in self.rows(trace).values()}
            for e in trace["traceEvents"]:
                if e["ph"] in "sf":
                    self.assertNotIn((e["id"], e["ph"]), ends)
                    ends[e["id"], e["ph"]] = e
                    inside = [b <= e["ts"] < end for b, end, _ in found[e["tid"]]]
                    self.assertTrue(any(inside), e)
            for number in {n for n, _ in ends}:
                self.assertLessEqual(ends[number, "s"]["ts"], ends[number, "f"]["ts"] + 0.001)

    def test_arrows_lead_from_the_publisher_to_the_handler_and_back(self):
        made = Recording(("a", "b"))
        one, two = made.lane(), made.lane()
        one.start("task", 1, 1, text="ask").request(2, 7, 4)
        made.after(1000)
        one.end("task", 1, 1)
        two.start("request", 2, 7, 4)
        made.after(1000)
        two.end("request", 2, 7)
        made.after(1000)
        one.start("response", 1, 7, 4)
        made.after(1000)
        one.end("response", 1, 7)
        trace = self.trace(made)
        rows = self.rows(trace)
        arrows = [(e["ph"], e["name"], e["tid"], round(e["ts"], 3))
                  for e in trace["traceEvents"] if e["ph"] in "sf"]
        self.assertEqual(arrows, [("s", "request", rows["a"], 0), ("f", "request", rows["b"], 1),
                                  ("s", "response", rows["b"], 1.999),
                                  ("f", "response", rows["a"], 3)])
        self.assertEqual([s[2] for s in slices(trace, rows["a"])], ["task ask", "response 4"])

    def test_what_was_sent_from_inside_nothing_has_a_slice_for_its_arrow(self):
        made = Recording(("a",))
        made.lane().request(1, 7, 4)
        made.after(1000)
        made.lanes[1].start("request", 1, 7, 4)
        made.after(1000)
        made.lanes[1].end("request", 1, 7)
        trace = self.trace(made)
        self.assertEqual([s[2] for s in slices(trace, self.rows(trace)["outside"])],
                         ["sends a request"])

    def test_a_module_beside_itself_gets_another_row(self):
        made = Recording(("a",))
        one, two = made.lane(), made.lane()
        one.start("task", 1, 1).start("call", 1, 2, 4)  # nested: the same row
        made.after(10)
        two.start("task", 1, 3)
        made.after(10)
        one.end("call", 1, 2).end("task", 1, 1)
        made.after(10)
        two.end("task", 1, 3)
        one.start("task", 1, 4)
        made.after(10)
        one.end("task", 1, 4)
        trace = self.trace(made)
        rows = self.rows(trace)
        self.assertEqual([len(slices(trace, rows[n])) for n in ("a", "a (2)")], [3, 1])

    def test_slices_of_a_row_lie_in_each_other_or_apart(self):
        for made in recordings.samples().values():
            trace = self.trace(made)
            for row in self.rows(trace).values():
                open_ends = []
                for begin, end, _ in sorted(slices(trace, row), key=lambda s: (s[0], -s[1])):
                    while open_ends and open_ends[-1] <= begin + 1e-6:
                        open_ends.pop()
                    if open_ends:
                        self.assertLessEqual(end, open_ends[-1] + 0.0011)
                    open_ends.append(end)


@unittest.skipUnless(shutil.which("babeltrace2"), "babeltrace2 is not installed")
class Ctf(Case):
    def babeltrace(self, made, topics=Topics()):
        folder = self.folder / "trace"
        shutil.rmtree(folder, ignore_errors=True)
        ctf.write(Picture(read(made), topics), folder)
        done = subprocess.run(["babeltrace2", "--clock-seconds", "--no-delta", folder], text=True,
                              capture_output=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.splitlines(), done.stderr

    def test_every_event_is_read(self):
        """The writer of the recording counted them."""
        for workers in (1, 2, 5):
            made = recordings.telemetry(workers, 60, workers=max(2, workers))
            self.assertEqual(len(self.babeltrace(made)[0]), made.put_count)

    def test_every_type_is_read_with_its_fields(self):
        made = Recording(("a", "b"))
        lane = made.lane()
        for kind in set(recordings.TYPE) - {"time", "name", "end", "waited"}:
            lane.put(kind, 2, 2, -7, 5)
        lane.put(77, 1, 2, 3, 4)
        lines = self.babeltrace(made, Topics(["5 load"]))[0]
        self.assertEqual(len(lines), made.put_count)
        text = "\n".join(lines)
        for wanted in ('request: { vtid = 101, thread = "worker 101 worker" }, { who = "b", '
                       'session = -7, topic = 5, topic_name = "load", flags = 2 }',
                       'drop: { vtid = 101, thread = "worker 101 worker" }, { who = "b", reason '
                       '= ( "no memory" : container = 2 ), session = -7, topic = 5',
                       '{ type = 77, detail = 1, who = "b", session = 3, value = 4 }'):
            self.assertIn(wanted, text)

    def test_times_are_those_of_the_wall_clock(self):
        made = Recording(hz=1000, clock=1 << 33)
        made.after(1500).lane().put("mark")
        self.assertIn("[1800000001.500000000]", self.babeltrace(made)[0][0])

    def test_lost_events_are_told(self):
        made = Recording(events=64)
        lane = made.lane()
        for _ in range(200):
            made.after(1)
            lane.put("mark")
        lines, errors = self.babeltrace(made)
        self.assertEqual(len(lines), 63)
        self.assertIn("Tracer discarded 138 events between [1800000000.000000000] and "
                      "[1800000000.000000138]", errors)

    def test_times_that_run_backwards_are_read(self):
        made = Recording()
        lane = made.lane()
        for step in (5, -3, 1, -100):
            made.after(step)
            lane.put("mark")
        self.assertEqual(len(self.babeltrace(made)[0]), 4)

    def test_texts_of_any_sort_are_read(self):
        made = Recording(('quo"te', "back\\slash"), program='"\\')
        made.lane().start("task", 1, text="\u00e4").start("task", 2)
        lines = self.babeltrace(made)[0]
        self.assertIn('who = "quo\\"te"', lines[0])
        self.assertIn('name = "\u00e4"', lines[0])
        self.assertIn('name = "-"', lines[1])


class Graph(unittest.TestCase):
    def test_edges_have_their_topics_and_counts(self):
        text = "".join(graph.text(picture(recordings.telemetry())))
        for source, target, style, label in ((2, 3, "solid", "1: 40"), (2, 5, "dotted", "1: 40"),
                                             (3, 4, "dashed", "2: 8"), (4, 3, "solid", "3: 3")):
            self.assertRegex(text, rf'c{source} -> c{target} \[style={style}, .*label="{label}"')

    @unittest.skipUnless(shutil.which("dot"), "graphviz is not installed")
    def test_dot_draws_it(self):
        odd = Recording(('quo"te', "back\\"), program='"\\')
        odd.lane().start("task", 1).request(2, 7, 1)
        for made in (*recordings.samples().values(), odd):
            done = subprocess.run(["dot", "-Tsvg"], input="".join(graph.text(picture(made))),
                                  text=True, capture_output=True, check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            ElementTree.fromstring(done.stdout)


class Timeline(unittest.TestCase):
    def drawn(self, made, **window):
        return ElementTree.fromstring("".join(timeline.text(picture(made, **window))))

    def texts(self, svg):
        return [t.text for t in svg.iter(f"{SVG}text")]

    def test_every_module_has_a_row_and_every_kind_a_legend(self):
        texts = self.texts(self.drawn(recordings.telemetry()))
        for wanted in ("sampler", "judge", "alarm", "recorder", "handles a request",
                       "handles a response", "task or timer", "called synchronously", "listener",
                       "a request waits in the module's queue", "message dropped or lost"):
            self.assertIn(wanted, texts)
        self.assertNotIn("filter", texts)  # there is none

    def test_the_axis_says_its_unit_and_its_division(self):
        for until, unit, division in ((0.1, "milliseconds", "10 ms"),
                                      (0.01, "milliseconds", "1 ms"),
                                      (0.001, "microseconds", "100 \u00b5s")):
            texts = self.texts(self.drawn(recordings.telemetry(), since=0, until=until))
            self.assertIn(f"{unit} since the recording began; one division is {division}", texts)

    def test_the_axis_begins_anew_where_its_numbers_would_be_long(self):
        texts = self.texts(self.drawn(recordings.telemetry(), since=0.1003, until=0.1006))
        self.assertIn("microseconds, 0 is 0.1 s after the recording began; one division is 50 "
                      "\u00b5s", texts)
        self.assertIn("300", texts)

    def test_a_bar_is_as_long_as_what_it_stands_for(self):
        made = Recording(("a",))
        lane = made.lane()
        made.after(250)
        lane.start("task", 1, 1)
        made.after(250)
        lane.end("task", 1, 1)
        made.after(500)
        lane.put("mark")
        bar = next(r for r in self.drawn(made).iter(f"{SVG}rect")
                   if r.find(f"{SVG}title") is not None)
        span = timeline.WIDTH - timeline.LEFT - timeline.RIGHT
        self.assertAlmostEqual(float(bar.get("x")), timeline.LEFT + span / 4, 1)
        self.assertAlmostEqual(float(bar.get("width")), span / 4, 1)

    def test_a_long_recording_gives_a_small_picture(self):
        made = recordings.telemetry(5, 2000, events=16384)
        svg = "".join(timeline.text(picture(made)))
        self.assertLess(len(svg), 1_500_000)
        self.assertIn("too many to be drawn as arrows", svg)
        self.assertIn("Bars that are less high stand for many short ones", svg)
        self.assertIn('class="column"', svg)

    def test_recordings_of_all_sorts_are_drawn(self):
        for made in recordings.samples().values():
            self.drawn(made)

    def test_names_of_any_sort_are_drawn(self):
        made = Recording(("<a&b>",), program="</text>&")
        lane = made.lane("<t>").start("task", 1, text="<&>")
        made.after(1000)
        lane.end("task", 1)
        self.assertIn("<a&b>", self.texts(self.drawn(made)))

    def test_what_is_not_complete_is_marked(self):
        lossy = recordings.telemetry(2, 400, events=256)
        self.assertIn("older events were overwritten: not complete", self.texts(self.drawn(lossy)))


if __name__ == "__main__":
    unittest.main()
