/* SPDX-License-Identifier: Apache-2.0 */
/* A module whose name has no end. */
#ifndef QOR_TESTS_ENDLESS_MODULE_HPP
#define QOR_TESTS_ENDLESS_MODULE_HPP

#include "qor_context_module.h"

/* "01234567890123456789", and what follows in the record is not 0 either. Nothing can run it. */
inline qor_context_module_t endless_module()
{
    return {{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9',
             '0', '1', '2', '3', '4', '5', '6', '7', '8', '9'},
            /* id */ 0x41414141,
            /* pure */ 1,
            /* refcount */ 0,
            /* priority */ 0,
            /* stack_size */ 0,
            /* arg */ nullptr,
            /* reg */ nullptr,
            /* unreg */ nullptr,
            /* init */ nullptr,
            /* uninit */ nullptr,
            /* console */ nullptr,
            /* handle_message */ nullptr};
}

#endif /* QOR_TESTS_ENDLESS_MODULE_HPP */
