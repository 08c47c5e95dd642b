/* SPDX-License-Identifier: Apache-2.0 */
/* The text of an inspection: each line against the records. */
#include "contract_fixture.hpp"
#include "deferring.hpp"
#include "inspection.hpp"
#include "still_bus.hpp"

namespace {

std::string null_line(const std::string &condition)
{
    return err_line("qor_inspect", "qor_bus_dump", "!(" + condition + ") == true.");
}

std::vector<std::string> dump(qor_bus_t *bus)
{
    std::vector<std::string> lines;
    EXPECT_EQ(qor_bus_dump(
                  bus,
                  [](void *to, const char *line) {
                      static_cast<std::vector<std::string> *>(to)->push_back(line);
                  },
                  &lines),
              0);
    return lines;
}

/* The line that begins like that, or "". */
std::string line_of(qor_bus_t *bus, const std::string &begin)
{
    for (const std::string &line : dump(bus)) {
        if (line.compare(0, begin.size(), begin) == 0) {
            return line;
        }
    }
    return "";
}

/* The number behind a word, -1 when the word is not there. */
long long number_behind(const std::string &line, const std::string &word)
{
    const size_t at = line.find(", " + word + " ");
    return at == std::string::npos ? -1 : std::stoll(line.substr(at + word.size() + 3));
}

void *nothing(void *)
{
    return nullptr;
}

} // namespace

TEST(BusDumpNull, EachArgumentIsReported)
{
    Output output;
    StillBus bus(StillBus::bare);

    EXPECT_EQ(qor_bus_dump(
                  nullptr, [](void *, const char *) {}, nullptr),
              -1);
    EXPECT_EQ(qor_bus_dump(bus.get(), nullptr, nullptr), -1);

    EXPECT_EQ(output.printed(), null_line("bus") + null_line("text"));
}

TEST(BusDump, ABareBusIsOneLine)
{
    StillBus bus(StillBus::bare);
    qor_bus_run(bus.get(), nothing, nullptr, nullptr);
    qor_bus_run(bus.get(), nothing, nullptr, nullptr);
    bus.run_next();
    const qor_info_bus_t seen = Inspection(bus.get()).bus;

    const std::vector<std::string> lines = dump(bus.get());

    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "bus: workers 0, idle 0, quitting 0, queued 1, most 2, timers 0, "
                        "next ms none, refused 0, allocations failed " +
                            std::to_string(seen.allocations_failed) + ", lines " +
                            std::to_string(seen.lines));
}

TEST(BusDump, TheNextTimerAndTheQuitAreSaid)
{
    StillBus bus(StillBus::bare);
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, nullptr, 1, nothing, nullptr);
    task.delay = 895000;
    ASSERT_EQ(qor_bus_timer_post(bus.get(), &task), 0);
    qor_bus_quit(bus.get());
    EXPECT_EQ(qor_bus_run(bus.get(), nothing, nullptr, nullptr), -1);

    const std::string line = line_of(bus.get(), "bus: ");

    EXPECT_EQ(number_behind(line, "quitting"), 1);
    EXPECT_EQ(number_behind(line, "timers"), 1);
    EXPECT_LE(number_behind(line, "next ms"), 895000);
    EXPECT_GT(number_behind(line, "next ms"), 800000);
    EXPECT_EQ(number_behind(line, "refused"), 1);
}

TEST(BusDump, ATimerThatIsLateHasANegativeNumber)
{
    StillBus bus(StillBus::bare);
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, nullptr, 1, nothing, nullptr);
    task.delay = 1;
    ASSERT_EQ(qor_bus_timer_post(bus.get(), &task), 0);

    EXPECT_TRUE(await([&] { return number_behind(line_of(bus.get(), "bus: "), "next ms") < -5; }));
}

TEST_F(Contract, ALineForEachRecord)
{
    bus.reset(new RunningBus(RunningBus::by_start, 2, {&server, &client}, TOPICS));
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(), 0);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(settles());
    const Inspection seen(bus->get());

    const std::vector<std::string> lines = dump(bus->get());

    EXPECT_EQ(lines.size(), seen.order.size());
    EXPECT_EQ(line_of(bus->get(), "context qor_mng_module: "),
              "context qor_mng_module: system, failed 0");
    const qor_info_context_t record = seen.context("server");
    EXPECT_EQ(line_of(bus->get(), "context server: "),
              "context server: RESUME, runs 0, slots 1, queued 0, most " +
                  std::to_string(record.queued_max) +
                  ", delayed 0, waiting ms 0, requests 2, responses 0, tasks 0, bypassed 0, "
                  "refused 0, failed 0");
    EXPECT_EQ(number_behind(line_of(bus->get(), "context client: "), "responses"), 2);
    EXPECT_EQ(line_of(bus->get(), "topic 0: "),
              "topic 0: server, subscribers 1, listeners 0, filters 0, requests 2, unserved 0");
    EXPECT_EQ(line_of(bus->get(), "topic sys " + std::to_string(QOR_SYS_BUS_REGISTER)),
              "topic sys " + std::to_string(QOR_SYS_BUS_REGISTER) +
                  ": qor_bus_module, subscribers 1, listeners 0, filters 0, requests 2, "
                  "unserved 0");
    qor_context_unsubscribe(server.context(), TOPIC);
    EXPECT_EQ(line_of(bus->get(), "topic 0: ").substr(0, 24), "topic 0: -, subscribers ");
}

TEST_F(Contract, WhatAContractPromisesAndItsLedger)
{
    running_with(strict_terms(7, QOR_OVERFLOW_DROP_NEWEST));
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(settles());

    const std::string line = line_of(bus->get(), "context server: ");

    EXPECT_EQ(line.substr(line.find(", failed")),
              ", failed 0, strict 1, depth 7, replies max 50, open max 0, overflow 4, limit 1, "
              "replies 0, blocked 0, accepted 1, run 1, running 0, waiting 0, delayed 0, dropped "
              "oldest 0, dropped newest 0, dropped transfer 0, cancelled 0, discarded 0, "
              "transferred 0, refused 0, bypassed 0, open 0, finished 0, highest 1");
}

TEST_F(Deferring, AnOpenRequestIsALine)
{
    be_up();
    deferred();
    const int32_t session = Inspection(bus->get()).requests.at(0).session;

    const std::string begin =
        "request " + std::to_string(session) + ": open at server, topic 3, ms ";
    EXPECT_EQ(dump(bus->get()).back().substr(0, begin.size()), begin);
    EXPECT_TRUE(await([&] {
        const std::string line = line_of(bus->get(), begin);
        return !line.empty() && number_behind(line, "ms") > 5;
    }));
}
