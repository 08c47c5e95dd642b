/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios of two parties for libraries that connect threads: a thread for each party. */
#ifndef BENCH_THREADS_HPP
#define BENCH_THREADS_HPP

#include <thread>

#include "measure.hpp"

namespace bench {

enum Side { asker, answerer };

/* A Link has send(from, number) and receive(at). Each side is used by one thread at a time. */

/** Keeps m.size requests under way. */
template <typename Link> void ping_pong(Measurement &m)
{
    constexpr int64_t enough = -1;
    Link link;
    std::thread other([&link] {
        for (int64_t sent = link.receive(answerer); sent != enough; sent = link.receive(answerer)) {
            link.send(answerer, sent);
        }
    });
    m.begin();
    for (int i = 0; i < m.size; i++) {
        link.send(asker, now_ns());
    }
    int64_t count = 0;
    for (int left = m.size; left > 0;) {
        const int64_t sent = link.receive(asker);
        const int64_t now = now_ns();
        m.latency.add(now - sent);
        count++;
        if (!m.over(now)) {
            link.send(asker, now);
        } else {
            left--;
        }
    }
    m.end(count);
    link.send(asker, enough);
    other.join();
}

/** Sends m.count messages one way. */
template <typename Link> void count(Measurement &m)
{
    Link link;
    std::thread other([&] {
        for (int64_t i = 0; i < m.count; i++) {
            link.receive(answerer);
        }
        m.end(m.count);
    });
    m.begin();
    for (int64_t i = 0; i < m.count; i++) {
        link.send(asker, i);
    }
    other.join();
}

} // namespace bench

#endif /* BENCH_THREADS_HPP */
