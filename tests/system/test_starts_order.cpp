/* SPDX-License-Identifier: Apache-2.0 */
/* In which order inits begin. */
#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "still_bus.hpp"

namespace {

/* Three modules that write down whose init is called, on a bus whose tasks the test runs. */
class StartOrder : public testing::Test {
protected:
    StartOrder()
    {
        for (Module *module : {&a, &b, &c}) {
            module->init = [this, module](qor_context_t *) {
                journal.add(module->descriptor.name);
                return 0;
            };
        }
        a.reg = [](qor_context_t *self) { qor_context_subscribe(self, 0, nullptr); };
        bus.run_next(); /* the start-up */
    }

    Output out;
    Journal journal;
    Module a{"a"}, b{"b"}, c{"c"};
    StillBus bus{{&a, &b, &c}};
};

} // namespace

TEST_F(StartOrder, WhereNobodyWaitsIsNewestFirstInNamesAndSessions)
{
    std::string names;
    std::vector<size_t> sessions;
    const qor_que_t *que = bus.get()->que;
    for (list_head *link = que->head.next; link != &que->head; link = link->next) {
        qor_que_node_t *node = reinterpret_cast<qor_que_node_t *>(link); /* first field */
        names += static_cast<qor_context_task_t *>(qor_que_node_body(node))->name;
        sessions.push_back(qor_que_node_id(node));
    }

    bus.run_all();

    EXPECT_EQ(names, "cba");
    EXPECT_TRUE(std::is_sorted(sessions.begin(), sessions.end()));
    EXPECT_EQ(journal.text(), "c b a");
}

TEST_F(StartOrder, AnInitThatSomebodyWaitsForIsBegunBeforeItsTurn)
{
    EXPECT_EQ(qor_context_x_req(c.context(), 0, nullptr, 0), 0);
    EXPECT_EQ(journal.text(), "a");

    bus.run_all();

    EXPECT_EQ(journal.text(), "a c b");
}
