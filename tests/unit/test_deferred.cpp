/* SPDX-License-Identifier: Apache-2.0 */
/* Deferred requests: which can be deferred, and how they are completed. */
#include <pthread.h>

#include <set>
#include <vector>

#include "deferring.hpp"
#include "qor_contract.h"
#include "qor_impl_context.h"
#include "qor_monitor_module.h"
#include "qor_sched_delegate.h"
#include "time_que_length.hpp"

namespace {

class Deferred : public Deferring {
protected:
    static std::string check_line(const std::string &function, const std::string &condition)
    {
        return line(function, "!(" + condition + ") == true.");
    }

    static qor_context_topic_attr_t at(int32_t point)
    {
        return {QOR_CONTEXT_TOPIC_ATTR_POINT, point, 0};
    }

    void clear()
    {
        out.clear();
        responses.clear();
    }
};

} // namespace

TEST_F(Deferred, ARequestIsAnsweredAfterItsHandlerHasReturned)
{
    be_up();
    const uint64_t open = deferred();
    EXPECT_EQ(responses.text(), "");

    EXPECT_EQ(complete(open, 7, "pong"), 0);

    EXPECT_EQ(response(), "7 pong");
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(responses.size(), 1u);
}

TEST_F(Deferred, TheResultOfItsHandlerIsIgnoredUnlessItIsNegative)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        return 99;
    };
    be_up();

    EXPECT_EQ(complete(deferred(), 0, ""), 0);

    EXPECT_EQ(response(), "0");
}

TEST_F(Deferred, ANegativeResultOfItsHandlerCompletesIt)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        return -5;
    };
    be_up();
    out.clear();
    const uint64_t open = deferred("ping", 0);

    EXPECT_EQ(response(), "-5");
    EXPECT_EQ(out.count("handle message failed, ret = -5"), 1);
    EXPECT_EQ(complete(open, 1, ""), -1);
    EXPECT_EQ(out.count("the token is not open."), 1);
}

TEST_F(Deferred, ANegativeResultAfterTheCompletionIsIgnored)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        EXPECT_EQ(complete(token, 3, "here"), 0);
        return -5;
    };
    be_up();
    deferred();

    EXPECT_EQ(response(), "3 here");
}

TEST_F(Deferred, ACompletionInsideTheHandlerTakesEffectAtItsReturn)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        EXPECT_EQ(complete(token, 3, "here"), 0);
        EXPECT_TRUE(door.pass());
        journal.add(std::string(static_cast<char *>(msg->request.buf), 4));
        return 0;
    };
    be_up(4);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    EXPECT_EQ(responses.text(), "");

    door.open();

    EXPECT_EQ(response(), "3 here");
    EXPECT_EQ(journal.text(), "ping");
}

TEST_F(Deferred, ASecondCompletionInsideTheHandlerIsRefused)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        EXPECT_EQ(complete(token, 3, ""), 0);
        out.clear();
        EXPECT_EQ(complete(token, 4, ""), -1);
        EXPECT_EQ(qor_deferred_request(token, nullptr, 0), -1);
        EXPECT_EQ(out.printed(), not_open() + not_open("request"));
        return 0;
    };
    be_up();

    ASSERT_GE(ask(), 0);

    EXPECT_EQ(response(), "3");
}

TEST_F(Deferred, TheRequestPartIsCopiedOut)
{
    be_up();
    const uint64_t open = deferred("question");
    char all[16] = "...............";
    char some[8] = ".......";

    EXPECT_EQ(qor_deferred_request(open, all, sizeof(all)), 8);
    EXPECT_EQ(qor_deferred_request(open, some, 5), 8);
    EXPECT_EQ(qor_deferred_request(open, nullptr, 0), 8);

    EXPECT_STREQ(all, "question.......");
    EXPECT_STREQ(some, "quest..");
    EXPECT_EQ(complete(open, 0, ""), 0);
    EXPECT_EQ(qor_deferred_request(open, all, sizeof(all)), -1);
    EXPECT_EQ(out.count(not_open("request")), 1);
}

TEST_F(Deferred, ARequestWithoutPayloadHasNoBytes)
{
    be_up();
    char byte = '.';

    EXPECT_EQ(qor_deferred_request(deferred("", 0), &byte, 1), 0);

    EXPECT_EQ(byte, '.');
    EXPECT_EQ(complete(token, 0, ""), 0);
}

TEST_F(Deferred, FewerBytesThanThereIsRoomForMakeTheResponseSmaller)
{
    be_up();

    EXPECT_EQ(complete(deferred("ping", 10), 1, "four"), 0);

    EXPECT_EQ(response(), "1 four");
}

TEST_F(Deferred, WithoutDataTheResponsePartIsWhatTheHandlerHasMadeIt)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        std::memcpy(msg->response.buf, "made", 4);
        return defer(c, msg);
    };
    be_up();

    EXPECT_EQ(qor_deferred_complete(deferred(), 1, nullptr, 0), 0);

    EXPECT_EQ(response(), "1 made");
}

TEST_F(Deferred, DataBeyondTheRoomIsRefusedAndTheRequestStaysOpen)
{
    be_up();
    const uint64_t open = deferred();
    clear();

    EXPECT_EQ(complete(open, 1, "fives"), -1);

    EXPECT_EQ(out.printed(),
              line("deferred_complete", "the response has room for 4 bytes, not for 5."));
    EXPECT_EQ(complete(open, 2, "four"), 0);
    EXPECT_EQ(response(), "2 four");
}

TEST_F(Deferred, DataForARequestWithoutResponsePartIsRefused)
{
    be_up();
    const uint64_t open = deferred("ping", 0);
    clear();

    EXPECT_EQ(complete(open, 1, "x"), -1);

    EXPECT_EQ(out.printed(),
              line("deferred_complete", "the response has room for 0 bytes, not for 1."));
    EXPECT_EQ(complete(open, 2, ""), 0);
    EXPECT_EQ(response(), "2");
}

TEST_F(Deferred, ARoomThatItsHandlerHasMadeNegativeIsNone)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        msg->response.size = -1;
        return defer(c, msg);
    };
    be_up();
    const uint64_t open = deferred();
    clear();

    EXPECT_EQ(complete(open, 1, "x"), -1);

    EXPECT_EQ(out.printed(),
              line("deferred_complete", "the response has room for 0 bytes, not for 1."));
    EXPECT_EQ(complete(open, 2, ""), 0);
    EXPECT_EQ(response(), "2");
}

TEST_F(Deferred, ATokenIsAcceptedOnce)
{
    be_up();
    const uint64_t open = deferred();
    EXPECT_EQ(complete(open, 1, ""), 0);
    EXPECT_EQ(response(), "1");
    clear();

    EXPECT_EQ(complete(open, 2, ""), -1);

    EXPECT_EQ(out.printed(), not_open());
    const uint64_t next = deferred(); /* in the place of the first */
    EXPECT_EQ(complete(open, 3, ""), -1);
    EXPECT_EQ(responses.text(), "");
    EXPECT_EQ(complete(next, 4, ""), 0);
    EXPECT_EQ(response(), "4");
}

TEST_F(Deferred, WhatIsNoTokenIsRefused)
{
    be_up();
    const uint64_t open = deferred();
    constexpr uint64_t one = 1, upper = one << 32;

    for (uint64_t wrong : {one - 1, one, UINT64_MAX, open + 1, open + upper, open - upper}) {
        clear();
        EXPECT_EQ(complete(wrong, 1, ""), -1) << wrong;
        EXPECT_EQ(out.printed(), not_open()) << wrong;
    }

    EXPECT_EQ(complete(open, 2, ""), 0);
    EXPECT_EQ(response(), "2");
}

TEST_F(Deferred, BadArgumentsOfACompletionLeaveItOpen)
{
    be_up();
    const uint64_t open = deferred();
    char byte = 0;
    clear();

    EXPECT_EQ(qor_deferred_complete(open, 1, &byte, -1), -1);
    EXPECT_EQ(qor_deferred_complete(open, 1, nullptr, 1), -1);
    EXPECT_EQ(qor_deferred_request(open, &byte, -1), -1);
    EXPECT_EQ(qor_deferred_request(open, nullptr, 1), -1);

    EXPECT_EQ(out.printed(), check_line("deferred_complete", "size >= 0") +
                                 check_line("deferred_complete", "data || size == 0") +
                                 check_line("deferred_request", "size >= 0") +
                                 check_line("deferred_request", "dst || size == 0"));
    EXPECT_EQ(complete(open, 2, ""), 0);
    EXPECT_EQ(response(), "2");
}

TEST_F(Deferred, BadArgumentsOfADeferralAreRefused)
{
    std::string printed;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        uint64_t made = 12;
        out.clear();
        EXPECT_EQ(qor_context_defer(nullptr, msg, -1, &made), -1);
        EXPECT_EQ(qor_context_defer(c, nullptr, -1, &made), -1);
        EXPECT_EQ(qor_context_defer(c, msg, 0, &made), -1);
        EXPECT_EQ(qor_context_defer(c, msg, -1, nullptr), -1);
        EXPECT_EQ(made, 12u);
        printed = out.printed();
        return 6;
    };
    be_up();
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), "6"); /* not deferred */
    EXPECT_EQ(printed, check_line("context_defer", "self") + check_line("context_defer", "msg") +
                           check_line("context_defer", "wait_time != 0") +
                           check_line("context_defer", "token"));
}

TEST_F(Deferred, ASecondDeferralIsRefused)
{
    std::string printed;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        out.clear();
        EXPECT_EQ(defer(c, msg), -1);
        EXPECT_EQ(complete(token, 1, ""), 0);
        EXPECT_EQ(defer(c, msg), -1);
        printed = out.printed();
        return 0;
    };
    be_up();
    ASSERT_GE(ask(), 0);

    EXPECT_EQ(response(), "1");
    const std::string again = line("context_defer", "the request is deferred already.");
    EXPECT_EQ(printed, again + again);
}

TEST_F(Deferred, ACopyOfTheMessageIsRefused)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        qor_context_msg_t *copy = qor_context_msg_clone(msg);
        EXPECT_EQ(defer(c, copy), -1);
        qor_context_msg_destroy(copy);
        return 6;
    };
    be_up();
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), "6");
    EXPECT_EQ(out.count(refused()), 1);
}

TEST_F(Deferred, AnotherModulesContextIsRefused)
{
    serve = [&](qor_context_t *, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(observer.context(), msg), -1);
        return 6;
    };
    be_up();
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), "6");
    EXPECT_EQ(out.count(refused()), 1);
}

TEST_F(Deferred, OtherThreadsThanTheHandlersAreRefused)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        Thread([&] { EXPECT_EQ(defer(c, msg), -1); }).join();
        std::function<void()> call = [&] {
            EXPECT_EQ(defer(c, msg), -1);
            journal.add("refused");
        };
        qor_bus_run(
            bus->get(),
            [](void *to) -> void * {
                (*static_cast<std::function<void()> *>(to))();
                return nullptr;
            },
            &call, nullptr);
        EXPECT_TRUE(journal.await(1)); /* on the other worker */
        EXPECT_EQ(out.count(refused()), 2);
        return 6;
    };
    be_up(2);
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), "6");
}

TEST_F(Deferred, FiltersListenersAndResponsesAreRefused)
{
    otherwise = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), -1) << msg->type;
        msg->type = QOR_CONTEXT_MSG_REQUEST; /* what it says does not count */
        EXPECT_EQ(defer(c, msg), -1);
        journal.add("refused");
        return 0;
    };
    serve = [](qor_context_t *, qor_context_msg_t *) { return 6; };
    server.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t around = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND);
        qor_context_subscribe(c, topic, nullptr);
        qor_context_filter(c, topic, &around);
        qor_context_listen(c, topic, &around);
    };
    be_up();

    ASSERT_GE(qor_context_req(server.context(), topic, nullptr, 0), 0);

    EXPECT_TRUE(journal.await(5));
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(journal.size(), 5u); /* two filters, two listeners, one response */
    EXPECT_EQ(out.count(refused()), 10);
}

TEST_F(Deferred, ASynchronousRequestIsRefused)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), -1);
        return 6;
    };
    be_up();

    EXPECT_EQ(qor_context_x_req(client.context(), topic, nullptr, 0), 6);

    EXPECT_EQ(out.count(refused()), 1);
}

TEST_F(Deferred, ANestedSynchronousCallIsRefusedEvenWithTheSameMessage)
{
    int depth = 0;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        if (depth++ > 0) {
            EXPECT_EQ(defer(c, msg), -1);
            return 6;
        }
        EXPECT_EQ(qor_context_x_req(c, topic, nullptr, 0), 6);
        EXPECT_EQ(qor_context_handler_publishx(c, msg), 6);
        EXPECT_EQ(out.count(refused()), 2);
        return defer(c, msg); /* the way back from it has changed nothing */
    };
    be_up(1);

    EXPECT_EQ(complete(deferred(), 8, ""), 0);

    EXPECT_EQ(response(), "8");
    EXPECT_EQ(depth, 3);
}

TEST_F(Deferred, AFilterOfTheSameMessageInsideTheHandlerIsRefused)
{
    bool inside = false;
    server.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t before = at(QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE);
        qor_context_subscribe(c, topic, nullptr);
        qor_context_filter(c, other_topic, &before);
    };
    otherwise = [&](qor_context_t *c, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE) {
            inside = true;
            EXPECT_EQ(defer(c, msg), -1);
        }
        return 0;
    };
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        msg->topic = other_topic; /* nobody's: the filter alone sees it */
        EXPECT_EQ(qor_context_handler_publish(c, msg), -1);
        msg->topic = topic;
        return defer(c, msg);
    };
    be_up();

    EXPECT_EQ(complete(deferred(), 8, ""), 0);

    EXPECT_EQ(response(), "8");
    EXPECT_TRUE(inside);
    EXPECT_EQ(out.count(refused()), 1);
}

/* The inner one runs on the same thread, in the middle of the outer one's handler. */
TEST_F(Deferred, ARequestHandledInsideAnotherIsDeferredOnItsOwn)
{
    std::vector<uint64_t> tokens;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        if (std::memcmp(msg->request.buf, "outer", 5) == 0) {
            EXPECT_GE(ask("inner"), 0);
            qor_context_loop(&server.core()->base);
        }
        EXPECT_EQ(defer(c, msg), 0);
        tokens.push_back(token);
        return 0;
    };
    be_up();
    ASSERT_GE(ask("outer"), 0);
    ASSERT_TRUE(await([this] { return token != 0; }));
    rest();

    ASSERT_EQ(tokens.size(), 2u);
    char payload[6] = "";
    EXPECT_EQ(qor_deferred_request(tokens[0], payload, 5), 5);
    EXPECT_STREQ(payload, "inner");
    EXPECT_EQ(qor_deferred_request(tokens[1], payload, 5), 5);
    EXPECT_STREQ(payload, "outer");
    EXPECT_EQ(complete(tokens[1], 1, ""), 0);
    EXPECT_EQ(response(), "1");
    EXPECT_EQ(complete(tokens[0], 2, ""), 0);
    EXPECT_TRUE(responses.await(2));
    EXPECT_EQ(responses.text(), "1 2");
}

TEST_F(Deferred, ThePointsAfterTheHandlerArePassedAtTheCompletion)
{
    observer.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t around = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND);
        qor_context_filter(c, topic, &around);
    };
    observer.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        journal.add(std::to_string(msg->type) + ":" + std::to_string(msg->ret));
        return 0;
    };
    be_up();
    const uint64_t open = deferred();
    EXPECT_EQ(journal.text(), "4:0");

    EXPECT_EQ(complete(open, -7, "pong"), 0);

    EXPECT_EQ(response(), "-7 pong");
    EXPECT_EQ(journal.text(), "4:0 5:-7");
    EXPECT_EQ(out.count("handle message failed"), 0);
}

TEST_F(Deferred, ListenersSeeTheCompletedRequestOnce)
{
    observer.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
        qor_context_listen(c, topic, &after);
    };
    observer.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        journal.add(std::string(static_cast<char *>(msg->response.buf), 4));
        return 0;
    };
    be_up();
    EXPECT_EQ(complete(deferred(), 0, "pong"), 0);

    EXPECT_EQ(response(), "0 pong");
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(journal.text(), "pong");
}

TEST_F(Deferred, AReservedResultBecomesMinusOne)
{
    be_up();
    for (int32_t ret : {QOR_RET_DROPPED, QOR_RET_EXPIRED, QOR_RET_GONE}) {
        const uint64_t open = deferred("ping", 0);
        clear();
        EXPECT_EQ(complete(open, ret, ""), 0);
        EXPECT_EQ(response(), "-1");
        EXPECT_EQ(out.printed(),
                  line("deferred_complete", "the result " + std::to_string(ret) + " is reserved."));
    }
    const uint64_t open = deferred("ping", 0);
    clear();
    EXPECT_EQ(complete(open, QOR_RET_GONE + 1, ""), 0);
    EXPECT_EQ(response(), std::to_string(QOR_RET_GONE + 1));
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Deferred, AReservedResultOfTheHandlerBecomesMinusOneToo)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        return QOR_RET_EXPIRED;
    };
    be_up();
    deferred("ping", 0);

    EXPECT_EQ(response(), "-1");
    EXPECT_EQ(out.count(line("context_defer",
                             "the result " + std::to_string(QOR_RET_EXPIRED) + " is reserved.")),
              1);
}

TEST_F(Deferred, ARequestThatIsNotCompletedInTimeExpires)
{
    constexpr int32_t limit = 30;
    int64_t since = 0;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        since = util_timestamp();
        return defer(c, msg, limit);
    };
    observer.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
        qor_context_filter(c, topic, &after);
    };
    observer.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        journal.add(std::to_string(msg->ret));
        return 0;
    };
    be_up();
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), std::to_string(QOR_RET_EXPIRED));
    EXPECT_GE(util_timestamp() - since, limit);
    EXPECT_EQ(journal.text(), responses.text()); /* the point after it */
    out.clear();
    EXPECT_EQ(complete(token, 0, ""), -1);
    EXPECT_EQ(out.printed(), not_open());
}

TEST_F(Deferred, ARequestThatExpiresInsideItsHandlerIsAnsweredAtItsReturn)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg, 1), 0);
        EXPECT_TRUE(await([&] { return qor_deferred_request(token, nullptr, 0) < 0; }));
        EXPECT_EQ(responses.text(), "");
        EXPECT_EQ(std::memcmp(msg->request.buf, "ping", 4), 0);
        return -3;
    };
    be_up(2);
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), std::to_string(QOR_RET_EXPIRED));
}

TEST_F(Deferred, ACompletedRequestLeavesNoTimer)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, 600000); };
    be_up();
    const uint64_t open = deferred();
    EXPECT_EQ(length_of(bus->get()->time_que), 1);

    EXPECT_EQ(complete(open, 0, ""), 0);

    EXPECT_EQ(length_of(bus->get()->time_que), 0);
    EXPECT_EQ(response(), "0");
}

/* Neither while it runs nor when it has become a task. */
TEST_F(Deferred, ItsTimerIsNotTheModulesToCancel)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg, 20), 0);
        const int32_t serial = static_cast<int32_t>(token >> 32);
        EXPECT_EQ(qor_context_timer_cancel(c, serial), -1);
        EXPECT_TRUE(await([this] { return length_of(bus->get()->time_que) == 0; }));
        EXPECT_TRUE(await([this] { return qor_que_count(bus->get()->que) == 1; }));
        EXPECT_EQ(qor_context_timer_cancel(c, serial), -1);
        return 0;
    };
    be_up(1);
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), std::to_string(QOR_RET_EXPIRED));
}

/* Whatever is open, the module's one slot serves the next request. */
TEST_F(Deferred, ManyAreOpenAtOnceAndAreCompletedInAnyOrder)
{
    constexpr int number = 120;
    std::vector<uint64_t> tokens;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg, tokens.size() % 2 ? -1 : 600000), 0);
        tokens.push_back(token);
        return 0;
    };
    be_up();
    std::string all;
    for (int i = 0; i < number; i++) {
        ASSERT_GE(ask(std::to_string(100 + i)), 0);
        rest();
        all += (i ? " " : "") + std::to_string(number - 1 - i) + " " + std::to_string(219 - i);
    }
    EXPECT_EQ(std::set<uint64_t>(tokens.begin(), tokens.end()).size(), size_t(number));

    for (int i = number - 1; i >= 0; i--) {
        char payload[4] = "";
        EXPECT_EQ(qor_deferred_request(tokens[i], payload, 3), 3);
        EXPECT_EQ(qor_deferred_complete(tokens[i], i, payload, 3), 0);
        ASSERT_TRUE(responses.await(static_cast<size_t>(number - i)));
    }

    EXPECT_EQ(responses.text(), all);
    EXPECT_EQ(length_of(bus->get()->time_que), 0);
}

/* Past 50 waiting requests the next goes to the bus directly. */
TEST_F(Deferred, ARequestThatGoesPastTheQueueCanBeDeferred)
{
    constexpr int number = 60;
    Journal tokens;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        uint64_t made = 0;
        EXPECT_TRUE(door.pass());
        EXPECT_EQ(qor_context_defer(c, msg, -1, &made), 0);
        tokens.add(std::to_string(made));
        EXPECT_EQ(complete(made, 1, ""), 0);
        return 0;
    };
    be_up();
    for (int i = 0; i < number; i++) {
        ASSERT_GE(ask("ping", 0), 0);
    }
    door.open();

    EXPECT_TRUE(responses.await(number));
    EXPECT_EQ(tokens.size(), size_t(number));
}

TEST_F(Deferred, AModuleMayDeferItsOwnRequest)
{
    otherwise = [&](qor_context_t *, qor_context_msg_t *msg) {
        responses.add(std::to_string(msg->ret));
        return 0;
    };
    be_up();
    ASSERT_GE(qor_context_req(server.context(), topic, nullptr, 0), 0);
    ASSERT_TRUE(await([this] { return token != 0; }));

    EXPECT_EQ(complete(token, 5, ""), 0);

    EXPECT_EQ(response(), "5");
}

namespace {

/* Contexts without private queue: one asks, the other is asked. */
class DeferredSystem : public Deferred {
protected:
    void be_up_and_ask()
    {
        be_up();
        serving.handle = server.handle;
        publishing.handle = client.handle;
        for (qor_context_t *context : {publisher, subscriber}) {
            qor_sched_delegate_create(bus->get(), QOR_BUS_ROLE_SYS, context);
        }
        qor_context_subscribe(subscriber, QOR_SYS_MNG_MODULE_REGISTER, nullptr);
        ASSERT_GE(qor_context_req(publisher, QOR_SYS_MNG_MODULE_REGISTER, nullptr, 0), 0);
        ASSERT_TRUE(await([this] { return token != 0; }));
        rest();
    }

    ~DeferredSystem() override
    {
        bus->end();
        qor_context_destroy(publisher);
        qor_context_destroy(subscriber);
    }

    Module serving{"serving"}, publishing{"publishing"};
    qor_context_t *publisher = qor_impl_context_class.create(&publishing.descriptor);
    qor_context_t *subscriber = qor_impl_context_class.create(&serving.descriptor);
};

} // namespace

TEST_F(DeferredSystem, ARequestIsAnsweredAfterItsHandlerHasReturned)
{
    be_up_and_ask();

    EXPECT_EQ(complete(token, 5, ""), 0);

    EXPECT_EQ(response(), "5");
}

TEST_F(DeferredSystem, ASystemCallWithTheSameMessageInsideTheHandlerIsRefused)
{
    int depth = 0;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        if (depth++ > 0) {
            EXPECT_EQ(defer(c, msg), -1);
            return 6;
        }
        EXPECT_EQ(qor_context_handler_syscallx(c, msg), 6);
        return defer(c, msg);
    };
    be_up_and_ask();

    EXPECT_EQ(complete(token, 5, ""), 0);

    EXPECT_EQ(response(), "5");
    EXPECT_EQ(depth, 2);
}

TEST_F(DeferredSystem, TheEndOfTheBusRefusesTheTokenOfAContextThatStays)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, 600000); };
    be_up_and_ask();
    bus->end();
    out.clear();

    EXPECT_EQ(complete(token, 5, ""), -1);

    EXPECT_EQ(out.printed(), not_open());
    EXPECT_EQ(responses.text(), "");
}

TEST_F(Deferred, AHandlerThatEndsItsThreadHasReturnedMinusOne)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) -> int32_t {
        EXPECT_EQ(defer(c, msg), 0);
        pthread_exit(nullptr);
    };
    observer.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
        qor_context_filter(c, topic, &after);
    };
    observer.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        journal.add(std::to_string(msg->ret));
        return 0;
    };
    be_up(1);
    const uint64_t open = deferred("ping", 0);

    EXPECT_EQ(response(), "-1");
    EXPECT_EQ(journal.text(), "-1");
    EXPECT_EQ(complete(open, 0, ""), -1);
}

TEST_F(Deferred, AHandlerThatEndsItsThreadAfterTheCompletionChangesNothing)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) -> int32_t {
        EXPECT_EQ(defer(c, msg), 0);
        EXPECT_EQ(complete(token, 4, ""), 0);
        pthread_exit(nullptr);
    };
    be_up(1);
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), "4");
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(responses.size(), 1u);
}

namespace {

/* What a thread has of its own ends after everything that runs on it. */
struct ThreadEnd {
    std::function<void()> act;
    ~ThreadEnd()
    {
        if (act) {
            act();
        }
    }
};

thread_local ThreadEnd thread_end;

/* Writes a value over what ended functions have left on the stack. */
[[gnu::noinline]] void sweep_stack(const void *value)
{
    const void *volatile swept[2048];
    for (const void *volatile &word : swept) {
        word = value;
    }
}

} // namespace

/* Nothing is left of the handler's request to compare with, not even what looks like it. */
TEST_F(Deferred, AThreadThatEndsHandlesNothingAnyMore)
{
    std::atomic<bool> ended{false};
    serve = [&](qor_context_t *, qor_context_msg_t *msg) -> int32_t {
        thread_end.act = [&, msg] {
            uint64_t made = 0;
            out.clear();
            sweep_stack(msg);
            EXPECT_EQ(qor_context_defer(reinterpret_cast<qor_context_t *>(msg), msg, -1, &made),
                      -1);
            EXPECT_EQ(out.count(refused()), 1);
            ended = true;
        };
        pthread_exit(nullptr);
    };
    be_up(1);
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_TRUE(await([&] { return ended.load(); }));
    EXPECT_EQ(response(), "-1");
}

/* The outer request's handler is on the stack of the inner one's, which ends their thread. */
TEST_F(Deferred, TwoHandlersThatEndTheirThreadHaveBothReturnedMinusOne)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) -> int32_t {
        EXPECT_EQ(defer(c, msg), 0);
        if (std::memcmp(msg->request.buf, "outer", 5) != 0) {
            pthread_exit(nullptr);
        }
        EXPECT_GE(ask("inner", 0), 0);
        qor_context_loop(&server.core()->base);
        return 0;
    };
    be_up(1);
    ASSERT_GE(ask("outer", 0), 0);

    EXPECT_TRUE(responses.await(2));
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(responses.text(), "-1 -1");
}

/* Its slot, and the place of the publisher for the reply, which only the completion gives back. */
TEST_F(Deferred, AStrictModuleServesTheNextRequestWhileOneIsOpen)
{
    bus.emplace(RunningBus::by_start, 2, std::vector<Module *>{&server, &client, &observer}, 8);
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.strict = 1;
    contract.replies = 2;
    for (const char *name : {"server", "client"}) {
        ASSERT_EQ(qor_bus_contract_set(bus->get(), name, &contract), 0);
    }
    bus->start();
    ASSERT_TRUE(bus->up());
    const uint64_t first = deferred(), second = deferred();
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    ASSERT_EQ(qor_bus_ledger(bus->get(), "server", &ledger), 0);
    EXPECT_EQ(ledger.run, 2u);
    EXPECT_EQ(ledger.running, 0u);
    EXPECT_EQ(ask(), -1);

    EXPECT_EQ(complete(second, 2, ""), 0);
    EXPECT_TRUE(responses.await(1)); /* the two would come on two workers */
    EXPECT_EQ(complete(first, 1, ""), 0);

    EXPECT_TRUE(responses.await(2));
    EXPECT_EQ(responses.text(), "2 1");
    EXPECT_EQ(complete(deferred(), 3, ""), 0);
    EXPECT_TRUE(responses.await(3));
}

TEST_F(Deferred, DrainWaitsForTheResponse)
{
    be_up();
    const uint64_t open = deferred();
    EXPECT_EQ(qor_bus_drain(bus->get(), 0), -1);
    EXPECT_EQ(qor_bus_drain(bus->get(), 20), -1);
    std::atomic<int32_t> drained{-2};
    Thread drain([&] { drained = qor_bus_drain(bus->get(), 60000); });
    EXPECT_EQ(drained, -2);

    EXPECT_EQ(complete(open, 0, ""), 0);

    drain.join();
    EXPECT_EQ(drained, 0);
    EXPECT_EQ(responses.text(), "0");
}

namespace {

std::atomic<bool> leave_at_end; /* of the next task that is reported */

} // namespace

/* The report that the handler is over reaches somebody who ends the thread. */
TEST_F(Deferred, AThreadThatEndsAfterTheHandlerLeavesTheRequestOpen)
{
    leave_at_end = false;
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        leave_at_end = true;
        return defer(c, msg);
    };
    const auto own = qor_monitor_module.handle_message;
    qor_monitor_module.handle_message = [](qor_context_t *, qor_context_msg_t *msg) -> int32_t {
        qor_sys_monitor_task_t report;
        std::memcpy(&report, msg->request.buf, sizeof(report));
        if (report.state == QOR_SYS_MONITOR_TASK_OVER && leave_at_end.exchange(false)) {
            pthread_exit(nullptr);
        }
        return 0;
    };
    be_up(1);

    EXPECT_EQ(complete(deferred(), 4, "pong"), 0);

    EXPECT_EQ(response(), "4 pong");
    EXPECT_FALSE(leave_at_end);
    bus->end();
    qor_monitor_module.handle_message = own;
}
