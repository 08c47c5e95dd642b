/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of failed inits share: tasks and a module that write down what becomes of them. */
#ifndef QOR_TESTS_FAILED_INIT_FIXTURE_HPP
#define QOR_TESTS_FAILED_INIT_FIXTURE_HPP

#include <atomic>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"

/* A task that writes its name down when it runs, and "-name" when it is recycled. */
struct Note {
    Note(Journal &to, const std::string &called) : journal(to), name(called) {}
    Note(const Note &) = delete;
    Note &operator=(const Note &) = delete;

    int32_t post(qor_context_t *context, int32_t delay = 0, int32_t async = 0)
    {
        int32_t session = -1;
        qor_context_session(context, &session);
        qor_context_task_t task = {};
        qor_context_taskx_init(&task, context, name.c_str(), session, run, this);
        task.recycle = recycle;
        task.delay = delay;
        task.async = async;
        return qor_context_handler_post(context, &task);
    }

    Journal &journal;
    const std::string name;
    std::function<void()> body;       /* what else it does */
    std::function<void()> at_recycle; /* the same, before the entry */

private:
    static void *run(qor_context_t *, int32_t, void *arg)
    {
        Note &self = *static_cast<Note *>(arg);
        if (self.body) {
            self.body();
        }
        self.journal.add(self.name);
        return nullptr;
    }

    static void recycle(void *arg)
    {
        Note &self = *static_cast<Note *>(arg);
        if (self.at_recycle) {
            self.at_recycle();
        }
        self.journal.add("-" + self.name);
    }
};

/* A module that writes its unreg and uninit down. */
struct Doomed : Module {
    explicit Doomed(Journal &to) : Module("doomed"), journal(to)
    {
        unreg = [this](qor_context_t *) { journal.add("unreg"); };
        uninit = [this](qor_context_t *) { journal.add("uninit"); };
    }
    Journal &journal;

    bool gone() const
    {
        return await([this] { return lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; });
    }
};

class FailedInit : public testing::Test {
protected:
    /* A task of the bus that calls a function. */
    static void *call(void *function)
    {
        (*static_cast<std::function<void()> *>(function))();
        return nullptr;
    }

    /* Runs a task on whatever worker is free and waits until it has run. */
    static bool pass_through(qor_bus_t *bus)
    {
        std::atomic<bool> passed{false};
        std::function<void()> pass = [&] { passed = true; };
        qor_bus_run(bus, call, &pass, nullptr);
        return await([&] { return passed.load(); });
    }

    Output out;
    Journal journal;
    Doomed doomed{journal};
};

#endif /* QOR_TESTS_FAILED_INIT_FIXTURE_HPP */
