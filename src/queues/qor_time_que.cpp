/* SPDX-License-Identifier: Apache-2.0 */
/* Timed queue: a list in the order of due times. One mutex guards all fields; takers sleep until
 * the first node is due and are disturbed only by a node that is due earlier. */
#include "qor_time_que.h"

#include "hal_sync.hpp"
#include "qor_diag.hpp"
#include "qor_time_que_priv.hpp"
#include "qor_util.hpp"
#include "que_front.hpp"
#include "que_waits.hpp"
#include "time_index.hpp"

/* Guarded by the queue's mutex. */
struct qor_time_que_private {
    que_waits waits;
    int64_t latest_look; /* no waiting taker would look again by itself later than this */
    list_head kept;      /* nodes out of use, until destroy */
    uint32_t kept_count;
    time_index *index; /* of a long list; NULL: the list is walked */
    int32_t in_order;  /* 1: equal due times in the order of arrival, and never an index */
    int32_t walks;     /* changes of a long list without one until it is tried again */
};

namespace {

constexpr char file_tag[] = "qor_time_que";

constexpr int64_t nobody_looks = INT64_MIN; /* no taker waits without being woken */
constexpr uint32_t kept_max = 32;

/* So many nodes make a list long, so few short again. In between nothing changes, for an index is
 * not made and dropped with every other node. */
constexpr int32_t list_is_long = 64;
constexpr int32_t list_is_short = 16;

/* One block, one allocation. */
struct time_que_block {
    qor_time_que_t que;
    qor_time_que_private priv;
};

qor_time_que_t *time_que_alloc()
{
    time_que_block *block = util_zalloc<time_que_block>();
    if (!block) {
        return nullptr;
    }
    block->que.priv = &block->priv;
    block->priv.latest_look = nobody_looks;
    INIT_LIST_HEAD(&block->priv.kept);
    if (que_waits_open(block->priv.waits, block->que.mutex, block->que.cond, CLOCK_MONOTONIC) !=
        0) {
        free(block);
        return nullptr;
    }
    return &block->que;
}

/* The earliest node, or NULL. */
qor_time_que_node_t *time_que_first(const qor_time_que_t *que)
{
    return list_empty(&que->head) ? nullptr : time_que_node(que->head.next);
}

/* After every change, with the lock. */
void time_que_changed(qor_time_que_t *que)
{
    pthread_cond_broadcast(&que->cond);
    const qor_time_que_node_t *first = time_que_first(que);
    if (first && first->when < que->priv->latest_look) {
        que->priv->latest_look = nobody_looks;
        que_wake_all(que->priv->waits.takers);
    }
    que_wake(que->priv->waits.givers, que_room(que));
}

/* A taker's wait, until the moment at which it looks again by itself. */
void time_que_sleep(qor_time_que_t *que, int64_t look)
{
    if (que->priv->latest_look < look) {
        que->priv->latest_look = look;
    }
    que_wait(que->priv->waits, que->priv->waits.takers, look);
    if (que->priv->waits.takers.waiting == 0) {
        que->priv->latest_look = nobody_looks;
    }
}

/* Done without from now on, for as many changes as there are nodes if the list is still long: then
 * making one anew costs each of them no more than a walk. */
void time_que_index_drop(qor_time_que_t *que)
{
    time_index_free(que->priv->index);
    que->priv->index = nullptr;
    que->priv->walks = que->count < list_is_long ? 0 : que->count;
}

/* The index, or NULL. It is dropped when others have changed the list. */
time_index *time_que_index(qor_time_que_t *que)
{
    if (que->priv->index && !time_index_holds(que->priv->index, que)) {
        time_que_index_drop(que);
    }
    return que->priv->index;
}

[[gnu::noinline]] void time_que_index_update(qor_time_que_t *que)
{
    qor_time_que_private *priv = que->priv;
    if (priv->in_order) {
        return;
    }
    if (!priv->index) {
        if (priv->walks-- == 0) {
            priv->index = time_index_build(que);
            priv->walks = que->count;
        }
    } else if (que->count < list_is_short) {
        time_que_index_drop(que);
    } else {
        time_index_note(priv->index, que);
    }
}

/* After a change of the list that the index, if there is one, has followed. */
inline void time_que_index_follow(qor_time_que_t *que)
{
    if (que->priv->index || que->count >= list_is_long) {
        time_que_index_update(que);
    }
}

/* The first link that is due at that moment or later, or the head. Searched from both ends at once;
 * the way from the end stops at the head no sooner than the one from the front has found all. */
list_head *time_que_search(qor_time_que_t *que, int64_t when)
{
    list_head *front = que->head.next;
    list_head *back = que->head.prev;
    while (front != &que->head && time_que_node(front)->when < when) {
        if (time_que_node(back)->when < when) {
            return back->next;
        }
        front = front->next;
        back = back->prev;
    }
    return front;
}

/* What is done where there is an index stands in functions of its own, so that a short queue pays
 * for the question alone. */

/* The link behind which a node belongs; NULL: the list is to be walked. */
[[gnu::noinline]] list_head *time_que_place_indexed(qor_time_que_t *que, qor_time_que_node_t *node)
{
    time_index *index = time_que_index(que);
    list_head *before = index ? time_index_enter(index, que, node) : nullptr;
    if (index && !before) {
        time_que_index_drop(que);
    }
    return before;
}

list_head *time_que_place(qor_time_que_t *que, qor_time_que_node_t *node)
{
    list_head *before = que->priv->index ? time_que_place_indexed(que, node) : nullptr;
    if (before) {
        return before;
    }
    if (que->priv->in_order) {
        return time_que_search(que, node->when + 1)->prev;
    }
    list_head *place = time_que_search(que, node->when);
    /* Deliberate: directly behind the first of several equal times, not behind the last. X, Y, Z
     * come out as X, Z, Y, and users of the bus see that order in their tasks. Test:
     * TimeQue.EqualDueTimesComeOutFirstThenNewestFirst. */
    return place != &que->head && time_que_node(place)->when == node->when ? place : place->prev;
}

void time_que_insert(qor_time_que_t *que, qor_time_que_node_t *node)
{
    list_add(&node->node, time_que_place(que, node));
    que->count++;
    time_que_index_follow(que);
    time_que_changed(que);
}

[[gnu::noinline]] void time_que_forget_indexed(qor_time_que_t *que, qor_time_que_node_t *node)
{
    time_index *index = time_que_index(que);
    if (index && !time_index_forget(index, que, node)) {
        time_que_index_drop(que);
    }
}

qor_time_que_node_t *time_que_unlink(qor_time_que_t *que, qor_time_que_node_t *node)
{
    if (que->priv->index) {
        time_que_forget_indexed(que, node);
    }
    list_del(&node->node);
    que->count--;
    time_que_index_follow(que);
    return node;
}

qor_time_que_node_t *time_que_take(qor_time_que_t *que, qor_time_que_node_t *node)
{
    time_que_unlink(que, node);
    time_que_changed(que);
    return node;
}

/* Which node is looked for: the first with the id that is due then or later and passes the test, if
 * one is given. */
struct time_que_wanted {
    size_t id;
    int64_t from;
    time_que_test test;
    const void *what;
};

/* False: the list is to be walked. */
[[gnu::noinline]] bool time_que_find_indexed(qor_time_que_t *que, const time_que_wanted &wanted,
                                             qor_time_que_node_t **node)
{
    time_index *index = time_que_index(que);
    if (index) {
        *node = time_index_find(index, wanted.id, wanted.from, wanted.test, wanted.what);
    }
    return index && time_que_index(que); /* and it was not lost meanwhile */
}

qor_time_que_node_t *time_que_find(qor_time_que_t *que, const time_que_wanted &wanted)
{
    qor_time_que_node_t *found;
    if (que->priv->index && time_que_find_indexed(que, wanted, &found)) {
        return found;
    }
    for (list_head *link = que->head.next; link != &que->head; link = link->next) {
        qor_time_que_node_t *node = time_que_node(link);
        if (node->id == wanted.id && node->when >= wanted.from &&
            (!wanted.test || wanted.test(node, wanted.what))) {
            return node;
        }
    }
    return nullptr;
}

/* Takes out the first node with the id that passes the test, if one is given. */
qor_time_que_node_t *time_que_take_id(qor_time_que_t *que, size_t id, time_que_test test,
                                      const void *what)
{
    qor_time_que_node_t *node = time_que_find(que, {id, INT64_MIN, test, what});
    return node ? time_que_take(que, node) : nullptr;
}

/* NULL when nothing is left, and then count is 0. */
qor_time_que_node_t *time_que_discard_first(qor_time_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    time_que_index_drop(que);
    qor_time_que_node_t *first = time_que_first(que);
    if (first) {
        list_del(&first->node);
    } else {
        que->count = 0;
    }
    return first;
}

} // namespace

void time_que_quit_begin(qor_time_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    hal_store(que->quitting, 1);
    que_wake_everybody(que->priv->waits);
}

void time_que_in_order(qor_time_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    que->priv->in_order = 1;
}

void time_que_keep_locked(qor_time_que_t *que, qor_time_que_node_t *node)
{
    if (que->priv->kept_count == kept_max) {
        qor_time_que_node_destroy(node, nullptr);
        return;
    }
    que->priv->kept_count++;
    list_add(&node->node, &que->priv->kept);
}

qor_time_que_node_t *time_que_kept_locked(qor_time_que_t *que)
{
    if (list_empty(&que->priv->kept)) {
        return nullptr;
    }
    que->priv->kept_count--;
    qor_time_que_node_t *node = time_que_node(que->priv->kept.next);
    list_del(&node->node);
    return node;
}

void time_que_node_discard(qor_time_que_node_t *node, qor_time_que_node_recycle_t recycle)
{
    qor_time_que_node_destroy(node, que_discard_of(node, recycle));
}

void time_que_discard_all(qor_time_que_t *que, qor_time_que_node_recycle_t recycle)
{
    while (qor_time_que_node_t *node = time_que_discard_first(que)) {
        time_que_node_discard(node, recycle);
    }
}

qor_time_que_node_t *time_que_take_if_locked(qor_time_que_t *que, time_que_test test,
                                             const void *what)
{
    for (list_head *link = que->head.next; link != &que->head; link = link->next) {
        if (test(time_que_node(link), what)) {
            return time_que_take(que, time_que_node(link));
        }
    }
    return nullptr;
}

qor_time_que_node_t *time_que_take_if(qor_time_que_t *que, time_que_test test, const void *what)
{
    hal_scoped_lock lock(que->mutex);
    return time_que_take_if_locked(que, test, what);
}

qor_time_que_node_t *time_que_take_id_if(qor_time_que_t *que, size_t id, time_que_test test,
                                         const void *what)
{
    hal_scoped_lock lock(que->mutex);
    return time_que_take_id(que, id, test, what);
}

bool time_que_is_settled_locked(const qor_time_que_t *que)
{
    const qor_time_que_node_t *first = time_que_first(que);
    const bool due = first && first->when <= util_timestamp();
    return !due && que->priv->waits.takers.waiting > 0;
}

void time_que_settle_until(qor_time_que_t *que, int64_t deadline)
{
    hal_scoped_lock lock(que->mutex);
    que_settle(que, deadline, [=] { return time_que_is_settled_locked(que); });
}

qor_time_que_t *qor_time_que_create(uint32_t max_count, qor_time_que_node_recycle_t recycle)
{
    qor_time_que_t *_this = time_que_alloc();
    /* Deliberate: a failed creation prints the text of a NULL object, for logs are searched for it.
     * Test: TimeQueFaults.CreateWithoutMemoryPrintsTheNullObjectText. */
    QOR_CHECK(_this, nullptr);
    INIT_LIST_HEAD(&_this->head);
    _this->max_count = max_count;
    _this->recycle = recycle;
    return _this;
}

void qor_time_que_destroy(qor_time_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    time_que_quit_begin(_this);
    time_que_discard_all(_this, _this->recycle); /* also what a quit that only began has left */
    que_waits_close(_this->priv->waits);
    util_list_each(_this->priv->kept, [](list_head *kept) {
        qor_time_que_node_destroy(time_que_node(kept), nullptr);
    });
    free(_this);
}

void qor_time_que_quit(qor_time_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    if (hal_load(_this->quitting)) {
        return;
    }
    time_que_quit_begin(_this);
    time_que_discard_all(_this, _this->recycle);
}

void qor_time_que_lock(qor_time_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    hal_lock(_this->mutex);
}

void qor_time_que_unlock(qor_time_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    pthread_mutex_unlock(&_this->mutex);
}

void qor_time_que_wait_locked(qor_time_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    que_wait_for_change(_this->priv->waits);
}

void qor_time_que_wakeup_locked(qor_time_que_t *_this)
{
    QOR_CHECK_VOID(_this);
    que_wake_everybody(_this->priv->waits);
}

int32_t qor_time_que_enque_locked(qor_time_que_t *_this, qor_time_que_node_t *new_node)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(new_node, -1);
    if (_this->quitting || que_room(_this) == 0) {
        return -1;
    }
    time_que_insert(_this, new_node);
    return 0;
}

/* Deliberate: the functions that take the lock themselves do not look at a NULL queue; each of
 * their three steps reports it. Test: TimeQueNull.EachStepReportsIt. */
int32_t qor_time_que_enque(qor_time_que_t *_this, qor_time_que_node_t *new_node)
{
    qor_time_que_lock(_this);
    const int32_t ret = qor_time_que_enque_locked(_this, new_node);
    qor_time_que_unlock(_this);
    return ret;
}

int32_t qor_time_que_enque_block_locked(qor_time_que_t *_this, qor_time_que_node_t *new_node,
                                        int32_t wait_time)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(new_node, -1);
    if (que_wait_for_room(_this, wait_time) != 0) {
        return -1;
    }
    time_que_insert(_this, new_node);
    return 0;
}

int32_t qor_time_que_enque_block(qor_time_que_t *_this, qor_time_que_node_t *new_node,
                                 int32_t wait_time)
{
    qor_time_que_lock(_this);
    const int32_t ret = qor_time_que_enque_block_locked(_this, new_node, wait_time);
    qor_time_que_unlock(_this);
    return ret;
}

qor_time_que_node_t *qor_time_que_deque_locked(qor_time_que_t *_this)
{
    QOR_CHECK(_this, nullptr);
    qor_time_que_node_t *first = time_que_first(_this);
    if (_this->quitting || !first || first->when > util_timestamp()) {
        return nullptr;
    }
    return time_que_take(_this, first);
}

qor_time_que_node_t *qor_time_que_deque(qor_time_que_t *_this)
{
    qor_time_que_lock(_this);
    qor_time_que_node_t *node = qor_time_que_deque_locked(_this);
    qor_time_que_unlock(_this);
    return node;
}

qor_time_que_node_t *qor_time_que_deque_block_locked(qor_time_que_t *_this, int32_t wait_time)
{
    QOR_CHECK(_this, nullptr);
    const int64_t deadline = que_deadline(wait_time);
    while (!_this->quitting) {
        const int64_t now = util_timestamp(); /* an older one could miss a node that came since */
        qor_time_que_node_t *first = time_que_first(_this);
        if (first && first->when <= now) {
            return time_que_take(_this, first);
        }
        if (now >= deadline) {
            return nullptr;
        }
        time_que_sleep(_this, first && first->when < deadline ? first->when : deadline);
    }
    return nullptr;
}

qor_time_que_node_t *qor_time_que_deque_block(qor_time_que_t *_this, int32_t wait_time)
{
    qor_time_que_lock(_this);
    qor_time_que_node_t *node = qor_time_que_deque_block_locked(_this, wait_time);
    qor_time_que_unlock(_this);
    return node;
}

qor_time_que_node_t *qor_time_que_remove_locked(qor_time_que_t *_this, size_t id)
{
    QOR_CHECK(_this, nullptr);
    QOR_CHECK(!_this->quitting, nullptr);
    return time_que_take_id(_this, id, nullptr, nullptr);
}

qor_time_que_node_t *qor_time_que_remove(qor_time_que_t *_this, size_t id)
{
    qor_time_que_lock(_this);
    qor_time_que_node_t *node = qor_time_que_remove_locked(_this, id);
    qor_time_que_unlock(_this);
    return node;
}

int32_t qor_time_que_early_locked(qor_time_que_t *_this, size_t id, int32_t delay)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(!_this->quitting, -1);
    const int64_t when = util_timestamp() + delay;
    qor_time_que_node_t *node = time_que_find(_this, {id, when + 1, nullptr, nullptr});
    if (!node) {
        return time_que_find(_this, {id, INT64_MIN, nullptr, nullptr}) ? 0 : -1;
    }
    /* Deliberate: the node keeps its due time, and so moves among equal times only. Making it
     * earlier would change when the timers of existing callers run.
     * Test: TimeQue.EarlyNeverChangesADueTime. */
    time_que_insert(_this, time_que_unlink(_this, node));
    return 0;
}

int32_t qor_time_que_early(qor_time_que_t *_this, size_t id, int32_t delay)
{
    qor_time_que_lock(_this);
    const int32_t ret = qor_time_que_early_locked(_this, id, delay);
    qor_time_que_unlock(_this);
    return ret;
}

int32_t qor_time_que_next_delay_locked(qor_time_que_t *_this, int32_t *delay)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(!_this->quitting, -1);
    QOR_CHECK(delay, -1);
    const qor_time_que_node_t *first = time_que_first(_this);
    if (!first) {
        return -1;
    }
    *delay = static_cast<int32_t>(first->when - util_timestamp());
    return 0;
}

int32_t qor_time_que_next_delay(qor_time_que_t *_this, int32_t *delay)
{
    qor_time_que_lock(_this);
    const int32_t ret = qor_time_que_next_delay_locked(_this, delay);
    qor_time_que_unlock(_this);
    return ret;
}

qor_time_que_node_t *time_que_node_unfilled(size_t size)
{
    qor_time_que_node_t *node = que_node_alloc_unfilled<qor_time_que_node_t>(size);
    if (!node) {
        QOR_LINE("err", "qor_time_que_node_create", "malloc \"qor_time_que_node_t\" failed.");
    }
    return node;
}

qor_time_que_node_t *qor_time_que_node_create(size_t id, int32_t delay, int32_t size)
{
    qor_time_que_node_t *node =
        size < 0 ? nullptr : que_node_alloc<qor_time_que_node_t>(static_cast<size_t>(size));
    if (!node) {
        QOR_ERR("malloc \"qor_time_que_node_t\" failed.");
        return nullptr;
    }
    qor_time_que_node_update(node, id, delay);
    return node;
}

void qor_time_que_node_update(qor_time_que_node_t *node, size_t id, int32_t delay)
{
    node->id = id;
    /* Deliberate: a queued node is not moved; the node does not know its queue, nor hold its lock.
     * Test: TimeQue.UpdateDoesNotMoveAQueuedNode. */
    node->when = util_timestamp() + delay;
}

void qor_time_que_node_destroy(qor_time_que_node_t *node, qor_time_que_node_recycle_t recycle)
{
    QOR_CHECK_VOID(node);
    if (recycle) {
        recycle(node->body);
    }
    que_node_free(node);
}

void *qor_time_que_node_body(qor_time_que_node_t *node)
{
    return node->body;
}

size_t qor_time_que_node_id(qor_time_que_node_t *node)
{
    return node->id;
}

qor_time_que_node_t *qor_time_que_node_type(void *body)
{
    return reinterpret_cast<qor_time_que_node_t *>(static_cast<char *>(body) -
                                                   offsetof(qor_time_que_node_t, body));
}
