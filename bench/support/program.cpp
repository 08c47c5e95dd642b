/* SPDX-License-Identifier: Apache-2.0 */
#include "program.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

struct Options {
    const Scenario *scenario = nullptr;
    int workers = 0; /* the scenario's own */
    double seconds = 0.5;
    int64_t count = 200000;
};

bool is(const char *word, const char *other)
{
    return std::strcmp(word, other) == 0;
}

int list(const std::vector<Scenario> &scenarios)
{
    for (const Scenario &scenario : scenarios) {
        std::printf("%s", scenario.name);
        for (int workers : scenario.workers) {
            std::printf(" %d", workers);
        }
        std::printf("\n");
    }
    return 0;
}

/* An option with its value; false when it is none, or the value is not a positive number. */
bool option(Options &options, const char *name, const char *value)
{
    char *end = nullptr;
    const double number = value ? std::strtod(value, &end) : 0;
    if (!value || end == value || *end != '\0' || !(number > 0) || number > 1e9) {
        return false;
    }
    if (is(name, "--workers")) {
        options.workers = static_cast<int>(number);
    } else if (is(name, "--seconds")) {
        options.seconds = number;
    } else if (is(name, "--count")) {
        options.count = static_cast<int64_t>(number);
    } else {
        return false;
    }
    return true;
}

bool understood(Options &options, char **words, const std::vector<Scenario> &scenarios,
                const std::vector<Switch *> &switches)
{
    for (const Scenario &scenario : scenarios) {
        if (*words && is(*words, scenario.name)) {
            options.scenario = &scenario;
        }
    }
    if (!options.scenario) {
        return false;
    }
    for (char **word = words + 1; *word; word++) {
        bool known = false;
        for (Switch *one : switches) {
            if (is(*word, one->name)) {
                known = one->on = true;
            }
        }
        if (!known) {
            if (!option(options, word[0], word[1])) {
                return false;
            }
            word++;
        }
    }
    return true;
}

int usage(const char *name, const std::vector<Switch *> &switches)
{
    std::fprintf(stderr,
                 "usage: %s --list\n       %s SCENARIO [--workers N] [--seconds S] [--count N]",
                 name, name);
    for (const Switch *one : switches) {
        std::fprintf(stderr, " [%s]", one->name);
    }
    std::fprintf(stderr, "\n");
    return 2;
}

} // namespace

int program(int argc, char **argv, const char *library, const std::vector<Scenario> &scenarios,
            const std::vector<Switch *> &switches)
{
    if (argc == 2 && is(argv[1], "--list")) {
        return list(scenarios);
    }
    Options options;
    if (argc < 2 || !understood(options, argv + 1, scenarios, switches)) {
        return usage(argv[0], switches);
    }
    const Scenario &scenario = *options.scenario;
    bool measured = true;
    for (int workers : options.workers ? std::vector<int>{options.workers} : scenario.workers) {
        Measurement run(workers, scenario.size, options.seconds, options.count);
        scenario.run(run);
        measured = run.print(library, scenario.name) && measured;
    }
    return measured ? 0 : 1;
}

} // namespace bench
