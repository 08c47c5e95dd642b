/* SPDX-License-Identifier: Apache-2.0 */
/* A bus driven by hand: its tasks run one by one, on the test's thread, when the test says so. */
#ifndef QOR_TESTS_STILL_BUS_HPP
#define QOR_TESTS_STILL_BUS_HPP

#include <string>
#include <utility>
#include <vector>

#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "taking_tasks.hpp"

/* Closes the bus at the end. */
class StillBus {
public:
    /* Its first task is the start-up of the system modules. */
    explicit StillBus(const std::vector<Module *> &modules = {}, int32_t topics = 8)
        : table_(table_of(modules)), bus_(qor_bus_create(table_.data(), topics))
    {
    }

    /* Nothing is queued, and nothing comes up. */
    enum Bare { bare };
    explicit StillBus(Bare, int32_t topics = 4) : StillBus(std::vector<Module *>(), topics)
    {
        drop_start_up(bus_);
    }

    ~StillBus() { close(); }
    StillBus(const StillBus &) = delete;
    StillBus &operator=(const StillBus &) = delete;

    qor_bus_t *get() { return bus_; } /* NULL when it could not be created */
    qor_context_module_t **table() { return table_.data(); }

    /* Takes the first task; the caller passes it to finish(). NULL when none waits. */
    qor_context_task_t *take() { return take_task(bus_); }
    static void finish(qor_context_task_t *task) { release_task(task); }

    /* Runs and releases the first task; gives its name, "" when there is none. */
    std::string run_next()
    {
        qor_context_task_t *task = take();
        if (!task) {
            return "";
        }
        const std::string name = task->name;
        qor_context_task_excute(task);
        finish(task);
        return name;
    }

    /* Runs all tasks, those included that they post. Returns how many there were. */
    int run_all()
    {
        int tasks = 0;
        while (qor_context_task_t *task = take()) {
            qor_context_task_excute(task);
            finish(task);
            tasks++;
        }
        return tasks;
    }

    void close()
    {
        if (bus_) {
            qor_bus_close(std::exchange(bus_, nullptr));
        }
    }

private:
    std::vector<qor_context_module_t *> table_;
    qor_bus_t *bus_;
};

#endif /* QOR_TESTS_STILL_BUS_HPP */
