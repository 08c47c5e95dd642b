/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios of bench_bus. What each measures is in bench/README.md. */
#ifndef BENCH_SCENARIOS_HPP
#define BENCH_SCENARIOS_HPP

#include "measure.hpp"

/* Between two modules: m.size requests are under way at any time. */
void ping_pong(bench::Measurement &m);
void count(bench::Measurement &m);

/* Among m.size modules. */
void ring(bench::Measurement &m);
void fork_join(bench::Measurement &m);
void many_to_many(bench::Measurement &m);
void fan_out(bench::Measurement &m);

/* Synchronous, past m.size filters. */
void call(bench::Measurement &m);

/* Timers; beside m.size others, or m.size requests that are under way. */
void timer_churn(bench::Measurement &m);
void timer_lateness(bench::Measurement &m);
void timers_beside_busy(bench::Measurement &m);
void timers_beside_runs(bench::Measurement &m);

/* A timed queue of m.size nodes. */
void time_que(bench::Measurement &m);
void time_que_beside_timers(bench::Measurement &m);

void pool(bench::Measurement &m);
void pool_wake_up(bench::Measurement &m);
void task_in_handler(bench::Measurement &m);

#endif /* BENCH_SCENARIOS_HPP */
