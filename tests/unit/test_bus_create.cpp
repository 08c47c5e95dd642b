/* SPDX-License-Identifier: Apache-2.0 */
/* Creating buses, and taking over records of the caller's. */
#include "qor_bus.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "bus_fixture.hpp"
#include "leak.hpp"
#include "output.hpp"
#include "qor_main.h"
#include "qor_topic_core.h"
#include "running_bus.hpp"

TEST(BusCreate, GivesTheDefaults)
{
    qor_context_module_t module = {};
    qor_context_module_t *modules[] = {&module, &module, nullptr};

    qor_bus_t *bus = qor_bus_create(modules, 7);

    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->modules, modules);
    EXPECT_EQ(bus->user_topic_core->id_max, 7);
    EXPECT_EQ(bus->sys_topic_core->id_max, QOR_SYS_NUM);
    EXPECT_EQ(bus->thread_num, 3u);
    EXPECT_EQ(bus->thread_stack_size, 0x10000u);
    EXPECT_EQ(bus->thread_priority, -1);
    EXPECT_EQ(bus->que->max_count, UINT32_MAX);
    EXPECT_EQ(bus->time_que->max_count, UINT32_MAX);
    EXPECT_EQ(reinterpret_cast<void *>(bus->que->recycle),
              reinterpret_cast<void *>(qor_context_task_uninit));
    EXPECT_EQ(reinterpret_cast<void *>(bus->time_que->recycle),
              reinterpret_cast<void *>(qor_context_task_uninit));
    EXPECT_TRUE(list_empty(bus->head));
    qor_bus_close(bus);
}

TEST(BusCreate, QueuesTheStartUpAsItsFirstTask)
{
    qor_bus_t *bus = qor_bus_create(no_modules, 1);

    EXPECT_EQ(qor_que_count(bus->que), 1);
    EXPECT_EQ(bus->time_que->count, 0);
    qor_que_node_t *node = qor_que_deque(bus->que);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(qor_que_node_id(node), 0u);
    const auto *task = static_cast<qor_context_task_t *>(qor_que_node_body(node));
    EXPECT_EQ(task->session, 0);
    EXPECT_EQ(task->context, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(reinterpret_cast<void *>(task->fun.run), reinterpret_cast<void *>(qor_main));
    EXPECT_EQ(task->arg, bus);
    EXPECT_EQ(task->recycle, nullptr);
    EXPECT_EQ(std::string(task->name).substr(0, 5), "task:");
    EXPECT_EQ(qor_bus_session(bus), 1);
    qor_que_node_destroy(node, nullptr);
    qor_bus_close(bus);
}

TEST(BusCreate, CountsUpTo1023Modules)
{
    qor_context_module_t module = {};
    std::vector<qor_context_module_t *> modules(1023, &module);
    modules.push_back(nullptr);

    qor_bus_t *bus = qor_bus_create(modules.data(), 1);

    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->thread_num, 1024u);
    qor_bus_close(bus);
}

TEST(BusCreate, Refuses1024ModulesWithoutALine)
{
    Output out;
    qor_context_module_t module = {};
    std::vector<qor_context_module_t *> modules(1024, &module);
    modules.push_back(nullptr);

    EXPECT_EQ(qor_bus_create(modules.data(), 1), nullptr);

    EXPECT_EQ(out.printed(), "");
}

TEST(BusCreate, ChecksModulesBeforeTopics)
{
    Output out;

    EXPECT_EQ(qor_bus_create(nullptr, 0), nullptr);
    EXPECT_EQ(qor_bus_create(no_modules, 0), nullptr);
    EXPECT_EQ(qor_bus_create(no_modules, -1), nullptr);

    EXPECT_EQ(out.printed(), line("init", "!(modules) == true.") +
                                 line("init", "!(id_max > 0) == true.") +
                                 line("init", "!(id_max > 0) == true."));
}

TEST(BusCreate, InitChecksTheRecordFirst)
{
    Output out;

    EXPECT_EQ(qor_bus_init(nullptr, nullptr, 0), -1);

    EXPECT_EQ(out.printed(), line("init", "!(_this) == true."));
}

TEST(BusCreate, InitMakesABusOfAnyRecord)
{
    qor_bus_t record;
    memset(&record, 0xa5, sizeof(record));
    {
        PrescribedLeak head_and_timer_queue;
        ASSERT_EQ(qor_bus_init(&record, no_modules, 2), 0);
    }

    EXPECT_EQ(record.thread_num, 1u);
    EXPECT_EQ(qor_que_count(record.que), 1);
    EXPECT_EQ(qor_bus_session(&record), 1);
    qor_bus_uninit(&record);
}

TEST(BusCreate, ASecondBusFollowsAFirst)
{
    for (int i = 0; i < 3; i++) {
        RunningBus looping(RunningBus::by_start);
        std::atomic<bool> ran{false};
        looping.start();
        qor_bus_run(
            looping.get(),
            [](void *arg) -> void * {
                *static_cast<std::atomic<bool> *>(arg) = true;
                return nullptr;
            },
            &ran, nullptr);
        EXPECT_TRUE(await([&] { return ran.load(); }));
        EXPECT_EQ(qor_bus_drain(looping.get(), 60000), 0); /* start-up is through */
    }
    EXPECT_TRUE(list_empty(&context_head));
}
