/* SPDX-License-Identifier: Apache-2.0 */
/* The timed queue. */
#include "check.h"
#include "qor_time_que.h"

enum { LONG = 60000 }; /* milliseconds, more than the whole program takes */

static atomic_int discarded;
static atomic_int waiting;

static void discard(void *body)
{
    (void)body;
    atomic_fetch_add(&discarded, 1);
}

static void *wait_for_change(void *arg)
{
    qor_time_que_t *que = arg;
    qor_time_que_lock(que);
    atomic_store(&waiting, 1);
    qor_time_que_wait_locked(que);
    qor_time_que_unlock(que);
    return que;
}

static void *wait_for_node(void *arg)
{
    return qor_time_que_deque_block(arg, -1);
}

static qor_time_que_node_t *node_due_in(int32_t delay, size_t id)
{
    return qor_time_que_node_create(id, delay, 0);
}

static size_t id_taken(qor_time_que_node_t *node)
{
    const size_t id = node ? qor_time_que_node_id(node) : 0;
    if (node) {
        qor_time_que_node_destroy(node, NULL);
    }
    return id;
}

static void check_node(void)
{
    qor_time_que_node_t *node = qor_time_que_node_create(7, LONG, 4);
    check("a node is made", node != NULL);
    check("qor_time_que_node_id", qor_time_que_node_id(node) == 7);
    check("a node has a due time", node->when > util_timestamp());
    void *body = qor_time_que_node_body(node);
    check("the body is zero", memcmp(body, "\0\0\0\0", 4) == 0);
    check("qor_time_que_node_type is the reverse", qor_time_que_node_type(body) == node);
    qor_time_que_node_update(node, 8, 0);
    check("qor_time_que_node_update sets the id", qor_time_que_node_id(node) == 8);
    check("and the due time", node->when <= util_timestamp());
    qor_time_que_node_destroy(node, discard);
    check("a node is destroyed with its body", atomic_load(&discarded) == 1);
}

static void check_order(qor_time_que_t *que)
{
    int32_t delay = 0;
    check("an empty queue has no delay", qor_time_que_next_delay(que, &delay) == -1);
    check("qor_time_que_enque", qor_time_que_enque(que, node_due_in(LONG, 1)) == 0);
    qor_time_que_lock(que);
    check("qor_time_que_enque_locked", qor_time_que_enque_locked(que, node_due_in(0, 2)) == 0);
    check("qor_time_que_next_delay_locked",
          qor_time_que_next_delay_locked(que, &delay) == 0 && delay <= 0);
    check("what is due comes first", id_taken(qor_time_que_deque_locked(que)) == 2);
    qor_time_que_unlock(que);
    check("what is not due stays", qor_time_que_deque(que) == NULL);
    check("qor_time_que_next_delay",
          qor_time_que_next_delay(que, &delay) == 0 && delay > 0 && delay <= LONG);
    check("qor_time_que_early", qor_time_que_early(que, 1, 0) == 0);
    qor_time_que_lock(que);
    check("qor_time_que_early_locked of none", qor_time_que_early_locked(que, 9, 0) == -1);
    check("qor_time_que_enque_block_locked",
          qor_time_que_enque_block_locked(que, node_due_in(LONG, 3), 0) == 0);
    qor_time_que_node_t *fourth = node_due_in(10, 4);
    check("a full queue refuses", qor_time_que_enque_block_locked(que, fourth, 20) == -1);
    check("qor_time_que_remove_locked", id_taken(qor_time_que_remove_locked(que, 3)) == 3);
    qor_time_que_unlock(que);
    check("qor_time_que_remove", id_taken(qor_time_que_remove(que, 1)) == 1);
    check("removing none gives NULL", qor_time_que_remove(que, 1) == NULL);
    check("qor_time_que_enque_block", qor_time_que_enque_block(que, fourth, -1) == 0);
    qor_time_que_lock(que);
    check("qor_time_que_deque_block_locked",
          id_taken(qor_time_que_deque_block_locked(que, -1)) == 4);
    qor_time_que_unlock(que);
}

/* A node is never early, and a wait never ends before its time. */
static void check_times(qor_time_que_t *que)
{
    int64_t start = util_timestamp();
    qor_time_que_enque(que, node_due_in(30, 1));
    qor_time_que_node_t *node = qor_time_que_deque_block(que, -1);
    check("a wait lasts until a node is due", util_timestamp() >= node->when);
    check("which is the delay at least", node->when >= start + 30);
    qor_time_que_node_destroy(node, NULL);

    start = util_timestamp();
    check("a wait ends", qor_time_que_deque_block(que, 30) == NULL);
    check("but not before its time", util_timestamp() - start >= 29);
}

static void check_waits(qor_time_que_t *que)
{
    pthread_t thread;
    void *result = NULL;

    pthread_create(&thread, NULL, wait_for_change, que);
    check("a thread waits", reached(&waiting, 1));
    qor_time_que_lock(que);
    qor_time_que_wakeup_locked(que);
    qor_time_que_unlock(que);
    pthread_join(thread, &result);
    check("qor_time_que_wakeup_locked wakes it", result == que);

    qor_time_que_enque(que, node_due_in(LONG, 1));
    pthread_create(&thread, NULL, wait_for_node, que);
    qor_time_que_enque(que, node_due_in(0, 2));
    pthread_join(thread, &result);
    check("an earlier node ends a longer wait", id_taken(result) == 2);

    pthread_create(&thread, NULL, wait_for_node, que);
    atomic_store(&discarded, 0);
    qor_time_que_quit(que);
    pthread_join(thread, &result);
    check("qor_time_que_quit ends a wait", result == NULL);
    check("what is left is discarded", atomic_load(&discarded) == 1);
}

void check_time_que(void)
{
    check_node();
    qor_time_que_t *que = qor_time_que_create(2, discard);
    check("qor_time_que_create", que != NULL);
    check_order(que);
    check_times(que);
    check_waits(que);
    qor_time_que_destroy(que);
}
