/* SPDX-License-Identifier: Apache-2.0 */
/* Calls of one context from several threads. */
#include "qor_context_module.h"

#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "context_module_fixture.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "thread.hpp"

namespace {

std::atomic<int32_t> next_session;
std::atomic<int32_t> mixed_up;

int32_t draw_shared(qor_context_t *, int32_t *session)
{
    *session = next_session++;
    return 0;
}

/* What a caller passes twice, by pointer and by value, must arrive together. */
int32_t publish_shared(qor_context_t *, qor_context_msg_t *msg)
{
    mixed_up += *static_cast<int32_t *>(msg->request.buf) != msg->request.size;
    return 0;
}

int32_t post_shared(qor_context_t *, qor_context_task_t *task)
{
    mixed_up += *static_cast<int32_t *>(task->arg) != task->delay;
    return 0;
}

TEST(ContextModule, CallsFromSeveralThreadsKeepTheirRecordsApart)
{
    next_session = mixed_up = 0;
    qor_context_handler_t handler = {};
    handler.session = draw_shared;
    handler.publish = publish_shared;
    handler.post = post_shared;
    qor_context_t context = {};
    context.handler = &handler;
    constexpr int32_t callers = 4, rounds = 500;

    std::vector<Thread> threads;
    for (int32_t caller = 0; caller < callers; caller++) {
        threads.emplace_back([&context, caller] {
            for (int32_t i = 0; i < rounds; i++) {
                int32_t mine = caller * rounds + i;
                qor_context_req(&context, some_topic, &mine, mine);
                qor_context_timer(
                    &context, [](void *) -> void * { return nullptr; }, &mine, mine);
            }
        });
    }
    for (Thread &thread : threads) {
        thread.join();
    }

    EXPECT_EQ(mixed_up, 0);
    EXPECT_EQ(next_session, 2 * callers * rounds);
}

} // namespace
