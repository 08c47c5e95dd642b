/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks and periodic timers of a bus under stress. */
#include "qor_periodic.h"
#include "traffic_turn.hpp"

Traffic *Traffic::latest_;
thread_local bool Traffic::Turn::outside;
thread_local bool Traffic::Turn::inside;

void *Traffic::ran(void *arg)
{
    Task &task = *static_cast<Task *>(arg);
    const int32_t module = task.module.load(std::memory_order_relaxed);
    Turn turn(*latest_, module);
    must(add(task.runs) == 0, "a task runs once");
    add(sums.ran);
    if (dice(4) == 0) {
        latest_->ask_from(module == counted ? plain : module, later_topic);
    }
    return nullptr;
}

void Traffic::recycled(void *arg)
{
    Task &task = *static_cast<Task *>(arg);
    const int64_t times = task.kind.load(std::memory_order_relaxed) == Task::bus_timer ? 2 : 1;
    must(add(task.recycles) < times, "a task is recycled once, or twice if it is a bus's timer");
}

void Traffic::post(int module)
{
    const int64_t number = asking_.load(std::memory_order_relaxed) ? book_.tasks.open() : -1;
    if (number < 0) {
        return;
    }
    Task &task = book_.tasks[number];
    qor_context_task_t made = {};
    int32_t session = -1;
    qor_context_session(context(module), &session);
    task.module.store(module, std::memory_order_relaxed);
    task.session.store(session, std::memory_order_relaxed);
    qor_context_task_init(&made, context(module), "posted", session, ran, &task);
    made.recycle = recycled;
    made.async = is_strict(module) ? 0 : static_cast<int32_t>(dice(2));
    made.delay = static_cast<int32_t>(dice(4));
    if (module != counted && dice(16) == 0) {
        made.delay = 60000;
    }
    if (qor_context_handler_post(context(module), &made) >= 0) {
        add(task.taken);
        add(sums.tasks);
    }
}

void Traffic::post_to_bus()
{
    const int64_t number = book_.tasks.open();
    if (number < 0) {
        return;
    }
    Task &task = book_.tasks[number];
    task.module.store(plain, std::memory_order_relaxed);
    if (dice(2)) {
        task.kind.store(Task::of_bus, std::memory_order_relaxed);
        add(task.taken, qor_bus_run(bus_, ran, &task, recycled) == 0);
    } else {
        task.kind.store(Task::bus_timer, std::memory_order_relaxed);
        qor_context_task_t made = {};
        qor_context_task_init(&made, nullptr, nullptr, qor_bus_session(bus_), ran, &task);
        made.recycle = recycled;
        made.delay = static_cast<int32_t>(1 + dice(3));
        add(task.taken, qor_bus_timer_post(bus_, &made) == 0);
    }
    add(sums.tasks, value(task.taken));
}

/* One of the latest tasks, which may run meanwhile. */
void Traffic::cancel()
{
    const int64_t used = book_.tasks.used();
    const int64_t back = 1 + dice(10);
    if (used < back) {
        return;
    }
    Task &task = book_.tasks[used - back];
    const int32_t module = task.module.load(std::memory_order_relaxed);
    const int32_t session = task.session.load(std::memory_order_relaxed);
    if (module >= 0 && session >= 0 && qor_context_timer_cancel(context(module), session) == 0) {
        must(add(task.cancelled) == 0, "a task is cancelled once");
        add(sums.cancelled);
    }
}

void Traffic::beaten(qor_context_t *, int32_t, void *arg, uint32_t)
{
    Beat &beat = *static_cast<Beat *>(arg);
    Turn turn(*latest_, beat.module.load(std::memory_order_relaxed));
    must(beat.inside++ == 0, "a periodic timer never runs beside itself");
    must(value(beat.recycles) == 0, "a periodic timer that has ended does not run");
    beat.runs++;
    add(sums.beats);
    beat.inside--;
}

void Traffic::beat_over(void *arg)
{
    Beat &beat = *static_cast<Beat *>(arg);
    must(beat.inside == 0, "a periodic timer ends after its run");
    must(add(beat.recycles) == 0, "a periodic timer is recycled once");
    add(latest_->beating_, -1);
}

void Traffic::arm()
{
    const int64_t number = value(beating_) < beats_max ? book_.beats.open() : -1;
    if (number < 0) {
        return;
    }
    static const int owners[] = {plain, strict, promised};
    Beat &beat = book_.beats[number];
    const int module = owners[dice(3)];
    beat.module.store(module, std::memory_order_relaxed);
    add(beating_);
    const int32_t session = qor_context_every(context(module), beaten, &beat, beat_over,
                                              beat_unit * static_cast<int32_t>(1 + dice(4)));
    add(beat.taken, session >= 0);
    add(beating_, session >= 0 ? 0 : -1);
    beat.session.store(session, std::memory_order_relaxed);
}

void Traffic::cancel_beat()
{
    const int64_t used = book_.beats.used();
    if (used > 0) {
        Beat &beat = book_.beats[used > 4 ? used - 1 - dice(4) : dice(static_cast<uint32_t>(used))];
        const int32_t session = beat.session.load(std::memory_order_relaxed);
        if (session >= 0) {
            qor_context_timer_cancel(context(plain), session);
        }
    }
}

void Traffic::cancel_beats()
{
    for (int64_t i = 0; i < book_.beats.used(); i++) {
        qor_context_timer_cancel(context(plain), book_.beats[i].session);
    }
}
