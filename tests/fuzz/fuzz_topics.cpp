/* SPDX-License-Identifier: Apache-2.0 */
/* The topic table: registrations come and go while dispatches are under way that stand on them. The
 * ledger says which memory must still be there, and that nothing stays once all is quiet. */
#include "qor_topic_core.h"

#include "qor_context_module.h"
#include "qor_topic_core_priv.hpp"

#include <string.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "world.hpp"

namespace {

constexpr char tag[] = "qor_topic_core";
constexpr size_t registrations_most = 40;
constexpr size_t dispatches_most = 6;
constexpr uint32_t party_count = 5;

/* What the three kinds of registration are called and done by. */
struct Kind {
    const char *name;
    qor_topic_node_t *(*add)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t,
                             qor_context_topic_attr_t *);
    void (*remove)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t);
    void (*remove_node)(qor_topic_core_t *, qor_topic_node_t *);
    int32_t (*someone)(qor_topic_core_t *, qor_context_topic_t);
    qor_topic_node_t *(*next)(qor_topic_core_t *, qor_context_topic_t, qor_topic_node_t *);
    qor_topic_node_t *(*step)(qor_topic_core_t *, qor_context_topic_t, qor_topic_node_t *);
    list_head qor_topic_t::*head;
    int32_t bad_topic; /* what someone answers then */
};

constexpr uint32_t kind_count = 3;
const Kind kinds[kind_count] = {
    {"subscribe", qor_topic_core_subscribe, qor_topic_core_unsubscribe,
     qor_topic_core_unsubscribe_by_node, qor_topic_core_someone_subscribed,
     qor_topic_core_subscriber_node_next, topic_subscriber_step, &qor_topic_t::subscriber_head, 0},
    {"listen", qor_topic_core_listen, qor_topic_core_unlisten, qor_topic_core_unlisten_by_node,
     qor_topic_core_someone_listened, qor_topic_core_listener_node_next, topic_listener_step,
     &qor_topic_t::listener_head, 0},
    {"filter", qor_topic_core_filter, qor_topic_core_unfilter, qor_topic_core_unfilter_by_node,
     qor_topic_core_someone_filtered, qor_topic_core_filter_node_next, topic_filter_step,
     &qor_topic_t::filter_head, -1},
};

/* A context that can be entered, or not. */
struct Context {
    qor_context_t context;
    list_head own; /* its registrations, as a delegate keeps them */
    size_t own_count;
    bool shut;
    int entered;
};

int32_t enter(qor_context_t *context)
{
    Context *whole = reinterpret_cast<Context *>(context);
    whole->entered++;
    return whole->shut ? -1 : 0;
}

const char *name_of(const Context &context)
{
    return context.context.module->name;
}

struct Registration {
    qor_topic_node_t *node;
    Context *context;
    uint32_t kind;
    int32_t topic;
    bool listed;         /* in the list of its context too */
    bool made_elsewhere; /* linked by its maker, not by the table */
    bool removed;
    Registration *next;            /* when it was removed: those behind it; NULL: none */
    std::vector<uint32_t> holders; /* dispatches that were under way then and still are */
};

struct Dispatch {
    uint32_t number;
    int32_t topic;
    uint32_t kind;
    Registration *at; /* NULL: before the first */
    std::unique_ptr<topic_dispatch> under_way;
};

struct Topic {
    std::list<Registration *> lists[kind_count]; /* newest first */
    uint32_t changes = 0;
    uint32_t requests = 0;
    uint32_t unserved = 0;
};

struct Table {
    World &there;
    Bytes &bytes;
    qor_topic_core_t *core = nullptr;
    std::vector<Topic> topics = {};
    std::vector<std::unique_ptr<Registration>> all = {}; /* removed ones too */
    std::vector<Dispatch> dispatches = {};
    uint32_t dispatched = 0;
    Context contexts[party_count] = {};
    qor_context_cls_t cls = {};

    bool busy(int32_t topic) const
    {
        return std::any_of(dispatches.begin(), dispatches.end(),
                           [topic](const Dispatch &dispatch) { return dispatch.topic == topic; });
    }
};

const qor_context_module_t modules[party_count] = {
    {"anna", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {"bert", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {"carl", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {"dora", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {"emil", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

std::string invalid()
{
    return World::err(tag, "qor_topic_core_topic_check", "topic invalid.\n");
}

/* ---- what must be so at any time */

void expect_topic(const Table &table, int32_t number)
{
    qor_topic_t &topic = table.core->ids[number];
    const Topic &model = table.topics[static_cast<size_t>(number)];
    EXPECT(topic.topic == number);
    for (uint32_t kind = 0; kind < kind_count; kind++) {
        const list_head *link = &(topic.*kinds[kind].head);
        const list_head *head = link;
        for (const Registration *registration : model.lists[kind]) {
            EXPECT(link->next == &registration->node->topic_node && link->next->prev == link);
            link = link->next;
        }
        EXPECT(link->next == head && head->prev == link);
        EXPECT(kinds[kind].someone(table.core, number) == !model.lists[kind].empty());
    }
    EXPECT(topic_changes(table.core, number) == model.changes);
    EXPECT(topic_epoch_requests(table.core->priv[number]) == model.requests);
    EXPECT(table.core->priv[number].unserved == model.unserved);
    const std::list<Registration *> &takers = model.lists[0];
    const qor_context_t *newest = takers.empty() ? nullptr : &takers.front()->context->context;
    EXPECT(topic_newest_subscriber(table.core, number) == newest);
}

/* Memory that a dispatch may stand on is there; that of a quiet topic's removed ones is not. */
void expect_ledger(Table &table)
{
    size_t least = 2; /* the table's own blocks */
    size_t late = 0;  /* may be freed, for the dispatches that could see them have ended */
    for (const auto &registration : table.all) {
        const bool must = !registration->removed || !registration->holders.empty();
        EXPECT(!must || table.there.size_of(registration->node) != SIZE_MAX);
        least += must;
        late += !must && table.busy(registration->topic);
    }
    EXPECT(table.there.live() >= least && table.there.live() <= least + late);
}

/* Those that nobody can stand on, and that nobody leads to. */
void forget(Table &table)
{
    for (size_t n = 0; n < table.all.size();) {
        if (table.all[n]->removed && !table.busy(table.all[n]->topic)) {
            std::swap(table.all[n], table.all.back());
            table.all.pop_back();
        } else {
            n++;
        }
    }
}

void expect_table(Table &table)
{
    for (int32_t number = 0; number < table.core->id_max; number++) {
        expect_topic(table, number);
    }
    for (const Context &context : table.contexts) {
        size_t count = 0;
        for (const list_head *link = context.own.next; link != &context.own; link = link->next) {
            count++;
        }
        EXPECT(count == context.own_count);
    }
    expect_ledger(table);
    forget(table);
    table.there.expect_printed("");
}

/* ---- registering */

int32_t any_topic(Table &table)
{
    const int32_t number = static_cast<int32_t>(table.bytes.below(8)) - 1; /* bad ones too */
    return number < table.core->id_max || table.bytes.below(4) == 0 ? number : 0;
}

bool is_good(const Table &table, int32_t topic)
{
    return topic >= 0 && topic < table.core->id_max;
}

Context &any_context(Table &table)
{
    return table.contexts[table.bytes.below(party_count)];
}

void enter_model(Table &table, qor_topic_node_t *node, Context &context, uint32_t kind,
                 int32_t topic, bool made_elsewhere)
{
    const bool listed = table.bytes.below(2);
    if (listed) {
        list_add_tail(&node->context_node, &context.own);
        context.own_count++;
    }
    table.all.push_back(std::make_unique<Registration>(
        Registration{node, &context, kind, topic, listed, made_elsewhere, false, nullptr, {}}));
    Topic &model = table.topics[static_cast<size_t>(topic)];
    model.lists[kind].push_front(table.all.back().get());
    model.changes += !made_elsewhere;
}

void expect_node(const qor_topic_node_t *node, const qor_topic_t *topic, Context &context,
                 const qor_context_topic_attr_t *attr)
{
    const qor_context_topic_attr_t usual = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                            QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND, 0};
    EXPECT(node->topic == topic && node->context == &context.context);
    EXPECT(memcmp(&node->attr, attr ? attr : &usual, sizeof(usual)) == 0);
    EXPECT(list_empty(&node->context_node));
}

void add(Table &table, uint32_t kind)
{
    const int32_t topic = any_topic(table);
    Context &context = any_context(table);
    if (table.all.size() >= registrations_most) {
        return;
    }
    qor_context_topic_attr_t given = {static_cast<int32_t>(table.bytes.below(8)),
                                      static_cast<int32_t>(table.bytes.below(8)),
                                      static_cast<int32_t>(table.bytes.byte())};
    qor_context_topic_attr_t *attr = table.bytes.below(2) ? &given : nullptr;
    const bool memory = table.bytes.below(8) != 0;
    table.there.memory_fails_in = memory ? -1 : 0;
    qor_topic_node_t *node = kinds[kind].add(table.core, &context.context, topic, attr);
    table.there.memory_fails_in = -1;
    EXPECT((node != nullptr) == (is_good(table, topic) && memory));
    if (node) {
        expect_node(node, &table.core->ids[topic], context, attr);
        enter_model(table, node, context, kind, topic, false);
        return;
    }
    const std::string function = std::string("qor_topic_core_") + kinds[kind].name;
    table.there.expect_printed(
        !is_good(table, topic)
            ? invalid()
            : World::err(tag, "qor_topic_node_create", "malloc \"qor_topic_node_t\" failed.\n") +
                  World::err(tag, function.c_str(), "create node failed."));
}

/* One that its maker links. */
void add_made(Table &table, uint32_t kind)
{
    const int32_t topic = any_topic(table);
    Context &context = any_context(table);
    if (!is_good(table, topic) || table.all.size() >= registrations_most) {
        return;
    }
    qor_topic_t *home = &table.core->ids[topic];
    qor_topic_node_t *node = qor_topic_node_create(home, &context.context, nullptr);
    expect_node(node, home, context, nullptr);
    EXPECT(list_empty(&node->topic_node));
    if (table.bytes.below(4) == 0) {
        list_add(&node->context_node, &context.own);
        qor_topic_node_destroy(node);
        EXPECT(table.there.size_of(node) == SIZE_MAX);
        return;
    }
    list_add(&node->topic_node, &(home->*kinds[kind].head));
    enter_model(table, node, context, kind, topic, true);
}

/* What has left its lists; those on the way of a dispatch go on from it. */
void leave_model(Table &table, Registration *registration)
{
    Topic &model = table.topics[static_cast<size_t>(registration->topic)];
    std::list<Registration *> &list = model.lists[registration->kind];
    const auto at = std::find(list.begin(), list.end(), registration);
    registration->next = std::next(at) == list.end() ? nullptr : *std::next(at);
    list.erase(at);
    registration->removed = true;
    for (const Dispatch &dispatch : table.dispatches) {
        if (dispatch.topic == registration->topic) {
            registration->holders.push_back(dispatch.number);
        }
    }
    registration->context->own_count -= registration->listed;
    model.changes += !registration->made_elsewhere;
}

/* The newest that a context has. */
void remove(Table &table, uint32_t kind)
{
    const int32_t topic = any_topic(table);
    Context &context = any_context(table);
    if (is_good(table, topic)) {
        std::list<Registration *> &list = table.topics[static_cast<size_t>(topic)].lists[kind];
        const auto found = std::find_if(list.begin(), list.end(), [&](const Registration *other) {
            return other->context == &context;
        });
        if (found != list.end()) {
            if ((*found)->made_elsewhere && table.busy(topic)) {
                return; /* it would be freed at once */
            }
            leave_model(table, *found);
        }
    }
    kinds[kind].remove(table.core, &context.context, topic);
    table.there.expect_printed(is_good(table, topic) ? "" : invalid());
}

void remove_node(Table &table)
{
    if (table.all.empty()) {
        return;
    }
    Registration *chosen =
        table.all[table.bytes.below(static_cast<uint32_t>(table.all.size()))].get();
    if (chosen->removed || (chosen->made_elsewhere && table.busy(chosen->topic))) {
        return;
    }
    leave_model(table, chosen);
    kinds[chosen->kind].remove_node(table.bytes.below(2) ? table.core : nullptr, chosen->node);
}

/* ---- dispatches */

void begin(Table &table)
{
    const int32_t topic = any_topic(table);
    if (table.dispatches.size() >= dispatches_most) {
        return;
    }
    const bool request = table.bytes.below(2);
    const uint32_t kind = table.bytes.below(kind_count);
    Dispatch dispatch = {table.dispatched++, topic, kind, nullptr,
                         std::make_unique<topic_dispatch>(
                             table.core, topic, request ? topic_requested : topic_enters)};
    if (request && table.bytes.below(2)) {
        dispatch.under_way->unserved();
        if (is_good(table, topic)) {
            table.topics[static_cast<size_t>(topic)].unserved++;
        }
    }
    if (is_good(table, topic)) {
        table.topics[static_cast<size_t>(topic)].requests += request;
    }
    table.dispatches.push_back(std::move(dispatch));
}

void end(Table &table)
{
    if (table.dispatches.empty()) {
        return;
    }
    const uint32_t which = table.bytes.below(static_cast<uint32_t>(table.dispatches.size()));
    const uint32_t number = table.dispatches[which].number;
    table.dispatches.erase(table.dispatches.begin() + which);
    for (const auto &registration : table.all) {
        std::vector<uint32_t> &holders = registration->holders;
        holders.erase(std::remove(holders.begin(), holders.end(), number), holders.end());
    }
}

/* The first behind one, or of all, that is there still. */
Registration *behind(const Table &table, const Registration *at, int32_t topic, uint32_t kind)
{
    const std::list<Registration *> &list = table.topics[static_cast<size_t>(topic)].lists[kind];
    Registration *next;
    if (!at) {
        next = list.empty() ? nullptr : list.front();
    } else if (at->removed) {
        next = at->next;
    } else {
        const auto after = std::next(std::find(list.begin(), list.end(), at));
        next = after == list.end() ? nullptr : *after;
    }
    while (next && next->removed) {
        next = next->next;
    }
    return next;
}

/* Goes a step on; gives where it then stands, NULL at the end or at a door that is shut. */
Registration *go(Table &table, Registration *at, int32_t topic, uint32_t kind, bool locks)
{
    const auto next = locks ? kinds[kind].next : kinds[kind].step;
    Registration *expected = is_good(table, topic) ? behind(table, at, topic, kind) : nullptr;
    int before[party_count];
    for (uint32_t n = 0; n < party_count; n++) {
        before[n] = table.contexts[n].entered;
    }
    qor_topic_node_t *node = next(table.core, topic, at ? at->node : nullptr);
    std::string lines = is_good(table, topic) ? "" : invalid();
    for (uint32_t n = 0; n < party_count; n++) {
        const bool entered = expected && expected->context == &table.contexts[n];
        EXPECT(table.contexts[n].entered == before[n] + entered);
    }
    if (expected && expected->context->shut) {
        lines = World::err(
            tag, "qor_topic_core_node_next",
            (std::string("resume failed. context = ") + name_of(*expected->context)).c_str());
        expected = nullptr;
    }
    table.there.expect_printed(lines);
    EXPECT(node == (expected ? expected->node : nullptr));
    return expected;
}

void step(Table &table, bool locks)
{
    if (table.dispatches.empty()) {
        return;
    }
    Dispatch &dispatch =
        table.dispatches[table.bytes.below(static_cast<uint32_t>(table.dispatches.size()))];
    dispatch.at = go(table, dispatch.at, dispatch.topic, dispatch.kind, locks);
    if (!dispatch.at) {
        dispatch.kind = table.bytes.below(kind_count);
    }
}

/* From the first to the last, by one who calls handlers. */
void walk(Table &table, bool locks)
{
    const int32_t topic = any_topic(table);
    const uint32_t kind = table.bytes.below(kind_count);
    const topic_walk under_way(table.core, topic);
    Registration *at = nullptr;
    do {
        at = go(table, at, topic, kind, locks);
    } while (at);
}

/* ---- no table, no node */

void nothing(Table &table, uint32_t kind)
{
    const Kind &how = kinds[kind];
    const std::string no_core = World::err(tag, "qor_topic_core_topic_check", "!(_this) == true.");
    EXPECT(!how.add(nullptr, &table.contexts[0].context, 0, nullptr));
    how.remove(nullptr, &table.contexts[0].context, 0);
    EXPECT(how.someone(nullptr, 0) == how.bad_topic);
    EXPECT(!how.next(nullptr, 0, nullptr) && !how.step(nullptr, 0, nullptr));
    table.there.expect_printed(no_core + no_core + no_core + no_core + no_core);
    EXPECT(how.someone(table.core, table.core->id_max) == how.bad_topic);
    EXPECT(how.someone(table.core, -1) == how.bad_topic);
    table.there.expect_printed(invalid() + invalid());
    const std::string function = std::string("qor_topic_core_un") + how.name + "_by_node";
    how.remove_node(table.core, nullptr);
    table.there.expect_printed(World::err(tag, function.c_str(), "!(node) == true."));
    qor_topic_node_t *homeless = qor_topic_node_create(nullptr, nullptr, nullptr);
    how.remove_node(table.core, homeless);
    table.there.expect_printed(World::err(tag, function.c_str(), "!(node->topic) == true."));
    qor_topic_node_destroy(homeless);
    qor_topic_node_destroy(nullptr);
    table.there.expect_printed(World::err(tag, "qor_topic_node_destroy", "!(node) == true."));
}

/* ---- all of it */

void act(Table &table)
{
    const uint8_t byte = table.bytes.byte();
    const bool locks = byte & 128;
    const uint32_t kind = byte / 16 % kind_count;
    switch (byte % 16) {
    case 0:
    case 1:
    case 2:
        add(table, kind);
        break;
    case 3:
        add_made(table, kind);
        break;
    case 4:
    case 5:
        remove(table, kind);
        break;
    case 6:
    case 7:
        remove_node(table);
        break;
    case 8:
    case 9:
        begin(table);
        break;
    case 10:
        end(table);
        break;
    case 11:
    case 12:
        step(table, locks);
        break;
    case 13:
        walk(table, locks);
        break;
    case 14: {
        Context &context = any_context(table);
        context.shut = !context.shut;
        break;
    }
    default:
        nothing(table, kind);
        break;
    }
    expect_table(table);
}

bool open(Table &table)
{
    const int32_t count = static_cast<int32_t>(table.bytes.below(5));
    const uint32_t fails = table.bytes.below(16);
    table.there.memory_fails_in = fails < 2 ? static_cast<int>(fails) : -1;
    table.there.locks_fail_in = fails == 2 ? static_cast<int>(table.bytes.below(16)) : -1;
    const int locks = table.there.locks_fail_in;
    const bool made = fails >= 2 && (locks < 0 || locks >= 4 * count);
    table.core = qor_topic_core_create(count);
    table.there.memory_fails_in = table.there.locks_fail_in = -1;
    EXPECT((table.core != nullptr) == made);
    if (!made) {
        table.there.expect_printed(World::err(tag, "qor_topic_core_create",
                                              fails == 0
                                                  ? "malloc \"qor_topic_core_t\" failed.\n"
                                                  : "malloc a lots of \"qor_topic_t\" failed.\n"));
        return false;
    }
    EXPECT(table.core->id_max == count);
    table.topics.resize(static_cast<size_t>(count));
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    World there;
    Bytes bytes(data, size);
    Table table{there, bytes};
    table.cls.resume = enter;
    for (uint32_t n = 0; n < party_count; n++) {
        table.contexts[n].context.cls = &table.cls;
        table.contexts[n].context.module = const_cast<qor_context_module_t *>(&modules[n]);
        INIT_LIST_HEAD(&table.contexts[n].own);
    }
    if (!open(table)) {
        return 0;
    }
    while (bytes.left()) {
        act(table);
    }
    while (!table.dispatches.empty()) {
        end(table);
        expect_table(table);
    }
    const size_t registered = table.all.size();
    qor_topic_core_destroy(table.core);
    EXPECT(there.drop_all() == registered); /* they are their owners' */
    return 0;
}
