/* SPDX-License-Identifier: Apache-2.0 */
/* Waits and timers where the monotonic clock stands at 1 s and at 30 years, as it does after so
 * much time since the start of the system, and while the system's clock is stepped by an hour. */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include "meddle.h"
#include "module.hpp"
#include "qor.h"
#include "qor_deferred.h"
#include "qor_periodic.h"
#include "qor_start.h"
#include "stress.hpp"
#include "time_namespace.hpp"

namespace {

constexpr int64_t years = 365 * 24 * 3600;
constexpr double patience = 10; /* s; an hour is more, and so is a wait that is measured wrongly */

/* The library counts whole milliseconds. */
void on_time(const char *what, Clock::time_point begin, int64_t ms)
{
    const double took = seconds_since(begin) * 1000;
    must(took > static_cast<double>(ms - 1) && took < static_cast<double>(ms) + 1000 * patience,
         "%s of %d ms takes that long, not %.3f ms", what, static_cast<int>(ms), took);
}

void wait_in_queues()
{
    Watchdog::at("a wait in a queue");
    qor_que_t *que = qor_que_create(0, nullptr);
    qor_que_node_t *node = qor_que_node_create(0, 0);
    Clock::time_point begin = Clock::now();
    must(!qor_que_deque_block(que, 30), "an empty queue hands nothing out");
    on_time("a wait for a node", begin, 30);
    begin = Clock::now();
    must(qor_que_enque_block(que, node, 20) < 0, "a full queue takes nothing");
    on_time("a wait for room", begin, 20);
    qor_que_node_destroy(node, nullptr);
    qor_que_destroy(que);

    qor_time_que_t *timed = qor_time_que_create(UINT32_MAX, nullptr);
    begin = Clock::now();
    qor_time_que_enque(timed, qor_time_que_node_create(1, 40, 0));
    qor_time_que_node_t *due = qor_time_que_deque_block(timed, 15);
    if (!due) { /* a thread that is late may find it due by then */
        on_time("a wait for what is not due", begin, 15);
        due = qor_time_que_deque_block(timed, -1);
    }
    must(due, "a node falls due");
    on_time("the time of a node", begin, 40);
    qor_time_que_node_destroy(due, nullptr);
    qor_time_que_destroy(timed);
}

struct Due {
    Clock::time_point armed;
    int32_t delay;
    Count over{0};
};

void *due_now(void *arg)
{
    Due &due = *static_cast<Due *>(arg);
    on_time("a timer", due.armed, due.delay);
    add(due.over);
    return nullptr;
}

void beat(qor_context_t *, int32_t, void *arg, uint32_t missed)
{
    Due &due = *static_cast<Due *>(arg);
    const int64_t points = add(due.over, 1 + missed) + 1 + missed;
    on_time("so many periods", due.armed, points * due.delay);
}

/* Several of each, until all have come to their end. */
void time_on_a_bus()
{
    static constexpr int32_t delays[] = {1, 20, 60};
    Due timers[3], open = {{}, 25, {0}}, beats = {{}, 5, {0}};
    Module server("server"), client("client");
    server.reg = [](qor_context_t *self) { qor_context_subscribe(self, 0, nullptr); };
    server.handle = [&open](qor_context_t *self, qor_context_msg_t *msg) {
        uint64_t token;
        must(msg->type != QOR_CONTEXT_MSG_REQUEST ||
                 qor_context_defer(self, msg, open.delay, &token) == 0,
             "a request is deferred");
        return 0;
    };
    client.handle = [&open](qor_context_t *, qor_context_msg_t *msg) {
        must(msg->ret == QOR_RET_EXPIRED, "a request that nobody completes expires");
        on_time("a deferred request", open.armed, open.delay);
        add(open.over);
        return 0;
    };
    qor_context_module_t *table[] = {&server.descriptor, &client.descriptor, nullptr};
    Watchdog::at("a bus");
    qor_bus_t *bus = qor_bus_create(table, 1);
    std::thread loop([bus] { must(qor_bus_loop(bus) == 0, "the loop ends well"); });
    must(qor_bus_wait_up(bus, 60000, nullptr) == 0, "all modules are up");
    open.armed = beats.armed = Clock::now();
    must(qor_context_req(client.context(), 0, nullptr, 0) >= 0, "a request is accepted");
    for (int i = 0; i < 3; i++) {
        timers[i].delay = delays[i];
        timers[i].armed = Clock::now();
        qor_context_timer(client.context(), due_now, &timers[i], delays[i]);
    }
    must(qor_context_every(client.context(), beat, &beats, nullptr, beats.delay) >= 0,
         "a periodic timer is armed");
    const Clock::time_point begin = Clock::now();
    if (qor_bus_drain(bus, 10) != 0) { /* there was the deferred request to wait for */
        on_time("a drain", begin, 10);
    }
    for (const Due *each : {&timers[0], &timers[1], &timers[2], &open, &beats}) {
        while (value(each->over) < (each == &beats ? 10 : 1)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    qor_bus_quit(bus);
    loop.join();
    qor_bus_close(bus);
}

void measure(bool steps)
{
    Watchdog::watch();
    std::atomic<bool> over{false};
    std::thread stepper([&over, steps] {
        while (steps && !over) {
            fault_wall_step(dice(2) ? 3600 : -3600);
            std::this_thread::sleep_for(std::chrono::milliseconds(dice(8)));
        }
    });
    for (int i = 0; i < 3; i++) {
        wait_in_queues();
        time_on_a_bus();
    }
    over = true;
    stepper.join();
    must(fault_wall_waits() == 0, "no wait is measured by the system's clock");
}

int64_t uptime()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

/* Children of the caller have a clock that stands at so many seconds. */
bool enter_namespace(int64_t at)
{
    if (unshare(CLONE_NEWTIME) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWTIME) != 0) {
        return false;
    }
    FILE *offsets = std::fopen("/proc/self/timens_offsets", "w");
    if (!offsets) {
        return false;
    }
    std::fprintf(offsets, "monotonic %lld 0\n", static_cast<long long>(at - uptime()));
    return std::fclose(offsets) == 0;
}

/* Runs measure() in a process that starts anew, where the clock stands at so many seconds. */
void measure_at(int64_t at, char **argv)
{
    const std::string seconds = std::to_string(at);
    const pid_t outer = fork();
    if (outer == 0) {
        const bool inside = enter_namespace(at);
        const pid_t inner = fork();
        if (inner == 0) {
            setenv(inside ? "QOR_CLOCK_IS_AT" : "QOR_CLOCK_TO", seconds.c_str(), 1);
            execv("/proc/self/exe", argv);
        }
        _exit(inner > 0 && time_namespace::exited(inner, 0) ? 0 : 1);
    }
    must(outer > 0 && time_namespace::exited(outer, 0), "all is well at %lld s",
         static_cast<long long>(at));
}

/* What a process that measure_at() has started is to do; false in any other. */
bool told()
{
    const char *is_at = std::getenv("QOR_CLOCK_IS_AT");
    const char *to = std::getenv("QOR_CLOCK_TO");
    if (is_at) {
        must(std::llabs(uptime() - std::atoll(is_at)) <= 60, "the clock is at %s s", is_at);
        std::printf("in a time namespace, the clock at %lld s\n", static_cast<long long>(uptime()));
    } else if (to) {
        fault_monotonic_move(std::atoll(to) - uptime());
        std::printf("no time namespace on this system: the library is told that it is at %s s\n",
                    to);
    }
    return is_at || to;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = options_of(argc, argv);
    be_quiet();
    dice_seed(options.seed);
    const bool inside = told();
    fault_delay(options.seed, options.percent);
    if (!inside) {
        std::fflush(stdout);
        measure_at(1, argv);
        measure_at(30 * years, argv);
    }
    measure(!inside);
    if (!inside) {
        std::printf("and while the system's clock is stepped by hours\n");
    }
    return 0;
}
