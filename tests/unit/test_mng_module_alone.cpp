/* SPDX-License-Identifier: Apache-2.0 */
/* The manager in a context that is on no bus: what it would hand over the test has. */
#include "qor_mng_module.h"

#include <string>

#include <gtest/gtest.h>

#include "mng_module_fixture.hpp"
#include "qor_context_task.h"
#include "qor_mng_module_priv.hpp"
#include "recording_context.hpp"
#include "thread_record.hpp"

namespace {

class MngModuleAlone : public MngModule {
protected:
    ~MngModuleAlone() override
    {
        mng_module_close(own.get());
        qor_context_destroy(a.context()); /* which stays when the wrapper goes */
    }

    void begin() { ASSERT_EQ(qor_mng_module.init(own.get(), table.data()), 0); }

    /* The init task that was posted last. */
    void run_init() { qor_context_task_excute(&own.task); }

    RecordingContext own;
    std::vector<qor_context_module_t *> table = table_of({&a});
};

} // namespace

TEST_F(MngModuleAlone, PostsTheInitsToItsOwnContext)
{
    begin();

    EXPECT_EQ(called, "a.reg ");
    EXPECT_EQ(std::string(own.task.name), "a");
    run_init();
    EXPECT_EQ(called, "a.reg a.init ");
    EXPECT_TRUE(a.started());
}

TEST_F(MngModuleAlone, TakesAModuleDownWhoseInitFails)
{
    fail_init(a);
    begin();

    run_init();

    EXPECT_EQ(called, "a.reg a.init a.unreg a.uninit ");
    EXPECT_EQ(out.count("context init failed."), 1);
}

TEST_F(MngModuleAlone, HasNoStartToBreakWhenARegLeaves)
{
    thread_record record = {};
    ASSERT_EQ(thread_records_open(), 0);
    ASSERT_EQ(thread_record_set(&record), 0);
    a.reg = [&](qor_context_t *) {
        called += "a.reg ";
        thread_record copy = record;
        thread_record_leave(copy); /* as at the thread's end */
    };

    begin();

    thread_record_set(nullptr);
    run_init();
    EXPECT_EQ(called, "a.reg a.init ");
}
