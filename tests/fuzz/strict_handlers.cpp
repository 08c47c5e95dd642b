/* SPDX-License-Identifier: Apache-2.0 */
/* What runs in the modules: tasks, requests, responses, what listeners see, and losses that are
 * told. */
#include "strict_party.hpp"

#include "qor_deferred.h"

#include <string.h>

#include <algorithm>

namespace {

/* Keeps the request open, if it may be. The first one has to have the table, too. */
void defer(Party &p, Item *item, qor_context_msg_t *msg)
{
    const uint32_t fails = p.bytes.below(16);
    const bool memory = fails != 0 && (fails != 1 || p.deferrals > 0);
    const bool room = !p.full_open() && !p.quit && memory;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(fails);
    EXPECT(qor_context_defer(server_context, msg, -1, &item->token) == (room ? 0 : -1));
    p.there.memory_fails_in = -1;
    if (room) {
        p.ledger.open++;
        p.open.push_back(item);
        p.deferrals++;
    }
}

int32_t server_request(Party &p, qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    EXPECT(msg->topic == TO_SERVER && msg->session == item->session);
    begin(p, item);
    act_inside(p);
    if (p.bytes.below(4) == 0) {
        defer(p, item, msg);
        act_inside(p);
    }
    const int32_t ret = any_result(p);
    if (item->token == 0) {
        item->ret = result_of(ret);
    } else {
        if (ret < 0) {
            open_end(p, item, result_of(ret));
        }
        p.deferrals -= std::find(p.open.begin(), p.open.end(), item) == p.open.end();
    }
    end(p, item);
    return ret;
}

/* The response to a request of the server's own. */
int32_t server_response(Party &p, const qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    EXPECT(item->kind == Kind::response && msg->ret == item->ret);
    p.server_open--;
    begin(p, item);
    act_inside(p);
    end(p, item);
    return 0;
}

/* A strict server's own copy; others are shown it where it is dispatched. */
int32_t server_listens(Party &p, const qor_context_msg_t *msg)
{
    if (!p.strict) {
        return 0;
    }
    const Item *asked = item_of(p, msg);
    const auto at = std::find_if(p.items.begin(), p.items.end(), [&](const auto &item) {
        return item->kind == Kind::listener && item->session == asked->session;
    });
    EXPECT(at != p.items.end());
    Item *item = at->get();
    begin(p, item);
    act_inside(p);
    end(p, item);
    return 0;
}

void client_response(Party &p, const qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    p.client_open--;
    if (item->kind != Kind::request) {
        return; /* the helper's */
    }
    EXPECT(item->where == Where::over && !item->answered && msg->ret == item->ret);
    item->answered = true;
    act_inside(p);
}

/* The client listens as well, and is shown first what a strict server gets a copy of. */
void client_listens(Party &p, const qor_context_msg_t *msg)
{
    if (!p.strict) {
        return;
    }
    catch_up(p);
    const Item *asked = item_of(p, msg);
    Item *item = item_make(p, Kind::listener);
    item->session = asked->session;
    const Fate fate = fate_of(p, *item);
    if (end_post(p, *item, fate, 0) < 0) {
        tell_loss(p, *item, QOR_LOSS_REFUSED);
    }
}

/* A request that the helper handles in the server's place. */
void helper_serves(Party &p, Item *item)
{
    const bool moved = item->where == Where::helper;
    if (moved) {
        EXPECT(p.at_helper.front() == item);
        p.at_helper.pop_front();
    } else { /* from the queue of a server that is not strict */
        EXPECT(!p.strict);
        begin(p, item);
    }
    act_inside(p);
    item->ret = static_cast<int32_t>(p.bytes.below(3)) - 1;
    if (moved) {
        item->where = Where::over;
    } else {
        end(p, item);
    }
}

} // namespace

void *task_run(qor_context_t *context, int32_t session, void *arg)
{
    Party &p = *party;
    Item *item = static_cast<Item *>(arg);
    EXPECT(session == item->session && context);
    begin(p, item);
    act_inside(p);
    end(p, item);
    return nullptr;
}

void task_recycle(void *arg)
{
    Item *item = static_cast<Item *>(arg);
    item->recycled++;
    EXPECT(item->kind == Kind::task && item->recycled == 1);
}

int32_t any_result(Party &p)
{
    static const int32_t results[] = {0, 7, -1, QOR_RET_DROPPED, QOR_RET_EXPIRED, QOR_RET_GONE};
    return results[p.bytes.below(6)];
}

void open_end(Party &p, Item *item, int32_t ret)
{
    const auto at = std::find(p.open.begin(), p.open.end(), item);
    if (at == p.open.end()) {
        return;
    }
    p.open.erase(at);
    p.ledger.open--;
    p.ledger.finished++;
    p.deferrals -= item->where != Where::running; /* else its handler is to return */
    item->ret = ret;
}

int32_t result_of(int32_t ret)
{
    return ret > QOR_RET_GONE ? ret : -1;
}

int32_t server_handle(qor_context_t *, qor_context_msg_t *msg)
{
    Party &p = *party;
    switch (msg->type) {
    case QOR_CONTEXT_MSG_REQUEST:
        return server_request(p, msg);
    case QOR_CONTEXT_MSG_RESPONSE:
        return server_response(p, msg);
    default:
        EXPECT(msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE);
        return server_listens(p, msg);
    }
}

int32_t client_handle(qor_context_t *, qor_context_msg_t *msg)
{
    if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
        client_response(*party, msg);
    } else {
        client_listens(*party, msg);
    }
    return 0;
}

int32_t helper_handle(qor_context_t *, qor_context_msg_t *msg)
{
    Party &p = *party;
    catch_up(p);
    Item *item = item_of(p, msg);
    if (msg->topic == TO_SERVER) {
        helper_serves(p, item);
        return item->ret;
    }
    act_inside(p);
    item->ret = static_cast<int32_t>(p.bytes.below(3)) - 1;
    if (item->kind == Kind::response && end_post(p, *item, fate_of(p, *item), 0) < 0) {
        p.server_open--;
    }
    return item->ret;
}

void on_lost(void *arg, const qor_loss_t *loss)
{
    Party &p = *static_cast<Party *>(arg);
    catch_up(p);
    EXPECT(!p.losses.empty() && !p.losing);
    const qor_loss_t expected = p.losses.front();
    p.losses.erase(p.losses.begin());
    EXPECT(strcmp(loss->module, "server") == 0 && loss->topic == expected.topic);
    EXPECT(loss->session == expected.session && loss->kind == expected.kind);
    EXPECT(loss->reason == expected.reason);
    lose_more(p);
}
