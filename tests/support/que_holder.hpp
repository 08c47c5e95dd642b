/* SPDX-License-Identifier: Apache-2.0 */
/* Queues that release themselves, and nodes whose body is their id. */
#ifndef QOR_TESTS_QUE_HOLDER_HPP
#define QOR_TESTS_QUE_HOLDER_HPP

#include <cstring>
#include <string>

#include "qor_que.h"
#include "qor_time_que.h"

/* A blocking queue for the length of a test. */
class Que {
public:
    explicit Que(uint32_t max_count = UINT32_MAX, qor_que_node_recycle_t recycle = nullptr)
        : que_(qor_que_create(max_count, recycle))
    {
    }
    ~Que() { qor_que_destroy(que_); }
    Que(const Que &) = delete;
    Que &operator=(const Que &) = delete;
    operator qor_que_t *() const { return que_; }
    qor_que_t *operator->() const { return que_; }

private:
    qor_que_t *que_;
};

/* A timed queue for the length of a test. */
class TimeQue {
public:
    explicit TimeQue(uint32_t max_count = UINT32_MAX, qor_time_que_node_recycle_t recycle = nullptr)
        : que_(qor_time_que_create(max_count, recycle))
    {
    }
    ~TimeQue() { qor_time_que_destroy(que_); }
    TimeQue(const TimeQue &) = delete;
    TimeQue &operator=(const TimeQue &) = delete;
    operator qor_time_que_t *() const { return que_; }
    qor_time_que_t *operator->() const { return que_; }

private:
    qor_time_que_t *que_;
};

inline qor_que_node_t *new_node(char id)
{
    qor_que_node_t *node = qor_que_node_create(static_cast<size_t>(id), 1);
    memcpy(qor_que_node_body(node), &id, 1);
    return node;
}

inline qor_time_que_node_t *new_time_node(char id, int32_t delay)
{
    qor_time_que_node_t *node = qor_time_que_node_create(static_cast<size_t>(id), delay, 1);
    memcpy(qor_time_que_node_body(node), &id, 1);
    return node;
}

/* Releases a taken node and tells its id; "-" for none. */
inline std::string name_of(qor_que_node_t *node)
{
    if (!node) {
        return "-";
    }
    const std::string name(1, static_cast<char>(qor_que_node_id(node)));
    qor_que_node_destroy(node, nullptr);
    return name;
}

inline std::string name_of(qor_time_que_node_t *node)
{
    if (!node) {
        return "-";
    }
    const std::string name(1, static_cast<char>(qor_time_que_node_id(node)));
    qor_time_que_node_destroy(node, nullptr);
    return name;
}

/* The ids of the bodies that were recycled, in order. One thread at a time. */
inline std::string recycled;

inline void note_recycled(void *body)
{
    recycled.append(static_cast<char *>(body), 1);
}

#endif /* QOR_TESTS_QUE_HOLDER_HPP */
