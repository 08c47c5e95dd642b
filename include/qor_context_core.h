/* SPDX-License-Identifier: Apache-2.0 */
/* The registry of context classes: finds the class that serves a module, by number. */
#ifndef QOR_CONTEXT_CORE_H
#define QOR_CONTEXT_CORE_H

#include "qor_hal.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/**
 * A registry. From its construction it holds the class of system contexts, which serves id 0.
 *
 * A process uses one registry, the one of qor_context_core_instance_get(): a class has a single
 * link, and constructing a second registry takes the class of system contexts away from the first,
 * whose list is broken from then on.
 */
struct qor_context_core {
    int32_t initialized;     /**< 1 from construction to destruction, else 0 */
    hal_thread_mutex_t lock; /**< guards head */
    list_head head;          /**< classes by their node, the one registered last in front */
};

#ifndef QOR_NO_COMMON_NAMES

/** The registry of the process; all zero until qor_context_core_instance_get() constructs it. */
QOR_API extern qor_context_core_t default_core;

/** Its second spelling. */
#define qor_default_core default_core

#else

/** As default_core without QOR_NO_COMMON_NAMES. */
QOR_API extern qor_context_core_t qor_default_core;

#endif

/**
 * Gives the registry of the process and constructs it on first use.
 *
 * @return  the registry; NULL when its lock cannot be had, and then the next call tries again
 *
 * The first call is to be made before several threads can make it: initialized becomes 1 before the
 * lock and the list are ready. The bus does so when it creates its first user context. Later calls
 * take no lock.
 */
QOR_API qor_context_core_t *qor_context_core_instance_get(void);

/**
 * Allocates and constructs a registry of its own; see the warning at qor_context_core_t.
 *
 * @return  the registry, released with qor_context_core_destroy(), or NULL
 *
 * Prints "malloc "qor_context_core_t" failed." when there is no memory, or "constructor
 * "qor_context_core_t" failed." when there is no lock; an empty line follows either.
 */
QOR_API qor_context_core_t *qor_context_core_create(void);

/**
 * Constructs a registry in memory of the caller's, whatever it holds. Adds the class of system
 * contexts. Checks nothing.
 *
 * @return  _this, or NULL when the lock cannot be had: nothing is constructed then
 */
QOR_API qor_context_core_t *qor_context_core_constructor(qor_context_core_t *_this);

/**
 * Releases a registry made by qor_context_core_create(), never default_core. Checks nothing. The
 * classes that it holds are not touched: their links keep pointing at the released registry.
 */
QOR_API void qor_context_core_destroy(qor_context_core_t *_this);

/**
 * Adds a class in front of the others, so that it serves the modules of its id from now on. Checks
 * nothing.
 *
 * @param cls  stays the caller's; must be in no registry, and outlive its registration
 * @return     0
 *
 * Among classes of one id the one registered last serves. An id of 0 thus takes all ordinary
 * modules from the class of system contexts until it is unregistered. Any thread; takes lock.
 */
QOR_API int32_t qor_context_core_class_register(qor_context_core_t *_this, qor_context_cls_t *cls);

/**
 * Takes a class out of the registry that holds it; both its links become NULL. Checks nothing. Any
 * thread; takes lock.
 */
QOR_API void qor_context_core_class_unregister(qor_context_core_t *_this, qor_context_cls_t *cls);

/**
 * Creates a context for a module through the class whose id is the module's.
 *
 * @param module  descriptor; must outlive the context
 * @return        what qor_context_create() of that class returns: the context, to be released with
 *                qor_context_destroy(), or NULL
 *
 * A module whose id no class serves gets NULL without a line: every id in use needs a class. Any
 * thread; takes lock for the search only, not while the class creates the context.
 */
QOR_API qor_context_t *qor_context_core_create_context(qor_context_core_t *_this,
                                                       qor_context_module_t *module);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_CONTEXT_CORE_H */
