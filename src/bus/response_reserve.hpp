/* SPDX-License-Identifier: Apache-2.0 */
/* Memory that the responses to a context's requests will be handed over with. It is had when a
 * request is accepted, so a response cannot be lost for want of memory. */
#ifndef RESPONSE_RESERVE_HPP
#define RESPONSE_RESERVE_HPP

#include "qor_time_que.h"

/* One per delegate. Which request brought which node does not matter: all are alike. */
struct response_reserve {
    hal_thread_mutex_t mutex; /* guards what follows; a leaf. The delegate's to make and destroy */
    uint32_t expected;        /* requests whose response is yet to be handed over */
    uint32_t count;
    list_head nodes; /* qor_time_que_node_t::node: bus_timer_node()s, in no queue */
};

/* Makes a zeroed reserve empty. */
void response_reserve_init(response_reserve &reserve);

/* Frees whatever is in it. */
void response_reserve_free(response_reserve &reserve);

/* A request is accepted: 0, or -1 without memory. */
int32_t response_reserve_add(response_reserve &reserve);

/* A response, or the end of a request without one, has been handed over: frees what is left of one
 * request's share. */
void response_reserve_settle(response_reserve &reserve);

/* Takes a node out; NULL when there is none. */
qor_time_que_node_t *response_reserve_take(response_reserve &reserve);

#endif /* RESPONSE_RESERVE_HPP */
