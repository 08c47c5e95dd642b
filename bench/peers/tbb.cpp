/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios with oneTBB: serial nodes of a flow graph for parties, and an arena for tasks. The
 * thread that waits for a graph takes part in it, so it counts as one of the threads. */
#include <atomic>
#include <deque>

#include <tbb/flow_graph.h>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include "pool.hpp"
#include "program.hpp"

namespace {

namespace flow = tbb::flow;
using bench::Measurement;
using bench::now_ns;
using flow::continue_msg;

/* Puts numbers out to the nodes behind it when it likes, which may be none, one or many. */
using Node = flow::multifunction_node<int64_t, std::tuple<int64_t>>;
using Out = Node::output_ports_type;

/* Runs the graph on so many threads, from the first message on until none is under way. */
template <typename F> void run(Measurement &m, flow::graph &graph, F first)
{
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism,
                                    static_cast<size_t>(m.workers));
    m.begin();
    first();
    graph.wait_for_all();
}

void ping_pong(Measurement &m)
{
    flow::graph graph;
    int64_t count = 0;
    int left = m.size;
    flow::function_node<int64_t, int64_t> answerer(graph, flow::serial,
                                                   [](int64_t sent) { return sent; });
    Node asker(graph, flow::serial, [&](int64_t sent, Out &out) {
        const int64_t now = now_ns();
        m.latency.add(now - sent);
        count++;
        if (!m.over(now)) {
            std::get<0>(out).try_put(now);
        } else if (--left == 0) {
            m.end(count);
        }
    });
    flow::make_edge(answerer, asker);
    flow::make_edge(flow::output_port<0>(asker), answerer);
    run(m, graph, [&] {
        for (int i = 0; i < m.size; i++) {
            answerer.try_put(now_ns());
        }
    });
}

void count(Measurement &m)
{
    flow::graph graph;
    int64_t left = m.count;
    flow::function_node<int64_t> counter(graph, flow::serial, [&](int64_t) {
        if (--left == 0) {
            m.end(m.count);
        }
    });
    flow::function_node<int64_t> publisher(graph, flow::serial, [&](int64_t sends) {
        for (int64_t i = 0; i < sends; i++) {
            counter.try_put(i);
        }
    });
    run(m, graph, [&] { publisher.try_put(m.count); });
}

void ring(Measurement &m)
{
    flow::graph graph;
    std::deque<Node> members;
    for (int i = 0; i < m.size; i++) {
        members.emplace_back(graph, flow::serial, [&m, i](int64_t hops, Out &out) {
            if (i == 0 && hops > 0 && m.over()) {
                m.end(hops);
                return;
            }
            std::get<0>(out).try_put(hops + 1);
        });
    }
    for (size_t i = 0; i < members.size(); i++) {
        flow::make_edge(flow::output_port<0>(members[i]), members[(i + 1) % members.size()]);
    }
    run(m, graph, [&] { members[0].try_put(0); });
}

void fork_join(Measurement &m)
{
    flow::graph graph;
    int left = m.size; /* the asker's, like the following */
    int64_t count = 0;
    flow::broadcast_node<int64_t> fork(graph);
    Node asker(graph, flow::serial, [&](int64_t forked, Out &out) {
        count++;
        if (--left > 0) {
            return;
        }
        const int64_t now = now_ns();
        m.latency.add(now - forked);
        left = m.size;
        if (m.over(now)) {
            m.end(count);
            return;
        }
        std::get<0>(out).try_put(now);
    });
    std::deque<flow::function_node<int64_t, int64_t>> members;
    for (int i = 0; i < m.size; i++) {
        members.emplace_back(graph, flow::serial, [](int64_t forked) { return forked; });
        flow::make_edge(fork, members.back());
        flow::make_edge(members.back(), asker);
    }
    flow::make_edge(flow::output_port<0>(asker), fork);
    run(m, graph, [&] { fork.try_put(now_ns()); });
}

/* The last of a round begins the next one. */
void fan_out(Measurement &m)
{
    flow::graph graph;
    std::atomic<int> left{m.size + 1};
    int64_t rounds = 0; /* guarded by left: 0 for one thread only */
    flow::broadcast_node<int64_t> announcer(graph);
    const auto seen = [&](int64_t sent) {
        if (left.fetch_sub(1) > 1) {
            return;
        }
        const int64_t now = now_ns();
        m.latency.add(now - sent);
        rounds++;
        left = m.size + 1;
        if (m.over(now)) {
            m.end(rounds);
            return;
        }
        announcer.try_put(now);
    };
    std::deque<flow::function_node<int64_t>> listeners;
    for (int i = 0; i < m.size; i++) {
        listeners.emplace_back(graph, flow::serial, [&seen](int64_t sent) { seen(sent); });
        flow::make_edge(announcer, listeners.back());
    }
    flow::function_node<int64_t, int64_t> answerer(graph, flow::serial,
                                                   [](int64_t sent) { return sent; });
    flow::function_node<int64_t> asker(graph, flow::serial, [&seen](int64_t sent) { seen(sent); });
    flow::make_edge(announcer, answerer);
    flow::make_edge(answerer, asker);
    run(m, graph, [&] { announcer.try_put(now_ns()); });
}

/* So many threads beside the one that posts. */
class Pool {
public:
    explicit Pool(const Measurement &m)
        : limit_(tbb::global_control::max_allowed_parallelism, static_cast<size_t>(m.workers) + 1),
          arena_(m.workers, 0)
    {
    }

    template <typename F> void post(F function) { arena_.enqueue(function); }

private:
    tbb::global_control limit_;
    tbb::task_arena arena_;
};

void pool(Measurement &m)
{
    Pool pool(m);
    bench::tasks(m, [&pool](bench::Countdown &countdown) {
        pool.post([&countdown] { countdown.count_down(); });
    });
}

void pool_wake_up(Measurement &m)
{
    Pool pool(m);
    bench::wake_ups(
        m, [&pool](bench::WakeUp &wake_up) { pool.post([&wake_up] { wake_up.started(); }); });
}

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "tbb",
                          {
                              {"ping-pong", ping_pong, 1, {2, 4}},
                              {"pipeline", ping_pong, 32, {2, 4}},
                              {"count", count, 0, {2, 4}},
                              {"ring-100", ring, 100, {2, 4}},
                              {"fork-join-60", fork_join, 60, {2, 4}},
                              {"fan-out-1", fan_out, 1, {2, 4}},
                              {"fan-out-4", fan_out, 4, {2, 4}},
                              {"fan-out-16", fan_out, 16, {2, 4}},
                              {"pool", pool, 0, {1, 2, 4}},
                              {"pool-wake-up", pool_wake_up, 0, {2}},
                          });
}
