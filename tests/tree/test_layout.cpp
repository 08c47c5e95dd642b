/* SPDX-License-Identifier: Apache-2.0 */
/* The public records as applications were compiled against them: every field, in order, without a
 * gap beyond its alignment, and none besides. Compiling this file is the test. */
#include "qor.h"

#include <stddef.h>
#include <stdint.h>

namespace {

struct field {
    size_t offset;
    size_t size;
    size_t align;
};

constexpr size_t aligned(size_t offset, size_t align)
{
    return (offset + align - 1) / align * align;
}

template <size_t count> constexpr bool is_laid_out(const field (&fields)[count], size_t size)
{
    size_t end = 0;
    size_t align = 1;
    for (const field &f : fields) {
        if (f.offset != aligned(end, f.align)) {
            return false;
        }
        end = f.offset + f.size;
        align = f.align > align ? f.align : align;
    }
    return size == aligned(end, align);
}

/* clang-format off */
#define FIELD(name) {offsetof(R, name), sizeof(R::name), alignof(decltype(R::name))}
#define TAIL(name) {offsetof(R, name), 0, 1} /* bytes that follow the record */

/* RECORD(type, size on 32-bit ARM, fields): sizes elsewhere follow from the fields' types. */
#define RECORD(type, size32, ...)                      \
    static_assert(                                     \
        [] {                                           \
            using R = type;                            \
            constexpr field fields[] = {__VA_ARGS__};  \
            return is_laid_out(fields, sizeof(R));     \
        }(),                                           \
        #type ": fields");                             \
    static_assert(UINTPTR_MAX != UINT32_MAX || sizeof(type) == (size32), #type ": size")

RECORD(list_head, 8, FIELD(next), FIELD(prev));

RECORD(rb_node, 12, FIELD(__rb_parent_color), FIELD(rb_right), FIELD(rb_left));
RECORD(rb_root, 4, FIELD(rb_node));
RECORD(rb_augment_callbacks, 12, FIELD(propagate), FIELD(copy), FIELD(rotate));
RECORD(rbtree_node, 20, FIELD(node), FIELD(key), FIELD(val));
RECORD(rbtree_root, 32, FIELD(root), FIELD(hash), FIELD(cmp), FIELD(release), FIELD(my_malloc),
       FIELD(my_free), FIELD(count), FIELD(__initialized__));
RECORD(rbtree_kv_root, 36, FIELD(root), FIELD(release));

RECORD(qor_que_t, 104, FIELD(head), FIELD(mutex), FIELD(cond), FIELD(quitting), FIELD(max_count),
       FIELD(count), FIELD(refer_count), FIELD(recycle), FIELD(priv));
RECORD(qor_que_node_t, 12, FIELD(node), FIELD(id), TAIL(body));
RECORD(qor_time_que_t, 104, FIELD(head), FIELD(mutex), FIELD(cond), FIELD(quitting),
       FIELD(max_count), FIELD(count), FIELD(recycle), FIELD(priv));
RECORD(qor_time_que_node_t, 24, FIELD(node), FIELD(when), FIELD(id), TAIL(body));

RECORD(qor_context_request_t, 8, FIELD(size), FIELD(buf));
RECORD(qor_context_response_t, 8, FIELD(size), FIELD(buf));
RECORD(qor_context_msg_t, 32, FIELD(type), FIELD(session), FIELD(ret), FIELD(topic), FIELD(request),
       FIELD(response), TAIL(buf));
RECORD(qor_context_task_t, 64, FIELD(name), FIELD(context), FIELD(session), FIELD(async),
       FIELD(delay), FIELD(arg), FIELD(recycle), FIELD(fun_type), FIELD(fun));

RECORD(qor_output_t, 8, FIELD(write), FIELD(arg));
RECORD(qor_loss_t, 20, FIELD(module), FIELD(topic), FIELD(session), FIELD(kind), FIELD(reason));
RECORD(qor_contract_t, 56, FIELD(size), FIELD(strict), FIELD(depth), FIELD(replies),
       FIELD(overflow), FIELD(wait_time), FIELD(open_max), FIELD(reserved0), FIELD(lost), FIELD(arg),
       FIELD(reserved));
RECORD(qor_ledger_t, 136, FIELD(size), FIELD(reserved), FIELD(accepted), FIELD(run), FIELD(running),
       FIELD(waiting), FIELD(delayed), FIELD(dropped_oldest), FIELD(dropped_newest),
       FIELD(dropped_transfer), FIELD(cancelled), FIELD(discarded), FIELD(transferred),
       FIELD(refused), FIELD(bypassed), FIELD(open), FIELD(finished), FIELD(highest));

RECORD(qor_thread_pool_t, 40, FIELD(que), FIELD(quitting), FIELD(keep_alive_time),
       FIELD(thread_count_min), FIELD(thread_count_max), FIELD(thread_num), FIELD(priority),
       FIELD(thread_stack_size), FIELD(threads), FIELD(priv));
RECORD(qor_thread_pool_thread_t, 20, FIELD(pool), FIELD(wait_time), FIELD(identity),
       FIELD(resident), FIELD(tid));

RECORD(qor_context_topic_attr_t, 12, FIELD(mask), FIELD(point), FIELD(priority));
RECORD(qor_context_cls_t, 84, FIELD(name), FIELD(id), FIELD(node), FIELD(create), FIELD(destroy),
       FIELD(reg), FIELD(unreg), FIELD(start), FIELD(stop), FIELD(resume), FIELD(pause),
       FIELD(init), FIELD(uninit), FIELD(handle_message), FIELD(handle_task), FIELD(loop));
RECORD(qor_context_t, 40, FIELD(cls), FIELD(module), FIELD(handler), FIELD(id), FIELD(node),
       FIELD(resource), FIELD(pub_data), FIELD(priv_data), FIELD(pub_data_recycle));
RECORD(qor_context_module_t, 68, FIELD(name), FIELD(id), FIELD(pure), FIELD(refcount),
       FIELD(priority), FIELD(stack_size), FIELD(arg), FIELD(reg), FIELD(unreg), FIELD(init),
       FIELD(uninit), FIELD(console), FIELD(handle_message));
RECORD(qor_context_handler_t, 60, FIELD(session), FIELD(subscribe), FIELD(unsubscribe),
       FIELD(listen), FIELD(unlisten), FIELD(filter), FIELD(unfilter), FIELD(publish),
       FIELD(publishx), FIELD(syscall), FIELD(syscallx), FIELD(post), FIELD(postx), FIELD(cancel),
       FIELD(cancelx));
RECORD(qor_context_core_t, 36, FIELD(initialized), FIELD(lock), FIELD(head));

RECORD(qor_sys_monitor_task_t, 40, FIELD(session), FIELD(name), FIELD(state));
RECORD(qor_sys_bus_register_request_t, 4, FIELD(context));

RECORD(qor_topic_t, 100, FIELD(topic), FIELD(subscriber_head), FIELD(listener_head),
       FIELD(filter_head), FIELD(subscriber_mutex), FIELD(listener_mutex), FIELD(filter_mutex));
RECORD(qor_topic_node_t, 36, FIELD(topic), FIELD(context), FIELD(attr), FIELD(context_node),
       FIELD(topic_node));
RECORD(qor_topic_core_t, 12, FIELD(id_max), FIELD(ids), FIELD(priv));
RECORD(qor_bus_t, 68, FIELD(modules), FIELD(user_topic_core), FIELD(sys_topic_core), FIELD(session),
       FIELD(session_mutex), FIELD(thread_num), FIELD(thread_stack_size), FIELD(thread_priority),
       FIELD(que), FIELD(time_que), FIELD(head), FIELD(priv));
RECORD(qor_sched_delegate_t, 112, FIELD(bus), FIELD(role), FIELD(context), FIELD(subscriber_head),
       FIELD(listener_head), FIELD(filter_head), FIELD(subscriber_mutex), FIELD(listener_mutex),
       FIELD(filter_mutex), FIELD(priv));

RECORD(qor_start_entry_t, 48, FIELD(name), FIELD(because), FIELD(state), FIELD(init_time));
RECORD(qor_start_report_t, 12, FIELD(entries), FIELD(capacity), FIELD(total));

RECORD(qor_trace_config_t, 40, FIELD(size), FIELD(mask), FIELD(memory), FIELD(memory_size),
       FIELD(lanes), FIELD(names), FIELD(clock), FIELD(clock_hz));
RECORD(qor_bus_finding_t, 32, FIELD(module), FIELD(place), FIELD(level), FIELD(text));

RECORD(qor_info_bus_t, 44, FIELD(size), FIELD(workers), FIELD(idle), FIELD(quitting), FIELD(queued),
       FIELD(queued_max), FIELD(timers), FIELD(next_timer_ms), FIELD(posts_refused),
       FIELD(allocations_failed), FIELD(lines));
RECORD(qor_info_context_t, 256, FIELD(size), FIELD(name), FIELD(role), FIELD(lifecycle),
       FIELD(runs), FIELD(runs_max), FIELD(queued), FIELD(queued_max), FIELD(delayed),
       FIELD(waiting_ms), FIELD(requests), FIELD(responses), FIELD(tasks), FIELD(bypassed),
       FIELD(refused), FIELD(failed), FIELD(contract), FIELD(strict), FIELD(depth),
       FIELD(replies_max), FIELD(open_max), FIELD(overflow), FIELD(limit), FIELD(replies),
       FIELD(blocked), FIELD(ledger));
RECORD(qor_info_topic_t, 52, FIELD(size), FIELD(role), FIELD(topic), FIELD(subscriber),
       FIELD(subscribers), FIELD(listeners), FIELD(filters), FIELD(requests), FIELD(unserved));
RECORD(qor_info_inside_t, 36, FIELD(name), FIELD(kind), FIELD(session), FIELD(topic),
       FIELD(age_ms));
RECORD(qor_info_thread_t, 212, FIELD(size), FIELD(tid), FIELD(role), FIELD(name), FIELD(depth),
       FIELD(inside));
RECORD(qor_info_request_t, 36, FIELD(size), FIELD(name), FIELD(topic), FIELD(session),
       FIELD(age_ms));
RECORD(qor_health_t, 56, FIELD(size), FIELD(workers), FIELD(busy), FIELD(over), FIELD(circles),
       FIELD(oldest_ms), FIELD(oldest_session), FIELD(oldest), FIELD(queue_ms), FIELD(timer_ms));

RECORD(qor_impl_context_t, 40, FIELD(base));
RECORD(qor_core_context_t, 144, FIELD(base), FIELD(context), FIELD(active_refcount),
       FIELD(lifecycle), FIELD(cond), FIELD(mutex), FIELD(refcount_max), FIELD(refcount),
       FIELD(que), FIELD(priv));

/* clang-format on */

/* A body starts right behind its header, so that each leads to the other. */
static_assert(offsetof(qor_que_node_t, body) == sizeof(qor_que_node_t), "queue node");

/* Numbers that travel in records, and orders that are compared. */
static_assert(QOR_CONTEXT_MSG_REQUEST == 0 && QOR_CONTEXT_MSG_RESPONSE == 1 &&
                  QOR_CONTEXT_MSG_LISTEN_BEFORE == 2 && QOR_CONTEXT_MSG_LISTEN_AFTER == 3 &&
                  QOR_CONTEXT_MSG_FILTER_BEFORE == 4 && QOR_CONTEXT_MSG_FILTER_AFTER == 5,
              "message types");
static_assert(QOR_CONTEXT_FUN_RUN == 0 && QOR_CONTEXT_FUN_RUNX == 1, "function kinds");
static_assert(QOR_CONTEXT_TOPIC_ATTR_POINT == 2 && QOR_CONTEXT_TOPIC_ATTR_PRIORITY == 4 &&
                  QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE == 1 &&
                  QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER == 2 &&
                  QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND == 3 &&
                  QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF == 4,
              "topic attributes");
static_assert(QOR_SYS_MNG_MODULE_REGISTER == 0 && QOR_SYS_MNG_CONTEXT_REGISTER == 1 &&
                  QOR_SYS_BUS_REGISTER == 2 && QOR_SYS_MONITOR_TASK == 3 && QOR_SYS_NUM == 4,
              "system topics");
static_assert(QOR_SYS_MONITOR_TASK_START == 0 && QOR_SYS_MONITOR_TASK_OVER == 1, "monitor states");
static_assert(QOR_START_PENDING == 0 && QOR_START_UP == 1 && QOR_START_NO_CONSOLE == 2 &&
                  QOR_START_INIT_FAILED == 3 && QOR_START_NEVER == 4 && QOR_START_NO_PURE == 5 &&
                  QOR_START_NO_CLASS == 6 && QOR_START_NO_MEMORY == 7 && QOR_START_BROKEN == 8,
              "starts");
static_assert(QOR_FINDING_WARNING == 1 && QOR_FINDING_ERROR == 2, "findings");
static_assert(QOR_BUS_ROLE_USER == 0 && QOR_BUS_ROLE_SYS == 1, "roles");
static_assert(QOR_USER_CONTEXT_LIFECYCLE_INIT == 0 && QOR_USER_CONTEXT_LIFECYCLE_CREATE == 1 &&
                  QOR_USER_CONTEXT_LIFECYCLE_START == 2 && QOR_USER_CONTEXT_LIFECYCLE_RESUME == 3 &&
                  QOR_USER_CONTEXT_LIFECYCLE_PAUSE == 4 && QOR_USER_CONTEXT_LIFECYCLE_STOP == 5 &&
                  QOR_USER_CONTEXT_LIFECYCLE_DESTROY == 6,
              "lifecycle");
static_assert(sizeof(E_QOR_USER_CONTEXT_LIFECYCLE_T) == 4, "lifecycle enumeration");

} // namespace
