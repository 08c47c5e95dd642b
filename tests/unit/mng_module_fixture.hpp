/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the manager share: modules that write down what is called. */
#ifndef QOR_TESTS_MNG_MODULE_FIXTURE_HPP
#define QOR_TESTS_MNG_MODULE_FIXTURE_HPP

#include <string>

#include <gtest/gtest.h>

#include "module.hpp"
#include "output.hpp"
#include "qor_context.h"

/* Three modules that write down what is called, on a bus whose tasks run when the test says so. */
class MngModule : public testing::Test {
protected:
    MngModule()
    {
        for (Module *module : {&a, &b, &c}) {
            const std::string name = module->descriptor.name;
            module->reg = [this, name](qor_context_t *) { called += name + ".reg "; };
            module->unreg = [this, name](qor_context_t *) { called += name + ".unreg "; };
            module->init = [this, name](qor_context_t *) {
                called += name + ".init ";
                return 0;
            };
            module->uninit = [this, name](qor_context_t *) { called += name + ".uninit "; };
        }
    }

    void fail_init(Module &module)
    {
        const std::string name = module.descriptor.name;
        module.init = [this, name](qor_context_t *) {
            called += name + ".init ";
            return -2;
        };
    }

    std::string called;
    Module a{"a"}, b{"b"}, c{"c"};
    Output out;
};

#endif /* QOR_TESTS_MNG_MODULE_FIXTURE_HPP */
