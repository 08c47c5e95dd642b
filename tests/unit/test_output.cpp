/* SPDX-License-Identifier: Apache-2.0 */
/* Where lines go: standard output, or a sink. */
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "journal.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_msg.h"
#include "qor_hal.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

/* Writes down what it takes, as "3 text". */
class Sink {
public:
    Sink() { qor_output_set(&record); }
    ~Sink() { qor_output_set(nullptr); }
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    std::string text() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }

    std::function<void()> inside;

private:
    static void write(void *self, int32_t level, const char *fmt, va_list ap)
    {
        static_cast<Sink *>(self)->take(level, fmt, ap);
    }

    void take(int32_t level, const char *fmt, va_list ap)
    {
        char line[512];
        vsnprintf(line, sizeof(line), fmt, ap);
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            text_ += std::to_string(level) + " " + line;
        }
        if (inside) {
            inside();
        }
    }

    mutable std::mutex mutex_;
    std::string text_;
    qor_output_t record = {write, this};
};

class OutputSink : public ::testing::Test {
protected:
    Output output;
};

} // namespace

TEST_F(OutputSink, GetsEachLineWithItsLevel)
{
    Sink sink;

    qor_bus_quit(nullptr);
    hal_printf("[%s][wrn][%s][%d]:%s\n", "tag", "function", 7, "text");
    hal_printf("[%s][inf][%s][%d]:%s\n", "tag", "function", 8, "text");
    hal_printf("%s\n", "an application's");
    hal_printf("[%s]\n", "another");

    const std::string text = sink.text();
    EXPECT_EQ(text.substr(0, 31), "3 [qor_bus][err][qor_bus_quit][");
    EXPECT_EQ(text.substr(text.find("4 ")), "4 [tag][wrn][function][7]:text\n"
                                            "6 [tag][inf][function][8]:text\n"
                                            "6 an application's\n"
                                            "6 [another]\n");
    EXPECT_EQ(output.text(), "");
}

TEST_F(OutputSink, IsLeftAgain)
{
    {
        Sink sink;
    }

    hal_printf("%s\n", "to standard output");

    EXPECT_EQ(output.text(), "to standard output\n");
}

TEST_F(OutputSink, ALineFromInsideGoesToStandardOutput)
{
    Sink sink;
    sink.inside = [] { hal_printf("%s\n", "inner"); };

    hal_printf("%s\n", "outer");
    Thread([] { hal_printf("%s\n", "elsewhere"); }).join();

    EXPECT_EQ(sink.text(), "6 outer\n6 elsewhere\n");
    EXPECT_EQ(output.text(), "inner\ninner\n");
}

TEST_F(OutputSink, WithoutAFunctionIsRefused)
{
    const qor_output_t none = {nullptr, nullptr};

    qor_output_set(&none);

    EXPECT_EQ(output.printed(),
              err_line("qor_hal", "qor_output_set", "!(!to || to->write) == true."));
}

TEST_F(OutputSink, TakesTheLinesOfABus)
{
    Module module("module");
    Sink sink;
    {
        RunningBus bus({&module});
        ASSERT_TRUE(bus.up());
    }

    EXPECT_NE(sink.text().find("6 [qor_mng_module][inf][qor_mng_module_init_task]"),
              std::string::npos);
    EXPECT_EQ(output.text(), "");
}

TEST_F(OutputSink, MayBeChangedWhileOthersPrint)
{
    std::atomic<bool> enough{false};
    std::vector<Thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&] {
            while (!enough) {
                hal_printf("%s\n", "line");
            }
        });
    }

    for (int i = 0; i < 200; i++) {
        qor_output_set(nullptr);
        std::this_thread::yield();
        static const qor_output_t silent = {[](void *, int32_t, const char *, va_list) {}, nullptr};
        qor_output_set(&silent);
    }

    enough = true;
    for (Thread &thread : threads) {
        thread.join();
    }
    qor_output_set(nullptr);
    output.clear();
    hal_printf("%s\n", "the last");
    EXPECT_EQ(output.text(), "the last\n");
}
