/* SPDX-License-Identifier: Apache-2.0 */
/* Serve and call routes. */
#include "bridged.hpp"

#include <atomic>

#include "door.hpp"

namespace {

class MqttRequests : public Bridged {
protected:
    /* The taker answers with the request turned round. */
    void taker_answers(int32_t ret = 0)
    {
        taker.handle = [this, ret](qor_context_t *, qor_context_msg_t *msg) {
            const std::string text = text_of(msg->request);
            const std::string turned(text.rbegin(), text.rend());
            taken.add(text);
            if (msg->response.size >= static_cast<int32_t>(turned.size())) {
                std::memcpy(msg->response.buf, turned.data(), turned.size());
                msg->response.size = static_cast<int32_t>(turned.size());
            }
            return ret;
        };
    }

    void serve(int32_t room = 64)
    {
        routes = {route("serve", QOR_MQTT_SERVE, TAKEN, "ask/#")};
        routes[0].response = room;
    }

    /* Requests on ASKED go to "far". */
    void call(int32_t time = 30000)
    {
        routes = {route("call", QOR_MQTT_CALL, ASKED, "far")};
        routes[0].wait_time = time;
    }

    /* Sends a request of the asker's on the calling thread, which waits: its result, and what came.
     */
    std::string ask_now(const std::string &text)
    {
        char room[64] = "";
        const int32_t ret =
            qor_context_x_req_ret(asker.context(), ASKED, const_cast<char *>(text.data()),
                                  static_cast<int32_t>(text.size()), room, sizeof(room));
        return std::to_string(ret) + ":" + room;
    }
};

TEST_F(MqttRequests, ARequestIsAnsweredWithItsCorrelationData)
{
    const std::string odd("\0\xff\n1", 4);
    serve();
    taker_answers(7);
    start_connected();
    Peer peer(broker.port(), "answers/mine");

    peer.send("ask/x", "abc", "answers/mine", odd);

    ASSERT_TRUE(peer.await_count(1));
    const Got got = peer.got()[0];
    EXPECT_EQ(got.payload, "cba");
    EXPECT_EQ(got.correlation, odd);
    EXPECT_EQ(got.ret, "7");
    EXPECT_EQ(status().served, 1u);
}

TEST_F(MqttRequests, AFailureIsToldInTheAnswer)
{
    serve();
    taker_answers(-5);
    start_connected();
    Peer peer(broker.port(), "answers");

    peer.send("ask/x", "abc", "answers");

    ASSERT_TRUE(peer.await_count(1));
    EXPECT_EQ(peer.got()[0].ret, "-5");
}

TEST_F(MqttRequests, WithoutAUsableResponseTopicItIsHandledAllTheSame)
{
    serve();
    taker_answers();
    start_connected();
    Peer peer(broker.port());

    peer.send("ask/x", "one");
    ASSERT_TRUE(taken.await(1));

    EXPECT_TRUE(await([this] { return status().unanswerable == 1; }));
    EXPECT_EQ(status().served, 0u);
}

TEST_F(MqttRequests, WhatCannotBeServedIsAnsweredBelowZero)
{
    serve();
    routes.push_back(route("nobody", QOR_MQTT_SERVE, ASKED, "nobody"));
    routes.push_back(route("odd", QOR_MQTT_SERVE, TAKEN, "odd"));
    routes[2].decode = [](void *, const qor_mqtt_message_t *, void *, int32_t) { return -1; };
    config.payload = 64;
    routes[2].room = routes[1].room = routes[0].room = 64;
    start_connected();
    Peer peer(broker.port(), "answers");

    peer.send("nobody", "x", "answers");
    peer.send("odd", "x", "answers");
    peer.send("ask/long", std::string(65, 'x'), "answers");

    ASSERT_TRUE(peer.await_count(3));
    for (const Got &got : peer.got()) {
        EXPECT_EQ(got.ret, "-1");
    }
    EXPECT_EQ(taken.text(), "");
    EXPECT_EQ(status().in_failed, 3u);
}

TEST_F(MqttRequests, AboveTheLimitARequestIsAnsweredAtOnce)
{
    Door door;
    serve();
    config.open = 2;
    taker.handle = [&](qor_context_t *, qor_context_msg_t *) {
        taken.add("x");
        door.pass();
        return 0;
    };
    start_connected();
    Peer peer(broker.port(), "answers");

    peer.send("ask/1", "1", "answers", "1");
    peer.send("ask/2", "2", "answers", "2");
    peer.send("ask/3", "3", "answers", "3");

    ASSERT_TRUE(peer.await_count(1));
    EXPECT_EQ(peer.got()[0].correlation, "3");
    EXPECT_EQ(peer.got()[0].ret, "-1");
    door.open();
    ASSERT_TRUE(peer.await_count(3));
    end();
}

TEST_F(MqttRequests, TheBrokersOwnToolGetsItsAnswer)
{
    serve();
    taker_answers();
    start_connected();
    Program asking;
    const std::string output_path = broker.folder() / "rr.out";

    asking.start({"mosquitto_rr", "-V", "5", "-h", "127.0.0.1", "-p", std::to_string(broker.port()),
                  "-t", "ask/rr", "-e", "rr/answer", "-m", "abc", "-W", "60"},
                 output_path);

    EXPECT_EQ(asking.wait(), 0);
    EXPECT_EQ(text_of(output_path), "cba\n");
}

TEST_F(MqttRequests, ACallComesBackWithItsAnswer)
{
    call();
    start_connected();
    Peer peer(broker.port(), "far");

    ask(ASKED, "abc");
    ASSERT_TRUE(peer.await_count(1));
    const Got got = peer.got()[0];
    peer.send(got.response_topic, "done", "", got.correlation, "3");

    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(got.payload, "abc");
    EXPECT_EQ(answers.text(), "3:done");
    EXPECT_EQ(status().called, 1u);
}

TEST_F(MqttRequests, AnswersFindTheirRequestsInAnyOrder)
{
    call();
    start_connected();
    Peer peer(broker.port(), "far");
    ask(ASKED, "a");
    ask(ASKED, "b");
    ask(ASKED, "c");
    ASSERT_TRUE(peer.await_count(3));
    const std::vector<Got> got = peer.got();

    std::string expected;
    for (int i : {2, 0, 1}) {
        const size_t at = static_cast<size_t>(i);
        peer.send(got[at].response_topic, got[at].payload, "", got[at].correlation);
        expected += (expected.empty() ? "0:" : " 0:") + got[at].payload;
        ASSERT_TRUE(await([&] { return answers.text() == expected; }));
    }
}

TEST_F(MqttRequests, UnknownDoubledAndForeignAnswersAreCounted)
{
    call();
    start_connected();
    Peer peer(broker.port(), "far");
    ask(ASKED, "a");
    ASSERT_TRUE(peer.await_count(1));
    const Got got = peer.got()[0];

    peer.send(got.response_topic, "none");
    peer.send(got.response_topic, "foreign", "", "0123456789abcdef-1");
    peer.send(got.response_topic, "next", "", got.correlation + "0");
    peer.send(got.response_topic, "first", "", got.correlation);
    peer.send(got.response_topic, "again", "", got.correlation);

    ASSERT_TRUE(await([this] { return status().stray == 4; }));
    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(answers.text(), "0:first");
    EXPECT_EQ(status().called, 1u);
}

TEST_F(MqttRequests, WithoutAnAnswerACallExpiresAndALateOneIsCounted)
{
    call(50);
    start_connected();
    Peer peer(broker.port(), "far");

    ask(ASKED, "a");
    ASSERT_TRUE(answers.await(1));
    ASSERT_TRUE(await([this] { return status().uncalled == 1; }));
    ASSERT_TRUE(peer.await_count(1));
    peer.send(peer.got()[0].response_topic, "late", "", peer.got()[0].correlation);

    EXPECT_TRUE(await([this] { return status().stray == 1; }));
    EXPECT_EQ(answers.text(), std::to_string(QOR_RET_EXPIRED) + ":" + std::string(64, '\0'));
}

TEST_F(MqttRequests, ACallHoldsNoWorker)
{
    constexpr int many = 32;
    call();
    config.inflight = many;
    start_connected();
    Peer peer(broker.port(), "far");

    for (int i = 0; i < many; i++) { /* more than there are workers */
        ask(ASKED, std::to_string(i));
    }
    ASSERT_TRUE(peer.await_count(many));
    ask(TAKEN, "between");
    ASSERT_TRUE(taken.await(1));
    for (const Got &got : peer.got()) {
        peer.send(got.response_topic, got.payload, "", got.correlation);
    }

    ASSERT_TRUE(answers.await(many + 1));
}

TEST_F(MqttRequests, ASynchronousCallWaitsOnItsThread)
{
    std::string answer;
    call();
    start_connected();
    Peer peer(broker.port(), "far");
    Thread caller([&] { answer = ask_now("abc"); });
    ASSERT_TRUE(peer.await_count(1));

    peer.send(peer.got()[0].response_topic, "done", "", peer.got()[0].correlation, "3");
    caller.join();

    EXPECT_EQ(answer, "3:done");
}

TEST_F(MqttRequests, ASynchronousCallEndsAtItsTime)
{
    call(50);
    start_connected();
    const int64_t begin = hal_timestamp();

    EXPECT_EQ(ask_now("abc"), "-1:");

    EXPECT_GE(hal_timestamp() - begin, 50);
    EXPECT_EQ(status().uncalled, 1u);
}

TEST_F(MqttRequests, ASynchronousCallEndsWhenTheBusQuits)
{
    std::string answer;
    call();
    start_connected();
    Peer peer(broker.port(), "far");
    Thread caller([&] { answer = ask_now("abc"); });
    ASSERT_TRUE(peer.await_count(1));
    const int64_t begin = hal_timestamp();

    quit();
    caller.join();

    EXPECT_LT(hal_timestamp() - begin, routes[0].wait_time / 3);
    EXPECT_EQ(answer, "-1:");
    EXPECT_EQ(status().uncalled, 1u);
}

TEST_F(MqttRequests, AWorkerThatWaitsInACallDoesNotHoldTheEnd)
{
    std::string answer;
    call();
    taker.handle = [&](qor_context_t *, qor_context_msg_t *) {
        answer = ask_now("abc");
        return 0;
    };
    start_connected();
    Peer peer(broker.port(), "far");
    ask(TAKEN, "x");
    ASSERT_TRUE(peer.await_count(1));
    const int64_t begin = hal_timestamp();

    end();

    EXPECT_LT(hal_timestamp() - begin, routes[0].wait_time / 3);
    EXPECT_EQ(answer, "-1:");
}

TEST_F(MqttRequests, WithoutAConnectionACallFailsAtOnce)
{
    call();
    start();

    EXPECT_EQ(ask_now("abc"), "-1:");
    ask(ASKED, "abc", 0);

    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(answers.text(), "-1:");
    EXPECT_EQ(status().accepted, 0u);
}

TEST_F(MqttRequests, OneThatMayWaitForAConnectionDoes)
{
    call();
    routes[0].wait_connection = 1;
    routes[0].qos = 0;
    routes.push_back(route("serve", QOR_MQTT_SERVE, TAKEN, "far"));
    routes[1].response = 64;
    taker_answers();
    start();

    ask(ASKED, "abc");
    ASSERT_TRUE(await([this] { return status().waiting == 1; }));
    broker.start();

    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(answers.text(), "0:cba");
}

TEST_F(MqttRequests, ACallThatIsNotSentFails)
{
    call();
    routes[0].wait_connection = 1;
    config.out_messages = 1;
    start();

    ask(ASKED, "a", 0);
    ASSERT_TRUE(await([this] { return status().waiting == 1; }));
    ask(ASKED, "b", 0); /* takes its place */

    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(answers.text(), "-1:");
    EXPECT_EQ(status().dropped, 1u);
}

TEST_F(MqttRequests, TwoBridgesTalkToEachOther)
{
    call();
    config.name = "near";
    broker.start();
    bridge_add();
    serve();
    routes[0].mqtt_topic = "far";
    config.name = "far";
    bridge_add();
    taker_answers(9);
    start();
    ASSERT_TRUE(connected(0) && connected(1));

    EXPECT_EQ(ask_now("abc"), "9:cba");
    ask(ASKED, "xy");

    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(answers.text(), "9:yx");
}

TEST_F(MqttRequests, AnAnswerWhoseResultIsNoNumberIsAFailure)
{
    call();
    start_connected();
    Peer peer(broker.port(), "far");
    ask(ASKED, "a", 1);
    ASSERT_TRUE(peer.await_count(1));

    peer.send(peer.got()[0].response_topic, "x", "", peer.got()[0].correlation, "none");

    ASSERT_TRUE(answers.await(1));
    EXPECT_EQ(answers.text(), "-1:x");
}

/* An answer is decoded inside of libmosquitto's callback, and a decode function that takes its time
 * looks meanwhile for what the broker has of the bridge. */
class MqttAcknowledged : public MqttRequests, public ::testing::WithParamInterface<int> {
protected:
    bool acknowledged() const
    {
        return broker.log().find(GetParam() == 2
                                     ? "Received PUBCOMP from looker"
                                     : "Received PUBACK from looker") != std::string::npos;
    }

    static int32_t look(void *self, const qor_mqtt_message_t *, void *, int32_t)
    {
        MqttAcknowledged *test = static_cast<MqttAcknowledged *>(self);
        const int64_t begin = hal_timestamp();
        while (!test->before && hal_timestamp() < begin + 1000) {
            test->before = test->acknowledged();
        }
        return 0;
    }

    bool before = false; /* the decode function has returned */
};

TEST_P(MqttAcknowledged, WhenItsCallbackReturnsAndAtOnceThen)
{
    call();
    routes[0].decode = look;
    routes[0].arg = this;
    config.client_id = "looker";
    start_connected();
    Peer peer(broker.port(), "far");
    ask(ASKED, "a");
    ASSERT_TRUE(peer.await_count(1));
    const Got got = peer.got()[0];

    peer.send(got.response_topic, "x", "", got.correlation, "", false, "", GetParam());
    ASSERT_TRUE(answers.await(1));
    const int64_t answered = hal_timestamp();
    EXPECT_FALSE(before);

    EXPECT_TRUE(await([this] { return acknowledged(); }));
    EXPECT_LT(hal_timestamp() - answered, 1000 * config.keep_alive / 4);
}

INSTANTIATE_TEST_SUITE_P(Quality, MqttAcknowledged, ::testing::Values(1, 2));

} // namespace
