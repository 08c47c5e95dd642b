/* SPDX-License-Identifier: Apache-2.0 */
/* The blocking queue. */
#include "check.h"
#include "qor_que.h"

static atomic_int discarded;
static atomic_int waiting;

static void discard(void *body)
{
    (void)body;
    atomic_fetch_add(&discarded, 1);
}

static void *wait_for_change(void *arg)
{
    qor_que_t *que = arg;
    qor_que_lock(que);
    atomic_store(&waiting, 1);
    qor_que_wait_locked(que);
    qor_que_unlock(que);
    return que;
}

static void *wait_for_node(void *arg)
{
    return qor_que_deque_block(arg, -1);
}

static size_t id_taken(qor_que_node_t *node)
{
    const size_t id = node ? qor_que_node_id(node) : 0;
    if (node) {
        qor_que_node_destroy(node, NULL);
    }
    return id;
}

static void check_node(void)
{
    qor_que_node_t *node = qor_que_node_create(7, 4);
    check("a node is made", node != NULL);
    check("qor_que_node_id", qor_que_node_id(node) == 7);
    void *body = qor_que_node_body(node);
    check("the body is zero", memcmp(body, "\0\0\0\0", 4) == 0);
    check("qor_que_node_type is the reverse", qor_que_node_type(body) == node);
    qor_que_node_destroy(node, discard);
    check("a node is destroyed with its body", atomic_load(&discarded) == 1);
}

static void check_order(qor_que_t *que)
{
    check("qor_que_enque", qor_que_enque(que, qor_que_node_create(1, 0)) == 0);
    check("qor_que_enque_block", qor_que_enque_block(que, qor_que_node_create(2, 0), -1) == 0);
    qor_que_node_t *third = qor_que_node_create(3, 0);
    check("a full queue refuses", qor_que_enque_block(que, third, 20) == -1);
    check("qor_que_count", qor_que_count(que) == 2);

    check("first in, first out", id_taken(qor_que_deque_block(que, -1)) == 1);
    qor_que_lock(que);
    check("qor_que_enque_locked", qor_que_enque_locked(que, third) == 0);
    check("qor_que_deque_block_locked", id_taken(qor_que_deque_block_locked(que, -1)) == 2);
    check("qor_que_enque_block_locked",
          qor_que_enque_block_locked(que, qor_que_node_create(4, 0), 0) == 0);
    check("qor_que_remove_locked", id_taken(qor_que_remove_locked(que, 4)) == 4);
    qor_que_unlock(que);
    check("removing none gives the queue", (void *)qor_que_remove(que, 9) == (void *)que);
    check("qor_que_remove", id_taken(qor_que_remove(que, 3)) == 3);
    check("all are gone", qor_que_count(que) == 0);
    check("a wait ends", qor_que_deque_block(que, 20) == NULL);
}

static void check_waits(qor_que_t *que)
{
    pthread_t thread;
    void *result = NULL;

    pthread_create(&thread, NULL, wait_for_change, que);
    check("a thread waits", reached(&waiting, 1));
    qor_que_lock(que);
    qor_que_wakeup_locked(que);
    qor_que_unlock(que);
    pthread_join(thread, &result);
    check("qor_que_wakeup_locked wakes it", result == que);

    pthread_create(&thread, NULL, wait_for_node, que);
    qor_que_enque(que, qor_que_node_create(5, 0));
    pthread_join(thread, &result);
    check("a blocked thread gets the node", id_taken(result) == 5);

    pthread_create(&thread, NULL, wait_for_node, que);
    qor_que_quit(que);
    pthread_join(thread, &result);
    check("qor_que_quit ends a wait", result == NULL);
}

void check_que(void)
{
    check_node();
    qor_que_t *que = qor_que_create(2, discard);
    check("qor_que_create", que != NULL);
    check_order(que);
    check("nothing to take", qor_que_deque(que) == NULL);
    qor_que_enque(que, qor_que_node_create(6, 0));
    qor_que_lock(que);
    check("qor_que_deque_locked", id_taken(qor_que_deque_locked(que)) == 6);
    qor_que_unlock(que);
    check("and leaves the count", qor_que_count(que) == 1);
    check_waits(que);
    qor_que_destroy(que);

    atomic_store(&discarded, 0);
    que = qor_que_create(UINT32_MAX, discard);
    qor_que_enque(que, qor_que_node_create(1, 0));
    qor_que_quit(que);
    check("what is left is discarded", atomic_load(&discarded) == 1);
    qor_que_node_t *late = qor_que_node_create(2, 0);
    check("a queue that quits refuses", qor_que_enque(que, late) == -1);
    qor_que_node_destroy(late, NULL);
    qor_que_destroy(que);
    check("NULL is refused", qor_que_count(NULL) == -1);
}
