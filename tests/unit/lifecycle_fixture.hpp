/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the lifecycle share: states, lines, and a fixture. */
#ifndef QOR_TESTS_LIFECYCLE_FIXTURE_HPP
#define QOR_TESTS_LIFECYCLE_FIXTURE_HPP

#include <string>

#include <gtest/gtest.h>

#include "module.hpp"
#include "output.hpp"
#include "qor_core_context.h"
#include "thread_call.hpp"

enum {
    INIT = QOR_USER_CONTEXT_LIFECYCLE_INIT,
    CREATE = QOR_USER_CONTEXT_LIFECYCLE_CREATE,
    START = QOR_USER_CONTEXT_LIFECYCLE_START,
    RESUME = QOR_USER_CONTEXT_LIFECYCLE_RESUME,
    PAUSE = QOR_USER_CONTEXT_LIFECYCLE_PAUSE,
    STOP = QOR_USER_CONTEXT_LIFECYCLE_STOP,
    DESTROY = QOR_USER_CONTEXT_LIFECYCLE_DESTROY
};
constexpr int states = 7;
inline const char *const state_names[states] = {"Init",  "Create", "Start",  "Resume",
                                                "Pause", "Stop",   "Destroy"};

inline const char change_text[] = "lifecycle change logical not correct.";
inline const char start_text[] = "lifecycle already START or not CREATE yet. START failed.";
inline const char stop_text[] = "lifecycle already STOP. STOP failed.";
inline const char resume_text[] = "lifecycle already STOP or not START yet. RESUME failed.";
inline const char resume_late_text[] = "lifecycle already STOP or DESTROY. RESUME failed.";
inline const char pause_text[] = "lifecycle already STOP or not RESUME yet. PAUSE failed.";

inline std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_core_context", function, text);
}

inline const std::string refused_line = line("qor_core_context_lifecycle_change", change_text);
inline const std::string start_line = line("qor_core_context_lifecycle_start", start_text);
inline const std::string stop_line = line("qor_core_context_lifecycle_stop", stop_text);
inline const std::string resume_line = line("qor_core_context_lifecycle_resume", resume_text);
inline const std::string pause_line = line("qor_core_context_lifecycle_pause", pause_text);

/* A user context that is attached to no bus. */
class Lifecycle : public testing::Test {
protected:
    Lifecycle()
        : wrapper(qor_core_context_class.create(&module.descriptor)),
          core(qor_core_context_type(wrapper))
    {
    }

    ~Lifecycle() override
    {
        qor_context_t *inner = core->context;
        out.clear();
        qor_core_context_lifecycle_change(core, DESTROY);
        qor_context_destroy(wrapper);
        qor_context_destroy(inner);
    }

    void be(int32_t lifecycle) { ASSERT_EQ(qor_core_context_lifecycle_change(core, lifecycle), 0); }

    Module module{"clock"};
    qor_context_t *wrapper;
    qor_core_context_t *core;
    Output out;
};

template <typename F> ThreadCall begin(F function, qor_core_context_t *core)
{
    return ThreadCall([=] { return function(core); });
}

#endif /* QOR_TESTS_LIFECYCLE_FIXTURE_HPP */
