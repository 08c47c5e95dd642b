/* SPDX-License-Identifier: Apache-2.0 */
/* What an inspection shows, as lines of text. */
#include "qor_inspect.h"

#include <inttypes.h>
#include <stdarg.h>

#include "info.hpp"
#include "qor_bus.h"
#include "qor_diag.hpp"

namespace {

constexpr char file_tag[] = "qor_inspect";

struct sink {
    qor_text_t text;
    void *arg;
};

/* Labels stand one behind the other in a string, and are those of fields that do so in a record:
 * far less code than a call for each. In front of a label is what kind of field it is: '+' for 32
 * bits without sign, or one of these. */
constexpr char field_signed = '-'; /* INT32_MAX stands for none */
constexpr char field_wide = '*';   /* 64 bits */

int64_t field_take(char kind, const char *&field)
{
    int64_t wide = 0;
    int32_t narrow = 0;
    if (kind == field_wide) {
        memcpy(&wide, field, sizeof(wide));
        field += sizeof(wide);
        return wide;
    }
    memcpy(&narrow, field, sizeof(narrow));
    field += sizeof(narrow);
    wide = narrow;
    return kind == field_signed ? wide : wide & UINT32_MAX;
}

void fields_add(text_line &to, const char *labels, const void *fields)
{
    const char *field = static_cast<const char *>(fields);
    for (; *labels; labels += strlen(labels) + 1) {
        const int64_t value = field_take(*labels, field);
        if (*labels == field_signed && value == INT32_MAX) {
            text_add(to, ", %s none", labels + 1);
        } else {
            text_add(to, ", %s %" PRId64, labels + 1, value);
        }
    }
}

constexpr char bus_labels[] = "+idle\0+quitting\0+queued\0+most\0+timers\0-next ms\0+refused\0"
                              "+allocations failed\0+lines\0";
constexpr char queue_labels[] = "+runs\0+slots\0+queued\0+most\0+delayed\0-waiting ms\0"
                                "+requests\0+responses\0+tasks\0+bypassed\0+refused\0";
constexpr char failed_label[] = "+failed\0";
constexpr char contract_labels[] = "+strict\0+depth\0+replies max\0+open max\0-overflow\0"
                                   "+limit\0+replies\0+blocked\0";
constexpr char ledger_labels[] =
    "*accepted\0*run\0*running\0*waiting\0*delayed\0*dropped oldest\0*dropped newest\0"
    "*dropped transfer\0*cancelled\0*discarded\0*transferred\0*refused\0*bypassed\0*open\0"
    "*finished\0*highest\0";
constexpr char topic_labels[] = "+subscribers\0+listeners\0+filters\0+requests\0+unserved\0";
constexpr char inside_labels[] = "-session\0-topic\0-ms\0";

/* How many fields stand from one up to another, both of 32 bits. */
constexpr size_t fields_between(size_t from, size_t to)
{
    return (to - from) / sizeof(uint32_t);
}

template <size_t size> constexpr size_t labels_in(const char (&labels)[size])
{
    size_t count = 0;
    for (size_t i = 0; i + 2 < size; i++) { /* two end the last one */
        count += labels[i] != '\0' && labels[i + 1] == '\0';
    }
    return count;
}

/* How many those from one to another are. */
#define FIELDS(record, first, last) \
    (fields_between(offsetof(record, first), offsetof(record, last)) + 1)

static_assert(labels_in(bus_labels) == FIELDS(qor_info_bus_t, idle, lines), "a label each");
static_assert(labels_in(queue_labels) == FIELDS(qor_info_context_t, runs, refused), "a label each");
static_assert(labels_in(contract_labels) == FIELDS(qor_info_context_t, strict, blocked),
              "a label each");
static_assert(labels_in(topic_labels) == FIELDS(qor_info_topic_t, subscribers, unserved),
              "a label each");
static_assert(labels_in(inside_labels) == FIELDS(qor_info_inside_t, session, age_ms),
              "a label each");

void bus_line(text_line &to, const qor_info_bus_t &bus)
{
    text_add(to, "bus: workers %u", bus.workers);
    fields_add(to, bus_labels, &bus.idle);
}

const char *lifecycle_name(int32_t lifecycle)
{
    static constexpr char names[][8] = {"INIT",  "CREATE", "START",  "RESUME",
                                        "PAUSE", "STOP",   "DESTROY"};
    constexpr uint32_t count = sizeof(names) / sizeof(names[0]);
    return static_cast<uint32_t>(lifecycle) < count ? names[lifecycle] : "system";
}

void context_line(text_line &to, const qor_info_context_t &context)
{
    text_add(to, "context %s: %s", context.name, lifecycle_name(context.lifecycle));
    if (context.lifecycle >= 0) {
        fields_add(to, queue_labels, &context.runs);
    }
    fields_add(to, failed_label, &context.failed);
    if (context.contract) {
        fields_add(to, contract_labels, &context.strict);
        fields_add(to, ledger_labels, &context.ledger.accepted);
    }
}

void topic_line(text_line &to, const qor_info_topic_t &topic)
{
    text_add(to, "topic %s%d: %s", topic.role == QOR_BUS_ROLE_SYS ? "sys " : "", topic.topic,
             topic.subscribers ? topic.subscriber : "-");
    fields_add(to, topic_labels, &topic.subscribers);
}

const char *kind_name(int32_t kind)
{
    /* From the last on: a wait. */
    static constexpr char names[][9] = {"request", "response", "listener", "listener",
                                        "filter",  "filter",   "task",     "call",
                                        "system",  "init",     "reg",      "waits"};
    constexpr int32_t last = sizeof(names) / sizeof(names[0]) - 1;
    return names[kind < last ? kind : last];
}

/* The outermost first. */
void thread_line(text_line &to, const qor_info_thread_t &thread)
{
    text_add(to, "thread %u: %s, depth %u", thread.tid, thread.name, thread.depth);
    for (uint32_t i = 0; i < thread.depth && i < QOR_INSIDE_MAX; i++) {
        const qor_info_inside_t &inside = thread.inside[i];
        text_add(to, " > %s %s %d", inside.name[0] ? inside.name : "-", kind_name(inside.kind),
                 inside.kind);
        fields_add(to, inside_labels, &inside.session);
    }
}

void request_line(text_line &to, const qor_info_request_t &request)
{
    text_add(to, "request %d: open at %s, topic %d, ms %d", request.session, request.name,
             request.topic, request.age_ms);
}

int32_t text_show(void *arg, int32_t kind, const void *info)
{
    const sink &to = *static_cast<const sink *>(arg);
    text_line one;
    one.length = 0;
    text_add_info(one, kind, info);
    to.text(to.arg, one.text);
    return 0;
}

} // namespace

void text_add(text_line &to, const char *format, ...)
{
    const size_t room = sizeof(to.text) - to.length;
    va_list ap;
    va_start(ap, format);
    const int added = hal_vsnprintf(to.text + to.length, static_cast<int>(room), format, ap);
    va_end(ap);
    const size_t wanted = static_cast<size_t>(added);
    to.length += wanted < room ? wanted : room - 1;
}

void text_add_info(text_line &to, int32_t kind, const void *info)
{
    switch (kind) {
    case QOR_INFO_BUS:
        bus_line(to, *static_cast<const qor_info_bus_t *>(info));
        break;
    case QOR_INFO_CONTEXT:
        context_line(to, *static_cast<const qor_info_context_t *>(info));
        break;
    case QOR_INFO_TOPIC:
        topic_line(to, *static_cast<const qor_info_topic_t *>(info));
        break;
    case QOR_INFO_THREAD:
        thread_line(to, *static_cast<const qor_info_thread_t *>(info));
        break;
    default:
        request_line(to, *static_cast<const qor_info_request_t *>(info));
    }
}

int32_t qor_bus_dump(qor_bus_t *bus, qor_text_t text, void *arg)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(text, -1);
    sink to = {text, arg};
    return qor_bus_inspect(bus, text_show, &to);
}
