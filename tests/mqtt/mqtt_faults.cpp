/* SPDX-License-Identifier: Apache-2.0 */
/* A bridge whose calls for memory, threads and locks fail while it comes up, each once. */
#include "bridged.hpp"
#include "fault.h"

namespace {

class MqttFaults : public Bridged {
protected:
    /* How far a life of the bridge has come. */
    enum { NOT_MADE, NOT_UP, UP };

    MqttFaults()
    {
        routes = {route("out", QOR_MQTT_OUT, TAKEN, "{module}/out"),
                  route("in", QOR_MQTT_IN, TAKEN, "in/#"),
                  route("serve", QOR_MQTT_SERVE, TAKEN, "serve"),
                  route("call", QOR_MQTT_CALL, ASKED, "far")};
        routes[0].pair = "in";
        config.user = "user";
        config.password = "password";
        config.client_id = "faults";
        config.status_topic = "status";
        config.linger = 10000;       /* that it is not left behind on a busy machine */
        config.port = broker.port(); /* where nobody listens */
        config.routes = routes.data();
        config.route_count = static_cast<int32_t>(routes.size());
    }

    int live()
    {
        qor_context_module_t *bridge = qor_mqtt_module_create(&config);
        if (!bridge) {
            return NOT_MADE;
        }
        qor_context_module_t *modules[] = {bridge, nullptr};
        qor_bus_t *one = qor_bus_create(modules, TOPICS);
        EXPECT_EQ(qor_mqtt_module_contract(one, bridge), 0);
        Thread looping([one] { qor_bus_loop(one); });
        const int32_t came_up = qor_bus_wait_up(one, 60000, nullptr);
        qor_bus_quit(one);
        looping.join();
        qor_bus_close(one);
        qor_mqtt_module_destroy(bridge);
        return came_up == 0 ? UP : NOT_UP;
    }
};

struct Fault {
    fault_kind kind;
    int least; /* calls of it there are until the bridge is up */
    const char *name;
};

class MqttFaultsEach : public MqttFaults, public ::testing::WithParamInterface<Fault> {};

TEST_P(MqttFaultsEach, AreToldAndLeaveNothing)
{
    int count = 0;
    for (;; count++) {
        output.clear();
        fault_arm(FAULT_ALLOC, -1); /* begins to count what is kept */
        const int locks = fault_locks();
        fault_arm(GetParam().kind, count);
        const int came = live();
        const int fired = fault_fired(GetParam().kind), kept = fault_live();
        fault_arm(GetParam().kind, -1);

        EXPECT_EQ(kept, 0) << "call " << count;
        EXPECT_EQ(fault_locks(), locks) << "call " << count;
        if (!fired) {
            EXPECT_EQ(came, UP);
            break;
        }
        EXPECT_NE(came, UP) << "call " << count;
        EXPECT_EQ(output.count("[qor_mqtt][err]"), 1) << output.text();
    }
    EXPECT_GE(count, GetParam().least);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, MqttFaultsEach,
    ::testing::Values(Fault{FAULT_ALLOC, 20, "Memory"}, Fault{FAULT_THREAD, 1, "Thread"},
                      Fault{FAULT_MUTEX, 1, "Mutex"}, Fault{FAULT_COND, 2, "Condition"},
                      Fault{FAULT_ATTR, 3, "Attribute"}, Fault{FAULT_STACK, 1, "Stack"}),
    [](const auto &of) { return std::string(of.param.name); });

} // namespace
