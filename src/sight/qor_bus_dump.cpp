/* SPDX-License-Identifier: Apache-2.0 */
/* What an inspection shows, as lines of text. */

#include "qor_inspect.h"

#include <inttypes.h>
#include <stdarg.h>

#include "qor_bus.h"
#include "qor_diag.hpp"

namespace {

constexpr char file_tag[] = "qor_inspect";

struct sink {
    qor_text_t text;
    void *arg;
};

/* Longer than any line, whatever its numbers. */
struct line {
    char text[1024];
    size_t length;
};

QOR_PRINTF(2, 3) void line_add(line &to, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int added = hal_vsnprintf(to.text + to.length,
                                    static_cast<int>(sizeof(to.text) - to.length), format, ap);
    va_end(ap);
    to.length += static_cast<size_t>(added);
}

void bus_line(line &to, const qor_info_bus_t &bus)
{
    line_add(to, "bus: workers %u, idle %u, queued %u (most %u), timers %u", bus.workers, bus.idle,
             bus.queued, bus.queued_max, bus.timers);
    if (bus.timers > 0) {
        line_add(to, " (next in %d ms)", bus.next_timer_ms);
    }
    line_add(to, ", refused %u, allocations failed %u, lines %u%s", bus.posts_refused,
             bus.allocations_failed, bus.lines, bus.quitting ? ", quitting" : "");
}

const char *lifecycle_name(int32_t lifecycle)
{
    static constexpr char names[][8] = {"INIT",  "CREATE", "START",  "RESUME",
                                        "PAUSE", "STOP",   "DESTROY"};
    constexpr uint32_t count = sizeof(names) / sizeof(names[0]);
    return static_cast<uint32_t>(lifecycle) < count ? names[lifecycle] : "?";
}

void queue_add(line &to, const qor_info_context_t &context)
{
    line_add(to, "%s, runs %u of %u, queued %u (most %u, delayed %u), waiting %d ms",
             lifecycle_name(context.lifecycle), context.runs, context.runs_max, context.queued,
             context.queued_max, context.delayed, context.waiting_ms);
    line_add(to, ", requests %u, responses %u, tasks %u, bypassed %u, refused %u", context.requests,
             context.responses, context.tasks, context.bypassed, context.refused);
}

constexpr struct {
    char name[20];
    uint64_t qor_ledger_t::*value;
} ledger_counts[] = {
    {"accepted", &qor_ledger_t::accepted},
    {"run", &qor_ledger_t::run},
    {"running", &qor_ledger_t::running},
    {"waiting", &qor_ledger_t::waiting},
    {"delayed", &qor_ledger_t::delayed},
    {"dropped oldest", &qor_ledger_t::dropped_oldest},
    {"dropped newest", &qor_ledger_t::dropped_newest},
    {"dropped transfer", &qor_ledger_t::dropped_transfer},
    {"cancelled", &qor_ledger_t::cancelled},
    {"discarded", &qor_ledger_t::discarded},
    {"transferred", &qor_ledger_t::transferred},
    {"finished", &qor_ledger_t::finished},
    {"highest", &qor_ledger_t::highest},
};

/* What the queue's part has not said. */
void contract_add(line &to, const qor_info_context_t &context)
{
    line_add(to, ", contract: strict %u, limit %u, depth %u, overflow %d, blocked %u",
             context.strict, context.limit, context.depth, context.overflow, context.blocked);
    line_add(to, ", replies %u of %u, open %" PRIu64 " of %u", context.replies, context.replies_max,
             context.ledger.open, context.open_max);
    for (const auto &count : ledger_counts) {
        line_add(to, ", %s %" PRIu64, count.name, context.ledger.*count.value);
    }
}

void context_line(line &to, const qor_info_context_t &context)
{
    line_add(to, "context %s: ", context.name);
    if (context.lifecycle < 0) {
        line_add(to, "system");
    } else {
        queue_add(to, context);
    }
    line_add(to, ", failed %u", context.failed);
    if (context.contract) {
        contract_add(to, context);
    }
}

void topic_line(line &to, const qor_info_topic_t &topic)
{
    line_add(to, "topic %s%d: ", topic.role == QOR_BUS_ROLE_SYS ? "sys " : "", topic.topic);
    line_add(to, "subscriber %s of %u, listeners %u, filters %u, requests %u, unserved %u",
             topic.subscribers ? topic.subscriber : "-", topic.subscribers, topic.listeners,
             topic.filters, topic.requests, topic.unserved);
}

const char *kind_name(int32_t kind)
{
    static constexpr char names[][9] = {"request", "response", "listener", "listener", "filter",
                                        "filter",  "task",     "call",     "system",   "init"};
    constexpr uint32_t count = sizeof(names) / sizeof(names[0]);
    return static_cast<uint32_t>(kind) < count ? names[kind] : "waits";
}

/* The outermost first. */
void thread_line(line &to, const qor_info_thread_t &thread)
{
    line_add(to, "thread %u (%s): depth %u", thread.tid, thread.name, thread.depth);
    for (uint32_t i = 0; i < thread.depth && i < QOR_INSIDE_MAX; i++) {
        const qor_info_inside_t &inside = thread.inside[i];
        line_add(to, "%s %s %s (kind %d, session %d, topic %d) for %d ms", i ? " >" : ",",
                 inside.name[0] ? inside.name : "-", kind_name(inside.kind), inside.kind,
                 inside.session, inside.topic, inside.age_ms);
    }
}

void request_line(line &to, const qor_info_request_t &request)
{
    line_add(to, "request %d: topic %d, open at %s for %d ms", request.session, request.topic,
             request.name, request.age_ms);
}

int32_t text_show(void *arg, int32_t kind, const void *info)
{
    const sink &to = *static_cast<const sink *>(arg);
    line one;
    one.length = 0;
    switch (kind) {
    case QOR_INFO_BUS:
        bus_line(one, *static_cast<const qor_info_bus_t *>(info));
        break;
    case QOR_INFO_CONTEXT:
        context_line(one, *static_cast<const qor_info_context_t *>(info));
        break;
    case QOR_INFO_TOPIC:
        topic_line(one, *static_cast<const qor_info_topic_t *>(info));
        break;
    case QOR_INFO_THREAD:
        thread_line(one, *static_cast<const qor_info_thread_t *>(info));
        break;
    default:
        request_line(one, *static_cast<const qor_info_request_t *>(info));
    }
    to.text(to.arg, one.text);
    return 0;
}

} // namespace

int32_t qor_bus_dump(qor_bus_t *bus, qor_text_t text, void *arg)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(text, -1);
    sink to = {text, arg};
    return qor_bus_inspect(bus, text_show, &to);
}
