/* SPDX-License-Identifier: Apache-2.0 */
/* The command line that all the benchmark programs share. */
#ifndef BENCH_PROGRAM_HPP
#define BENCH_PROGRAM_HPP

#include <vector>

#include "measure.hpp"

namespace bench {

/** A scenario, as a program can run it. */
struct Scenario {
    const char *name;
    void (*run)(Measurement &);
    int size;                 /**< see Measurement */
    std::vector<int> workers; /**< what it is run with when nobody asks for another number */
};

/** What else the command line may switch on, such as "--watch-off". */
struct Switch {
    const char *name;
    bool on;
};

/**
 * Runs what the command line asks for; the result is main's.
 *
 *     --list                            prints each scenario with its numbers of workers
 *     SCENARIO [--workers N] [--seconds S] [--count N] [SWITCH]
 */
int program(int argc, char **argv, const char *library, const std::vector<Scenario> &scenarios,
            const std::vector<Switch *> &switches = {});

} // namespace bench

#endif /* BENCH_PROGRAM_HPP */
