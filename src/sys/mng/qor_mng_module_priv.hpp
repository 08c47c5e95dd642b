/* SPDX-License-Identifier: Apache-2.0 */
/* The orderly end of what the manager has brought up. */
#ifndef QOR_MNG_MODULE_PRIV_HPP
#define QOR_MNG_MODULE_PRIV_HPP

#include "qor_mng_module.h"

/* Takes the application's contexts down, those that started last first, and frees the manager's
 * state. No worker runs any more. */
void mng_module_close(qor_context_t *context);

#endif /* QOR_MNG_MODULE_PRIV_HPP */
