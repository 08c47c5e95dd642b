/* SPDX-License-Identifier: Apache-2.0 */
/* Start-up: brings up the three system modules, in contexts of their own. */
#ifndef QOR_MAIN_H
#define QOR_MAIN_H

#include "qor_hal.h"
#include "qor_types.h"

QOR_BEGIN_DECLS

#ifndef QOR_NO_COMMON_NAMES

/** The system contexts, linked by their node: module manager, monitor, bus registration. For
 * inspection; only start-up and qor_bus_close() change it. */
extern QOR_API list_head context_head;

/** Its second spelling. */
#define qor_context_head context_head

#else

/** As context_head without QOR_NO_COMMON_NAMES. */
extern QOR_API qor_list_head qor_context_head;

#endif

/**
 * The first task of every bus, which runs on its first worker: creates the system contexts with the
 * ids 1 (bus registration), 2 (monitor) and 3 (module manager), attaches, registers, initialises
 * and starts each before the next. The manager then brings the application's modules up.
 *
 * A context that cannot be created or attached is not noticed here but by the calls made on it.
 * Runs once for a bus; stores the bus and its modules in two global descriptors.
 */
QOR_API void qor_main(qor_bus_t *bus);

/**
 * Initialises a context and then starts it.
 *
 * Prints "context init failed. name = %s" (and does not start it) or "context start failed. name =
 * %s", with the module's name.
 */
QOR_API void qor_context_init_task(qor_context_t *context);

QOR_END_DECLS

#endif /* QOR_MAIN_H */
