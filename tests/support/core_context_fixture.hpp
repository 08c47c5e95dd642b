/* SPDX-License-Identifier: Apache-2.0 */
/* A user context without a bus: what it would hand to the bus is kept until the test runs it. */
#ifndef QOR_TESTS_CORE_CONTEXT_FIXTURE_HPP
#define QOR_TESTS_CORE_CONTEXT_FIXTURE_HPP

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_core_context.h"
#include "running_bus.hpp"

/* Stands behind a wrapper in place of the bus: keeps what is posted until the test runs it, and
 * writes down the reports to the monitor. */
class Behind {
public:
    Behind() = default;
    Behind(const Behind &) = delete;
    Behind &operator=(const Behind &) = delete;

    void take_over(qor_context_t *wrapper)
    {
        qor_context_resource_set(wrapper, this);
        qor_context_handler_set(wrapper, &handler_);
    }

    /* Runs a posted task and then releases it, as a worker does. */
    void *run(size_t number)
    {
        qor_context_task_t task = posted.at(number);
        posted.at(number).fun.run = nullptr;
        void *result = qor_context_task_excute(&task);
        qor_context_task_uninit(&task);
        return result;
    }

    /* Runs whatever has not been run, in order. */
    void run_all()
    {
        for (size_t i = 0; i < posted.size(); i++) {
            if (posted[i].fun.run) {
                run(i);
            }
        }
    }

    std::vector<qor_context_task_t> posted;
    std::function<int32_t()> on_post; /* gives the result of post; what it refuses is not kept */
    std::vector<qor_sys_monitor_task_t> reports;
    std::string cancelled; /* "cancel 7 cancelx 8 " */
    int32_t cancel_result = 0;
    std::string happened; /* reports and, through the tasks of the tests, what they do */

private:
    static Behind &of(qor_context_t *context)
    {
        return *static_cast<Behind *>(qor_context_resource_get(context));
    }

    static int32_t draw(qor_context_t *context, int32_t *session)
    {
        *session = of(context).next_session_++;
        return 0;
    }

    static int32_t post(qor_context_t *context, qor_context_task_t *task)
    {
        Behind &self = of(context);
        const int32_t result = self.on_post ? self.on_post() : 0;
        if (result >= 0) {
            self.posted.push_back(*task);
        }
        return result;
    }

    static int32_t syscallx(qor_context_t *context, qor_context_msg_t *msg)
    {
        Behind &self = of(context);
        qor_sys_monitor_task_t report;
        EXPECT_EQ(msg->topic, QOR_SYS_MONITOR_TASK);
        EXPECT_EQ(msg->request.size, static_cast<int32_t>(sizeof(report)));
        std::memcpy(&report, msg->request.buf, sizeof(report));
        self.reports.push_back(report);
        self.happened += report.state == QOR_SYS_MONITOR_TASK_START ? "start " : "over ";
        return 0;
    }

    template <bool x> static int32_t cancel(qor_context_t *context, int32_t session)
    {
        Behind &self = of(context);
        self.cancelled += (x ? "cancelx " : "cancel ") + std::to_string(session) + " ";
        return self.cancel_result;
    }

    int32_t next_session_ = 1000;
    qor_context_handler_t handler_ = {draw,     nullptr, nullptr, nullptr,       nullptr,
                                      nullptr,  nullptr, nullptr, nullptr,       nullptr,
                                      syscallx, post,    nullptr, cancel<false>, cancel<true>};
};

/* A user context that is attached to no bus. */
class CoreContext : public testing::Test {
public: /* the tests' own tasks use it */
    explicit CoreContext(int32_t refcount = 1)
    {
        module.descriptor.refcount = refcount;
        wrapper = qor_context_create(&qor_core_context_class, &module.descriptor);
        core = qor_core_context_type(wrapper);
        inner = core->context;
        behind.take_over(wrapper);
    }

    ~CoreContext() override
    {
        if (wrapper) {
            behind.run_all();
            destroy();
        }
        qor_context_destroy(inner);
    }

    void destroy()
    {
        qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
        qor_context_destroy(wrapper);
        wrapper = nullptr;
    }

    /* A task that writes its name down; its argument is the test, its recycle counts. */
    qor_context_task_t task(const char *name, int32_t session, int32_t delay = 0,
                            int32_t async = 0) const
    {
        qor_context_task_t made = {};
        qor_context_taskx_init(&made, inner, name, session, note, const_cast<CoreContext *>(this));
        made.delay = delay;
        made.async = async;
        made.recycle = recycle;
        return made;
    }

    int32_t post(qor_context_task_t made) { return qor_context_handler_post(inner, &made); }

    /* As the bus's worker does when the run falls due. */
    void loop() { EXPECT_EQ(qor_core_context_class.loop(wrapper), 0); }

    Module module{"gauge"};
    qor_context_t *wrapper;
    qor_core_context_t *core;
    qor_context_t *inner;
    Behind behind;
    int recycled = 0;
    Output out;

private:
    static void *note(qor_context_t *context, int32_t session, void *arg)
    {
        CoreContext &self = *static_cast<CoreContext *>(arg);
        EXPECT_EQ(context, self.inner);
        self.behind.happened += std::to_string(session) + " ";
        return arg;
    }

    static void recycle(void *arg) { static_cast<CoreContext *>(arg)->recycled++; }
};

#endif /* QOR_TESTS_CORE_CONTEXT_FIXTURE_HPP */
