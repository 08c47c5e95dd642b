/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of contexts share: a context over a class whose slots fail the test. */
#ifndef QOR_TESTS_CONTEXT_FIXTURE_HPP
#define QOR_TESTS_CONTEXT_FIXTURE_HPP

#include <string>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_context.h"
#include "qor_context_module.h"
#include "strict_class.hpp"

constexpr char tag[] = "qor_context_api";

/* What happened, in order, and the context that it happened to. */
inline std::string happened;
inline qor_context_t *happened_to;

inline void recycle_happens(void *pub_data)
{
    happened += *static_cast<const char *>(pub_data);
}

struct ContextTest : testing::Test {
    ContextTest()
    {
        happened.clear();
        happened_to = nullptr;
        qor_context_constructor(&context, &cls, &module);
    }

    Output out;
    qor_context_cls_t cls = strict_class();
    qor_context_module_t module = {"module",
                                   /* id */ 0,
                                   /* pure */ 0,
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
    qor_context_t context;
};

using Context = ContextTest;

#endif /* QOR_TESTS_CONTEXT_FIXTURE_HPP */
