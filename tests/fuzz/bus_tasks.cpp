/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks and timers of modules and of the bus, periodic ones, and what is taken back. */
#include "bus_party.hpp"

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_periodic.h"

#include <algorithm>

namespace {

void *task_run(qor_context_t *context, int32_t session, void *arg)
{
    Party &p = *party;
    Item *item = static_cast<Item *>(arg);
    EXPECT(context && session == item->session);
    if (item->what == What::task) {
        expect_turn(p, *item, item->module);
    }
    EXPECT(item->state == State::waits && p.there.now >= item->when);
    item->state = State::runs;
    act_inside(p);
    item->state = State::over;
    return nullptr;
}

void task_recycle(void *arg)
{
    Item *item = static_cast<Item *>(arg);
    item->recycled++;
    EXPECT(item->recycled <= item->expected);
}

/* Whether so many are in a module's queue, or may come back to it, that some may go past it. */
bool is_crowded(const Party &p, uint32_t module)
{
    return std::count_if(p.items.begin(), p.items.end(), [module](const auto &item) {
               const bool waits = item->state == State::waits && item->taker == module;
               const bool comes = item->what == What::request && item->module == module &&
                                  item->state != State::refused && !item->answered;
               return waits || comes;
           }) >= crowd / 2;
}

void periodic_recycle(void *arg)
{
    Periodic &timer = *static_cast<Periodic *>(arg);
    timer.recycled++;
    EXPECT(timer.recycled == 1 && !timer.running);
}

} // namespace

void expect_turn(Party &p, const Item &item, uint32_t module)
{
    EXPECT(item.state == State::waits && p.there.now >= item.when);
    for (const auto &other : p.items) {
        const bool waits =
            other->state == State::waits && other->what != What::bus_task && other->taker == module;
        EXPECT(!waits || p.crowded[module] || p.strict || other->when >= item.when);
    }
}

void enter(Party &p, Item &item, uint32_t module, int64_t when)
{
    item.state = State::waits;
    item.taker = module;
    item.when = when;
    for (uint32_t n = 0; n < modules; n++) {
        p.crowded[n] = p.crowded[n] || is_crowded(p, n);
    }
}

void post_task(Party &p, bool later)
{
    const uint32_t module = p.bytes.below(modules);
    Item *item = item_make(p, What::task, module);
    qor_context_task_t task = {};
    EXPECT(qor_context_taskx_init(&task, p.contexts[module], nullptr, item->session, task_run,
                                  item) == 0);
    task.recycle = task_recycle;
    task.delay = later ? 1 + static_cast<int32_t>(p.bytes.below(40)) : 0;
    const bool memory = p.bytes.below(16) != 0;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(p.bytes.below(later ? 3 : 1));
    const bool posted = memory && !p.quit;
    if (posted) {
        item->expected = 1;
        enter(p, *item, module, p.there.now + task.delay);
    }
    EXPECT(qor_context_handler_post(p.contexts[module], &task) == (posted ? 0 : -1));
    p.there.memory_fails_in = -1;
}

void post_bus_task(Party &p, bool later)
{
    const uint32_t module = p.bytes.below(modules);
    Item *item = item_make(p, What::bus_task, module);
    qor_context_task_t task = {};
    EXPECT(qor_context_taskx_init(&task, p.contexts[module], "bus", item->session, task_run,
                                  item) == 0);
    task.recycle = task_recycle;
    task.delay = later ? 1 + static_cast<int32_t>(p.bytes.below(40)) : 0;
    item->timed = later;
    item->taker = modules;
    item->when = p.there.now + task.delay;
    const bool memory = p.bytes.below(16) != 0;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(p.bytes.below(later ? 2 : 1));
    const bool posted = memory && !p.quit;
    const int32_t ret = p.bytes.below(2) ? qor_context_handler_post(wrapper(p, module), &task)
                        : later          ? qor_bus_timer_post(p.bus, &task)
                                         : qor_bus_post(p.bus, &task);
    EXPECT(ret == (posted ? 0 : -1));
    p.there.memory_fails_in = -1;
    if (posted) {
        item->state = State::waits;
        item->expected = 1;
        if (!later) {
            p.queued.push_back({item->session, item, 0, false});
        }
    }
}

void timers_served(Party &p)
{
    for (const auto &item : p.items) {
        if (item->timed && item->state == State::waits && p.there.now >= item->when) {
            item->timed = false;
            item->expected = 2;
        }
    }
}

void cancel(Party &p)
{
    if (p.items.empty()) {
        return;
    }
    Item *item = p.items[p.bytes.below(static_cast<uint32_t>(p.items.size()))].get();
    const bool own = item->what == What::task;
    if (item->state != State::waits || (!own && item->what != What::bus_task) ||
        (own && p.crowded[item->module])) { /* it may be past the queue */
        return;
    }
    const auto at = std::find_if(p.queued.begin(), p.queued.end(),
                                 [item](const Queued &entry) { return entry.item == item; });
    const bool there = own || (at != p.queued.end() && !p.quit);
    if (item->what == What::bus_task && item->when > 0 && at == p.queued.end()) {
        return; /* a timer's */
    }
    if (there) {
        item->state = State::over;
        if (!own) {
            p.queued.erase(at);
        }
    }
    const int32_t ret = own ? qor_context_timer_cancel(p.contexts[item->module], item->session)
                        : p.bytes.below(2)
                            ? qor_context_handler_cancel(wrapper(p, item->module), item->session)
                            : qor_bus_cancel(p.bus, item->session);
    EXPECT((ret == 0) == there || p.quit);
    item->state = ret == 0 ? State::over : State::waits;
    EXPECT(ret < 0 || item->recycled == 1);
}

void periodic_run(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    Party &p = *party;
    Periodic &timer = *static_cast<Periodic *>(arg);
    EXPECT(self == p.contexts[timer.module] && session == timer.session);
    EXPECT(timer.armed && !timer.running && timer.recycled == 0);
    const int64_t points = (p.there.now - timer.since) / timer.period;
    EXPECT(p.there.now >= timer.due && missed == points - timer.points - 1);
    timer.points = points;
    timer.running = true;
    act_inside(p);
    timer.running = false;
    const int64_t over = p.there.now - timer.since;
    timer.due = timer.since +
                std::max(timer.points + 1, (over + timer.period - 1) / timer.period) * timer.period;
}

void periodic_arm(Party &p)
{
    if (p.timers.size() >= 6) {
        return;
    }
    p.timers.push_back(std::make_unique<Periodic>());
    Periodic &timer = *p.timers.back();
    timer.module = p.bytes.below(modules);
    timer.since = p.there.now;
    timer.period = 1 + p.bytes.below(30);
    timer.due = timer.since + timer.period;
    const uint32_t fails = p.bytes.below(16);
    const bool memory = fails > 1;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(fails);
    timer.session = qor_context_every(p.contexts[timer.module], periodic_run, &timer,
                                      periodic_recycle, static_cast<int32_t>(timer.period));
    p.there.memory_fails_in = -1;
    timer.armed = timer.session >= 0;
    EXPECT(timer.armed == (memory && !p.quit));
    if (!timer.armed) {
        EXPECT(timer.recycled == 0);
        p.timers.pop_back();
    }
}

void periodic_cancel(Party &p)
{
    if (p.timers.empty()) {
        return;
    }
    Periodic &timer = *p.timers[p.bytes.below(static_cast<uint32_t>(p.timers.size()))];
    if (!timer.armed) {
        return;
    }
    EXPECT((p.bytes.below(2) ? qor_bus_cancel(p.bus, timer.session)
                             : qor_context_timer_cancel(p.contexts[p.bytes.below(modules)],
                                                        timer.session)) == 0);
    timer.armed = false;
    /* One that waits in a strict module's queue goes when its turn comes. */
    EXPECT(timer.recycled == !timer.running || (p.strict && timer.module == strict_one));
}
