/* SPDX-License-Identifier: Apache-2.0 */
/* Takes tasks out of a bus's queue in place of its workers; above all the start-up. */
#ifndef QOR_TESTS_TAKING_TASKS_HPP
#define QOR_TESTS_TAKING_TASKS_HPP

#include "qor_bus.h"
#include "qor_context_task.h"
#include "qor_que.h"

/* Takes the first task as a worker does, but without waiting; NULL when none is queued. */
inline qor_context_task_t *take_task(qor_bus_t *bus)
{
    qor_que_lock(bus->que);
    qor_que_node_t *node = qor_que_deque_block_locked(bus->que, /* milliseconds */ 0);
    qor_que_unlock(bus->que);
    return node ? static_cast<qor_context_task_t *>(qor_que_node_body(node)) : nullptr;
}

/* Releases a task that was taken, as a worker does when it has run. */
inline void release_task(qor_context_task_t *task)
{
    qor_que_node_destroy(qor_que_node_type(task), [](void *body) {
        qor_context_task_uninit(static_cast<qor_context_task_t *>(body));
    });
}

/* Takes the start-up, the first task of a new bus, out of its queue: nothing comes up. */
inline void drop_start_up(qor_bus_t *bus)
{
    release_task(take_task(bus));
}

#endif /* QOR_TESTS_TAKING_TASKS_HPP */
