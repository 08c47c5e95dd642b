/* SPDX-License-Identifier: Apache-2.0 */
/* The library's own tasks: what they carry, so that quit, cancel and close lose nothing. */
#include "qor_own_task.hpp"

#include "qor_context_msg.h"
#include "qor_core_context_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que.h"

bool own_task_names_itself(const qor_context_task_t *task)
{
    return task->fun_type == QOR_CONTEXT_FUN_RUN ? task->fun.run == core_context_loop_run()
                                                 : task->fun.runx == core_context_node_run();
}

void own_task_discard(void *task)
{
    qor_context_task_t *discarded = static_cast<qor_context_task_t *>(task);
    const bool runx = discarded->fun_type != QOR_CONTEXT_FUN_RUN;
    if (runx && discarded->fun.runx == sched_delegate_relay()) {
        qor_context_msg_destroy(static_cast<qor_context_msg_t *>(discarded->arg));
    } else if (runx && discarded->fun.runx == core_context_node_run()) {
        qor_time_que_node_destroy(static_cast<qor_time_que_node_t *>(discarded->arg),
                                  own_task_discard);
    } else {
        qor_context_task_uninit(discarded);
    }
}
