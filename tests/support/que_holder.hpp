/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of both kinds of queues share: queues that release themselves, nodes whose body is
 * their id, calls with a NULL queue, and a thread that waits for a change. */
#ifndef QOR_TESTS_QUE_HOLDER_HPP
#define QOR_TESTS_QUE_HOLDER_HPP

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "output.hpp"
#include "qor_que.h"
#include "qor_time_que.h"
#include "thread.hpp"

/* Milliseconds: a delay that no test reaches, and one in which every machine gets on. */
constexpr int32_t far_off = 3600 * 1000;
constexpr int32_t too_late = 30 * 1000;

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

/* Frees a taken node and tells the id that it had; "-" for none. */
inline std::string free_and_name(qor_que_node_t *node)
{
    if (!node) {
        return "-";
    }
    const std::string name(1, static_cast<char>(qor_que_node_id(node)));
    qor_que_node_destroy(node, nullptr);
    return name;
}

inline std::string free_and_name(qor_time_que_node_t *node)
{
    if (!node) {
        return "-";
    }
    const std::string name(1, static_cast<char>(qor_time_que_node_id(node)));
    qor_time_que_node_destroy(node, nullptr);
    return name;
}

template <typename Node> bool unlinked(const Node *node)
{
    return node->node.next == nullptr && node->node.prev == nullptr;
}

/* The ids of the bodies that were recycled, in order. One thread at a time. */
inline std::string recycled;

inline void note_recycled(void *body)
{
    recycled.append(static_cast<char *>(body), 1);
}

inline void lock(qor_que_t *que)
{
    qor_que_lock(que);
}

inline void lock(qor_time_que_t *que)
{
    qor_time_que_lock(que);
}

inline void unlock(qor_que_t *que)
{
    qor_que_unlock(que);
}

inline void unlock(qor_time_que_t *que)
{
    qor_time_que_unlock(que);
}

inline void wait_locked(qor_que_t *que)
{
    qor_que_wait_locked(que);
}

inline void wait_locked(qor_time_que_t *que)
{
    qor_time_que_wait_locked(que);
}

inline void wakeup_locked(qor_que_t *que)
{
    qor_que_wakeup_locked(que);
}

inline void wakeup_locked(qor_time_que_t *que)
{
    qor_time_que_wakeup_locked(que);
}

/* A thread that waits for the next change of a queue. It does so when the constructor returns. */
template <typename Q> class ChangeWaiter {
public:
    explicit ChangeWaiter(Q *que)
        : que_(que), thread_([this] {
              lock(que_);
              waits_ = true;
              wait_locked(que_);
              woken_ = true;
              unlock(que_);
          })
    {
        EXPECT_TRUE(await([this] {
            lock(que_); /* given up by the thread in its wait alone */
            const bool waits = waits_;
            unlock(que_);
            return waits;
        }));
    }
    ~ChangeWaiter()
    {
        lock(que_);
        wakeup_locked(que_);
        unlock(que_);
        thread_.join();
    }
    ChangeWaiter(const ChangeWaiter &) = delete;
    ChangeWaiter &operator=(const ChangeWaiter &) = delete;

    bool wakes(const Where &where = Where::here()) const
    {
        return await([this] { return woken_.load(); }, where);
    }

private:
    Q *que_;
    bool waits_ = false; /* guarded by the queue's lock */
    std::atomic<bool> woken_{false};
    Thread thread_; /* last: it uses the others */
};

/* A change of a queue, for table tests. */
template <typename Q> struct Change {
    const char *name;
    std::function<void(Q *)> make;
};

/* A call with a NULL queue, and the functions that report it. */
struct NullCase {
    const char *name;
    std::function<void()> call;
    std::vector<std::string> functions;
};

/* The lines of one tag that report a NULL queue. */
inline void expect_null_lines(const std::string &tag, const NullCase &null_case)
{
    Output out;

    null_case.call();

    std::string expected;
    for (const std::string &function : null_case.functions) {
        expected += err_line(tag, tag + "_" + function, "!(_this) == true.");
    }
    EXPECT_EQ(out.printed(), expected);
}

/* Whether a timed wait on a queue's public condition until that moment ends by itself. */
template <typename Q> bool times_out(Q *que, const struct timespec &until)
{
    lock(que);
    const int result = pthread_cond_timedwait(&que->cond, &que->mutex, &until);
    unlock(que);
    return result == ETIMEDOUT;
}

#endif /* QOR_TESTS_QUE_HOLDER_HPP */
