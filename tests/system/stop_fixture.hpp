/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the end of a bus share. */
#ifndef QOR_TESTS_STOP_FIXTURE_HPP
#define QOR_TESTS_STOP_FIXTURE_HPP

#include <string>

#include <gtest/gtest.h>

#include "journal.hpp"
#include "ledger.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"

constexpr int32_t topic = 1;

class Stop : public testing::Test {
protected:
    static void serve(Module &module)
    {
        module.reg = [](qor_context_t *context) {
            EXPECT_EQ(qor_context_subscribe(context, topic, nullptr), 0);
        };
    }

    /* Writes down each step of a module. */
    void trace(Module &module, const std::string &name)
    {
        module.reg = [this, name](qor_context_t *) { journal.add(name + ".reg"); };
        module.unreg = [this, name](qor_context_t *) { journal.add(name + ".unreg"); };
        module.uninit = [this, name](qor_context_t *) { journal.add(name + ".uninit"); };
    }

    Output out;
    Journal journal;
    Ledger ledger;
};

#endif /* QOR_TESTS_STOP_FIXTURE_HPP */
