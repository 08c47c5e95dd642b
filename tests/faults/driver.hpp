/* SPDX-License-Identifier: Apache-2.0 */
/* What scenarios are written with. A call that the library may refuse goes through got(): a refusal
 * is right when a call of the library's own was made to fail, and wrong in a run without faults.
 * What holds in either case goes through must(). */
#ifndef QOR_TESTS_FAULTS_DRIVER_HPP
#define QOR_TESTS_FAULTS_DRIVER_HPP

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "module.hpp"
#include "qor.h"

/* Counts a refusal. Gives good. */
bool got(bool good);
/* Complains, with the text, unless it holds. */
void must(bool holds, const char *what);
/* Waits for a condition, and complains when it does not come true. */
void reached(const std::function<bool()> &condition, const char *what);

constexpr int32_t patience = 5000; /* ms */

/* Arguments of tasks: each that was taken comes back, once. */
struct Ledger {
    std::atomic<int> taken{0}, ran{0}, released{0};
    static void *run(void *self)
    {
        static_cast<Ledger *>(self)->ran++;
        return nullptr;
    }
    static void *runx(qor_context_t *, int32_t, void *self) { return run(self); }
    static void release(void *self) { static_cast<Ledger *>(self)->released++; }
    /* The result of a call that hands the ledger over with release. */
    bool entered(int32_t result)
    {
        const bool good = got(result >= 0);
        taken += good;
        return good;
    }
    void balances(const char *what) { must(taken == released, what); }
};

/* A bus that loops beside the scenario. What could not be had is counted by got(). */
class Bus {
public:
    using Prepare = std::function<void(qor_bus_t *)>;
    Bus(const std::vector<Module *> &modules, const Prepare &prepare);
    ~Bus() { end(); }
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    qor_bus_t *get() { return bus_; }
    /* Whether every module has come up. */
    bool up();
    /* Waits until nothing is under way. */
    void settle();
    /* Quits, waits for the loop and frees everything. */
    void end();

private:
    std::vector<Module *> modules_;
    std::vector<qor_context_module_t *> table_;
    qor_bus_t *bus_;
    std::thread loop_;
    std::atomic<int> result_{1}; /* of the loop; 1 while it runs */
};

struct Scenario {
    const char *name;
    void (*play)();
};

extern const std::vector<Scenario> object_scenarios, bus_scenarios;

#endif /* QOR_TESTS_FAULTS_DRIVER_HPP */
