/* SPDX-License-Identifier: Apache-2.0 */
/* A context for tests that writes down what reaches it, in a journal that all of them share. */
#ifndef QOR_TESTS_ACTOR_HPP
#define QOR_TESTS_ACTOR_HPP

#include <atomic>
#include <functional>
#include <string>

#include "journal.hpp"
#include "module.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_sched_delegate.h"

inline std::string msg_type_name(int32_t type)
{
    static const char *const names[] = {"REQUEST",      "RESPONSE",      "LISTEN_BEFORE",
                                        "LISTEN_AFTER", "FILTER_BEFORE", "FILTER_AFTER"};
    return type >= 0 && type < 6 ? names[type] : "type " + std::to_string(type);
}

/* Every message is written down as "name:TYPE". The behaviour is the test's to set, before other
 * threads can reach the actor. Tasks go to the bus, as those of system contexts do. */
class Actor {
public:
    Actor(Journal &shared, const std::string &own_name)
        : journal(shared), name(own_name), module(named_module(own_name))
    {
        context.cls = &cls;
        context.module = &module;
        context.resource = this;
    }
    Actor(const Actor &) = delete;
    Actor &operator=(const Actor &) = delete;

    qor_context_t *get() { return &context; }
    qor_sched_delegate_t *attach(qor_bus_t *bus, int role)
    {
        return qor_sched_delegate_create(bus, role, &context);
    }
    qor_sched_delegate_t *delegate()
    {
        return static_cast<qor_sched_delegate_t *>(qor_context_pub_data_get(&context));
    }

    /* What the test sets. */
    std::function<int32_t(qor_context_msg_t *)> on_message = [](qor_context_msg_t *) { return 0; };
    std::function<int32_t()> on_resume = [] { return 0; };
    std::function<int32_t()> on_pause = [] { return 0; };
    std::function<int32_t(qor_context_task_t *)> on_task = [this](qor_context_task_t *task) {
        return qor_context_handler_post(&context, task);
    };

    /* What has happened. */
    std::atomic<int> entries{0}; /* resume has let somebody in */
    std::atomic<int> leaves{0};  /* pause has been called */

    Journal &journal;
    const std::string name;

    static Actor &of(qor_context_t *context) { return *static_cast<Actor *>(context->resource); }

private:
    static int32_t resume(qor_context_t *context)
    {
        Actor &self = of(context);
        const int32_t result = self.on_resume();
        self.entries += result >= 0 ? 1 : 0;
        return result;
    }

    static int32_t pause(qor_context_t *context)
    {
        Actor &self = of(context);
        self.leaves++;
        return self.on_pause();
    }

    static int32_t handle_message(qor_context_t *context, qor_context_msg_t *msg)
    {
        Actor &self = of(context);
        self.journal.add(self.name + ":" + msg_type_name(msg->type));
        return self.on_message(msg);
    }

    static int32_t handle_task(qor_context_t *context, qor_context_task_t *task)
    {
        return of(context).on_task(task);
    }

    qor_context_module_t module;
    qor_context_cls_t cls = {"actor",           /* id */ 0,
                             /* node */ {},     nullptr,    nullptr, nullptr,
                             nullptr,           nullptr,    nullptr, /* resume */ resume,
                             /* pause */ pause, nullptr,    nullptr, handle_message,
                             handle_task,       nullptr};
    qor_context_t context = {};
};

#endif /* QOR_TESTS_ACTOR_HPP */
