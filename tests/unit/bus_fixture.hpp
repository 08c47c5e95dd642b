/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the bus share: a task that keeps a journal, and two fixtures. */
#ifndef QOR_TESTS_BUS_FIXTURE_HPP
#define QOR_TESTS_BUS_FIXTURE_HPP

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

#include <dirent.h>
#include <gtest/gtest.h>

#include "journal.hpp"
#include "output.hpp"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"

inline std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_bus", "qor_bus_" + function, text);
}

inline qor_context_module_t *no_modules[] = {nullptr};

inline int64_t now()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

/* A task function, its argument's release, and what they did. Outlives the bus. */
struct Job {
    Journal journal;
    std::function<void()> body = [] {};
    std::atomic<int> runs{0};
    std::atomic<int> recycles{0};

    static void *run(void *arg)
    {
        Job &job = *static_cast<Job *>(arg);
        job.journal.add("run");
        job.body();
        job.runs++;
        return nullptr;
    }

    static void recycle(void *arg)
    {
        Job &job = *static_cast<Job *>(arg);
        job.journal.add("recycle");
        job.recycles++;
    }

    qor_context_task_t task(int32_t session, int32_t delay = 0)
    {
        qor_context_task_t made = {};
        qor_context_task_init(&made, nullptr, "job", session, run, this);
        made.recycle = recycle;
        made.delay = delay;
        return made;
    }
};

/* How many threads of the process bear a name. */
inline int threads_named(const std::string &name)
{
    int found = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (const dirent *entry = readdir(tasks)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string its_name;
        found += std::getline(comm, its_name) && its_name == name ? 1 : 0;
    }
    closedir(tasks);
    return found;
}

/* A bus that does not loop unless the test says so. */
class Bus : public testing::Test {
protected:
    Output out;
    Job job; /* before the bus, whose end may still recycle it */
    StillBus pumped{StillBus::bare};
    qor_bus_t *bus = pumped.get();
};

/* A bus with two workers, looping. */
class BusLoop : public testing::Test {
protected:
    BusLoop()
    {
        drop_start_up(bus);
        looping.start();
    }

    Output out;
    Job job, other;
    RunningBus looping{RunningBus::by_start, /* workers */ 2};
    qor_bus_t *bus = looping.get();
};

#endif /* QOR_TESTS_BUS_FIXTURE_HPP */
