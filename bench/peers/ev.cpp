/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios of timers with libev. */
#include <ev.h>

#include "program.hpp"
#include "timers.hpp"

namespace {

class Loop {
public:
    class Timer {
    public:
        explicit Timer(Loop &loop) : loop_(loop.loop_)
        {
            ev_init(&timer_, fire);
            timer_.data = this;
        }

        Timer(const Timer &) = delete;
        Timer &operator=(const Timer &) = delete;

        void arm(int64_t ms, void (*function)(void *), void *arg)
        {
            function_ = function;
            arg_ = arg;
            ev_now_update(loop_); /* else the delay counts from the loop's last look */
            ev_timer_set(&timer_, static_cast<double>(ms) / 1000, 0.);
            ev_timer_start(loop_, &timer_);
        }

        void cancel() { ev_timer_stop(loop_, &timer_); }

    private:
        static void fire(struct ev_loop *, ev_timer *timer, int)
        {
            Timer &self = *static_cast<Timer *>(timer->data);
            self.function_(self.arg_);
        }

        struct ev_loop *loop_;
        ev_timer timer_;
        void (*function_)(void *) = nullptr;
        void *arg_ = nullptr;
    };

    void run() { ev_run(loop_, 0); }

    void stop() { ev_break(loop_, EVBREAK_ALL); }

private:
    struct ev_loop *loop_ = ev_loop_new(EVFLAG_AUTO);
};

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "ev",
                          {
                              {"timer-churn-0", bench::timer_churn<Loop>, 0, {1}},
                              {"timer-churn-10000", bench::timer_churn<Loop>, 10000, {1}},
                              {"timer-lateness-idle", bench::timer_lateness<Loop>, 0, {1}},
                          });
}
