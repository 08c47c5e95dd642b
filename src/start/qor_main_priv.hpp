/* SPDX-License-Identifier: Apache-2.0 */
/* The reverse of start-up. */
#ifndef QOR_MAIN_PRIV_HPP
#define QOR_MAIN_PRIV_HPP

#include "qor_main.h"

/* Takes down all contexts of a bus, the application's first, and frees them. No worker runs. */
void main_contexts_close(qor_bus_t *bus);

#endif /* QOR_MAIN_PRIV_HPP */
