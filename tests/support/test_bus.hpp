/* SPDX-License-Identifier: Apache-2.0 */
/* Buses for tests: one whose tasks the test runs itself, and one that loops on a thread. */
#ifndef QOR_TESTS_TEST_BUS_HPP
#define QOR_TESTS_TEST_BUS_HPP

#include <thread>

#include "qor_bus.h"
#include "qor_context_task.h"

/* Never loops and brings nothing up: what is posted waits until the test runs it, one task after
 * the other, on its own thread. */
class PumpedBus {
public:
    explicit PumpedBus(int32_t topics = 4) : bus(qor_bus_create(modules, topics))
    {
        qor_bus_cancel(bus, 0); /* start-up */
    }
    ~PumpedBus() { qor_bus_close(bus); }
    PumpedBus(const PumpedBus &) = delete;
    PumpedBus &operator=(const PumpedBus &) = delete;

    qor_bus_t *get() const { return bus; }

    /* Takes the first task; the caller passes it to finish(). NULL when none waits. */
    qor_context_task_t *take()
    {
        qor_que_node_t *node = qor_que_deque_block(bus->que, 0);
        return node ? static_cast<qor_context_task_t *>(qor_que_node_body(node)) : nullptr;
    }

    /* Releases a task that was taken, as a worker does when it has run. */
    static void finish(qor_context_task_t *task)
    {
        qor_que_node_destroy(qor_que_node_type(task), [](void *body) {
            qor_context_task_uninit(static_cast<qor_context_task_t *>(body));
        });
    }

    /* Runs all tasks, those included that they post. Returns how many there were. */
    int run()
    {
        int tasks = 0;
        while (qor_context_task_t *task = take()) {
            qor_context_task_excute(task);
            finish(task);
            tasks++;
        }
        return tasks;
    }

    qor_context_module_t *modules[1] = {nullptr};
    qor_bus_t *bus;
};

/* Loops on a thread of its own from start() on, with the system modules brought up. */
class LoopingBus {
public:
    explicit LoopingBus(uint32_t workers = 2, qor_context_module_t **application = nullptr)
        : bus(qor_bus_create(application ? application : no_modules, /* topics */ 4))
    {
        qor_bus_thread_num_set(bus, workers);
    }
    ~LoopingBus()
    {
        stop();
        qor_bus_close(bus);
    }
    LoopingBus(const LoopingBus &) = delete;
    LoopingBus &operator=(const LoopingBus &) = delete;

    qor_bus_t *get() const { return bus; }

    void start()
    {
        thread = std::thread([this] { result = qor_bus_loop(bus); });
    }

    /* Quits and waits for the loop's end. */
    void stop()
    {
        qor_bus_quit(bus);
        if (thread.joinable()) {
            thread.join();
        }
    }

    qor_context_module_t *no_modules[1] = {nullptr};
    qor_bus_t *bus;
    std::thread thread;
    int32_t result = -2; /* of the loop, once it has ended */
};

#endif /* QOR_TESTS_TEST_BUS_HPP */
