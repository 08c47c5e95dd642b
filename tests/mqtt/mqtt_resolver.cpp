/* SPDX-License-Identifier: Apache-2.0 */
/* A resolver that hangs: this program's own stands in for the C library's. */
#include "bridged.hpp"

#include <netdb.h>

#include <atomic>

#include "door.hpp"

namespace {

std::atomic<int> asked{0}, left{0};
Door resolver;

class MqttResolver : public Bridged {};

TEST_F(MqttResolver, OneThatHangsDoesNotHoldTheEnd)
{
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, "t")};
    config.host = "broker.example";
    config.linger = 200;
    broker.port();
    start();
    ASSERT_TRUE(await([] { return asked == 1; }));
    const int64_t begin = hal_timestamp();

    end();

    EXPECT_LT(hal_timestamp() - begin, 200 + 200);
    EXPECT_EQ(output.count("the network thread hangs, probably in the resolver, and is left"), 1);
    /* The thread has memory of its own: it may go on when the bridge is gone. */
    resolver.open();
    EXPECT_TRUE(await([] { return left == 1; }));
}

} // namespace

extern "C" int getaddrinfo(const char *, const char *, const struct addrinfo *, struct addrinfo **)
{
    asked++;
    resolver.pass();
    left++;
    return EAI_FAIL;
}
