/* SPDX-License-Identifier: Apache-2.0 */
/* How the manager brings modules up, phase by phase. */
#include "qor_mng_module.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "mng_module_fixture.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_core_context.h"
#include "qor_sched_delegate.h"
#include "still_bus.hpp"

namespace {

std::string address(const void *pointer)
{
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

std::string inf_line(const std::string &function, const std::string &text)
{
    return "[qor_mng_module][inf][" + function + "]:" + text + "\n";
}

std::string created(const Module &module)
{
    return inf_line("qor_mng_module_init_module_by_pure",
                    std::string("create ") + module.descriptor.name +
                        "'s context success. context = " + address(module.core()));
}

/* "init start", "init success" or "init failed" */
std::string progress(const Module &module, const std::string &step)
{
    return inf_line("qor_mng_module_init_task",
                    "============ " + std::string(module.descriptor.name) + " context(" +
                        address(module.core()) + ") init " + step + " ===========");
}

} // namespace

TEST_F(MngModule, AnEmptyArrayBringsNothingUp)
{
    StillBus bus;

    bus.run_next();

    EXPECT_EQ(bus.run_next(), "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MngModule, ModulesAreCreatedAndRegisteredInArrayOrder)
{
    StillBus bus({&a, &b, &c});

    bus.run_next();

    EXPECT_EQ(called, "a.reg b.reg c.reg ");
    EXPECT_EQ(out.printed(), created(a) + created(b) + created(c));
}

TEST_F(MngModule, InitTasksAreQueuedNewestFirstUnderTheModulesNames)
{
    StillBus bus({&a, &b, &c});
    bus.run_next();

    std::string names;
    for (int i = 0; i < 3; i++) {
        names += bus.run_next();
    }

    EXPECT_EQ(names, "cba");
}

TEST_F(MngModule, AContextIsAttachedInTheUserRoleBeforeItsReg)
{
    int32_t role = -1;
    bool initialised = true;
    a.reg = [&](qor_context_t *) {
        role = static_cast<qor_sched_delegate_t *>(a.core()->base.pub_data)->role;
        initialised = a.lifecycle() != QOR_USER_CONTEXT_LIFECYCLE_INIT;
    };
    StillBus bus({&a});

    bus.run_next();

    EXPECT_EQ(role, QOR_BUS_ROLE_USER);
    EXPECT_FALSE(initialised);
}

TEST_F(MngModule, AnInitTaskInitialisesAndStarts)
{
    StillBus bus({&a});
    bus.run_next();
    out.clear();

    bus.run_next();

    EXPECT_EQ(called, "a.reg a.init ");
    EXPECT_EQ(a.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_START);
    EXPECT_EQ(out.printed(), progress(a, "start") + progress(a, "success"));
}

TEST_F(MngModule, AnyResultThatIsNotNegativeIsSuccess)
{
    a.init = [](qor_context_t *) { return 7; };
    StillBus bus({&a});
    bus.run_next();

    bus.run_next();

    EXPECT_EQ(a.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_START);
}

TEST_F(MngModule, TheOthersFollowOnceThePureOnesAreUp)
{
    b.descriptor.pure = 0;
    StillBus bus({&a, &b, &c});
    bus.run_next();
    EXPECT_EQ(called, "a.reg c.reg ");
    EXPECT_EQ(b.context(), nullptr);

    EXPECT_EQ(bus.run_next(), "c");
    EXPECT_EQ(b.context(), nullptr);
    out.clear();
    EXPECT_EQ(bus.run_next(), "a");

    EXPECT_EQ(called, "a.reg c.reg c.init a.init b.reg ");
    EXPECT_EQ(out.printed(), progress(a, "start") + progress(a, "success") + created(b));
    EXPECT_EQ(bus.run_next(), "b");
    EXPECT_EQ(b.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_START);
    EXPECT_EQ(bus.run_next(), "");
}

TEST_F(MngModule, AnyPureButZeroBelongsToTheFirstPhase)
{
    a.descriptor.pure = 7;
    b.descriptor.pure = 0;
    c.descriptor.pure = UINT32_MAX;
    StillBus bus({&a, &b, &c});

    bus.run_next();

    EXPECT_EQ(called, "a.reg c.reg ");
}

TEST_F(MngModule, WithoutAPureModuleNothingComesUp)
{
    a.descriptor.pure = b.descriptor.pure = c.descriptor.pure = 0;
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(called, "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MngModule, NoSecondPhaseWhenTheLastOneFails)
{
    b.descriptor.pure = 0;
    fail_init(a); /* finishes after c */
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(b.context(), nullptr);
    EXPECT_EQ(called, "a.reg c.reg c.init a.init a.unreg a.uninit ");
}

TEST_F(MngModule, AFailureBeforeTheLastDoesNotKeepTheSecondPhase)
{
    b.descriptor.pure = 0;
    fail_init(c); /* finishes before a */
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(called, "a.reg c.reg c.init c.unreg c.uninit a.init b.reg b.init ");
}

TEST_F(MngModule, AFailureInTheSecondPhaseLeavesTheOthers)
{
    b.descriptor.pure = c.descriptor.pure = 0;
    fail_init(b);
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(a.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_START);
    EXPECT_EQ(b.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(c.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_START);
}

TEST_F(MngModule, AFailedModuleIsTakenDown)
{
    int32_t in_unreg = -1;
    fail_init(a);
    a.unreg = [&](qor_context_t *) { in_unreg = a.lifecycle(); };
    StillBus bus({&a});
    bus.run_next();
    out.clear();

    bus.run_next();

    EXPECT_EQ(called, "a.reg a.init a.uninit ");
    EXPECT_EQ(in_unreg, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    EXPECT_EQ(a.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(a.core()->base.node.prev, nullptr);
    EXPECT_EQ(a.core()->base.node.next, nullptr);
    EXPECT_EQ(out.printed(),
              progress(a, "start") +
                  err_line("qor_core_context", "qor_core_context_init", "context init failed.") +
                  progress(a, "failed"));
}

TEST_F(MngModule, AModuleThatNoClassServesIsPassedOver)
{
    a.descriptor.id = 4711;
    StillBus bus({&a, &b});

    bus.run_all();

    EXPECT_EQ(out.count("[qor_mng_module][err][qor_mng_module_init_module_by_pure]:create context "
                        "failed. module name = a\n"),
              1);
    EXPECT_EQ(called, "b.reg b.init ");
}

TEST_F(MngModule, CloseTakesTheModulesDownInReverseOrderOfTheirStart)
{
    b.descriptor.pure = 0;
    StillBus bus({&a, &b, &c});
    bus.run_all();
    called.clear();

    bus.close();

    EXPECT_EQ(called, "b.unreg b.uninit a.unreg a.uninit c.unreg c.uninit ");
}

TEST_F(MngModule, CloseTakesDownWhatHasNotBeenInitialised)
{
    StillBus bus({&a});
    bus.run_next();
    called.clear();
    out.clear();

    bus.close();

    EXPECT_EQ(called, "a.unreg a.uninit ");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MngModule, CloseCallsAFailedModuleNoMore)
{
    fail_init(a);
    StillBus bus({&a});
    bus.run_all();
    called.clear();

    bus.close();

    EXPECT_EQ(called, "");
}
