/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the families of calls share. */
#ifndef QOR_TESTS_CONTEXT_MODULE_FIXTURE_HPP
#define QOR_TESTS_CONTEXT_MODULE_FIXTURE_HPP

#include "qor_context_module.h"

constexpr qor_context_topic_t some_topic = 12;
constexpr char tag[] = "qor_context_module";

constexpr int32_t own_session = 70; /* what a caller of an _s or _full member supplies */
constexpr int32_t drawn_session = 41;

#endif /* QOR_TESTS_CONTEXT_MODULE_FIXTURE_HPP */
