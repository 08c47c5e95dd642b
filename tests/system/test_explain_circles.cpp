/* SPDX-License-Identifier: Apache-2.0 */
/* Circles among inits that call each other, in sets of modules that are made by chance: what is
 * reported is what a search of the set finds. QOR_EXPLAIN_SETS says how many sets there are. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "explaining.hpp"
#include "qor_context_module.h"

namespace {

/* Whom each init calls, one after the other. */
using Calls = std::vector<std::vector<int>>;
using Circles = std::set<std::set<int>>;

Calls calls_made(std::mt19937 &random)
{
    const auto draw = [&random](int most) {
        return std::uniform_int_distribution<int>(0, most)(random);
    };
    const int size = 2 + draw(6);
    const bool acyclic = draw(2) == 0; /* then nobody calls one that comes behind */
    Calls calls(static_cast<size_t>(size));
    for (int i = 0; i < size; i++) {
        const int most = acyclic ? i - 1 : size - 1;
        for (int left = most < 0 ? 0 : draw(2); left > 0; left--) {
            calls[static_cast<size_t>(i)].push_back(draw(most));
        }
    }
    std::vector<int> place(calls.size()); /* the order of the modules says nothing */
    for (size_t i = 0; i < place.size(); i++) {
        place[i] = static_cast<int>(i);
    }
    std::shuffle(place.begin(), place.end(), random);
    Calls shuffled(calls.size());
    for (size_t i = 0; i < calls.size(); i++) {
        for (const int to : calls[i]) {
            shuffled[static_cast<size_t>(place[i])].push_back(place[static_cast<size_t>(to)]);
        }
    }
    return shuffled;
}

std::string text_of(const Calls &calls)
{
    std::ostringstream text;
    for (size_t i = 0; i < calls.size(); i++) {
        text << (i ? "; " : "") << i << " calls";
        for (const int to : calls[i]) {
            text << " " << to;
        }
    }
    return text.str();
}

/* Which modules come up: those that call only such, found by taking them away one by one. */
std::vector<bool> up_of(const Calls &calls)
{
    std::vector<bool> up(calls.size());
    bool more = true;
    while (more) {
        more = false;
        for (size_t i = 0; i < calls.size(); i++) {
            const bool now = std::all_of(calls[i].begin(), calls[i].end(),
                                         [&](int to) { return up[static_cast<size_t>(to)]; });
            more = more || (now && !up[i]);
            up[i] = up[i] || now;
        }
    }
    return up;
}

/* Where each of the others stands at last: at the first one it calls that does not come up. */
Circles circles_of(const Calls &calls, const std::vector<bool> &up)
{
    const auto next = [&](int i) {
        const auto &to = calls[static_cast<size_t>(i)];
        return *std::find_if(to.begin(), to.end(),
                             [&](int t) { return !up[static_cast<size_t>(t)]; });
    };
    Circles circles;
    for (int i = 0; i < static_cast<int>(calls.size()); i++) {
        if (up[static_cast<size_t>(i)]) {
            continue;
        }
        int at = i;
        for (size_t steps = 0; steps < calls.size(); steps++) {
            at = next(at); /* after so many it is in a circle */
        }
        std::set<int> circle;
        while (circle.insert(at).second) {
            at = next(at);
        }
        circles.insert(circle);
    }
    return circles;
}

/* The circles that an explanation has named. */
Circles circles_told(const Explanation &seen)
{
    Circles circles;
    for (const std::string &line : seen.lines) {
        std::istringstream words(line);
        std::string word;
        size_t length;
        if (!(words >> word) || word != "circle" || !(words >> word >> length >> word)) {
            continue;
        }
        std::set<int> circle;
        std::set<std::string> threads;
        std::string thread;
        while (words >> word >> thread >> thread) { /* "m3 (thread 41)" */
            circle.insert(std::stoi(word.substr(1)));
            threads.insert(thread);
        }
        EXPECT_EQ(circle.size(), length) << line;
        EXPECT_EQ(threads.size(), length) << line;
        circles.insert(circle);
    }
    EXPECT_EQ(seen.circles, static_cast<int32_t>(circles.size()));
    return circles;
}

class ExplainCircles : public Explaining {
protected:
    /* A bus with that set. */
    void make_set(const Calls &calls, uint32_t workers)
    {
        modules.clear();
        for (size_t i = 0; i < calls.size(); i++) {
            modules.push_back(std::make_unique<Module>("m" + std::to_string(i)));
            serve(*modules.back(), static_cast<int32_t>(i));
            call(*modules.back(), std::vector<int32_t>(calls[i].begin(), calls[i].end()));
        }
        std::vector<Module *> table;
        for (const auto &module : modules) {
            table.push_back(module.get());
        }
        make(table, workers);
    }

    /* Whether those that come up are up; nothing is reported meanwhile that is not expected. */
    bool come_up(const std::vector<bool> &up, const Circles &expected)
    {
        bool known = true;
        const bool all = await([&] {
            const Circles told = circles_told(explain());
            known =
                known && std::includes(expected.begin(), expected.end(), told.begin(), told.end());
            for (size_t i = 0; i < up.size(); i++) {
                if (up[i] && !modules[i]->started()) {
                    return false;
                }
            }
            return true;
        });
        return all && known;
    }

    /* With a worker for each init all circles come about. */
    void judge_all(const Calls &calls)
    {
        const std::vector<bool> up = up_of(calls);
        const Circles expected = circles_of(calls, up);
        make_set(calls, static_cast<uint32_t>(calls.size()));
        bus->start();
        EXPECT_TRUE(come_up(up, expected));
        EXPECT_TRUE(await([&] { return circles_told(explain()) == expected; }));
        EXPECT_EQ(health(INT32_MAX).circles, expected.size());
        EXPECT_EQ(judged, expected.empty() ? 0 : 1);
        with += !expected.empty();
        without += expected.empty();
        bus.reset();
    }

    /* One worker comes to a stop at the first init that leads into one. */
    void judge_one(const Calls &calls)
    {
        const std::vector<bool> up = up_of(calls);
        const Circles expected = circles_of(calls, up);
        make_set(calls, 1);
        bus->start();
        if (expected.empty()) {
            EXPECT_TRUE(come_up(up, expected));
        } else {
            EXPECT_TRUE(await([&] { return explain().circles == 1; }));
        }
        const Circles told = circles_told(explain());
        EXPECT_EQ(told.size(), expected.empty() ? 0u : 1u);
        EXPECT_TRUE(std::includes(expected.begin(), expected.end(), told.begin(), told.end()));
        bus.reset();
    }

    /* Those who refuse leave none, and everybody comes up. */
    void judge_refusing(const Calls &calls)
    {
        const bool none = circles_of(calls, up_of(calls)).empty();
        make_set(calls, 2);
        EXPECT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
        output.clear();
        bus->start();
        EXPECT_TRUE(bus->up());
        EXPECT_EQ(explain().circles, 0);
        EXPECT_EQ(output.count("RESUME failed.") == 0, none);
        bus.reset();
    }

    std::vector<std::unique_ptr<Module>> modules;
    int with = 0;
    int without = 0;
};

TEST_F(ExplainCircles, AreThoseOfASearch)
{
    const char *sets = getenv("QOR_EXPLAIN_SETS");
    const unsigned count = sets ? static_cast<unsigned>(atoi(sets)) : 200;
    for (unsigned seed = 0; seed < count && !HasFailure(); seed++) {
        std::mt19937 random(seed);
        const Calls calls = calls_made(random);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + text_of(calls));
        judge_all(calls);
        judge_one(calls);
        judge_refusing(calls);
    }
    fprintf(stderr, "%u sets, %d with circles, %d without\n", count, with, without);
    EXPECT_GE(with, static_cast<int>(count) / 5);
    EXPECT_GE(without, static_cast<int>(count) / 5);
}

} // namespace
