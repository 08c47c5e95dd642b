/* SPDX-License-Identifier: Apache-2.0 */
/* A bus whose stacks are recorded with a clock of the test's, and what is explained of it. */
#ifndef QOR_TESTS_EXPLAINING_HPP
#define QOR_TESTS_EXPLAINING_HPP

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_health.h"
#include "recording.hpp"
#include "running_bus.hpp"

/* The lines of an explanation, and its result. */
struct Explanation {
    explicit Explanation(qor_bus_t *bus) : circles(qor_bus_explain(bus, take, &lines)) {}

    /* Of those that begin so the first; "" when none does. */
    std::string line(const std::string &beginning) const
    {
        for (const std::string &one : lines) {
            if (one.compare(0, beginning.size(), beginning) == 0) {
                return one;
            }
        }
        return "";
    }

    std::vector<std::string> lines;
    int32_t circles;

private:
    static void take(void *all, const char *line)
    {
        static_cast<std::vector<std::string> *>(all)->push_back(line);
    }
};

/* The lines with a letter for each thread's number, in order. Of the bus and of modules only what
 * comes up to the number of tasks in the queue: the rest is an inspection's. */
inline std::string plain(const std::vector<std::string> &lines)
{
    std::string all;
    for (const std::string &line : lines) {
        const bool counts = line.compare(0, 4, "bus:") == 0 || line.compare(0, 8, "context ") == 0;
        const size_t queued = line.find(", queued ");
        all += (counts ? line.substr(0, line.find(',', queued + 1)) : line) + "\n";
    }
    std::vector<std::string> tids;
    for (size_t at = all.find("thread "); at != std::string::npos;
         at = all.find("thread ", at + 1)) {
        const size_t number = at + strlen("thread ");
        const size_t end = all.find_first_not_of("0123456789", number);
        const std::string digits = all.substr(number, end - number);
        const auto known = std::find(tids.begin(), tids.end(), digits);
        const auto place = static_cast<char>(known - tids.begin());
        if (known == tids.end()) {
            tids.push_back(digits);
        }
        all.replace(number, digits.size(), digits == "0" ? "0" : std::string(1, 'A' + place));
    }
    return all;
}

/* A clock in ms that the test sets. 2^20 of its ticks are one. */
inline std::atomic<uint64_t> told_time{1000};
inline uint64_t told_clock()
{
    return told_time << 20;
}

/* Modules on a bus whose stacks are recorded. */
class Explaining : public ::testing::Test {
protected:
    /* Makes the bus. */
    qor_bus_t *make(const std::vector<Module *> &modules, uint32_t workers = 2,
                    uint32_t mask = QOR_TRACE_STACKS)
    {
        bus.reset(new RunningBus(RunningBus::by_start, workers, modules, TOPICS));
        memory.config.mask = mask;
        memory.config.clock = told_clock;
        memory.config.clock_hz = 1000u << 20;
        EXPECT_EQ(qor_trace_start(bus->get(), &memory.config), 0);
        return bus->get();
    }

    /* Makes it and starts it. */
    qor_bus_t *run(const std::vector<Module *> &modules, uint32_t workers = 2)
    {
        make(modules, workers);
        bus->start();
        return bus->get();
    }

    /* The same, and waits for all modules and until nothing is to be done. */
    qor_bus_t *run_up(const std::vector<Module *> &modules, uint32_t workers = 2)
    {
        run(modules, workers);
        EXPECT_TRUE(bus->up());
        EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
        return bus->get();
    }

    Explanation explain() { return Explanation(bus->get()); }

    /* Waits until the explanation has that text. */
    bool explained(const std::string &text)
    {
        return await([&] { return plain(explain().lines).find(text) != std::string::npos; });
    }

    qor_health_t health(int32_t limit_ms = 1000)
    {
        qor_health_t found = {};
        found.size = sizeof(found);
        judged = qor_bus_health(bus->get(), limit_ms, &found);
        return found;
    }

    static void serve(Module &module, int32_t topic)
    {
        module.reg = [topic](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
    }

    /* An init that calls, one after the other. */
    static void call(Module &module, const std::vector<int32_t> &topics)
    {
        module.init = [topics](qor_context_t *c) {
            for (const int32_t topic : topics) {
                qor_context_x_req(c, topic, nullptr, 0);
            }
            return 0;
        };
    }

    void TearDown() override { end(); }

    /* Lets everybody at the door go on and ends the bus: in a test before its own variables go. */
    void end()
    {
        door.open();
        bus.reset();
    }

    enum { TOPICS = 16 };

    Output output;
    RecordedMemory memory{QOR_TRACE_STACKS, 32};
    Door door;
    std::unique_ptr<RunningBus> bus;
    int32_t judged = -2; /* the result of the last health() */
};

#endif /* QOR_TESTS_EXPLAINING_HPP */
