/* SPDX-License-Identifier: Apache-2.0 */
/* The reserve of response memory: a list of nodes that are in no queue. */
#include "response_reserve.hpp"

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_util.hpp"

namespace {

/* Takes a node out when there are more than so many. */
qor_time_que_node_t *reserve_take_above(response_reserve &reserve, uint32_t limit)
{
    if (reserve.count <= limit) {
        return nullptr;
    }
    list_head *link = reserve.nodes.next;
    list_del(link);
    reserve.count--;
    return util_container<qor_time_que_node_t, offsetof(qor_time_que_node_t, node)>(link);
}

} // namespace

void response_reserve_init(response_reserve &reserve)
{
    INIT_LIST_HEAD(&reserve.nodes);
}

void response_reserve_free(response_reserve &reserve)
{
    while (qor_time_que_node_t *node = response_reserve_take(reserve)) {
        qor_time_que_node_destroy(node, nullptr);
    }
}

int32_t response_reserve_add(response_reserve &reserve)
{
    qor_time_que_node_t *node = bus_timer_node();
    if (!node) {
        return -1;
    }
    hal_scoped_lock lock(reserve.mutex);
    reserve.expected++;
    reserve.count++;
    list_add(&node->node, &reserve.nodes);
    return 0;
}

void response_reserve_settle(response_reserve &reserve)
{
    qor_time_que_node_t *left;
    {
        hal_scoped_lock lock(reserve.mutex);
        reserve.expected -= reserve.expected > 0;
        left = reserve_take_above(reserve, reserve.expected);
    }
    if (left) {
        qor_time_que_node_destroy(left, nullptr);
    }
}

qor_time_que_node_t *response_reserve_take(response_reserve &reserve)
{
    hal_scoped_lock lock(reserve.mutex);
    return reserve_take_above(reserve, 0);
}
