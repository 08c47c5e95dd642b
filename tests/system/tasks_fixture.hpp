/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of tasks share: a module on a running bus, and tasks that stand at a door. */
#ifndef QOR_TESTS_TASKS_FIXTURE_HPP
#define QOR_TESTS_TASKS_FIXTURE_HPP

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "door.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_hal.h"
#include "running_bus.hpp"

/* Gives a task that would come too early, or not at all, the time to come. */
inline void grace()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

/* Tasks that stand at a door, and how many did at once. */
struct Crowd {
    Door door;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> done{0};

    static void *visit(void *arg)
    {
        Crowd *self = static_cast<Crowd *>(arg);
        const int now = ++self->inside;
        int most = self->most;
        while (now > most && !self->most.compare_exchange_weak(most, now)) {
        }
        self->door.pass();
        self->inside--;
        self->done++;
        return nullptr;
    }

    static void *visitx(qor_context_t *, int32_t, void *arg) { return visit(arg); }
};

/* A task that writes down when it was posted and when it ran. */
struct Alarm {
    int64_t posted = util_timestamp();
    std::atomic<int64_t> rang{0};

    static void *ring(void *arg)
    {
        static_cast<Alarm *>(arg)->rang = util_timestamp();
        return nullptr;
    }
};

inline std::atomic<int> recycled;

inline void count_recycle(void *)
{
    recycled++;
}

inline void *nothing(void *)
{
    return nullptr;
}

class Tasks : public testing::Test {
protected:
    explicit Tasks(int32_t refcount = 1, uint32_t workers = 8) : workers_(workers)
    {
        module.descriptor.refcount = refcount;
    }

    void SetUp() override
    {
        bus = std::make_unique<RunningBus>(std::vector<Module *>{&module}, 1, workers_);
        ASSERT_TRUE(bus->up());
    }

    int32_t post(const char *name, int32_t session, int32_t delay, qor_context_run_t run,
                 qor_context_recycle_t recycle)
    {
        qor_context_task_t task = {};
        qor_context_task_init(&task, module.context(), name, session, run, this);
        task.delay = delay;
        task.recycle = recycle;
        return qor_context_handler_post(module.context(), &task);
    }

    Output out;
    Journal journal;
    Crowd crowd;
    Module module{"worker"};
    std::unique_ptr<RunningBus> bus;

private:
    uint32_t workers_;
};

/* On one worker, tasks neither overtake each other nor start while the test holds it. */
class OneWorker : public Tasks {
protected:
    OneWorker() : Tasks(1, 1) {}
};

#endif /* QOR_TESTS_TASKS_FIXTURE_HPP */
