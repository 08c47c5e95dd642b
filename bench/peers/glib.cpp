/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios with GLib: asynchronous queues between two threads, thread pools, timeout sources
 * of a main loop, and signals of an object for synchronous calls. */
#include <glib-object.h>

#include "pool.hpp"
#include "program.hpp"
#include "threads.hpp"
#include "timers.hpp"

namespace {

using bench::Measurement;

/* A queue takes no NULL: what travels is the number + 1 + 1, so that -1 can travel too. */
class Link {
public:
    ~Link()
    {
        g_async_queue_unref(to_[0]);
        g_async_queue_unref(to_[1]);
    }

    void send(bench::Side from, int64_t number)
    {
        g_async_queue_push(to_[from == bench::asker], reinterpret_cast<void *>(number + 2));
    }

    int64_t receive(bench::Side at)
    {
        return reinterpret_cast<int64_t>(g_async_queue_pop(to_[at == bench::answerer])) - 2;
    }

private:
    GAsyncQueue *to_[2] = {g_async_queue_new(), g_async_queue_new()};
};

template <typename T, void (T::*run)()> GThreadPool *pool_of(const Measurement &m)
{
    const auto task = [](void *data, void *) { (static_cast<T *>(data)->*run)(); };
    return g_thread_pool_new(task, nullptr, m.workers, TRUE, nullptr);
}

void pool(Measurement &m)
{
    GThreadPool *pool = pool_of<bench::Countdown, &bench::Countdown::count_down>(m);
    bench::tasks(
        m, [pool](bench::Countdown &countdown) { g_thread_pool_push(pool, &countdown, nullptr); });
    g_thread_pool_free(pool, FALSE, TRUE);
}

void pool_wake_up(Measurement &m)
{
    GThreadPool *pool = pool_of<bench::WakeUp, &bench::WakeUp::started>(m);
    bench::wake_ups(
        m, [pool](bench::WakeUp &wake_up) { g_thread_pool_push(pool, &wake_up, nullptr); });
    g_thread_pool_free(pool, FALSE, TRUE);
}

class Loop {
public:
    /* A source is used once: each arming makes one. */
    class Timer {
    public:
        explicit Timer(Loop &loop) : context_(loop.context_) {}

        ~Timer() { cancel(); }

        Timer(const Timer &) = delete;
        Timer &operator=(const Timer &) = delete;

        void arm(int64_t ms, void (*function)(void *), void *arg)
        {
            cancel();
            function_ = function;
            arg_ = arg;
            source_ = g_timeout_source_new(static_cast<guint>(ms));
            g_source_set_callback(source_, fire, this, nullptr);
            g_source_attach(source_, context_);
        }

        void cancel()
        {
            if (source_) {
                g_source_destroy(source_);
                g_source_unref(source_);
                source_ = nullptr;
            }
        }

    private:
        static gboolean fire(void *data)
        {
            Timer &self = *static_cast<Timer *>(data);
            self.function_(self.arg_);
            return G_SOURCE_REMOVE;
        }

        GMainContext *context_;
        GSource *source_ = nullptr;
        void (*function_)(void *) = nullptr;
        void *arg_ = nullptr;
    };

    void run() { g_main_loop_run(loop_); }

    void stop() { g_main_loop_quit(loop_); }

private:
    GMainContext *context_ = g_main_context_new();
    GMainLoop *loop_ = g_main_loop_new(context_, FALSE);
};

/* A signal with a handler, and m.size more of them before and as many after it. */
void call(Measurement &m)
{
    constexpr int64_t between_looks = 64; /* at the clock */
    const guint signal =
        g_signal_new("asked", G_TYPE_OBJECT, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                     G_TYPE_NONE, 2, G_TYPE_POINTER, G_TYPE_POINTER);
    GObject *object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    const auto look = [](GObject *, void *, void *, void *) {};
    const auto answer = [](GObject *, void *question, void *place, void *) {
        *static_cast<int64_t *>(place) = *static_cast<int64_t *>(question);
    };
    for (int i = 0; i < m.size; i++) {
        g_signal_connect(object, "asked", G_CALLBACK(+look), nullptr);
        g_signal_connect_after(object, "asked", G_CALLBACK(+look), nullptr);
    }
    g_signal_connect(object, "asked", G_CALLBACK(+answer), nullptr);
    int64_t count = 0;
    m.begin();
    do {
        for (int64_t i = 0; i < between_looks; i++) {
            int64_t place = 0;
            g_signal_emit(object, signal, 0, &i, &place);
        }
        count += between_looks;
    } while (!m.over());
    m.end(count);
    g_object_unref(object);
}

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "glib",
                          {
                              {"ping-pong", bench::ping_pong<Link>, 1, {2}},
                              {"pipeline", bench::ping_pong<Link>, 32, {2}},
                              {"count", bench::count<Link>, 0, {2}},
                              {"call-0-filters", call, 0, {1}},
                              {"call-2-filters", call, 2, {1}},
                              {"timer-churn-0", bench::timer_churn<Loop>, 0, {1}},
                              {"timer-churn-10000", bench::timer_churn<Loop>, 10000, {1}},
                              {"timer-lateness-idle", bench::timer_lateness<Loop>, 0, {1}},
                              {"pool", pool, 0, {1, 2, 4}},
                              {"pool-wake-up", pool_wake_up, 0, {2}},
                          });
}
