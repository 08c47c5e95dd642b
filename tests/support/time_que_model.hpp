/* SPDX-License-Identifier: Apache-2.0 */
/* What a timed queue does, in the plainest way: a list that is walked from its front. */
#ifndef QOR_TESTS_TIME_QUE_MODEL_HPP
#define QOR_TESTS_TIME_QUE_MODEL_HPP

#include <algorithm>
#include <list>
#include <vector>

#include "qor_time_que.h"

class TimeQueModel {
public:
    struct Entry {
        qor_time_que_node_t *node;
        int64_t when;
        size_t id;
    };

    void enque(const Entry &entry)
    {
        auto at = std::find_if(entries_.begin(), entries_.end(),
                               [&](const Entry &e) { return e.when >= entry.when; });
        entries_.insert(at != entries_.end() && at->when == entry.when ? std::next(at) : at, entry);
    }

    void enque(qor_time_que_node_t *node) { enque({node, node->when, node->id}); }

    /* The first that passes, or NULL. */
    template <typename T> qor_time_que_node_t *take_if(T test)
    {
        auto at = std::find_if(entries_.begin(), entries_.end(), test);
        if (at == entries_.end()) {
            return nullptr;
        }
        qor_time_que_node_t *node = at->node;
        entries_.erase(at);
        return node;
    }

    /* The very first, if it passes. */
    template <typename T> qor_time_que_node_t *take_first_if(T test)
    {
        return entries_.empty() || !test(entries_.front()) ? nullptr
                                                           : take_if([](auto &) { return true; });
    }

    qor_time_que_node_t *remove(size_t id)
    {
        return take_if([=](const Entry &e) { return e.id == id; });
    }

    int32_t early(size_t id, int64_t when)
    {
        const bool known = std::any_of(entries_.begin(), entries_.end(),
                                       [=](const Entry &e) { return e.id == id; });
        auto at = std::find_if(entries_.begin(), entries_.end(),
                               [=](const Entry &e) { return e.id == id && e.when > when; });
        if (at != entries_.end()) {
            const Entry entry = *at;
            entries_.erase(at);
            enque(entry);
        }
        return known ? 0 : -1;
    }

    size_t size() const { return entries_.size(); }

    /* Whether the queue's list holds just these, forwards and backwards. */
    bool matches(const qor_time_que_t *que) const
    {
        const list_head *link = &que->head;
        for (const Entry &entry : entries_) {
            if (link->next != &entry.node->node || link->next->prev != link) {
                return false;
            }
            link = link->next;
        }
        return link->next == &que->head && que->head.prev == link &&
               que->count == static_cast<int32_t>(entries_.size());
    }

private:
    std::list<Entry> entries_;
};

#endif /* QOR_TESTS_TIME_QUE_MODEL_HPP */
