/* SPDX-License-Identifier: Apache-2.0 */
/* How long a request takes from one bridge through the broker to another and back, and how many a
 * second there are; beside the broker's own tool, which starts a process for each. Prints what it
 * measures, and fails only when an answer is wrong. */
#include "bridged.hpp"

#include <algorithm>
#include <chrono>

namespace {

double since(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
        .count();
}

class MqttFigures : public Bridged {
protected:
    MqttFigures()
    {
        taker.handle = [](qor_context_t *, qor_context_msg_t *msg) {
            std::memcpy(msg->response.buf, "pong", 4);
            return 0;
        };
        config.name = "near";
        routes = {route("call", QOR_MQTT_CALL, ASKED, "far")};
        broker.start("allow_anonymous true\nset_tcp_nodelay true\n");
        bridge_add();
        config.name = "far";
        routes = {route("serve", QOR_MQTT_SERVE, TAKEN, "far")};
        routes[0].response = 4;
        bridge_add();
    }

    static void print(const char *what, std::vector<double> times)
    {
        std::sort(times.begin(), times.end());
        fprintf(stderr, "%s: p50 %.0f us, p99 %.0f us\n", what, times[times.size() / 2],
                times[times.size() * 99 / 100]);
    }
};

TEST_F(MqttFigures, RoundTrips)
{
    constexpr size_t singles = 500, many = 5000, at_a_time = 32, tools = 20;
    std::vector<double> times;
    start();
    ASSERT_TRUE(connected(0) && connected(1));

    for (size_t i = 0; i < singles; i++) {
        char room[4];
        char ping[] = "ping";
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(qor_context_x_req_ret(asker.context(), ASKED, ping, 4, room, 4), 0);
        times.push_back(since(begin));
    }
    print("one request at a time", times);

    const auto begin = std::chrono::steady_clock::now();
    for (size_t i = 0; i < many; i++) {
        ASSERT_TRUE(await([&] { return i < answers.size() + at_a_time; }));
        ask(ASKED, "ping", 4);
    }
    ASSERT_TRUE(answers.await(many));
    fprintf(stderr, "%zu at a time: %.0f requests per second\n", at_a_time,
            1e6 * static_cast<double>(many) / since(begin));

    times.clear();
    for (size_t i = 0; i < tools; i++) {
        Program tool;
        const auto start_of_tool = std::chrono::steady_clock::now();
        tool.start({"mosquitto_rr", "-V", "5", "-h", "127.0.0.1", "-p",
                    std::to_string(broker.port()), "-t", "far", "-e", "back", "-m", "ping", "-q",
                    "1", "-W", "60"},
                   broker.folder() / "rr.out");
        ASSERT_EQ(tool.wait(), 0);
        times.push_back(since(start_of_tool));
    }
    print("mosquitto_rr, a process each", times);
    end();
}

} // namespace
