/* SPDX-License-Identifier: Apache-2.0 */
/* Nodes of requests and responses: one block that is a node of the private queues and of the bus's
 * by turns. */
#include "message_node.hpp"

#include "qor_que_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_front.hpp"

namespace {

/* The header of a timed node is the longer one, so there is less room behind it. */
constexpr size_t timed_size =
    sizeof(message_run) - (offsetof(qor_time_que_node_t, body) - offsetof(qor_que_node_t, body));

template <typename N> N *message_mark(N *node)
{
    if (node) {
        que_front_of(node)->flags = que_message;
    }
    return node;
}

} // namespace

qor_time_que_node_t *message_node_create()
{
    return message_mark(time_que_node_unfilled(timed_size));
}

qor_que_node_t *message_node_create_for_bus()
{
    return message_mark(que_node_unfilled(sizeof(message_run)));
}

qor_que_node_t *message_node_for_bus(qor_time_que_node_t *node)
{
    que_front *front = que_front_of(node);
    qor_que_node_t *run = reinterpret_cast<qor_que_node_t *>(front + 1);
    run->node = {nullptr, nullptr};
    return run;
}

qor_time_que_node_t *message_node_for_response()
{
    thread_record *record = thread_record_get();
    if (!record || !record->request) {
        return message_node_create();
    }
    void *block = record->request;
    if (record->running == block) {
        record->running = nullptr; /* the worker's own node */
    }
    record->request = nullptr;
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(block);
    *que_front_of(node) = {};
    node->node = {nullptr, nullptr};
    return message_mark(node);
}

void message_node_release()
{
    if (thread_record_get()->request) { /* only a thread with a record defers */
        qor_time_que_node_destroy(message_node_for_response(), nullptr);
    }
}

message_offer::message_offer(void *node, thread_record *record)
    : record_(record), node_(node), before_(record_ ? record_->request : nullptr)
{
    if (record_) {
        record_->request = node_;
    }
}

message_offer::~message_offer()
{
    if (record_) {
        record_->request = before_;
    }
}

bool message_offer::taken() const
{
    return record_ && node_ && record_->request != node_;
}
