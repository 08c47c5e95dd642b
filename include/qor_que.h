/* SPDX-License-Identifier: Apache-2.0 */
/* Blocking first-in first-out queue of nodes with inline bodies. */
#ifndef QOR_QUE_H
#define QOR_QUE_H

#include "qor_hal.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/**
 * Releases what a node's body refers to; the body's own memory goes with its node. Called without
 * any lock of the library, on the thread that quits the queue or destroys the node.
 */
typedef void (*qor_que_node_recycle_t)(void *body);

/** A queue. Change its fields only through the functions. */
struct qor_que {
    list_head head;                 /**< nodes in order of arrival */
    hal_thread_mutex_t mutex;       /**< guards every other field */
    hal_thread_cond_t cond;         /**< broadcast after every change; see qor_que_wait_locked() */
    int32_t quitting;               /**< 0 while running, then 1 for good */
    uint32_t max_count;             /**< capacity in nodes; UINT32_MAX (-1) is unbounded */
    int32_t count;                  /**< nodes counted; see qor_que_deque_locked() */
    int32_t refer_count;            /**< reserved, always 0 */
    qor_que_node_recycle_t recycle; /**< for bodies that quit discards; may be NULL */
    struct qor_que_private *priv;   /**< the library's own */
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no tail arrays */
/** A node: a header, and a body that its creator fills. Belongs to the queue while it is linked.
 * Made by qor_que_node_create() and freed by qor_que_node_destroy() alone: what the library keeps
 * of it stands in front of the header, in the same block. */
struct qor_que_node {
    list_head node; /**< link in the queue; NULL links outside it */
    size_t id;      /**< the creator's number, need not be unique */
    char body[];    /**< as many bytes as the creation asked for */
};
#pragma GCC diagnostic pop

/**
 * Makes an empty queue.
 *
 * @param max_count  capacity in nodes; UINT32_MAX is unbounded, 0 accepts nothing
 * @param recycle    for the bodies of nodes that quit discards; may be NULL
 * @return           the queue, to be released with qor_que_destroy(), or NULL
 *
 * Prints "!(_this) == true." when memory or a lock cannot be had.
 */
QOR_API qor_que_t *qor_que_create(uint32_t max_count, qor_que_node_recycle_t recycle);

/**
 * Quits the queue, discards what is left in it and releases it.
 *
 * Threads that are blocked inside wake up, and the call returns after the last of them has released
 * the lock. Nobody may enter the queue any more once the call has begun.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_que_destroy(qor_que_t *_this);

/**
 * Makes a node that belongs to the caller until a queue accepts it.
 *
 * @param id    the caller's number, by which qor_que_remove() finds the node
 * @param size  length of the body in bytes
 * @return      the node, its body all zero, or NULL
 *
 * Prints "malloc "qor_que_node_t" failed." without memory and for a negative size.
 */
QOR_API qor_que_node_t *qor_que_node_create(size_t id, int32_t size);

/**
 * Releases a node that is in no queue.
 *
 * @param node     the node
 * @param recycle  called with the body first; may be NULL. A queue's own recycle is not looked at.
 *
 * Prints "!(node) == true." for a NULL node.
 */
QOR_API void qor_que_node_destroy(qor_que_node_t *node, qor_que_node_recycle_t recycle);

/** Gives the body of a node. Nothing is checked. */
QOR_API void *qor_que_node_body(qor_que_node_t *node);

/** Gives the id of a node. Nothing is checked. */
QOR_API size_t qor_que_node_id(qor_que_node_t *node);

/** Gives the node around a body that qor_que_node_body() returned. Nothing is checked. */
QOR_API qor_que_node_t *qor_que_node_type(void *body);

/**
 * Locks the queue, for a caller that combines several of the _locked functions.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_que_lock(qor_que_t *_this);

/** Unlocks the queue. Prints "!(_this) == true." for a NULL queue. */
QOR_API void qor_que_unlock(qor_que_t *_this);

/**
 * Waits, without limit, until something in the queue has changed or qor_que_wakeup_locked() was
 * called. The caller holds the lock, has it again afterwards, and looks anew at what it waits for.
 *
 * A caller that waits on the field cond with a limit gives it a moment of the system clock. The
 * library's own waits are elsewhere and measure the monotonic one.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_que_wait_locked(qor_que_t *_this);

/**
 * Wakes every thread that waits in the queue. The caller holds the lock.
 *
 * Broadcasting the field cond instead would reach only those in qor_que_wait_locked(): the threads
 * that wait for a node or for room do so elsewhere.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_que_wakeup_locked(qor_que_t *_this);

/**
 * Appends a node without waiting. The caller holds the lock.
 *
 * @param _this     the queue
 * @param new_node  the node; belongs to the queue afterwards, and to the caller after a failure
 * @return          0, or -1
 *
 * Prints "!(_this) == true." or "!(new_node) == true." for NULL. Says nothing when the queue is
 * full or quitting.
 */
QOR_API int32_t qor_que_enque_locked(qor_que_t *_this, qor_que_node_t *new_node);

/**
 * Appends a node without waiting: qor_que_lock(), qor_que_enque_locked(), qor_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API int32_t qor_que_enque(qor_que_t *_this, qor_que_node_t *new_node);

/**
 * Takes the first node without waiting. The caller holds the lock.
 *
 * @param _this  the queue
 * @return       the node, now the caller's, or NULL when the queue is empty or quitting
 *
 * Does not lower count: a bounded queue that is emptied by this call alone reports more and more
 * nodes and in the end refuses new ones. Use qor_que_deque_block_locked(), also with a wait of 0,
 * where the capacity matters.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API qor_que_node_t *qor_que_deque_locked(qor_que_t *_this);

/**
 * Takes the first node without waiting: qor_que_lock(), qor_que_deque_locked(), qor_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API qor_que_node_t *qor_que_deque(qor_que_t *_this);

/**
 * Appends a node, and waits for room if there is none. The caller holds the lock, which is given up
 * while waiting.
 *
 * @param _this      the queue
 * @param new_node   the node; belongs to the queue afterwards, and to the caller after a failure
 * @param wait_time  longest wait in milliseconds; 0 does not wait, negative waits without limit
 * @return           0, or -1
 *
 * Prints "!(_this) == true." or "!(new_node) == true." for NULL. Says nothing when there was no
 * room in time or the queue quits.
 */
QOR_API int32_t qor_que_enque_block_locked(qor_que_t *_this, qor_que_node_t *new_node,
                                           int32_t wait_time);

/**
 * Appends a node, and waits for room if there is none: as qor_que_enque_block_locked() between
 * qor_que_lock() and qor_que_unlock(); with a wait of 0 qor_que_enque_locked() stands there.
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API int32_t qor_que_enque_block(qor_que_t *_this, qor_que_node_t *new_node, int32_t wait_time);

/**
 * Takes the first node, and waits for one if there is none. The caller holds the lock, which is
 * given up while waiting.
 *
 * @param _this      the queue
 * @param wait_time  longest wait in milliseconds; 0 does not wait, negative waits without limit
 * @return           the node, now the caller's, or NULL when the time is over or the queue quits
 *
 * Quitting comes first: nodes that are still there are not handed out.
 *
 * A wait with a limit measures the monotonic clock: setting the system's time does not touch it.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API qor_que_node_t *qor_que_deque_block_locked(qor_que_t *_this, int32_t wait_time);

/**
 * Takes the first node, and waits for one if there is none: as qor_que_deque_block_locked() between
 * qor_que_lock() and qor_que_unlock(). With a wait of 0 qor_que_deque_locked() stands there, which
 * does not lower count.
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API qor_que_node_t *qor_que_deque_block(qor_que_t *_this, int32_t wait_time);

/**
 * Takes out the first node with an id. The caller holds the lock.
 *
 * @param _this  the queue
 * @param id     the number given to qor_que_node_create()
 * @return       the node, now the caller's; the queue's own address, cast to a node, when none has
 *               the id; NULL only for a NULL queue. Compare with (void *)_this before using it.
 *
 * Works on a quitting queue too. Prints "!(_this) == true." for a NULL queue.
 */
QOR_API qor_que_node_t *qor_que_remove_locked(qor_que_t *_this, size_t id);

/**
 * Takes out the first node with an id: qor_que_lock(), qor_que_remove_locked(), qor_que_unlock().
 *
 * For a NULL queue each of the three prints its own line.
 */
QOR_API qor_que_node_t *qor_que_remove(qor_que_t *_this, size_t id);

/**
 * Reads count, with or without the lock.
 *
 * @return  the nodes as the queue counts them (see qor_que_deque_locked()), or -1
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API int32_t qor_que_count(qor_que_t *_this);

/**
 * Ends the queue's work for good and discards its nodes, oldest first, each body through recycle.
 *
 * Every blocked thread returns without a node. From then on nothing is accepted and nothing handed
 * out. The count stays what it was until the last body is recycled, and is 0 then. A second call
 * does nothing. Any thread that does not hold the lock.
 *
 * Prints "!(_this) == true." for a NULL queue.
 */
QOR_API void qor_que_quit(qor_que_t *_this);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_QUE_H */
