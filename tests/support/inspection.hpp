/* SPDX-License-Identifier: Apache-2.0 */
/* What an inspection of a bus has shown. */
#ifndef QOR_TESTS_INSPECTION_HPP
#define QOR_TESTS_INSPECTION_HPP

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qor_bus.h"
#include "qor_inspect.h"

/* Calls a function of the test's for each record; gives the inspection's result. */
using SeeRecord = std::function<int32_t(int32_t kind, const void *info)>;

inline int32_t inspect(qor_bus_t *bus, const SeeRecord &see)
{
    return qor_bus_inspect(
        bus,
        [](void *arg, int32_t kind, const void *info) {
            return (*static_cast<const SeeRecord *>(arg))(kind, info);
        },
        const_cast<SeeRecord *>(&see));
}

/* All records of one inspection. */
class Inspection {
public:
    explicit Inspection(qor_bus_t *inspected)
    {
        EXPECT_EQ(inspect(inspected,
                          [this](int32_t kind, const void *info) {
                              keep(kind, info);
                              return 0;
                          }),
                  0);
    }

    /* Empty ones when they have not been shown. */
    qor_info_context_t context(const std::string &name) const
    {
        for (const qor_info_context_t &one : contexts) {
            if (one.name == name) {
                return one;
            }
        }
        return {};
    }

    qor_info_topic_t topic(int32_t number, int32_t role = QOR_BUS_ROLE_USER) const
    {
        for (const qor_info_topic_t &one : topics) {
            if (one.topic == number && one.role == role) {
                return one;
            }
        }
        return {};
    }

    /* The same whether something is recorded or not. */
    std::string without_threads() const
    {
        const size_t first = order.find('H');
        const size_t behind = order.find_last_of('H') + 1;
        return first == std::string::npos ? order : order.substr(0, first) + order.substr(behind);
    }

    std::string order; /* a letter for each record: B C T H R */
    qor_info_bus_t bus = {};
    std::vector<qor_info_context_t> contexts;
    std::vector<qor_info_topic_t> topics;
    std::vector<qor_info_thread_t> threads;
    std::vector<qor_info_request_t> requests;

private:
    template <typename R> void keep_in(std::vector<R> &all, const void *info)
    {
        all.push_back(*static_cast<const R *>(info));
        EXPECT_EQ(all.back().size, sizeof(R));
    }

    void keep(int32_t kind, const void *info)
    {
        switch (kind) {
        case QOR_INFO_BUS:
            bus = *static_cast<const qor_info_bus_t *>(info);
            EXPECT_EQ(bus.size, sizeof(bus));
            order += 'B';
            break;
        case QOR_INFO_CONTEXT:
            keep_in(contexts, info);
            order += 'C';
            break;
        case QOR_INFO_TOPIC:
            keep_in(topics, info);
            order += 'T';
            break;
        case QOR_INFO_THREAD:
            keep_in(threads, info);
            order += 'H';
            break;
        case QOR_INFO_REQUEST:
            keep_in(requests, info);
            order += 'R';
            break;
        default:
            ADD_FAILURE() << "kind " << kind;
        }
    }
};

#endif /* QOR_TESTS_INSPECTION_HPP */
