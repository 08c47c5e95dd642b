/* SPDX-License-Identifier: Apache-2.0 */
/* Modules for tests of deferred requests: one that asks, one that may answer later. */
#ifndef QOR_TESTS_DEFERRING_HPP
#define QOR_TESTS_DEFERRING_HPP

#include <atomic>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "door.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_deferred.h"
#include "running_bus.hpp"

/* A server that hands requests to serve(), and a client that writes responses down as "7 pong": ret
 * and payload. */
class Deferring : public testing::Test {
protected:
    static constexpr qor_context_topic_t topic = 3, other_topic = 4;

    Deferring()
    {
        server.reg = [](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
        server.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
            return msg->type == QOR_CONTEXT_MSG_REQUEST ? serve(c, msg) : otherwise(c, msg);
        };
        client.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
                const std::string payload =
                    msg->response.buf ? std::string(static_cast<char *>(msg->response.buf),
                                                    static_cast<size_t>(msg->response.size))
                                      : "";
                responses.add(std::to_string(msg->ret) + (payload.empty() ? "" : " ") + payload);
            }
            return 0;
        };
    }

    /* With so many workers; 0: as many as are usual. */
    void be_up(uint32_t workers = 0)
    {
        bus.emplace(std::initializer_list<Module *>{&server, &client, &observer}, 8, workers);
        ASSERT_TRUE(bus->up());
    }

    /* Asks with a payload, and with that much room for the answer. */
    int32_t ask(const std::string &payload = "ping", int32_t room = 4)
    {
        std::string copy = payload;
        return qor_context_req_ret(client.context(), topic, copy.data(),
                                   static_cast<int32_t>(copy.size()), room);
    }

    int32_t defer(qor_context_t *c, qor_context_msg_t *msg, int32_t wait_time = -1)
    {
        uint64_t made = 0;
        const int32_t result = qor_context_defer(c, msg, wait_time, &made);
        if (result == 0) {
            token = made;
        }
        return result;
    }

    /* Asks, and waits until the request is deferred and its handler over. */
    uint64_t deferred(const std::string &payload = "ping", int32_t room = 4)
    {
        token = 0;
        EXPECT_GE(ask(payload, room), 0);
        EXPECT_TRUE(await([this] { return token != 0; }));
        rest();
        return token;
    }

    /* Waits until no handler is under way: every worker stands at a door at the same time. */
    void rest()
    {
        Door all;
        const int workers = static_cast<int>(bus->get()->thread_num);
        for (int i = 0; i < workers; i++) {
            const auto stand = [](void *at) -> void * {
                return static_cast<Door *>(at)->pass(), at;
            };
            ASSERT_EQ(qor_bus_run(bus->get(), stand, &all, nullptr), 0);
        }
        ASSERT_TRUE(all.await(workers));
    }

    static int32_t complete(uint64_t of, int32_t ret, const std::string &data)
    {
        return qor_deferred_complete(of, ret, data.data(), static_cast<int32_t>(data.size()));
    }

    /* Waits for the response and gives it. */
    std::string response()
    {
        EXPECT_TRUE(responses.await(1));
        return responses.text();
    }

    static std::string line(const std::string &function, const std::string &text)
    {
        return err_line("qor_deferred", "qor_" + function, text);
    }

    static std::string refused()
    {
        return line("context_defer", "only the handler of an asynchronous request can defer it.");
    }

    static std::string not_open(const std::string &function = "complete")
    {
        return line("deferred_" + function, "the token is not open.");
    }

    Output out;
    Journal journal, responses;
    Door door; /* outlives the bus, whose workers may stand at it */
    std::atomic<uint64_t> token{0};
    std::function<int32_t(qor_context_t *, qor_context_msg_t *)> serve =
        [this](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg); };
    std::function<int32_t(qor_context_t *, qor_context_msg_t *)> otherwise =
        [](qor_context_t *, qor_context_msg_t *) { return 0; };
    Module server{"server"}, client{"client"}, observer{"observer"};
    std::optional<RunningBus> bus;
};

#endif /* QOR_TESTS_DEFERRING_HPP */
