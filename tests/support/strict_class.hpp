/* SPDX-License-Identifier: Apache-2.0 */
/* A context class for tests: a call of any slot that the test has not replaced fails the test. */
#ifndef QOR_TESTS_STRICT_CLASS_HPP
#define QOR_TESTS_STRICT_CLASS_HPP

#include <gtest/gtest.h>

#include "qor_context.h"

namespace strict_class_slots {

inline qor_context_t *create(qor_context_module_t *)
{
    ADD_FAILURE() << "create of the strict class was called";
    return nullptr;
}

template <int number, typename... Args> void no_result(qor_context_t *, Args...)
{
    ADD_FAILURE() << "slot " << number << " of the strict class was called";
}

template <int number, typename... Args> int32_t result(qor_context_t *, Args...)
{
    ADD_FAILURE() << "slot " << number << " of the strict class was called";
    return -1;
}

} // namespace strict_class_slots

/* Replace or empty the slots that the test is about: cls.init = ...; cls.loop = nullptr; */
inline qor_context_cls_t strict_class()
{
    namespace slots = strict_class_slots;
    return {
        "strict",
        /* id */ 0,
        /* node */ {},
        /* 1 create */ slots::create,
        /* 2 destroy */ slots::no_result<2>,
        /* 3 reg */ slots::no_result<3>,
        /* 4 unreg */ slots::no_result<4>,
        /* 5 start */ slots::result<5>,
        /* 6 stop */ slots::no_result<6>,
        /* 7 resume */ slots::result<7>,
        /* 8 pause */ slots::result<8>,
        /* 9 init */ slots::result<9>,
        /* 10 uninit */ slots::no_result<10>,
        /* 11 handle_message */ slots::result<11, qor_context_msg_t *>,
        /* 12 handle_task */ slots::result<12, qor_context_task_t *>,
        /* 13 loop */ slots::result<13>,
    };
}

#endif /* QOR_TESTS_STRICT_CLASS_HPP */
