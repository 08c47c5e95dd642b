/* SPDX-License-Identifier: Apache-2.0 */
/* A bus that loops beside a test. */
#ifndef QOR_TESTS_RUNNING_BUS_HPP
#define QOR_TESTS_RUNNING_BUS_HPP

#include <initializer_list>
#include <vector>

#include "await.hpp"
#include "door.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "thread.hpp"

/* Its loop has a thread of its own, to quit(), end() or destruction. */
class RunningBus {
public:
    /* Loops from now on. Without a number of workers the bus has its usual one. */
    explicit RunningBus(std::initializer_list<Module *> modules, int32_t topics = 8,
                        uint32_t workers = 0)
        : RunningBus(std::vector<Module *>(modules), topics, workers)
    {
    }

    RunningBus(const std::vector<Module *> &modules, int32_t topics, uint32_t workers = 0)
        : modules_(modules), table_(table_of(modules)), bus_(qor_bus_create(table_.data(), topics))
    {
        for (Module *module : modules_) {
            module->forget();
        }
        if (workers) {
            qor_bus_thread_num_set(bus_, workers);
        }
        start();
    }

    /* Loops from start() on, with exactly that many workers. */
    enum ByStart { by_start };
    explicit RunningBus(ByStart, uint32_t workers = 2, const std::vector<Module *> &modules = {},
                        int32_t topics = 4)
        : modules_(modules), table_(table_of(modules)), bus_(qor_bus_create(table_.data(), topics))
    {
        for (Module *module : modules_) {
            module->forget();
        }
        qor_bus_thread_num_set(bus_, workers);
    }

    ~RunningBus() { end(); }
    RunningBus(const RunningBus &) = delete;
    RunningBus &operator=(const RunningBus &) = delete;

    qor_bus_t *get() { return bus_; }

    void start()
    {
        thread_ = Thread([this] { result_ = qor_bus_loop(bus_); });
    }

    /* Waits until every module has started; false when patience ends. */
    bool up(const Where &where = Where::here()) const
    {
        return await(
            [this] {
                bool all = true;
                for (const Module *module : modules_) {
                    all = all && module->started();
                }
                return all;
            },
            where);
    }

    /* Waits for the loop's return, which somebody else brings about; gives its result. */
    int32_t returned(const Where &where = Where::here())
    {
        if (thread_.joinable()) {
            thread_.join(where);
        }
        return result_;
    }

    /* Quits and waits for the loop's return; the contexts stay. */
    int32_t quit(const Where &where = Where::here())
    {
        if (thread_.joinable()) {
            qor_bus_quit(bus_);
        }
        return returned(where);
    }

    /* Quits, and frees everything. */
    void end(const Where &where = Where::here())
    {
        if (bus_) {
            quit(where);
            qor_bus_close(bus_);
            bus_ = nullptr;
        }
    }

private:
    std::vector<Module *> modules_;
    std::vector<qor_context_module_t *> table_;
    qor_bus_t *bus_;
    int32_t result_ = -1;
    Thread thread_;
};

#endif /* QOR_TESTS_RUNNING_BUS_HPP */
