/* SPDX-License-Identifier: Apache-2.0 */
/* The orderly end of the monitor. */
#ifndef QOR_MONITOR_MODULE_PRIV_HPP
#define QOR_MONITOR_MODULE_PRIV_HPP

#include "qor_monitor_module.h"

/* Lets the console return. */
void monitor_module_quit(qor_context_t *context);

/* Frees the monitor's state once its console has ended. */
void monitor_module_close(qor_context_t *context);

#endif /* QOR_MONITOR_MODULE_PRIV_HPP */
