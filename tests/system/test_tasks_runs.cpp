/* SPDX-License-Identifier: Apache-2.0 */
/* What a module's task is given, and its name. */
#include <atomic>

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include "await.hpp"
#include "journal.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_hal.h"
#include "tasks_fixture.hpp"

TEST_F(Tasks, ARunIsGivenItsArgument)
{
    std::atomic<void *> given{nullptr};
    static std::atomic<void *> *to;
    to = &given;

    EXPECT_GT(qor_context_run(
                  module.context(),
                  [](void *arg) -> void * {
                      to->store(arg);
                      return nullptr;
                  },
                  this),
              0);

    EXPECT_TRUE(await([&] { return given == this; }));
}

TEST_F(Tasks, ARunxIsGivenTheModulesContextAndItsSession)
{
    struct Given {
        std::atomic<qor_context_t *> context{nullptr};
        std::atomic<int32_t> session{-1};
    } given;

    const int32_t session = qor_context_x_runx(
        module.context(),
        [](qor_context_t *context, int32_t ss, void *arg) -> void * {
            static_cast<Given *>(arg)->session = ss;
            static_cast<Given *>(arg)->context = context;
            return nullptr;
        },
        &given);

    ASSERT_TRUE(await([&] { return given.context != nullptr; }));
    EXPECT_EQ(given.context, module.context());
    EXPECT_EQ(given.session, session);
}

TEST_F(Tasks, TheThreadHasTheTasksNameWhileItRuns)
{
    static Journal *log;
    log = &journal;

    qor_context_run_name(
        module.context(), "long name that is cut",
        [](void *) -> void * {
            char name[16];
            prctl(PR_GET_NAME, name);
            log->add(name);
            return nullptr;
        },
        nullptr);

    ASSERT_TRUE(journal.await(1));
    EXPECT_EQ(journal.text(), "long name that ");
}
