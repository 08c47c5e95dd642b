# SPDX-License-Identifier: Apache-2.0
"""Which start belongs to which request, who sent it, and what cannot be known."""
import unittest

from recordings import Recording
from tool import picture


def sent(found):
    """Of each message: publisher, subscriber, and the moments of its start and response."""
    return [(m.publisher, m.to, at(found, m.start), at(found, m.response)) for m in found.messages]


def at(found, span):
    return None if span is None else span.begin - found.recording.begin


class Made(unittest.TestCase):
    """A recording of contexts 1 'a' to 4 'd' and three lanes."""

    def setUp(self):
        self.made = Recording(("a", "b", "c", "d"))
        self.one, self.two, self.three = (self.made.lane() for _ in range(3))

    def tick(self, ticks=10):
        self.made.after(ticks)

    def handle(self, lane, who, session, topic=1):
        self.tick()
        lane.start("request", who, session, topic)
        self.tick()
        lane.end("request", who, session)

    def respond(self, lane, who, session, topic=1):
        self.tick()
        lane.start("response", who, session, topic)
        self.tick()
        lane.end("response", who, session)

    def send(self, lane, by, to, session, topic=1):
        """A request from inside a task."""
        self.tick()
        lane.start("task", by, 900)
        self.tick()
        lane.request(to, session, topic)
        self.tick()
        lane.end("task", by, 900)


class Publisher(Made):
    def test_is_who_the_thread_is_inside(self):
        self.one.start("request", 1, 5, 1).start("call", 2, 6, 2).request(3, 7, 3)
        self.one.end("call", 2, 6).request(3, 8, 3).end("request", 1, 5)
        self.assertEqual([m.publisher for m in picture(self.made).messages], [2, 1])

    def test_is_outside_where_the_thread_is_inside_nothing(self):
        self.one.request(3, 7, 3)
        self.assertEqual([m.publisher for m in picture(self.made).messages], [0])

    def test_is_the_one_that_a_from_event_names(self):
        self.one.start("task", 1, 5).put("from", 0, 4, 7, 3).request(3, 7, 3).request(3, 8, 3)
        self.one.end("task", 1, 5)
        self.assertEqual([m.publisher for m in picture(self.made).messages], [4, 1])

    def test_is_who_calls_of_a_call(self):
        self.one.start("task", 1, 5).start("call", 2, 6, 2).end("call", 2, 6)
        self.one.put("from", 0, 4, 7, 2).start("call", 2, 7, 2).end("call", 2, 7).end("task", 1, 5)
        self.one.start("call", 3, 8, 2).end("call", 3, 8)
        calls = [s for s in picture(self.made).spans() if s.kind == 7]
        self.assertEqual([s.caller for s in calls], [1, 4, 0])

    def test_is_told_on_a_shared_lane_unless_it_is_outside(self):
        shared = self.made.lanes[0]
        shared.start("task", 1, 5).put("from", 0, 4, 7, 3).request(3, 7, 3).request(3, 8, 3)
        shared.end("task", 1, 5)
        self.assertEqual([m.publisher for m in picture(self.made).messages], [4, 0])

    def test_is_unknown_where_threads_are_inside_what_is_not_recorded(self):
        self.made.mask = 1 | 256
        self.one.start("request", 1, 5).request(3, 7, 3).put("from", 0, 4, 8, 3).request(3, 8, 3)
        self.assertEqual([m.publisher for m in picture(self.made).messages], [None, 4])
        self.made.mask = 1  # then whom a thread is inside is only what is recorded
        self.assertEqual([m.publisher for m in picture(self.made).messages], [1, 4])

    def overwritten(self, depth):
        """Inside so many things, whose starts have been overwritten; the innermost is context 4."""
        made = Recording(("a", "b", "c", "d"), events=64)
        lane = made.lane()
        for i in range(depth):
            lane.start("call", 4 if i == depth - 1 else 1, i, 1)
        made.after(1 << 21)
        for _ in range(70):
            lane.put("mark")
        lane.request(2, 50, 3)
        return made, lane

    def test_is_found_in_the_lane_when_its_start_was_overwritten(self):
        for depth in (1, 5):
            made, _ = self.overwritten(depth)
            self.assertEqual([m.publisher for m in picture(made).messages], [4])

    def test_is_unknown_deeper_than_the_lane_keeps(self):
        made, _ = self.overwritten(6)
        self.assertEqual([m.publisher for m in picture(made).messages], [None])

    def test_is_found_by_the_end_of_what_was_overwritten(self):
        made, lane = self.overwritten(2)
        lane.end("call", 4, 1).request(2, 51, 3).end("call", 1, 0).request(2, 52, 3)
        self.assertEqual([m.publisher for m in picture(made).messages], [4, 1, 0])


class Matching(Made):
    def test_a_request_its_start_and_its_response_belong_together(self):
        self.send(self.one, 1, 2, 7)  # at 10, 20, 30
        self.handle(self.two, 2, 7)
        self.respond(self.three, 1, 7)
        self.assertEqual(sent(picture(self.made)), [(1, 2, 40, 60)])

    def test_a_newer_subscriber_may_handle_it(self):
        self.send(self.one, 1, 2, 7)
        self.handle(self.two, 3, 7)
        self.assertEqual(sent(picture(self.made)), [(1, 2, 40, None)])

    def test_a_thousand_of_one_session_one_after_the_other_are_matched(self):
        for _ in range(1000):
            self.send(self.one, 1, 2, 7)
            self.handle(self.two, 2, 7)
            self.respond(self.three, 1, 7)
        made = Recording(("a", "b"), events=8192)
        made.lanes, made.now = self.made.lanes, self.made.now
        found = picture(made).messages
        self.assertEqual(len(found), 1000)
        self.assertFalse(any(m.unmatched for m in found))
        for m in found:
            self.assertEqual((m.start.begin - m.time, m.response.begin - m.start.end), (20, 10))

    def test_a_thousand_of_one_session_at_once_are_counted_and_not_guessed(self):
        made = Recording(("a", "b"), events=8192)
        one, two = made.lane(), made.lane()
        for _ in range(1000):
            one.request(2, 7, 1)
            made.after(1)
        for _ in range(1000):
            two.start("request", 2, 7, 1).end("request", 2, 7)
            made.after(1)
        one.request(2, 7, 1)
        made.after(1)
        two.start("request", 2, 7, 1)
        found = picture(made).messages
        self.assertEqual(sum(m.unmatched for m in found), 1000)
        self.assertFalse(any(m.start for m in found[:1000]))
        self.assertTrue(found[1000].start)  # nothing was under way any more

    def test_the_same_session_on_another_topic_is_another_request(self):
        self.send(self.one, 1, 2, 7, 1)
        self.send(self.one, 1, 2, 7, 2)
        self.handle(self.two, 2, 7, 2)
        self.handle(self.two, 2, 7, 1)
        self.assertEqual(sent(picture(self.made)), [(1, 2, 90, None), (1, 2, 70, None)])

    def test_responses_of_one_session_are_told_apart_by_their_publishers(self):
        self.send(self.one, 1, 2, 7)
        self.handle(self.two, 2, 7)
        self.send(self.one, 3, 2, 7)
        self.handle(self.two, 2, 7)
        self.respond(self.three, 3, 7)  # at 110
        self.respond(self.three, 1, 7)
        self.assertEqual(sent(picture(self.made)), [(1, 2, 40, 130), (3, 2, 90, 110)])

    def test_a_response_tells_who_sent_a_request_where_nothing_else_does(self):
        self.made.mask = 1 | 256
        self.send(self.one, 3, 2, 7)
        self.handle(self.two, 2, 7)
        self.respond(self.three, 4, 7)
        self.assertEqual(sent(picture(self.made)), [(4, 2, 40, 60)])

    def test_a_response_to_one_of_two_is_not_guessed(self):
        self.made.mask = 1 | 256
        self.send(self.one, 3, 2, 7)  # may be from context 4, too
        self.handle(self.two, 2, 7)
        self.tick()
        self.one.put("from", 0, 4, 7, 1).request(2, 7, 1)
        self.handle(self.two, 2, 7)
        self.respond(self.three, 4, 7)
        found = picture(self.made).messages
        self.assertEqual([m.response for m in found], [None, None])
        self.assertTrue(found[1].unmatched)

    def test_a_response_of_one_that_was_never_told_apart_is_not_anothers(self):
        self.send(self.one, 1, 2, 7)
        self.send(self.one, 1, 2, 7)
        self.handle(self.two, 2, 7)
        self.handle(self.two, 2, 7)
        self.send(self.one, 1, 2, 7)
        self.handle(self.two, 2, 7)
        self.respond(self.three, 1, 7)
        found = picture(self.made).messages
        self.assertEqual([m.unmatched for m in found], [True, True, True])
        self.assertEqual([bool(m.response) for m in found], [False] * 3)

    def test_causes_go_before_effects_of_the_same_tick(self):
        made = Recording(("a", "b"))
        two, one = made.lane(), made.lane()
        two.start("request", 2, 7, 1).end("request", 2, 7)
        one.start("task", 1).request(2, 7, 1).end("task", 1).start("response", 1, 7, 1)
        self.assertEqual(sent(picture(made)), [(1, 2, 0, 0)])


class Endings(Made):
    def test_a_refused_request_ends_at_once(self):
        self.one.start("task", 1, 9).request(2, 7, 1).put("drop", 3, 1, 7, 1)
        self.one.request(2, 7, 1).end("task", 1, 9)
        self.handle(self.two, 2, 7)
        found = picture(self.made)
        self.assertEqual([m.dropped for m in found.messages], [3, None])
        self.assertEqual(sent(found), [(1, 2, None, None), (1, 2, 10, None)])
        self.assertEqual([(e.detail, bool(m)) for e, m in found.losses], [(3, True)])

    def test_a_response_that_is_refused_was_handled(self):
        self.one.request(2, 7, 1).start("request", 2, 7, 1).end("request", 2, 7)
        self.one.put("drop", 3, 0, 7, 1)
        found = picture(self.made)
        self.assertEqual((found.messages[0].dropped, bool(found.messages[0].start)), (3, True))
        self.assertEqual(len(found.losses), 1)

    def test_what_nobody_serves_ends_no_request_of_its_session(self):
        self.one.request(2, 7, 1).put("drop", 1, 0, 7, 1).put("drop", 2, 0, 7, 1)
        self.assertIsNone(picture(self.made).messages[0].dropped)

    def test_a_listeners_drop_ends_no_request(self):
        self.one.start("task", 1, 9).request(2, 7, 1).put("drop", 64 + 3, 1, 7, 1).end("task", 1, 9)
        self.handle(self.two, 2, 7)
        found = picture(self.made)
        message = found.messages[0]
        self.assertEqual((message.dropped, at(found, message.start)), (None, 10))
        self.assertEqual(len(found.losses), 1)

    def test_what_a_quit_discards_has_ended(self):
        self.send(self.one, 1, 2, 7)
        self.three.put("drop", 4, 1, 7, 1)
        self.assertEqual(picture(self.made).messages[0].dropped, 4)

    def test_a_loss_ends_a_request_and_its_response_is_no_others(self):
        self.send(self.one, 1, 2, 7)
        self.three.put("lost", 0, 2, 7, 1)
        self.respond(self.two, 1, 7)
        self.send(self.one, 1, 2, 7)
        self.handle(self.two, 2, 7)
        self.respond(self.two, 1, 7)
        found = picture(self.made).messages
        self.assertEqual([(m.lost, bool(m.start), m.unmatched) for m in found],
                         [(0, False, False), (None, True, False)])
        self.assertTrue(found[0].response)
        self.assertTrue(found[1].response.begin > found[1].start.end)

    def test_a_listeners_loss_ends_no_request(self):
        self.send(self.one, 1, 2, 7)
        self.three.put("lost", 16, 4, 7, 1)
        self.handle(self.two, 2, 7)
        self.assertIsNone(picture(self.made).messages[0].lost)

    def test_a_request_that_is_handed_on_is_still_one(self):
        self.send(self.one, 1, 2, 7)
        self.two.put("from", 0, 1, 7, 1).put("request", 2, 3, 7, 1)
        self.handle(self.three, 3, 7)
        found = picture(self.made)
        self.assertEqual(sent(found), [(1, 3, 40, None)])
        self.assertFalse(found.messages[0].unmatched)

    def test_an_open_request_that_is_discarded_has_ended(self):
        self.one.request(2, 7, 1).start("request", 2, 7, 1).put("deferred", 0, 2, 7, 1)
        self.one.end("request", 2, 7)
        self.two.put("completed", 2, 2, 7, 0)
        found = picture(self.made)
        self.assertEqual(found.messages[0].dropped, 4)
        self.assertEqual([(e.detail, e.arg) for e, _ in found.losses], [(4, 1)])

    def test_a_deferred_request_is_open_until_it_is_completed(self):
        self.send(self.one, 1, 2, 7)
        self.two.start("request", 2, 7, 1)
        self.tick()
        self.two.put("deferred", 0, 2, 7, 1).end("request", 2, 7)
        self.tick()
        self.three.start("task", 2, 20).put("completed", 0, 2, 7, 0).end("task", 2, 20)
        self.respond(self.one, 1, 7)
        message = picture(self.made).messages[0]
        self.assertEqual((message.completed - message.deferred, message.response.begin
                          - message.completed), (10, 10))

    def test_a_request_that_is_completed_before_its_handler_returns_is_answered(self):
        self.send(self.one, 1, 2, 7)
        self.two.start("request", 2, 7, 1).put("deferred", 0, 2, 7, 1)
        self.tick()
        self.three.put("completed", 0, 2, 7, 0)
        self.tick()
        self.two.end("request", 2, 7)
        self.respond(self.one, 1, 7)
        self.assertTrue(picture(self.made).messages[0].response)


class Losses(Made):
    def fill(self, lane):
        for _ in range(70):
            lane.put("mark")

    def small(self):
        made = Recording(("a", "b"), events=64)
        return made, made.lane(), made.lane()

    def test_requests_count_from_where_every_lane_is_complete(self):
        made, one, two = self.small()
        one.request(2, 1, 1)  # its start will be overwritten
        made.after(10)
        two.start("request", 2, 1, 1).end("request", 2, 1)
        self.fill(two)
        made.after(10)
        one.request(2, 2, 1)
        made.after(10)
        two.start("request", 2, 2, 1).end("request", 2, 2)
        found = picture(made)
        self.assertEqual([(m.session, bool(m.start)) for m in found.messages], [(2, True)])

    def test_a_start_of_an_overwritten_request_throws_doubt_on_the_same_session(self):
        made, one, two = self.small()
        one.request(2, 7, 1)
        self.fill(one)
        made.after(10)
        one.request(2, 7, 1)
        made.after(10)
        two.start("request", 2, 7, 1).end("request", 2, 7)  # whose it is cannot be seen yet
        made.after(10)
        two.start("request", 2, 7, 1).end("request", 2, 7)
        found = picture(made).messages
        self.assertEqual([(m.unmatched, m.start) for m in found], [(True, None)])

    def lossy(self):
        """What follows is complete; of one session a request was sent before, and not begun."""
        made, one, two = self.small()
        one.request(2, 7, 1)
        made.after(10)
        self.fill(two)
        made.after(10)
        two.put("mark")
        return made, one, two

    def test_one_session_again_and_again_is_matched_after_a_loss(self):
        made, one, two = self.lossy()
        for _ in range(3):
            made.after(10)
            one.request(2, 7, 1)
            made.after(10)
            two.start("request", 2, 7, 1).end("request", 2, 7)
            made.after(10)
            one.start("response", 0, 7, 1).end("response", 0, 7)
        found = picture(made).messages
        self.assertEqual([(m.unmatched, bool(m.start), bool(m.response)) for m in found],
                         [(False, True, True)] * 3)

    def test_one_that_is_left_over_throws_doubt_on_the_others_of_its_session(self):
        made, one, two = self.lossy()
        for _ in range(3):
            made.after(10)
            one.request(2, 7, 1)
            made.after(10)
            two.start("request", 2, 7, 1).end("request", 2, 7)
        one.request(2, 7, 1)
        found = picture(made).messages
        self.assertEqual([(m.unmatched, bool(m.start)) for m in found], [(True, False)] * 4)


if __name__ == "__main__":
    unittest.main()
