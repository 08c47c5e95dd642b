/* SPDX-License-Identifier: Apache-2.0 */
#include "hand.hpp"

#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_bus_priv.hpp"
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"

bool hand_run(qor_bus_t *bus)
{
    qor_que_node_t *node = bus_stopping(bus) ? nullptr : que_take(bus->que);
    if (!node) {
        return false;
    }
    thread_record record = {};
    record.bus = bus;
    record.role = thread_works;
    record.running = node;
    HandAs worker(&record);
    {
        qor_context_task_t *task = bus_task_of(node);
        message_offer offer(sched_delegate_request(node, task), &record);
        qor_context_task_excute(task);
    }
    if (record.running == node) {
        qor_que_node_destroy(node, recycle_of(qor_context_task_uninit));
    }
    return true;
}

void hand_workers(qor_bus_t *bus, uint32_t count)
{
    hal_store(bus->priv->workers, count);
}

qor_context_module_t hand_module(const char (&name)[7], qor_context_module_void_t reg,
                                 qor_context_module_init_t init,
                                 qor_context_module_message_t handle)
{
    return {{name[0], name[1], name[2], name[3], name[4], name[5], '\0'},
            /* id */ 0,
            /* pure */ 1,
            /* refcount */ 0,
            /* priority */ 0,
            /* stack_size */ 0,
            /* arg */ nullptr,
            reg,
            /* unreg */ [](qor_context_t *) {},
            init,
            /* uninit */ [](qor_context_t *) {},
            /* console */ nullptr,
            handle};
}
