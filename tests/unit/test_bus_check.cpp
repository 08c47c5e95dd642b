/* SPDX-License-Identifier: Apache-2.0 */
/* Looking at a table of modules for what keeps them from coming up. */
#include "qor_start.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bus_fixture.hpp"
#include "endless_module.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_core.h"
#include "qor_context_module.h"
#include "running_bus.hpp"

namespace {

int32_t console(qor_context_t *)
{
    return 0;
}

class BusCheck : public testing::Test {
protected:
    /* Each finding: level, place, module, text. "" for none. */
    std::string found(const std::vector<qor_context_module_t *> &modules)
    {
        std::vector<qor_context_module_t *> table = modules;
        table.push_back(nullptr);
        std::string all;
        const int32_t count = qor_bus_check(table.data(), see, &all);
        EXPECT_EQ(count, std::count(all.begin(), all.end(), '\n'));
        EXPECT_EQ(qor_bus_check(table.data(), nullptr, nullptr), count);
        EXPECT_EQ(out.printed(), "");
        return all;
    }

    std::string found() { return found({&a.descriptor}); }

    static void see(void *arg, const qor_bus_finding_t *finding)
    {
        *static_cast<std::string *>(arg) +=
            std::string(finding->level == QOR_FINDING_ERROR     ? "error"
                        : finding->level == QOR_FINDING_WARNING ? "warning"
                                                                : "?") +
            " " + std::to_string(finding->place) + " " + finding->module + ": " + finding->text +
            "\n";
    }

    Output out;
    Module a{"a"}, b{"b", 0};
};

} // namespace

TEST_F(BusCheck, ANullTableIsReported)
{
    EXPECT_EQ(qor_bus_check(nullptr, see, nullptr), -1);

    EXPECT_EQ(out.printed(), line("check", "!(modules) == true."));
}

TEST_F(BusCheck, ModulesThatComeUpGiveNothing)
{
    EXPECT_EQ(found({&a.descriptor, &b.descriptor}), "");
}

TEST_F(BusCheck, AnEmptyTableGivesNothing)
{
    EXPECT_EQ(found({}), "");
}

TEST_F(BusCheck, ANegativeLimitIsAllRight)
{
    a.descriptor.refcount = -1;

    EXPECT_EQ(found(), "");
}

TEST_F(BusCheck, NoModuleHasPure)
{
    EXPECT_EQ(found({&b.descriptor}), "error -1 : no module has pure.\n");
}

TEST_F(BusCheck, ModulesByTheThousand)
{
    std::vector<std::unique_ptr<Module>> modules;
    std::vector<qor_context_module_t *> table;
    for (int i = 0; i < 1023; i++) {
        modules.push_back(std::make_unique<Module>("m" + std::to_string(i)));
        table.push_back(&modules.back()->descriptor);
    }
    EXPECT_EQ(found(table), "");

    table.push_back(&a.descriptor);

    EXPECT_EQ(found(table), "error -1 : 1024 modules or more.\n");
}

TEST_F(BusCheck, ATableIsReadNoFurtherThanItsLimit)
{
    std::vector<std::unique_ptr<Module>> modules;
    std::vector<qor_context_module_t *> table; /* without an end: the sanitizers look on */
    for (int i = 0; i < 1024; i++) {
        modules.push_back(std::make_unique<Module>("m" + std::to_string(i)));
        table.push_back(&modules.back()->descriptor);
    }
    table.shrink_to_fit();

    EXPECT_EQ(qor_bus_check(table.data(), nullptr, nullptr), 1);
}

TEST_F(BusCheck, ANameWithoutAnEnd)
{
    qor_context_module_t endless = endless_module(), another = endless_module();
    another.id++; /* ends the likeness, but not the name */

    EXPECT_EQ(found({&endless, &another}), "error 0 0123456789012345678: name not terminated.\n"
                                           "error 0 0123456789012345678: no class for its id.\n"
                                           "error 1 0123456789012345678: name not terminated.\n"
                                           "warning 1 0123456789012345678: name used before.\n"
                                           "error 1 0123456789012345678: no class for its id.\n");
}

TEST_F(BusCheck, AnEmptyName)
{
    Module nameless(""), another("");

    EXPECT_EQ(found({&a.descriptor, &nameless.descriptor, &another.descriptor}),
              "warning 1 : name empty.\nwarning 2 : name empty.\n");
}

TEST_F(BusCheck, ANameOfTwoModules)
{
    Module third("a");

    EXPECT_EQ(found({&a.descriptor, &b.descriptor, &third.descriptor}),
              "warning 2 a: name used before.\n");
}

TEST_F(BusCheck, ADescriptorListedTwice)
{
    EXPECT_EQ(found({&a.descriptor, &b.descriptor, &a.descriptor}),
              "warning 2 a: listed before.\n");
}

TEST_F(BusCheck, AnIdWithoutClass)
{
    a.descriptor.id = 4711;
    a.descriptor.init = nullptr; /* what the class would make of it nobody knows */

    EXPECT_EQ(found(), "error 0 a: no class for its id.\n");
}

TEST_F(BusCheck, AnUnusedRegistryIsNotMade)
{
    a.descriptor.id = 4711;
    ASSERT_EQ(default_core.initialized, 0); /* each test has a process of its own */

    EXPECT_EQ(found({&a.descriptor, &b.descriptor}), "error 0 a: no class for its id.\n");

    EXPECT_EQ(default_core.initialized, 0);
}

TEST_F(BusCheck, AnIdOfTheApplicationsClass)
{
    qor_context_cls_t cls = {"own",   4711,    {nullptr, nullptr},
                             nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr,
                             nullptr};
    qor_context_core_class_register(qor_context_core_instance_get(), &cls);
    a.descriptor.id = 4711;
    a.descriptor.init = nullptr; /* its class may do without */

    EXPECT_EQ(found(), "");

    qor_context_core_class_unregister(qor_context_core_instance_get(), &cls);
}

TEST_F(BusCheck, CallbacksThatAreMissing)
{
    a.descriptor.init = nullptr;
    a.descriptor.reg = a.descriptor.unreg = a.descriptor.uninit = nullptr;
    a.descriptor.handle_message = nullptr;

    EXPECT_EQ(found(), "error 0 a: no init.\n"
                       "warning 0 a: no reg.\n"
                       "warning 0 a: no unreg.\n"
                       "warning 0 a: no uninit.\n"
                       "warning 0 a: no handle_message.\n");
}

TEST_F(BusCheck, AConsolesPriority)
{
    const std::string refused = "warning 0 a: console: priority not 1 to 99.\n";
    a.descriptor.console = console;
    std::string all;
    for (const int32_t priority : {-1, 0, 1, 99, 100}) {
        a.descriptor.priority = priority;
        all += found() == refused ? "refused " : found() + "fine ";
    }

    EXPECT_EQ(all, "refused fine fine fine refused ");
}

TEST_F(BusCheck, APriorityWithoutConsoleDoesNotMatter)
{
    a.descriptor.priority = 100;

    EXPECT_EQ(found(), "");
}

TEST_F(BusCheck, AnyOrdinaryStackSizeIsTaken)
{
    a.descriptor.console = console;
    for (const int32_t size : {-1, 0, 4096, 70000, 1 << 20}) {
        a.descriptor.stack_size = size;

        EXPECT_EQ(found(), "") << size;
    }
}

TEST_F(BusCheck, WhileTheBusRunsToo)
{
    RunningBus bus({&a, &b});
    ASSERT_EQ(qor_bus_wait_up(bus.get(), -1, nullptr), 0);
    out.clear();
    b.descriptor.id = 4711;

    EXPECT_EQ(found({&a.descriptor, &b.descriptor}), "error 1 b: no class for its id.\n");

    b.descriptor.id = 0;
}
