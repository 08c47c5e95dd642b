/* SPDX-License-Identifier: Apache-2.0 */
/* A bus on the fuzzer's one thread. Its loop runs without workers; where it waits for timers, the
 * fuzzer acts, and by hand runs one task after the other, as so many workers would. A handler may
 * do so again: then another worker runs beside it. */
#ifndef QOR_TESTS_FUZZ_HAND_HPP
#define QOR_TESTS_FUZZ_HAND_HPP

#include "qor_bus.h"
#include "qor_context_module.h"
#include "thread_record.hpp"

/* The calling thread as another one, from construction to destruction; NULL: one of the
 * application's. */
class HandAs {
public:
    explicit HandAs(thread_record *record) : before_(thread_record_get())
    {
        thread_record_set(record);
    }
    ~HandAs() { thread_record_set(before_); }
    HandAs(const HandAs &) = delete;
    HandAs &operator=(const HandAs &) = delete;

private:
    thread_record *before_;
};

/* Runs the first task as a worker of its own; false: none is queued, or the bus quits. */
bool hand_run(qor_bus_t *bus);

/* Has the bus count so many workers, for those that may wait. */
void hand_workers(qor_bus_t *bus, uint32_t count);

/* A descriptor for a table of modules. */
qor_context_module_t hand_module(const char (&name)[7], qor_context_module_void_t reg,
                                 qor_context_module_init_t init,
                                 qor_context_module_message_t handle);

#endif /* QOR_TESTS_FUZZ_HAND_HPP */
