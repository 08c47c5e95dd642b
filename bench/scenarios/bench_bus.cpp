/* SPDX-License-Identifier: Apache-2.0 */
/* Scenarios of a whole bus. Built with the public headers only, so that the same program can be run
 * with another build of the library, which LD_LIBRARY_PATH names. */
#include "parties.hpp"
#include "program.hpp"
#include "scenarios.hpp"

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "qor_bus",
                          {
                              {"ping-pong", ping_pong, 1, {1, 2, 4}},
                              {"pipeline", ping_pong, 32, {1, 2, 4}},
                              {"count", count, 0, {2, 4}},
                              {"ring-100", ring, 100, {2, 4, 101}},
                              {"fork-join-60", fork_join, 60, {2, 4}},
                              {"many-to-many-60", many_to_many, 60, {2, 4}},
                              {"fan-out-1", fan_out, 1, {2, 4}},
                              {"fan-out-4", fan_out, 4, {2, 4}},
                              {"fan-out-16", fan_out, 16, {2, 4}},
                              {"call-0-filters", call, 0, {1}},
                              {"call-2-filters", call, 2, {1}},
                              {"timer-churn-0", timer_churn, 0, {1}},
                              {"timer-churn-10000", timer_churn, 10000, {1}},
                              {"time-que-10000", time_que, 10000, {1}},
                              {"time-que-1000000", time_que, 1000000, {1}},
                              {"time-que-beside-timers", time_que_beside_timers, 10000, {1}},
                              {"timer-lateness-idle", timer_lateness, 0, {1}},
                              {"timer-lateness-loaded", timer_lateness, 32, {2}},
                              {"timers-beside-busy", timers_beside_busy, 2, {2}},
                              {"timers-beside-runs", timers_beside_runs, 2, {2}},
                              {"pool", pool, 0, {1, 2, 4}},
                              {"pool-wake-up", pool_wake_up, 0, {2}},
                              {"task-in-handler", task_in_handler, 0, {2}},
                          },
                          {&watch_off, &strict});
}
