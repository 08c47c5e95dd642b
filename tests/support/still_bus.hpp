/* SPDX-License-Identifier: Apache-2.0 */
/* A bus without workers: its tasks run one by one, on the test's thread, when the test says so. */
#ifndef QOR_TESTS_STILL_BUS_HPP
#define QOR_TESTS_STILL_BUS_HPP

#include <string>
#include <utility>
#include <vector>

#include "qor_bus.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_que.h"
#include "running_bus.hpp"

/* Closes the bus at the end. The first task is the start-up of the system modules. */
class StillBus {
public:
    explicit StillBus(const std::vector<Module *> &modules = {}, int32_t topics = 8)
    {
        for (Module *module : modules) {
            table_.push_back(&module->descriptor);
        }
        table_.push_back(nullptr);
        bus_ = qor_bus_create(table_.data(), topics);
    }

    ~StillBus() { close(); }
    StillBus(const StillBus &) = delete;
    StillBus &operator=(const StillBus &) = delete;

    qor_bus_t *get() { return bus_; } /* NULL when it could not be created */
    qor_context_module_t **table() { return table_.data(); }

    /* Runs and releases the task that was queued first; gives its name, "" when there is none. */
    std::string run_next()
    {
        qor_que_node_t *node = qor_que_deque(bus_->que);
        if (!node) {
            return "";
        }
        qor_context_task_t *task = static_cast<qor_context_task_t *>(qor_que_node_body(node));
        const std::string name = task->name;
        qor_context_task_excute(task);
        qor_context_task_uninit(task);
        qor_que_node_destroy(node, nullptr);
        return name;
    }

    /* Runs tasks until none is queued. */
    void run_all()
    {
        while (!run_next().empty()) {
        }
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
