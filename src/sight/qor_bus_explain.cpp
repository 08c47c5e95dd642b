/* SPDX-License-Identifier: Apache-2.0 */
/* What a bus is at, and who waits for whom: of a dump what has to do with that, and the waits. */
#include "qor_health.h"

#include "info.hpp"
#include "qor_bus_priv.hpp"
#include "qor_diag.hpp"
#include "wait_circles.hpp"

namespace {

constexpr char file_tag[] = "qor_health";

struct explanation {
    qor_bus_t *bus;
    qor_text_t text;
    void *arg;
    int32_t circles;
    uint32_t lacking; /* threads without a lane */
};

bool has_work(const qor_info_context_t &context)
{
    return context.runs || context.queued || context.blocked;
}

/* What stands in the way of a thread that waits for a start. */
void wait_add(text_line &line, const qor_bus_t *bus, const qor_info_thread_t &thread)
{
    wait_link link;
    for (uint32_t lane = 0; (lane = wait_read(bus, lane, link)) > 0;) {
        if (link.tid == thread.tid) {
            text_add(line, ", waits for the start of %s, held up by thread %u", link.module,
                     link.next_tid);
        }
    }
}

int32_t work_tell(void *arg, int32_t kind, const void *info)
{
    const explanation &to = *static_cast<const explanation *>(arg);
    const bool told =
        kind == QOR_INFO_CONTEXT  ? has_work(*static_cast<const qor_info_context_t *>(info))
        : kind == QOR_INFO_THREAD ? static_cast<const qor_info_thread_t *>(info)->depth > 0
                                  : kind != QOR_INFO_TOPIC;
    if (told) {
        text_line line;
        line.length = 0;
        text_add_info(line, kind, info);
        if (kind == QOR_INFO_THREAD) {
            wait_add(line, to.bus, *static_cast<const qor_info_thread_t *>(info));
        }
        to.text(to.arg, line.text);
    }
    return 0;
}

/* From wait to wait, until the first comes again. A quit may end them meanwhile. */
void circle_tell(const explanation &to, wait_link link)
{
    text_line line;
    line.length = 0;
    text_add(line, "circle of %u:", link.circle);
    uint32_t left = link.circle;
    do {
        text_add(line, " %s (thread %u)", link.module, link.next_tid);
    } while (--left > 0 && link.next && wait_read(to.bus, link.next - 1, link));
    to.text(to.arg, line.text);
}

void everything_tell(explanation &to)
{
    qor_bus_inspect(to.bus, work_tell, &to);
    if (to.lacking) {
        text_line line;
        line.length = 0;
        text_add(line, "threads without a lane, not shown: %u", to.lacking);
        to.text(to.arg, line.text);
    }
    wait_link link;
    for (uint32_t lane = 0; (lane = wait_read(to.bus, lane, link)) > 0;) {
        if (link.circle) {
            to.circles++;
            circle_tell(to, link);
        }
    }
}

} // namespace

int32_t qor_bus_explain(qor_bus_t *bus, qor_text_t text, void *arg)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(text, -1);
    explanation to = {bus, text, arg, 0, 0};
    if (!wait_is_recorded(bus, to.lacking)) {
        QOR_ERR("nothing is recorded.");
        return -1;
    }
    bus_visitor_enter(*bus->priv);
    pthread_cleanup_push(bus_visitor_leave, bus->priv); /* text may end the thread */
    everything_tell(to);
    pthread_cleanup_pop(1);
    return to.circles;
}
