/* SPDX-License-Identifier: Apache-2.0 */
/* A post on its way into the private queue of a user context. */
#ifndef USER_ADMISSION_HPP
#define USER_ADMISSION_HPP

#include "qor_bus_priv.hpp"
#include "qor_context_task.h"
#include "qor_core_context_priv.hpp"
#include "qor_que.h"
#include "qor_time_que.h"

/* A post: all memory is made first, then the task is queued, or the post is refused
 * and drops what it has. */
struct admission {
    qor_core_context_t *core;
    qor_bus_t *bus;             /* NULL: not attached, and the handler table takes the runs */
    qor_time_que_node_t *node;  /* the task; a spare behind it when it is asynchronous */
    qor_time_que_node_t *timer; /* of a delayed task: what starts its run */
    qor_que_node_t *run;        /* of a task that is due: made when it needs one */
    uint32_t number;            /* the node's, once it has been enqueued */
    int32_t session;
    int32_t delay; /* ms */
    bool message;  /* a request or response: its node serves past the queue too */
    bool response; /* its memory was had with the request, and its refusal prints nothing */
};

/* How the queue counts it. */
inline user_task_kind admission_kind(const admission &post)
{
    return post.response ? user_response : post.message ? user_request : user_plain;
}

/* Ends a post that is refused: the argument stays the caller's. The second prints a line that names
 * what was not posted to the bus: the run, or the task itself. */
int32_t admission_drop(admission &post);
int32_t admission_refuse(admission &post, const qor_context_task_t *what);

/* Has the run of a task that is due: 0, or -1 without memory. The caller holds the queue's lock. */
inline int32_t admission_run_make(admission &post)
{
    if (post.bus && !post.run) {
        post.run = post.core->priv->loop ? post.core->priv->loop : bus_node();
        post.core->priv->loop = nullptr;
    }
    return post.bus && !post.run ? -1 : 0;
}

/* Gives the node its number and enqueues it: 0, or -1 when the queue does not take it. The caller
 * holds the queue's lock. */
int32_t admission_enque_locked(admission &post);

/* Starts the timer of a task that has been enqueued, slot or no slot. The caller holds the queue's
 * lock, so that nobody cancels the task in between. 0, or -1 when the bus quits and the task is out
 * again. */
int32_t admission_timer_locked(admission &post);

/* The queue is full or quits, or there is no memory for the run of a response: the task goes to the
 * bus under its own session. Gives the lock up. */
int32_t admission_bypass(admission &post);

#endif /* USER_ADMISSION_HPP */
