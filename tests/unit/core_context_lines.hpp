/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of user contexts share: the lines that a user context prints. */
#ifndef QOR_TESTS_CORE_CONTEXT_LINES_HPP
#define QOR_TESTS_CORE_CONTEXT_LINES_HPP

#include <string>

#include "output.hpp"
#include "qor_core_context.h"

inline qor_context_cls_t &cls = qor_core_context_class;

inline std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_core_context", function, text);
}

#endif /* QOR_TESTS_CORE_CONTEXT_LINES_HPP */
