/* SPDX-License-Identifier: Apache-2.0 */
/* Which lifecycle calls wake those who wait. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "lifecycle_fixture.hpp"

namespace {

/* A thread that waits for one broadcast of the context's condition. */
class Listener {
public:
    explicit Listener(qor_core_context_t *core)
        : call_([core] {
              pthread_mutex_lock(&core->mutex);
              pthread_cond_wait(&core->cond, &core->mutex);
              pthread_mutex_unlock(&core->mutex);
              return 0;
          })
    {
    }

    bool waits() const { return call_.waits(); }
    void end() { call_.get(); }

private:
    ThreadCall call_;
};

struct BroadcastCase {
    const char *name;
    int32_t from;
    int32_t (*operation)(qor_core_context_t *);
};

} // namespace

class LifecycleBroadcast : public Lifecycle, public testing::WithParamInterface<BroadcastCase> {};

TEST_P(LifecycleBroadcast, WakesWhoeverWaits)
{
    be(GetParam().from);
    Listener first(core), second(core);
    ASSERT_TRUE(first.waits());
    ASSERT_TRUE(second.waits());

    EXPECT_EQ(GetParam().operation(core), 0);

    first.end();
    second.end();
}

INSTANTIATE_TEST_SUITE_P(
    All, LifecycleBroadcast,
    testing::Values(BroadcastCase{"Change", INIT,
                                  [](qor_core_context_t *c) {
                                      return qor_core_context_lifecycle_change(c, CREATE);
                                  }},
                    BroadcastCase{"ChangeToTheSame", RESUME,
                                  [](qor_core_context_t *c) {
                                      return qor_core_context_lifecycle_change(c, RESUME);
                                  }},
                    BroadcastCase{"Start", CREATE, qor_core_context_lifecycle_start},
                    BroadcastCase{"Pause", RESUME, qor_core_context_lifecycle_pause},
                    BroadcastCase{"Stop", PAUSE, qor_core_context_lifecycle_stop}),
    case_name<BroadcastCase>);

TEST_F(Lifecycle, ResumeMakesNoBroadcast)
{
    be(START);
    Listener listener(core);
    ASSERT_TRUE(listener.waits());

    EXPECT_EQ(qor_core_context_lifecycle_resume(core), 0);

    EXPECT_TRUE(listener.waits());
    be(RESUME);
    listener.end();
}
