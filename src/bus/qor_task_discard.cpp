/* SPDX-License-Identifier: Apache-2.0 */
/* Knows the library's own tasks by their functions, so that quit, cancel and close lose nothing. */
#include "qor_task_discard.hpp"

#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_core_context_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que.h"

void qor_task_discard(void *task)
{
    qor_context_task_t *discarded = static_cast<qor_context_task_t *>(task);
    const bool runx = discarded->fun_type != QOR_CONTEXT_FUN_RUN;
    if (runx && discarded->fun.runx == sched_delegate_relay()) {
        qor_context_msg_destroy(static_cast<qor_context_msg_t *>(discarded->arg));
    } else if (runx && discarded->fun.runx == core_context_node_run()) {
        qor_time_que_node_destroy(static_cast<qor_time_que_node_t *>(discarded->arg),
                                  qor_task_discard);
    } else {
        qor_context_task_uninit(discarded);
    }
}
