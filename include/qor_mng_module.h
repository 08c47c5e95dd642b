/* SPDX-License-Identifier: Apache-2.0 */
/* Module manager: brings the application's modules up. */
#ifndef QOR_MNG_MODULE_H
#define QOR_MNG_MODULE_H

#include "qor_context_module.h"
#include "qor_sys.h"
#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * The module's descriptor; start-up stores the application's module array in its arg.
 *
 * Modules whose pure is not 0 come up first, in parallel; when the last of them has come up
 * successfully, the others follow. Without such a module nothing comes up, and if the one that
 * finishes last fails, the others never do. Within a phase every module's reg is called first, then
 * the inits begin, that of the module last in the array first; one whose start somebody waits for
 * may begin before its turn, on another thread.
 *
 * A module whose init fails, or gets no memory for its task, is taken down again: it refuses
 * deliveries; its queue takes no task any more; unreg; what is queued is recycled (a request of
 * another module's gives its sender a response with ret -1, one of the module's own none); what
 * runs is waited for; uninit. Not waited for is a task that is itself below such a failed init on
 * its thread's stack: it ends only afterwards.
 *
 * Prints a line for each context that it makes, and two for each init (inf). A module that gets no
 * context, or one that cannot be attached to the bus, is left out: "create context failed. module
 * name = %s", "context register to bus failed. module name = %s".
 */
extern QOR_API qor_context_module_t qor_mng_module;

/**
 * Serves a QOR_SYS_MNG_MODULE_REGISTER or QOR_SYS_MNG_CONTEXT_REGISTER request: accepts and ignores
 * it.
 *
 * @return  0, or -1 for another topic, after "not support type." (wrn)
 */
QOR_API int32_t qor_mng_module_handle_request_message(qor_context_t *context,
                                                      qor_context_msg_t *msg);

QOR_END_DECLS

#endif /* QOR_MNG_MODULE_H */
