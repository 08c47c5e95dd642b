/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts: the base record, its class of operations, and the calls that dispatch to them. */
#ifndef QOR_CONTEXT_H
#define QOR_CONTEXT_H

#include "qor_hal.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** Which fields of qor_context_topic_attr_t the caller has set; bits of mask. */
enum {
    QOR_CONTEXT_TOPIC_ATTR_POINT = 2,   /**< point is set */
    QOR_CONTEXT_TOPIC_ATTR_PRIORITY = 4 /**< priority is set */
};

/** When a listener or filter is called; bits of point. */
enum {
    QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE = 1, /**< before the subscriber handles the message */
    QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER = 2,  /**< after it has */
    QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND = 3, /**< both */
    QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF =
        4 /**< not for one's own messages; add to the above */
};

/**
 * How a context subscribes to, listens on or filters a topic. Copied at registration. Without a
 * record, point is AROUND.
 *
 * mask and priority are carried along but never consulted: point counts whatever mask says, and the
 * newest registration comes first whatever its priority.
 */
struct qor_context_topic_attr {
    int32_t mask;     /**< QOR_CONTEXT_TOPIC_ATTR_* bits */
    int32_t point;    /**< QOR_CONTEXT_TOPIC_ATTR_POINT_* bits */
    int32_t priority; /**< reserved */
};

/**
 * Allocates and constructs a context of the class, with qor_context_constructor() for the base
 * record. The module stays the caller's. NULL on failure.
 */
typedef qor_context_t *(*qor_context_cls_create_t)(qor_context_module_t *module);

/** An operation of a class without result. Called with no lock held, on any thread. */
typedef void (*qor_context_cls_void_t)(qor_context_t *context);

/** An operation of a class; a negative result is a failure. Called with no lock held. */
typedef int32_t (*qor_context_cls_op_t)(qor_context_t *context);

/**
 * Delivers a message to a context, on the thread that delivers it and with no lock held. The
 * message and its buffers stay the caller's and are valid during the call. The result becomes the
 * message's ret.
 */
typedef int32_t (*qor_context_cls_message_t)(qor_context_t *context, qor_context_msg_t *msg);

/**
 * Accepts a task for a context, with no lock held. The record stays the caller's and is copied if
 * it is kept; negative when the task is refused.
 */
typedef int32_t (*qor_context_cls_task_t)(qor_context_t *context, qor_context_task_t *task);

/**
 * A class: the operations of one kind of context. One static record per kind, constant once the
 * contexts exist. Any slot but create may be NULL; the dispatchers say what then happens.
 */
struct qor_context_cls {
    const char name[20];                      /**< terminated */
    int32_t id;                               /**< matched against a module's id by the registry */
    list_head node;                           /**< link in one class registry */
    qor_context_cls_create_t create;          /**< makes a context for a module */
    qor_context_cls_void_t destroy;           /**< releases the context */
    qor_context_cls_void_t reg;               /**< takes up the context's topics */
    qor_context_cls_void_t unreg;             /**< gives them up */
    qor_context_cls_op_t start;               /**< starts the context */
    qor_context_cls_void_t stop;              /**< stops it */
    qor_context_cls_op_t resume;              /**< enters the context before a delivery */
    qor_context_cls_op_t pause;               /**< leaves it afterwards */
    qor_context_cls_op_t init;                /**< initialises the module's part */
    qor_context_cls_void_t uninit;            /**< cleans it up */
    qor_context_cls_message_t handle_message; /**< delivers a message */
    qor_context_cls_task_t handle_task;       /**< accepts a task */
    qor_context_cls_op_t loop;                /**< runs the context's own queue once */
};

/**
 * A context: one unit of the application on the bus. Kinds of contexts embed it as their first
 * field. What is set up before other threads can reach the context (all but node, resource and
 * priv_data) is only read afterwards; nothing here is locked.
 */
struct qor_context {
    qor_context_cls_t *cls;         /**< its class, for good */
    qor_context_module_t *module;   /**< its module; not owned */
    qor_context_handler_t *handler; /**< its way to the bus; NULL until attached */
    int32_t id;                     /**< 0, or a positive number that was set once */
    list_head node;                 /**< link in its owner's list; NULL links while on none */
    void *resource;                 /**< the class's own */
    void *pub_data;                 /**< the framework's attachment */
    void *priv_data;                /**< the module's own */
    qor_context_recycle_t pub_data_recycle; /**< releases pub_data at uninit; may be NULL */
};

/**
 * @name Construction and release
 *
 * A NULL context prints "!(_this) == true."; results are then -1 or NULL. This holds for all
 * functions of this header unless they say otherwise. A failure changes no field.
 * @{
 */

/**
 * Creates a context of a class for a module.
 *
 * @param cls     the class; its create slot is called untested, so it must be filled
 * @param module  the module, which must outlive the context
 * @return        what the class's create returns: a context to be released with
 *                qor_context_destroy(), or NULL
 *
 * Prints "!(cls) == true." or "!(module) == true." for a NULL argument.
 */
QOR_API qor_context_t *qor_context_create(qor_context_cls_t *cls, qor_context_module_t *module);

/**
 * Releases a context through its class's destroy. The caller has taken it off its list.
 *
 * Prints "!(_this->cls) == true." without a class, "!(_this->cls->destroy) == true." without the
 * slot; the context then stays.
 */
QOR_API void qor_context_destroy(qor_context_t *_this);

/**
 * Fills a freshly allocated base record, for use by a class's create. Every field but cls and
 * module becomes zero, the links of node included.
 *
 * @param _this   the record; whatever it held is overwritten
 * @param cls     its class
 * @param module  its module; not owned
 * @return        _this, or NULL
 *
 * Prints "!(_this) == true.", "!(cls) == true." or "!(module) == true." for a NULL argument.
 */
QOR_API qor_context_t *qor_context_constructor(qor_context_t *_this, qor_context_cls_t *cls,
                                               qor_context_module_t *module);

/**
 * Ends the base record's use, for use by a class's destroy, which then frees the memory. Does
 * nothing but check the context: node stays linked and pub_data unreleased.
 */
QOR_API void qor_context_destructor(qor_context_t *_this);

/** @} */

/**
 * @name Operations of the class
 *
 * Each calls the slot of its name and returns the result unchanged. Checked are the context, its
 * class and the slot, in this order; the texts are "!(_this) == true.", "!(_this->cls) == true."
 * and, for the slot init, "!(_this->cls->init) == true.". After a failed check the result is -1.
 * Messages and tasks are handed on unchecked. Callable from any thread, several at once; what must
 * be serialised is serialised by the class.
 * @{
 */

/** Initialises the context. Negative on failure. */
QOR_API int32_t qor_context_init(qor_context_t *_this);

/**
 * Reverses init. After the checks and before the class's uninit, pub_data is released with
 * pub_data_recycle when both are set. The field is not cleared: afterwards nobody may read it, the
 * class's uninit included, and a second call releases it again.
 */
QOR_API void qor_context_uninit(qor_context_t *_this);

/** Starts the context. Negative on failure. */
QOR_API int32_t qor_context_start(qor_context_t *_this);

/** Stops the context. */
QOR_API void qor_context_stop(qor_context_t *_this);

/**
 * Enters the context before a delivery; may wait for its start. Negative when it must not be
 * entered. Without the slot it succeeds silently with 0.
 */
QOR_API int32_t qor_context_resume(qor_context_t *_this);

/** Leaves the context after a delivery. Without the slot it succeeds silently with 0. */
QOR_API int32_t qor_context_pause(qor_context_t *_this);

/** Has the context take up its topics, through the slot reg. */
QOR_API void qor_context_register(qor_context_t *_this);

/** Has the context give up its topics, through the slot unreg. */
QOR_API void qor_context_unregister(qor_context_t *_this);

/** Delivers a message on the calling thread. The message stays the caller's. */
QOR_API int32_t qor_context_handle_message(qor_context_t *_this, qor_context_msg_t *msg);

/** Gives the context a task. The record stays the caller's. Negative when it is refused. */
QOR_API int32_t qor_context_handle_task(qor_context_t *_this, qor_context_task_t *task);

/**
 * Runs the context's own queue once.
 *
 * The slot that is checked is handle_message, with its text, while loop is called untested: a class
 * that fills handle_message must fill loop as well before this may be called.
 */
QOR_API int32_t qor_context_loop(qor_context_t *_this);

/** @} */

/**
 * @name Fields
 * @{
 */

/**
 * Returns the name of the context's class, or NULL. Prints "!(_this && _this->cls) == true." if the
 * context or its class is NULL.
 */
QOR_API const char *qor_context_cls_name_get(qor_context_t *_this);

/**
 * Returns the name of the context's module, or NULL. Prints "!(_this && _this->module) == true." if
 * the context or its module is NULL.
 */
QOR_API const char *qor_context_module_name_get(qor_context_t *_this);

/** Returns the context's number; 0 while it has none, -1 for a NULL context. */
QOR_API int32_t qor_context_id_get(qor_context_t *_this);

/**
 * Gives the context its number, once.
 *
 * @param _this  a context without number
 * @param id     a positive number
 * @return       0, or -1
 *
 * Prints "!(_this->id == 0 && id > 0) == true." if it has a number or id is not positive.
 */
QOR_API int32_t qor_context_id_set(qor_context_t *_this, int32_t id);

/**
 * Gives the context its way to the bus; an earlier table is replaced. The table is not copied.
 * Prints "!(handler) == true." for a NULL table. Not to be called once others reach the context.
 */
QOR_API void qor_context_handler_set(qor_context_t *_this, qor_context_handler_t *handler);

/** Returns the context's handler table; NULL while it has none. */
QOR_API qor_context_handler_t *qor_context_handler_get(qor_context_t *_this);

/**
 * Attaches the framework's data.
 *
 * @param _this     the context
 * @param pub_data  the data; may be NULL
 * @param recycle   releases it in qor_context_uninit(); may be NULL
 *
 * An earlier attachment is overwritten without being released: that is up to the caller.
 */
QOR_API void qor_context_pub_data_set(qor_context_t *_this, void *pub_data,
                                      qor_context_recycle_t recycle);

/** Returns the framework's data, or NULL. */
QOR_API void *qor_context_pub_data_get(qor_context_t *_this);

/** Stores the class's own handle; not owned by the context. */
QOR_API void qor_context_resource_set(qor_context_t *_this, void *resource);

/** Returns the class's own handle, or NULL. */
QOR_API void *qor_context_resource_get(qor_context_t *_this);

/** Stores the module's own state; not owned by the context. */
QOR_API void qor_context_priv_data_set(qor_context_t *_this, void *priv_data);

/** Returns the module's own state, or NULL. */
QOR_API void *qor_context_priv_data_get(qor_context_t *_this);

/** @} */

/**
 * @name System requests
 *
 * Each draws a session number, fills a message on the stack and hands it to the system module that
 * serves the topic. The result is the session number, or -1 if the hand-over failed. A failed draw
 * is ignored: the session is then 0. Buffers stay the caller's; sizes are in bytes and, like topic
 * and buffers, not checked. A NULL context prints "!(_this) == true." from _qor_context_sys_req;
 * what else can fail is reported by the handler. Callable from any thread, on a context whose
 * handler table has system calls: a user context's module has no such table.
 * @{
 */

/** Sends a request without response part; a copy is handled on another thread. */
QOR_API int32_t qor_context_sys_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                    int32_t req_size);

/** The same with room for res_size response bytes in the copy. There is no response. */
QOR_API int32_t qor_context_sys_req_ret(qor_context_t *_this, qor_context_topic_t topic,
                                        void *req_buf, int32_t req_size, int32_t res_size);

/**
 * Sends a request that is handled on the calling thread before the call returns. The result is the
 * session number all the same; the handler's own result shows only by its sign.
 */
QOR_API int32_t qor_context_sysx_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                     int32_t req_size);

/**
 * Sends a request with a response buffer, but, unlike qor_context_sysx_req(), has a copy handled on
 * another thread. The copy starts with what res_buf holds; res_buf itself is never written.
 */
QOR_API int32_t qor_context_sysx_req_ret(qor_context_t *_this, qor_context_topic_t topic,
                                         void *req_buf, int32_t req_size, void *res_buf,
                                         int32_t res_size);

/** @} */

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_CONTEXT_H */
