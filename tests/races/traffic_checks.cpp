/* SPDX-License-Identifier: Apache-2.0 */
/* What the book of a bus under stress must show. */
#include "meddle.h"
#include "qor_contract.h"
#include "traffic.hpp"

namespace {

uint64_t accounted(const qor_ledger_t &l)
{
    return l.run + l.running + l.waiting + l.delayed + l.dropped_oldest + l.dropped_newest +
           l.dropped_transfer + l.cancelled + l.discarded + l.transferred;
}

int as_int(const Count &count)
{
    return static_cast<int>(value(count));
}

} // namespace

qor_ledger_t Traffic::ledger(int module)
{
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    must(qor_bus_ledger(bus_, all_[module]->descriptor.name, &ledger) == 0, "there is a ledger");
    return ledger;
}

/* Whatever the moment, each ledger adds up. */
void Traffic::look()
{
    for (int module : {promised, strict, counted}) {
        const qor_ledger_t l = ledger(module);
        must(l.accepted == accounted(l), "the ledger of %s adds up", all_[module]->descriptor.name);
        must(!is_strict(module) || l.running <= 1, "a strict module runs one task at a time");
        must(module != counted || l.highest <= depth_, "no more wait than there is room for");
    }
}

/* Filters are shown each request once before it is handled and once after, and so are listeners,
 * for whom it is copied if there is memory. What is dropped may be so before anybody saw it. */
void Traffic::check_shown(int number, const Request &r)
{
    const bool copied = fault_starved() == starved_;
    const bool whole = value(r.before) == 1 && (!copied || value(r.heard_before) == 1);
    const bool nothing = value(r.dropped) == 1 && value(r.before) == 0;
    must((whole || nothing) && value(r.before) == value(r.after) && value(r.heard_before) <= 1 &&
             value(r.heard_after) <= 1 &&
             (!copied || value(r.heard_before) == value(r.heard_after)),
         "request %d on topic %d is shown before and after: %d and %d, %d and %d; handled %d, "
         "deferred %d, completed %d, expired %d, dropped %d",
         number, r.topic.load(), as_int(r.before), as_int(r.after), as_int(r.heard_before),
         as_int(r.heard_after), as_int(r.handled), as_int(r.deferred), as_int(r.completed),
         as_int(r.expired), as_int(r.dropped));
}

/* Each request that was accepted is answered once; on a bus that has quit, at most once. */
void Traffic::check_requests(bool settled)
{
    for (int64_t i = 0; i < book_.requests.used(); i++) {
        const Request &r = book_.requests[i];
        const int number = static_cast<int>(i), topic = r.topic;
        const int64_t accepted = value(r.accepted);
        if (r.synchronous) {
            must(value(r.handled) >= accepted && value(r.responses) == 0, "call %d is handled",
                 number);
        } else {
            must(value(r.responses) <= accepted && (!settled || value(r.responses) == accepted),
                 "request %d on topic %d, of which %d are accepted, has %d responses: handled %d, "
                 "deferred %d, completed %d, expired %d, dropped %d",
                 number, topic, static_cast<int>(accepted), as_int(r.responses), as_int(r.handled),
                 as_int(r.deferred), as_int(r.completed), as_int(r.expired), as_int(r.dropped));
        }
        must(value(r.completed) + value(r.expired) <= value(r.deferred),
             "deferred request %d ends once", number);
        if (settled && accepted > 0) {
            must(value(r.handled) + value(r.dropped) == 1, "request %d is handled or dropped",
                 number);
            check_shown(number, r);
        }
    }
}

/* The module whose ledger has nothing in it but what is booked here. */
void Traffic::check_ledger()
{
    uint64_t accepted = 0, ended = 0, cancelled = 0;
    for (int64_t i = 0; i < book_.requests.used(); i++) {
        const Request &r = book_.requests[i];
        const bool mine = r.topic == counted_topic;
        accepted += mine ? static_cast<uint64_t>(value(r.accepted)) : 0;
        ended += mine ? static_cast<uint64_t>(value(r.handled)) : 0;
    }
    for (int64_t i = 0; i < book_.tasks.used(); i++) {
        const Task &t = book_.tasks[i];
        const bool mine = t.module == counted;
        accepted += mine ? static_cast<uint64_t>(value(t.taken)) : 0;
        ended += mine ? static_cast<uint64_t>(value(t.runs)) : 0;
        cancelled += mine ? static_cast<uint64_t>(value(t.cancelled)) : 0;
    }
    const qor_ledger_t l = ledger(counted);
    must(l.accepted == accepted && l.run == ended && l.cancelled == cancelled && l.running == 0 &&
             l.waiting == 0 && l.open == 0,
         "the ledger is right: accepted %d, not %d; run %d, not %d; cancelled %d, not %d; running "
         "%d, waiting %d, open %d",
         static_cast<int>(l.accepted), static_cast<int>(accepted), static_cast<int>(l.run),
         static_cast<int>(ended), static_cast<int>(l.cancelled), static_cast<int>(cancelled),
         static_cast<int>(l.running), static_cast<int>(l.waiting), static_cast<int>(l.open));
}

/* On a bus that is gone. */
void Traffic::check_tasks()
{
    for (int64_t i = 0; i < book_.tasks.used(); i++) {
        const Task &t = book_.tasks[i];
        const int number = static_cast<int>(i);
        const bool twice = t.kind == Task::bus_timer && value(t.taken) > 0;
        must(value(t.runs) <= value(t.taken) && value(t.runs) + value(t.cancelled) <= 1,
             "task %d, taken %d, runs or is cancelled: %d, %d", number, as_int(t.taken),
             as_int(t.runs), as_int(t.cancelled));
        must(twice ? value(t.recycles) == 2 || (value(t.recycles) == 1 && value(t.runs) == 0)
                   : value(t.recycles) == value(t.taken),
             "task %d of kind %d, taken %d, ran %d, is recycled, not %d times", number,
             static_cast<int>(t.kind.load()), as_int(t.taken), as_int(t.runs), as_int(t.recycles));
    }
    for (int64_t i = 0; i < book_.beats.used(); i++) {
        const Beat &b = book_.beats[i];
        must(value(b.recycles) == value(b.taken), "periodic timer %d is recycled",
             static_cast<int>(i));
    }
}
