/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of coming up and going down share. */
#ifndef QOR_TESTS_BRING_UP_FIXTURE_HPP
#define QOR_TESTS_BRING_UP_FIXTURE_HPP

#include <string>

#include <gtest/gtest.h>

#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"

constexpr int32_t topic = 3;

class BringUp : public testing::Test {
protected:
    /* Lets a module write down its callbacks. */
    void trace(Module &module)
    {
        const std::string name = module.descriptor.name;
        module.reg = [this, name](qor_context_t *) { journal.add(name + ".reg"); };
        module.init = [this, name](qor_context_t *) {
            journal.add(name + ".init");
            return 0;
        };
        module.unreg = [this, name](qor_context_t *) { journal.add(name + ".unreg"); };
        module.uninit = [this, name](qor_context_t *) { journal.add(name + ".uninit"); };
    }

    Output out;
    Journal journal;
};

#endif /* QOR_TESTS_BRING_UP_FIXTURE_HPP */
