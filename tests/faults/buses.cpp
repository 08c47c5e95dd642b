/* SPDX-License-Identifier: Apache-2.0 */
/* Scenarios of a whole bus, from its creation to its end. */
#include "driver.hpp"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "qor_contract.h"
#include "qor_deferred.h"
#include "qor_inspect.h"
#include "qor_periodic.h"
#include "qor_trace.h"

namespace {

void as_it_is(qor_bus_t *) {}

/* A module that asks on topics 0 and 1, and one that answers them; how many went out and came
 * back. Every request that was accepted has a response, or the bus ends first. */
struct Pair {
    Module asker{"asker"}, answerer{"answerer"};
    std::atomic<int> asked{0}, answered{0};

    Pair()
    {
        answerer.reg = [](qor_context_t *self) {
            got(qor_context_subscribe(self, 0, nullptr) == 0);
            got(qor_context_subscribe(self, 1, nullptr) == 0);
        };
        answerer.unreg = [](qor_context_t *self) {
            qor_context_unsubscribe(self, 0);
            qor_context_unsubscribe(self, 1);
        };
        asker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            answered += msg->type == QOR_CONTEXT_MSG_RESPONSE;
            return 0;
        };
    }

    bool ask(int32_t topic = 0)
    {
        char text[] = "why";
        asked++; /* before the response can come */
        const bool good = got(qor_context_req_ret(asker.context(), topic, text, 4, 16) >= 0);
        asked -= !good;
        return good;
    }

    void balances() { must(asked == answered, "each request that was accepted is answered once"); }
};

/* Six modules in two phases, with consoles of several priorities and stacks. */
void bring_up()
{
    static const char *const names[] = {"one", "two", "three", "four", "five", "six"};
    std::vector<std::unique_ptr<Module>> modules;
    std::vector<Module *> table;
    std::atomic<int> inits{0}, uninits{0};
    for (int i = 0; i < 6; i++) {
        modules.push_back(std::make_unique<Module>(names[i], i < 3));
        Module &module = *modules.back();
        module.descriptor.priority = i;
        module.descriptor.stack_size = i == 5 ? 1000 : 65536;
        module.descriptor.console = [](qor_context_t *) { return 0; };
        module.reg = [](qor_context_t *self) { got(qor_context_subscribe(self, 2, nullptr) == 0); };
        module.unreg = [](qor_context_t *self) { qor_context_unsubscribe(self, 2); };
        module.init = [&inits](qor_context_t *) { return inits++ & 0; };
        module.uninit = [&uninits](qor_context_t *) { uninits++; };
        table.push_back(&module);
    }
    {
        Bus bus(table, [](qor_bus_t *made) {
            qor_bus_priority_set(made, 1);
            qor_bus_thread_stack_size_set(made, 4096);
        });
        if (bus.up()) {
            qor_start_entry_t entries[6];
            qor_start_report_t report = {entries, 6, 0};
            got(qor_bus_wait_up(bus.get(), 0, &report) == 0);
            for (const qor_start_entry_t &entry : entries) {
                got(entry.state == QOR_START_UP); /* or without its console */
            }
            must(inits == 6, "each module is initialised");
        }
        bus.settle();
    }
    must(uninits >= inits, "each module that was initialised is taken down");
}

/* Requests of several sizes to a module that others watch. */
void requests()
{
    Pair pair;
    Module listener("listener"), filter("filter");
    std::atomic<int> seen{0};
    listener.reg = [](qor_context_t *self) { got(qor_context_listen(self, 0, nullptr) == 0); };
    listener.unreg = [](qor_context_t *self) { qor_context_unlisten(self, 0); };
    filter.reg = [](qor_context_t *self) { got(qor_context_filter(self, 0, nullptr) == 0); };
    filter.unreg = [](qor_context_t *self) { qor_context_unfilter(self, 0); };
    filter.handle = [&seen](qor_context_t *, qor_context_msg_t *) { return seen++ & 0; };
    {
        Bus bus({&pair.asker, &pair.answerer, &listener, &filter}, as_it_is);
        if (bus.up()) {
            for (int i = 0; i < 60; i++) { /* past the places of a queue */
                pair.ask(i % 2);
            }
            got(qor_context_req(pair.asker.context(), 1, nullptr, 0) >= 0);
            bus.settle();
            /* One without a response part is answered as well. */
            must(pair.answered == pair.asked + 1 || pair.answered == pair.asked,
                 "each request that was accepted is answered once");
        }
    }
}

/* Synchronous requests, handled on the thread that asks. */
void calls()
{
    Pair pair;
    Module watcher("watcher");
    std::atomic<int> handled{0};
    pair.answerer.handle = [&handled](qor_context_t *, qor_context_msg_t *) {
        return handled++ & 0;
    };
    watcher.reg = [](qor_context_t *self) {
        got(qor_context_listen(self, 0, nullptr) == 0);
        got(qor_context_filter(self, 0, nullptr) == 0);
    };
    watcher.unreg = [](qor_context_t *self) {
        qor_context_unlisten(self, 0);
        qor_context_unfilter(self, 0);
    };
    Bus bus({&pair.asker, &pair.answerer, &watcher}, as_it_is);
    if (bus.up()) {
        char text[] = "why", room[8];
        int accepted = 0;
        for (int i = 0; i < 3; i++) {
            accepted += got(qor_context_x_req_ret(pair.asker.context(), 0, text, 4, room, 8) >= 0);
            accepted += got(qor_context_x_req(pair.asker.context(), 0, text, 4) >= 0);
        }
        must(handled == accepted, "a call that succeeds has been handled");
        bus.settle();
    }
}

/* An init that asks a module whose own init waits behind it for the only worker. */
void starts()
{
    Pair pair;
    std::atomic<int> handled{0}, accepted{0};
    pair.answerer.handle = [&handled](qor_context_t *, qor_context_msg_t *) {
        return handled++ & 0;
    };
    for (Module *module : {&pair.asker, &pair.answerer}) {
        module->init = [&accepted, module, &pair](qor_context_t *self) {
            if (module == &pair.asker) {
                accepted += got(qor_context_x_req(self, 0, nullptr, 0) >= 0);
            }
            return 0;
        };
    }
    Bus bus({&pair.answerer, &pair.asker}, [](qor_bus_t *made) {
        qor_bus_thread_num_set(made, 1);
        qor_bus_priority_set(made, 1);
    });
    if (bus.up()) {
        must(handled == accepted, "a call that succeeds has been handled");
        bus.settle();
    }
}

/* Timers of each kind, tasks beside them, and what is cancelled of them. */
void timers()
{
    Pair pair;
    Ledger tasks, beats;
    std::atomic<int> ran{0};
    const qor_context_run_t count = [](void *arg) -> void * {
        (*static_cast<std::atomic<int> *>(arg))++;
        return nullptr;
    };
    {
        Bus bus({&pair.asker, &pair.answerer}, as_it_is);
        if (bus.up()) {
            qor_context_t *self = pair.asker.context();
            int due = 0;
            for (int i = 0; i < 40; i++) {
                due += got(qor_context_timer(self, count, &ran, i % 3) >= 0);
                due += got(qor_context_x_timer(self, count, &ran, i % 3) >= 0);
                due += got(qor_context_run(self, count, &ran) >= 0);
                due += got(qor_context_x_run(self, count, &ran) >= 0);
            }
            reached([&] { return ran >= due; }, "what was accepted runs");
            bus.settle(); /* what finds a full queue is a timer of the bus, which nobody cancels */
            const int32_t late = qor_context_timer(self, count, &ran, 60000);
            must(!got(late >= 0) || qor_context_timer_cancel(self, late) == 0, "it is cancelled");
            got(qor_context_x_timer(self, count, &ran, 60000) >= 0);
            const int32_t often = qor_context_every(
                self,
                [](qor_context_t *, int32_t, void *arg, uint32_t) {
                    static_cast<Ledger *>(arg)->ran++;
                },
                &beats, Ledger::release, 2);
            if (beats.entered(often)) {
                reached([&beats] { return beats.ran > 2; }, "a periodic timer runs");
                must(qor_context_timer_cancel(self, often) == 0, "a periodic timer is cancelled");
            }
            beats.entered(qor_context_every(
                self, [](qor_context_t *, int32_t, void *, uint32_t) {}, &beats, Ledger::release,
                60000));
            qor_context_task_t task;
            qor_context_task_init(&task, self, "due", qor_bus_session(bus.get()), Ledger::run,
                                  &tasks);
            qor_context_task_set_recycle(&task, [](void *) {});
            qor_context_task_set_delay(&task, 1);
            got(qor_bus_timer_post(bus.get(), &task) == 0);
            tasks.entered(qor_bus_run(bus.get(), Ledger::run, &tasks, Ledger::release));
            tasks.entered(qor_bus_runx(bus.get(), self, Ledger::runx, &tasks, Ledger::release));
            bus.settle();
            must(ran == due, "what was cancelled does not");
        }
    }
    tasks.balances("each task is released");
    beats.balances("each periodic timer is released");
}

/* More requests than there is room for, with a contract that says what becomes of them. */
void overflow(int32_t policy)
{
    Pair pair;
    Module listener("listener");
    std::atomic<int> told{0};
    qor_contract_t contract;
    bool promised = false;
    qor_contract_init(&contract);
    contract.strict = policy != QOR_OVERFLOW_BYPASS;
    contract.overflow = policy;
    contract.depth = 2;
    contract.replies = 30;
    contract.wait_time = policy == QOR_OVERFLOW_BLOCK ? 20 : 0;
    contract.lost = [](void *arg, const qor_loss_t *) {
        (*static_cast<std::atomic<int> *>(arg))++;
    };
    contract.arg = &told;
    listener.reg = [](qor_context_t *self) { got(qor_context_listen(self, 0, nullptr) == 0); };
    listener.unreg = [](qor_context_t *self) { qor_context_unlisten(self, 0); };
    std::atomic<int> shut{1};
    pair.answerer.handle = [&shut](qor_context_t *, qor_context_msg_t *) {
        while (shut) {
            std::this_thread::yield();
        }
        return 0;
    };
    Bus bus({&pair.asker, &pair.answerer, &listener}, [&](qor_bus_t *made) {
        qor_bus_thread_num_set(made, 6);
        promised = got(qor_bus_contract_set(made, "answerer", &contract) == 0);
        promised = got(qor_bus_contract_set(made, "listener", &contract) == 0) && promised;
    });
    if (!bus.up()) {
        shut = 0;
        return;
    }
    for (int i = 0; i < 6; i++) { /* a full queue refuses, and a line says so */
        char text[] = "why";
        pair.asked++;
        if (qor_context_req_ret(pair.asker.context(), i % 2, text, 4, 16) < 0) {
            pair.asked--;
        }
    }
    shut = 0;
    bus.settle();
    pair.balances();
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    if (promised) {
        must(qor_bus_ledger(bus.get(), "answerer", &ledger) == 0, "there is a ledger");
        must(ledger.accepted == ledger.run + ledger.dropped_oldest + ledger.dropped_newest +
                                    ledger.dropped_transfer + ledger.cancelled + ledger.discarded +
                                    ledger.transferred &&
                 ledger.running == 0 && ledger.waiting == 0,
             "the ledger of the library balances");
    }
}

void overflow_bypass()
{
    overflow(QOR_OVERFLOW_BYPASS);
}
void overflow_refuse()
{
    overflow(QOR_OVERFLOW_REFUSE);
}
void overflow_oldest()
{
    overflow(QOR_OVERFLOW_DROP_OLDEST);
}
void overflow_newest()
{
    overflow(QOR_OVERFLOW_DROP_NEWEST);
}
void overflow_block()
{
    overflow(QOR_OVERFLOW_BLOCK);
}

/* Responses that follow later: some are given, one expires, some are left to the end. */
void deferred()
{
    Pair pair;
    std::atomic<uint64_t> tokens[40] = {};
    std::atomic<int> kept{0};
    pair.answerer.handle = [&](qor_context_t *self, qor_context_msg_t *msg) {
        uint64_t token = 0;
        if (got(qor_context_defer(self, msg, msg->topic ? 5 : patience, &token) == 0) &&
            !msg->topic) {
            tokens[kept++] = token;
        }
        return 0;
    };
    Bus bus({&pair.asker, &pair.answerer}, as_it_is);
    if (bus.up()) {
        int on_first = 0;
        for (int i = 0; i < 20; i++) {
            on_first += pair.ask(0);
        }
        pair.ask(1);
        reached([&] { return kept + pair.answered >= on_first; }, "each is deferred or answered");
        for (std::atomic<uint64_t> &token : tokens) {
            must(!token || qor_deferred_complete(token, 0, "yes", 4) == 0, "each is completed");
        }
        bus.settle();
        pair.balances();
        kept = 0;
        pair.ask(0);
    }
}

/* Two threads post while the bus is drained, and go on until it quits. */
void quit_under_load()
{
    Pair pair;
    Ledger ledger;
    std::atomic<int> over{0};
    {
        Bus bus({&pair.asker, &pair.answerer}, as_it_is);
        if (bus.up()) {
            const auto post = [&](int i) {
                qor_context_t *self = pair.asker.context();
                int left = 20;
                while (left-- > 0 && !over) {
                    char text[] = "why";
                    got(qor_context_req_ret(self, i, text, 4, 16) >= 0);
                    ledger.entered(qor_bus_run(bus.get(), Ledger::run, &ledger, Ledger::release));
                    got(qor_context_timer(self, Ledger::run, &ledger, left % 3) >= 0);
                }
            };
            std::thread first(post, 0), second(post, 1);
            qor_bus_drain(bus.get(), 2);
            first.join();
            second.join();
        }
    }
    ledger.balances("each task is released");
}

uint32_t workers_of(qor_bus_t *bus)
{
    uint32_t workers = 0;
    const auto see = [](void *arg, int32_t kind, const void *record) -> int32_t {
        if (kind == QOR_INFO_BUS) {
            *static_cast<uint32_t *>(arg) = static_cast<const qor_info_bus_t *>(record)->workers;
        }
        return 0;
    };
    must(qor_bus_inspect(bus, see, &workers) == 0, "a bus can be inspected");
    return workers;
}

/* Tasks that end their threads, while one is left should they not be replaced: a bus without
 * workers keeps its tasks until it ends. */
void threads_end()
{
    Pair pair;
    Ledger ledger;
    Bus bus({&pair.asker, &pair.answerer}, [](qor_bus_t *made) {
        qor_bus_thread_num_set(made, 3);
        qor_bus_priority_set(made, 1);
    });
    if (bus.up() && workers_of(bus.get()) == 3) {
        got(qor_context_run(
                pair.asker.context(), [](void *) -> void * { pthread_exit(nullptr); }, nullptr) >=
            0);
        ledger.entered(qor_bus_run(
            bus.get(), [](void *) -> void * { pthread_exit(nullptr); }, &ledger, Ledger::release));
        reached([&] { return ledger.released == ledger.taken; }, "each is released");
        bus.settle();
        pair.ask(0);
        bus.settle();
        pair.balances();
    }
}

/* All that a bus does recorded, inspected, and its lines sent elsewhere. */
void recorder()
{
    Pair pair;
    const size_t size = qor_trace_size(3, 8, 64);
    void *memory = std::aligned_alloc(64, (size + 63) / 64 * 64);
    std::vector<char> copy(size);
    qor_trace_config_t config = {};
    config.size = sizeof(config);
    config.memory = memory;
    config.memory_size = size;
    config.lanes = 3;
    config.names = 8;
    config.mask = QOR_TRACE_ALL;
    bool recording = false;
    {
        Bus bus({&pair.asker, &pair.answerer},
                [&](qor_bus_t *made) { recording = got(qor_trace_start(made, &config) == 0); });
        if (bus.up()) {
            for (int i = 0; i < 5; i++) {
                pair.ask(i % 2);
                qor_trace_mark(1, i);
            }
            if (recording) {
                must(qor_trace_snapshot(copy.data(), size) == static_cast<int64_t>(size),
                     "a recording is copied");
            }
            const auto see = [](void *, int32_t, const void *) -> int32_t { return 0; };
            must(qor_bus_inspect(bus.get(), see, nullptr) == 0, "a recorded bus can be inspected");
            got(qor_bus_dump(
                    bus.get(), [](void *, const char *) {}, nullptr) == 0);
            bus.settle();
            pair.balances();
        }
    }
    std::free(memory);
}

/* Lines go through a function of the application's. */
void sink()
{
    static const qor_output_t same = {
        [](void *, int32_t, const char *format, va_list values) { std::vprintf(format, values); },
        nullptr};
    Pair pair;
    qor_output_set(&same);
    {
        Bus bus({&pair.asker, &pair.answerer}, as_it_is);
        if (bus.up()) {
            pair.ask(0);
            bus.settle();
            pair.balances();
        }
    }
    qor_output_set(nullptr);
}

/* The first init fails, and the second phase never begins. */
void init_fails()
{
    Pair pair;
    Module second("second", 0), failing("failing");
    failing.reg = [](qor_context_t *self) { got(qor_context_subscribe(self, 2, nullptr) == 0); };
    failing.unreg = [](qor_context_t *self) { qor_context_unsubscribe(self, 2); };
    failing.init = [](qor_context_t *self) {
        qor_context_timer(
            self, [](void *arg) { return arg; }, nullptr, 60000);
        return -1;
    };
    int32_t state = -1;
    std::vector<Module *> modules = {&pair.asker, &failing, &pair.answerer, &second};
    std::vector<qor_context_module_t *> table = table_of(modules);
    qor_bus_t *bus = qor_bus_create(table.data(), 4);
    if (!got(bus)) {
        return;
    }
    std::atomic<int> result{1};
    std::thread loop([&] { result = qor_bus_loop(bus); });
    reached([&] { return result != 1 || (state = qor_bus_wait_up(bus, 20, nullptr)) != -1; },
            "some modules never will be up");
    must(result != 1 || state == 1, "some modules never will be up");
    qor_bus_quit(bus);
    loop.join();
    got(result == 0);
    qor_bus_close(bus);
}

} // namespace

const std::vector<Scenario> bus_scenarios = {
    {"bring_up", bring_up},
    {"requests", requests},
    {"calls", calls},
    {"starts", starts},
    {"timers", timers},
    {"overflow_bypass", overflow_bypass},
    {"overflow_refuse", overflow_refuse},
    {"overflow_oldest", overflow_oldest},
    {"overflow_newest", overflow_newest},
    {"overflow_block", overflow_block},
    {"deferred", deferred},
    {"quit_under_load", quit_under_load},
    {"threads_end", threads_end},
    {"recorder", recorder},
    {"sink", sink},
    {"init_fails", init_fails},
};
