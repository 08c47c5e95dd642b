/* SPDX-License-Identifier: Apache-2.0 */
/* Processes with a bus each, which mirror a topic. */
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "broker.hpp"
#include "peer.hpp"

namespace {

size_t count_in(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}

class MqttProcesses : public ::testing::Test {
protected:
    static constexpr const char *names[] = {"one", "two"};

    /* Two processes that are subscribed. */
    void start(const char *kind)
    {
        broker.start();
        for (size_t i = 0; i < 2; i++) {
            processes[i].start({QOR_MIRROR, std::to_string(broker.port()), names[i], kind},
                               path(i));
            ASSERT_TRUE(
                await([&] { return logged(std::string("Sending SUBACK to ") + names[i]) == 1; }));
        }
    }

    /* Both end in good order. */
    void end()
    {
        for (Program &process : processes) {
            process.tell(SIGTERM);
            EXPECT_EQ(process.wait(), 0);
        }
    }

    std::string path(size_t i) { return broker.folder() / names[i]; }
    size_t logged(const std::string &part) const { return count_in(broker.log(), part); }
    size_t printed(size_t i, const std::string &part) { return count_in(text_of(path(i)), part); }

    /* Until each has had that many messages from the broker and as many requests: what it takes
     * from the broker may get lost on its way to the bus when it ends meanwhile. */
    bool await_all(size_t first, size_t second, size_t requests)
    {
        return await([&] {
            return logged("Received PUBACK from one") == first &&
                   logged("Received PUBACK from two") == second &&
                   printed(0, "took ") == requests && printed(1, "took ") == requests;
        });
    }

    Broker broker;
    Program processes[2];
};

TEST_F(MqttProcesses, AMessageAppearsOnEachBusOnce)
{
    start("paired");
    Peer peer(broker.port(), "mirror");

    peer.send("mirror", "in");
    ASSERT_TRUE(await_all(1, 1, 1));
    end();

    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(printed(i, "took in\n"), 1u) << names[i];
        EXPECT_EQ(printed(i, "in 1, skipped 0, sent 0, acknowledged 0\n"), 1u) << names[i];
    }
    EXPECT_EQ(peer.payloads(), "in");
}

TEST_F(MqttProcesses, ARequestOnOneBusAppearsOnTheOtherOnce)
{
    start("paired");
    Peer peer(broker.port(), "mirror");

    processes[0].tell(SIGUSR1);
    ASSERT_TRUE(await_all(0, 1, 1));
    ASSERT_TRUE(peer.await_count(1));
    end();

    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(printed(i, "took one\n"), 1u) << names[i];
    }
    EXPECT_EQ(printed(0, "in 0, skipped 0, sent 1, acknowledged 1\n"), 1u);
    EXPECT_EQ(printed(1, "in 1, skipped 0, sent 0, acknowledged 0\n"), 1u);
    EXPECT_EQ(peer.payloads(), "one");
}

/* The out routes ignore no in route, so that each process sends on what the other sends. A message
 * then goes as often to and fro as bridges may pass it on. */
TEST_F(MqttProcesses, WhatGoesRoundInACircleEnds)
{
    constexpr size_t hops = 4;
    start("open");
    Peer peer(broker.port(), "mirror");

    peer.send("mirror", "round");
    ASSERT_TRUE(await_all(hops + 1, hops + 1, hops)); /* what is over the limit has come, too */
    ASSERT_TRUE(peer.await_count(1 + 2 * hops));
    end();

    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(printed(i, "took round\n"), hops) << names[i];
        EXPECT_EQ(printed(i, "in 5, skipped 1, sent 4, acknowledged 4\n"), 1u) << text_of(path(i));
    }
    EXPECT_EQ(peer.count(), 1 + 2 * hops);
}

} // namespace
