/* SPDX-License-Identifier: Apache-2.0 */
/* The monitor at work on a bus. */
#include "qor_monitor_module.h"

#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "monitor_module_fixture.hpp"
#include "qor_context.h"
#include "qor_hal.h"
#include "qor_time_que.h"
#include "running_bus.hpp"

namespace {

/* A task that runs until the test lets it go. */
struct Work {
    int64_t posted = 0;
    Door door;

    void post(const Module &module, const char *name)
    {
        posted = util_timestamp();
        EXPECT_GE(qor_context_run_name(module.context(), name, run, this), 0);
    }

    static void *run(void *arg)
    {
        EXPECT_TRUE(static_cast<Work *>(arg)->door.pass());
        return nullptr;
    }
};

/* Lets the task end, and tells by when its end has been reported: another one follows it. */
int64_t release(Work &work, const Module &module)
{
    std::atomic<int64_t> next{0};
    work.door.open();
    EXPECT_GE(qor_context_run(
                  module.context(),
                  [](void *arg) -> void * {
                      *static_cast<std::atomic<int64_t> *>(arg) = util_timestamp();
                      return nullptr;
                  },
                  &next),
              0);
    EXPECT_TRUE(await([&] { return next != 0; }));
    return next;
}

/* The most warnings that a task can have had by then. */
size_t most_warnings(const Work &work, int64_t over)
{
    const int64_t first = work.posted + 5000;
    return over < first ? 0 : static_cast<size_t>(1 + (over - first) / 1000);
}

void sleep_until(int64_t moment)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(moment - util_timestamp()));
}

} // namespace

TEST(MonitorModuleOnABus, NamesATaskAfterFiveSixAndSevenSecondsAndAShorterOneNever)
{
    Output out;
    Module slow("slow");
    Module brisk("brisk");
    RunningBus bus({&slow, &brisk});
    ASSERT_TRUE(bus.up());
    Work tedious;
    Work shorter;
    tedious.post(slow, "tedious");
    shorter.post(brisk, "shorter");

    sleep_until(shorter.posted + 4500);
    const int64_t shorter_over = release(shorter, brisk);
    sleep_until(tedious.posted + 7500);
    EXPECT_TRUE(out.await(std::string(warning) + "tedious", 3));
    const int64_t tedious_over = release(tedious, slow);
    bus.end();

    const std::vector<int64_t> moments = warnings(out, "tedious, session = ");
    EXPECT_LE(moments.size(), most_warnings(tedious, tedious_over)); /* 3, unless it came late */
    for (size_t i = 0; i < moments.size(); i++) {
        EXPECT_GE(moments[i], tedious.posted + 5000 + 1000 * static_cast<int64_t>(i));
    }
    EXPECT_LE(warnings(out, "shorter").size(), most_warnings(shorter, shorter_over)); /* 0 */
}
