/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of lifetimes share. */
#ifndef QOR_TESTS_LIFETIMES_FIXTURE_HPP
#define QOR_TESTS_LIFETIMES_FIXTURE_HPP

#include <gtest/gtest.h>

#include "ledger.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"

constexpr int32_t topic = 2;
constexpr int32_t other_topic = 3;

inline int32_t request(const Module &module)
{
    int32_t payload = 5;
    return qor_context_req_ret(module.context(), topic, &payload, sizeof(payload), sizeof(payload));
}

class Lifetimes : public testing::Test {
protected:
    Output out;
    Ledger ledger; /* outlives the bus */
};

#endif /* QOR_TESTS_LIFETIMES_FIXTURE_HPP */
