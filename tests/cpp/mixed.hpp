/* SPDX-License-Identifier: Apache-2.0 */
/* One program of two units: one catches exceptions, the other is compiled without any. */
#ifndef QOR_TESTS_MIXED_HPP
#define QOR_TESTS_MIXED_HPP

#include "qor.hpp"

using ping = qor::topic<0, int32_t, int32_t>;
using pong = qor::topic<1, int32_t, int32_t>;

/* Of the unit without exceptions: its module, and how often its continuation was called well. */
qor_context_module_t *plain_module();
const qor_contract_t *plain_contract();
int plain_answers();
bool plain_has_a_second_bus();

#endif /* QOR_TESTS_MIXED_HPP */
