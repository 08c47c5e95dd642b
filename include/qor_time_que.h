/* SPDX-License-Identifier: Apache-2.0 */
/* Queue that hands out its nodes when they fall due. Times are monotonic milliseconds. */
#ifndef QOR_TIME_QUE_H
#define QOR_TIME_QUE_H

#include "qor_hal.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/**
 * Releases what a node's body refers to; the body's own memory goes with its node. Called without
 * any lock of the library, on the thread that quits the queue or destroys the node.
 */
typedef void (*qor_time_que_node_recycle_t)(void *body);

/** A queue. Change its fields only through the functions. */
struct qor_time_que {
    list_head head;           /**< nodes by due time, earliest first */
    hal_thread_mutex_t mutex; /**< guards every other field */
    hal_thread_cond_t cond;   /**< broadcast after every change; see qor_time_que_wait_locked() */
    int32_t quitting;         /**< 0 while running, then 1 for good */
    uint32_t max_count;       /**< capacity in nodes; UINT32_MAX (-1) is unbounded */
    int32_t count;            /**< nodes queued */
    qor_time_que_node_recycle_t recycle; /**< for bodies that quit discards; may be NULL */
    struct qor_time_que_private *priv;   /**< the library's own */
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no tail arrays */
/** A node: a header, and a body that its creator fills. Belongs to the queue while it is linked.
 * Made by qor_time_que_node_create() and freed by qor_time_que_node_destroy() alone: what the
 * library keeps of it stands in front of the header, in the same block. */
struct qor_time_que_node {
    list_head node; /**< link in the queue; NULL links outside it */
    int64_t when;   /**< due time */
    size_t id;      /**< the creator's number, need not be unique */
    char body[];    /**< as many bytes as the creation asked for */
};
#pragma GCC diagnostic pop

/**
 * Makes an empty queue.
 *
 * @param max_count  capacity in nodes; UINT32_MAX is unbounded, 0 accepts nothing
 * @param recycle    for the bodies of nodes that quit discards; may be NULL
 * @return           the queue, to be released with qor_time_que_destroy(), or NULL
 *
 * Prints "!(_this) == true." when memory or a lock cannot be had.
 */
QOR_API qor_time_que_t *qor_time_que_create(uint32_t max_count,
                                            qor_time_que_node_recycle_t recycle);

/**
 * Quits the queue, discards what is left in it and releases it.
 *
 * Threads that are blocked inside wake up, and the call returns after the last of them has released
 * the lock. Nobody may enter the queue any more once the call has begun.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_time_que_destroy(qor_time_que_t *_this);

/**
 * Ends the queue's work for good and discards its nodes, earliest first, each body through recycle.
 *
 * Every blocked thread returns without a node. From then on nothing is accepted and nothing handed
 * out. The count stays what it was until the last body is recycled, and is 0 then. A second call
 * does nothing. Any thread that does not hold the lock.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_time_que_quit(qor_time_que_t *_this);

/**
 * Locks the queue, for a caller that combines several of the _locked functions.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_time_que_lock(qor_time_que_t *_this);

/** Unlocks the queue. Prints "!(_this) == true." for a NULL queue. */
QOR_API void qor_time_que_unlock(qor_time_que_t *_this);

/**
 * Waits, without limit, until something in the queue has changed or qor_time_que_wakeup_locked()
 * was called. The caller holds the lock, has it again afterwards, and looks anew at what it waits
 * for. A node that falls due is no change.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_time_que_wait_locked(qor_time_que_t *_this);

/**
 * Wakes every thread that waits in the queue. The caller holds the lock.
 *
 * Broadcasting the field cond instead would reach only those in qor_time_que_wait_locked(): the
 * threads that wait for a node or for room do so elsewhere.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_time_que_wakeup_locked(qor_time_que_t *_this);

/**
 * Inserts a node by its due time without waiting. The caller holds the lock.
 *
 * @param _this     the queue
 * @param new_node  the node; belongs to the queue afterwards, and to the caller after a failure
 * @return          0, or -1
 *
 * Among nodes with the same due time the first to arrive stays first, and every later one goes
 * directly behind it: X, Y, Z come out as X, Z, Y. Give them different times where their order
 * matters.
 *
 * In a queue of less than 64 nodes the place is searched from both ends at once. From there on an
 * index finds it, in time that grows with the logarithm of the count; without memory for that the
 * search goes on as before.
 *
 * Prints "!(_this) == true." or "!(new_node) == true." for NULL. Says nothing when the queue is
 * full or quitting.
 */
QOR_API int32_t qor_time_que_enque_locked(qor_time_que_t *_this, qor_time_que_node_t *new_node);

/**
 * Inserts a node without waiting: qor_time_que_lock(), qor_time_que_enque_locked(),
 * qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API int32_t qor_time_que_enque(qor_time_que_t *_this, qor_time_que_node_t *new_node);

/**
 * Inserts a node as qor_time_que_enque_locked() does, and waits for room if there is none. The
 * caller holds the lock, which is given up while waiting.
 *
 * @param _this      the queue
 * @param new_node   the node; belongs to the queue afterwards, and to the caller after a failure
 * @param wait_time  longest wait in milliseconds; 0 does not wait, negative waits without limit
 * @return           0, or -1
 *
 * The node's due time stays what its creation made it, however long the wait.
 *
 * Prints "!(_this) == true." or "!(new_node) == true." for NULL. Says nothing when there was no
 * room in time or the queue quits.
 */
QOR_API int32_t qor_time_que_enque_block_locked(qor_time_que_t *_this,
                                                qor_time_que_node_t *new_node, int32_t wait_time);

/**
 * Inserts a node, and waits for room if there is none: qor_time_que_lock(),
 * qor_time_que_enque_block_locked(), qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API int32_t qor_time_que_enque_block(qor_time_que_t *_this, qor_time_que_node_t *new_node,
                                         int32_t wait_time);

/**
 * Takes the earliest node if it is due. The caller holds the lock.
 *
 * @return  the node, now the caller's, or NULL when nothing is due or the queue quits
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API qor_time_que_node_t *qor_time_que_deque_locked(qor_time_que_t *_this);

/**
 * Takes the earliest node if it is due: qor_time_que_lock(), qor_time_que_deque_locked(),
 * qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API qor_time_que_node_t *qor_time_que_deque(qor_time_que_t *_this);

/**
 * Takes the earliest node, and sleeps until one is due. The caller holds the lock, which is given
 * up while waiting.
 *
 * @param _this      the queue
 * @param wait_time  longest wait in milliseconds; 0 looks once, negative waits without limit
 * @return           the node, now the caller's, or NULL when the time is over or the queue quits
 *
 * Quitting comes first: nodes that are still there are not handed out.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API qor_time_que_node_t *qor_time_que_deque_block_locked(qor_time_que_t *_this,
                                                             int32_t wait_time);

/**
 * Takes the earliest node, and sleeps until one is due: qor_time_que_lock(),
 * qor_time_que_deque_block_locked(), qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API qor_time_que_node_t *qor_time_que_deque_block(qor_time_que_t *_this, int32_t wait_time);

/**
 * Takes out the earliest node with an id, due or not. The caller holds the lock.
 *
 * @param _this  the queue
 * @param id     the number given to the node
 * @return       the node, now the caller's, or NULL
 *
 * Prints "!(_this) == true." for a NULL queue and "!(!_this->quitting) == true." when it quits.
 * Says nothing when no node has the id.
 */
QOR_API qor_time_que_node_t *qor_time_que_remove_locked(qor_time_que_t *_this, size_t id);

/**
 * Takes out the earliest node with an id: qor_time_que_lock(), qor_time_que_remove_locked(),
 * qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API qor_time_que_node_t *qor_time_que_remove(qor_time_que_t *_this, size_t id);

/**
 * Inserts the first node anew that has the id and is due later than delay from now. The caller
 * holds the lock.
 *
 * @param _this  the queue
 * @param id     the number given to the node
 * @param delay  milliseconds from now
 * @return       0, also when no node with the id is due that late; -1 when none has the id
 *
 * Does not bring the node forward in time: it keeps its due time and only changes its place among
 * nodes of that same time. To have it earlier, remove it, update it and insert it again.
 *
 * Prints "!(_this) == true." for a NULL queue and "!(!_this->quitting) == true." when it quits,
 * each with -1.
 */
QOR_API int32_t qor_time_que_early_locked(qor_time_que_t *_this, size_t id, int32_t delay);

/**
 * Inserts a node anew: qor_time_que_lock(), qor_time_que_early_locked(), qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API int32_t qor_time_que_early(qor_time_que_t *_this, size_t id, int32_t delay);

/**
 * Tells how long it is until the earliest node falls due. The caller holds the lock.
 *
 * @param _this  the queue
 * @param delay  receives milliseconds, negative for a node that is overdue; untouched on failure
 * @return       0, or -1
 *
 * Prints "!(_this) == true.", "!(!_this->quitting) == true." or "!(delay) == true.". Says nothing
 * when the queue is empty.
 */
QOR_API int32_t qor_time_que_next_delay_locked(qor_time_que_t *_this, int32_t *delay);

/**
 * Tells how long it is until the earliest node falls due: qor_time_que_lock(),
 * qor_time_que_next_delay_locked(), qor_time_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API int32_t qor_time_que_next_delay(qor_time_que_t *_this, int32_t *delay);

/**
 * Makes a node that belongs to the caller until a queue accepts it.
 *
 * @param id     the caller's number, by which qor_time_que_remove() finds the node
 * @param delay  milliseconds from now until it is due; negative makes it overdue
 * @param size   length of the body in bytes
 * @return       the node, its body all zero, or NULL
 *
 * Prints "malloc "qor_time_que_node_t" failed." without memory and for a negative size.
 */
QOR_API qor_time_que_node_t *qor_time_que_node_create(size_t id, int32_t delay, int32_t size);

/**
 * Gives a node another id and a due time of delay milliseconds from now.
 *
 * Not for a node that is queued: it would stay where it is and break the queue's order. Take it out
 * first. Nothing is checked.
 */
QOR_API void qor_time_que_node_update(qor_time_que_node_t *node, size_t id, int32_t delay);

/**
 * Releases a node that is in no queue.
 *
 * @param node     the node
 * @param recycle  called with the body first; may be NULL. A queue's own recycle is not looked at.
 *
 * Prints "!(node) == true." for a NULL node.
 */
QOR_API void qor_time_que_node_destroy(qor_time_que_node_t *node,
                                       qor_time_que_node_recycle_t recycle);

/** Gives the body of a node. Nothing is checked. */
QOR_API void *qor_time_que_node_body(qor_time_que_node_t *node);

/** Gives the id of a node. Nothing is checked. */
QOR_API size_t qor_time_que_node_id(qor_time_que_node_t *node);

/** Gives the node around a body that qor_time_que_node_body() returned. Nothing is checked. */
QOR_API qor_time_que_node_t *qor_time_que_node_type(void *body);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_TIME_QUE_H */
