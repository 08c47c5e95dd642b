/* SPDX-License-Identifier: Apache-2.0 */
/* What the server and the helper are given, with what the model says it comes to. */
#include "strict_party.hpp"

#include "contract.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_core_context_priv.hpp"

#include <string>

namespace {

/* Posts, and has the model do so too: the result. A post that waits is ended by what it finds. */
template <typename T> int32_t post(Party &p, Item &item, int32_t delay, T call)
{
    catch_up(p);
    item.delayed = delay > 0;
    Fate fate = fate_of(p, item);
    const Actor who = actor();
    if (fate == Fate::wait && (who.serves || (who.works && p.stuck + 1 >= workers))) {
        fate = Fate::refuse;
    }
    if (fate != Fate::wait) {
        const int32_t expected = end_post(p, item, fate, delay);
        EXPECT(call() == expected);
        return expected;
    }
    const int64_t deadline = p.there.now + p.terms.wait_time;
    p.blocked.push_back(deadline);
    p.stuck += who.works;
    const int32_t posted = call();
    p.stuck -= who.works;
    const bool served = may_go_on(p) && !p.quit;
    EXPECT(served || p.quit || p.there.now >= deadline);
    p.blocked.pop_back();
    const int32_t expected = end_post(p, item, served ? Fate::accept : Fate::refuse, delay);
    EXPECT(posted == expected);
    return expected;
}

std::string full_line(const Item &item, const char *task)
{
    return World::err("qor_core_context", "qor_core_context_handle_task",
                      (std::string("queue full, module:server, task:") + task +
                       ", session=" + std::to_string(item.session))
                          .c_str());
}

contract *contract_of(const Party &p)
{
    return contract_find(p.bus, p.bus->modules[0]);
}

/* Whether a task that is due has to have a run made, and is refused without. */
bool needs_run(const Party &p, const Item &item)
{
    const Fate fate = fate_of(p, item);
    const qor_core_context_t *core = contract_of(p)->core;
    const bool slot = static_cast<uint32_t>(core->refcount) < core->refcount_max;
    const bool takes =
        fate == Fate::bypass || ((fate == Fate::accept || fate == Fate::evict) && slot);
    return !p.strict && takes && !core->priv->loop;
}

/* Posts without memory for the task, its timer or its run. */
void post_without(Party &p, Item *item, qor_context_task_t *task, uint32_t fails)
{
    p.there.memory_fails_in = static_cast<int>(fails);
    EXPECT(qor_context_handler_post(server_context, task) == -1);
    p.there.memory_fails_in = -1;
    p.ledger.refused++;
    item->where = Where::over;
}

} // namespace

bool may_go_on(const Party &p)
{
    return p.blocked.size() == 1 && p.counted < p.terms.depth;
}

void post_task(Party &p, bool later)
{
    Item *item = item_make(p, Kind::task);
    qor_context_task_t task = {};
    EXPECT(qor_context_taskx_init(&task, server_context, "fuzzed", item->session, task_run, item) ==
           0);
    task.recycle = task_recycle;
    task.delay = later ? 1 + static_cast<int32_t>(p.bytes.below(40)) : 0;
    const uint32_t fails = p.bytes.below(24);
    catch_up(p);
    if (fails < (later ? 3U : 1U) || (!later && fails == 1 && needs_run(p, *item))) {
        post_without(p, item, &task, fails);
        return;
    }
    p.there.printed.clear();
    const int32_t posted =
        post(p, *item, task.delay, [&] { return qor_context_handler_post(server_context, &task); });
    if (posted < 0 && !p.quit) {
        EXPECT(p.there.printed.find(full_line(*item, "fuzzed")) != std::string::npos);
    }
}

void lose_more(Party &p)
{
    if (p.bytes.below(4) == 0 && p.items.size() < items_most &&
        p.terms.overflow != QOR_OVERFLOW_BLOCK) {
        p.losing = true;
        post_task(p, false);
        p.losing = false;
    }
}

void ask_server(Party &p)
{
    if (p.quit || !p.up) {
        return;
    }
    Item *item = item_make(p, Kind::request);
    const auto call = [&] {
        return qor_context_req_s(client_context, item->session, TO_SERVER, &item->id,
                                 sizeof(item->id));
    };
    if (p.client_open >= p.client_replies) {
        p.there.printed.clear();
        EXPECT(call() == -1);
        EXPECT(p.there.printed.find("replies: all places are taken") != std::string::npos);
        return;
    }
    const uint32_t fails = p.bytes.below(24);
    if (fails < 2) {
        p.there.memory_fails_in = static_cast<int>(fails);
        EXPECT(call() == -1);
        p.there.memory_fails_in = -1;
        p.ledger.refused += fails == 1 && !p.helper_serves;
        return;
    }
    p.client_open++; /* before: it may be answered while its poster waits */
    if (p.helper_serves) {
        EXPECT(call() == item->session);
        item->where = Where::helper;
        p.at_helper.push_back(item);
        return;
    }
    const auto posted = [&] {
        const int32_t session = call();
        EXPECT(session == -1 || session == item->session);
        return session < 0 ? -1 : 0;
    };
    if (post(p, *item, 0, posted) < 0) {
        p.client_open--;
    }
}

void ask_helper(Party &p, bool server)
{
    if (p.quit || !p.up) {
        return;
    }
    const uint32_t most = server ? p.terms.replies : p.client_replies;
    uint32_t &open = server ? p.server_open : p.client_open;
    Item *item = item_make(p, server ? Kind::response : Kind::foreign);
    item->where = Where::over;
    const bool room = open < most;
    open += room;
    EXPECT(qor_context_req_s(server ? server_context : client_context, item->session, TO_HELPER,
                             &item->id, sizeof(item->id)) == (room ? item->session : -1));
}
