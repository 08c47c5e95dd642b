/* SPDX-License-Identifier: Apache-2.0 */
/* Blocking queue. One mutex guards all fields; takers and givers wait apart and are woken one by
 * one, so that a node does not wake every idle worker. */
#include "qor_que.h"

#include "hal_sync.hpp"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_util.hpp"
#include "que_front.hpp"
#include "que_waits.hpp"

/* Guarded by the queue's mutex. */
struct qor_que_private {
    que_waits waits;
    uint32_t length;  /* nodes in the list, where count may say more */
    uint32_t highest; /* that it has ever been */
};

namespace {

constexpr char file_tag[] = "qor_que";

/* One block, one allocation. */
struct que_block {
    qor_que_t que;
    qor_que_private priv;
};

qor_que_t *que_alloc()
{
    que_block *block = util_zalloc<que_block>();
    if (!block) {
        return nullptr;
    }
    block->que.priv = &block->priv;
    /* Deliberate: the public condition keeps the default clock, for callers give it moments of the
     * system's time; the queue's own waits are elsewhere and measure the monotonic one.
     * Test: Que.TheConditionMeasuresByTheWallClock. */
    if (que_waits_open(block->priv.waits, block->que.mutex, block->que.cond, CLOCK_REALTIME) != 0) {
        free(block);
        return nullptr;
    }
    return &block->que;
}

/* The list's head gives the queue's own address. */
qor_que_node_t *que_node(list_head *link)
{
    static_assert(offsetof(qor_que_t, head) == 0, "a remove without a match relies on it");
    return util_container<qor_que_node_t, offsetof(qor_que_node_t, node)>(link);
}

/* After every change, with the lock. */
void que_changed(qor_que_t *que)
{
    pthread_cond_broadcast(&que->cond);
    que_wake(que->priv->waits.takers, que->priv->length);
    que_wake(que->priv->waits.givers, que_room(que));
}

void que_append(qor_que_t *que, qor_que_node_t *node)
{
    list_add_tail(&node->node, &que->head);
    qor_que_private *priv = que->priv;
    if (++priv->length > priv->highest) {
        priv->highest = priv->length;
    }
    hal_store(que->count, que->count + 1);
    que_changed(que);
}

qor_que_node_t *que_unlink(qor_que_t *que, list_head *link)
{
    list_del(link);
    que->priv->length--;
    return que_node(link);
}

qor_que_node_t *que_unlink_counted(qor_que_t *que, list_head *link)
{
    qor_que_node_t *node = que_unlink(que, link);
    hal_store(que->count, que->count - 1);
    que_changed(que);
    return node;
}

/* NULL when nothing is left, and then count is 0. */
qor_que_node_t *que_discard_first(qor_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    if (list_empty(&que->head)) {
        hal_store(que->count, 0);
        return nullptr;
    }
    return que_unlink(que, que->head.next);
}

} // namespace

void que_quit_begin(qor_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    hal_store(que->quitting, 1);
    que_wake_everybody(que->priv->waits);
}

void que_node_discard(qor_que_node_t *node, qor_que_node_recycle_t recycle)
{
    qor_que_node_destroy(node, que_discard_of(node, recycle));
}

void que_discard_all(qor_que_t *que, qor_que_node_recycle_t recycle)
{
    while (qor_que_node_t *node = que_discard_first(que)) {
        que_node_discard(node, recycle);
    }
}

qor_que_node_t *que_take(qor_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    if (que->quitting || list_empty(&que->head)) {
        return nullptr;
    }
    return que_unlink_counted(que, que->head.next);
}

qor_que_node_t *que_take_if(qor_que_t *que, que_test test, const void *what)
{
    hal_scoped_lock lock(que->mutex);
    for (list_head *link = que->head.next; link != &que->head; link = link->next) {
        if (test(que_node(link), what)) {
            return que_unlink_counted(que, link);
        }
    }
    return nullptr;
}

que_lengths que_lengths_locked(const qor_que_t *que)
{
    return {que->priv->length, que->priv->highest, que->priv->waits.takers.waiting};
}

bool que_is_settled_locked(const qor_que_t *que, uint32_t takers)
{
    return list_empty(&que->head) && que->priv->waits.takers.waiting >= takers;
}

void que_settle_until(qor_que_t *que, const uint32_t &takers, int64_t deadline)
{
    hal_scoped_lock lock(que->mutex);
    que_settle(que, deadline, [&] { return que_is_settled_locked(que, hal_load(takers)); });
}

qor_que_t *qor_que_create(uint32_t max_count, qor_que_node_recycle_t recycle)
{
    qor_que_t *_this = que_alloc();
    /* Deliberate: a failed creation prints the text of a NULL object, for logs are searched for it.
     * Test: QueFaults.CreateWithoutMemoryPrintsTheNullObjectText. */
    QOR_CHECK(_this, nullptr);
    INIT_LIST_HEAD(&_this->head);
    _this->max_count = max_count;
    _this->recycle = recycle;
    return _this;
}

void qor_que_destroy(qor_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    que_quit_begin(_this);
    que_discard_all(_this, _this->recycle); /* also what a quit that only began has left */
    que_waits_close(_this->priv->waits);
    free(_this);
}

qor_que_node_t *que_node_unfilled(size_t size)
{
    qor_que_node_t *node = que_node_alloc_unfilled<qor_que_node_t>(size);
    if (!node) {
        QOR_LINE("err", "qor_que_node_create", "malloc \"qor_que_node_t\" failed.");
    }
    return node;
}

qor_que_node_t *qor_que_node_create(size_t id, int32_t size)
{
    qor_que_node_t *node =
        size < 0 ? nullptr : que_node_alloc<qor_que_node_t>(static_cast<size_t>(size));
    if (!node) {
        QOR_ERR("malloc \"qor_que_node_t\" failed.");
        return nullptr;
    }
    node->id = id;
    return node;
}

void qor_que_node_destroy(qor_que_node_t *node, qor_que_node_recycle_t recycle)
{
    QOR_CHECK_VOID(node);
    if (recycle) {
        recycle(node->body);
    }
    que_node_free(node);
}

void *qor_que_node_body(qor_que_node_t *node)
{
    return node->body;
}

size_t qor_que_node_id(qor_que_node_t *node)
{
    return node->id;
}

qor_que_node_t *qor_que_node_type(void *body)
{
    return reinterpret_cast<qor_que_node_t *>(static_cast<char *>(body) -
                                              offsetof(qor_que_node_t, body));
}

void qor_que_lock(qor_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    hal_lock(_this->mutex);
}

void qor_que_unlock(qor_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    pthread_mutex_unlock(&_this->mutex);
}

void qor_que_wait_locked(qor_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    que_wait_for_change(_this->priv->waits);
}

void qor_que_wakeup_locked(qor_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    que_wake_everybody(_this->priv->waits);
}

int32_t qor_que_enque_locked(qor_que_t *_this, qor_que_node_t *new_node)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(new_node, -1);
    if (_this->quitting || que_room(_this) == 0) {
        return -1;
    }
    que_append(_this, new_node);
    return 0;
}

/* Deliberate: the functions that take the lock themselves do not look at a NULL queue; each of
 * their three steps reports it. Test: QueNull.EachStepReportsIt. */
int32_t qor_que_enque(qor_que_t *_this, qor_que_node_t *new_node)
{
    qor_que_lock(_this);
    const int32_t ret = qor_que_enque_locked(_this, new_node);
    qor_que_unlock(_this);
    return ret;
}

qor_que_node_t *qor_que_deque_locked(qor_que_t *_this)
{
    QOR_CHECK(_this, nullptr);
    if (_this->quitting || list_empty(&_this->head)) {
        return nullptr;
    }
    /* Deliberate: count is left alone; only the blocking take, remove and quit lower it, and
     * callers dimension bounded queues by that. Test: Que.NonBlockingTakeLeavesTheCount. */
    qor_que_node_t *node = que_unlink(_this, _this->head.next);
    que_changed(_this);
    return node;
}

qor_que_node_t *qor_que_deque(qor_que_t *_this)
{
    qor_que_lock(_this);
    qor_que_node_t *node = qor_que_deque_locked(_this);
    qor_que_unlock(_this);
    return node;
}

int32_t qor_que_enque_block_locked(qor_que_t *_this, qor_que_node_t *new_node, int32_t wait_time)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(new_node, -1);
    if (que_wait_for_room(_this, wait_time) != 0) {
        return -1;
    }
    que_append(_this, new_node);
    return 0;
}

int32_t qor_que_enque_block(qor_que_t *_this, qor_que_node_t *new_node, int32_t wait_time)
{
    qor_que_lock(_this);
    const int32_t ret = wait_time == 0 ? qor_que_enque_locked(_this, new_node)
                                       : qor_que_enque_block_locked(_this, new_node, wait_time);
    qor_que_unlock(_this);
    return ret;
}

qor_que_node_t *qor_que_deque_block_locked(qor_que_t *_this, int32_t wait_time)
{
    QOR_CHECK(_this, nullptr);
    const int64_t deadline = que_deadline(wait_time);
    while (!_this->quitting && list_empty(&_this->head)) {
        if (que_time_is_over(deadline)) {
            return nullptr;
        }
        que_wait(_this->priv->waits, _this->priv->waits.takers, deadline);
    }
    /* Deliberate: quitting wins over nodes that are still there; quit is about to discard them.
     * Test: Que.QuittingHandsOutNothing. */
    return _this->quitting ? nullptr : que_unlink_counted(_this, _this->head.next);
}

qor_que_node_t *qor_que_deque_block(qor_que_t *_this, int32_t wait_time)
{
    qor_que_lock(_this);
    /* Deliberate: a wait of 0 is the non-blocking take, with its effect on count: none.
     * Test: Que.BlockingTakeWithoutWaitLeavesTheCount. */
    qor_que_node_t *node =
        wait_time == 0 ? qor_que_deque_locked(_this) : qor_que_deque_block_locked(_this, wait_time);
    qor_que_unlock(_this);
    return node;
}

qor_que_node_t *qor_que_remove_locked(qor_que_t *_this, size_t id)
{
    QOR_CHECK(_this, nullptr);
    list_head *link = _this->head.next;
    while (link != &_this->head && que_node(link)->id != id) {
        link = link->next;
    }
    /* Deliberate: without a match the head itself is the result, that is the queue's own address
     * and not NULL; callers compare with it. Test: Que.FailedRemoveReturnsTheQueuesOwnAddress. */
    return link == &_this->head ? que_node(link) : que_unlink_counted(_this, link);
}

qor_que_node_t *qor_que_remove(qor_que_t *_this, size_t id)
{
    qor_que_lock(_this);
    qor_que_node_t *node = qor_que_remove_locked(_this, id);
    qor_que_unlock(_this);
    return node;
}

int32_t qor_que_count(qor_que_t *_this)
{
    QOR_CHECK(_this, -1);
    return hal_load(_this->count);
}

void qor_que_quit(qor_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    if (hal_load(_this->quitting)) {
        return;
    }
    que_quit_begin(_this);
    que_discard_all(_this, _this->recycle);
}
