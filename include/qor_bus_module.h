/* SPDX-License-Identifier: Apache-2.0 */
/* Bus registration module: attaches contexts to the bus on request. */
#ifndef QOR_BUS_MODULE_H
#define QOR_BUS_MODULE_H

#include "qor_context_module.h"
#include "qor_sys.h"
#include "qor_types.h"

QOR_BEGIN_DECLS

/** The module's descriptor; start-up stores the bus in its arg. */
extern QOR_API qor_context_module_t qor_bus_module;

/**
 * Serves a QOR_SYS_BUS_REGISTER request: gives the context that the request names a scheduling
 * delegate in the user role.
 *
 * @param context  the module's own context
 * @param msg      its request buffer holds a qor_sys_bus_register_request_t, whose size is not
 *                 checked
 * @return         0, or -1
 *
 * A second request for a context replaces its delegate. Prints "not support type." (wrn) for
 * another topic. To be called before other threads can reach the context that is named.
 */
QOR_API int32_t qor_bus_module_handle_request_message(qor_context_t *context,
                                                      qor_context_msg_t *msg);

QOR_END_DECLS

#endif /* QOR_BUS_MODULE_H */
