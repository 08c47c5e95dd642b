/* SPDX-License-Identifier: Apache-2.0 */
/* The bus as an object: how it is made, refused, moved and ended. */
#include "application.hpp"

namespace {

class CppBus : public testing::Test {
protected:
    Output out;
};

/* A module that notes its uninit. */
class Ending : public qor::module<Ending> {
public:
    Ending() : module("ending") {}
    void uninit() { uninits++; }
    int uninits = 0;
};

/* The same in the C interface. */
void nothing(qor_context_t *) {}
int32_t no_init(qor_context_t *, void *)
{
    return 0;
}
int32_t no_message(qor_context_t *, qor_context_msg_t *)
{
    return 0;
}

} // namespace

TEST_F(CppBus, TheDestructorQuitsJoinsAndCloses)
{
    Ending module;
    {
        qor::result<qor::bus> bus = qor::bus::create({module}, 1);
        ASSERT_TRUE(bus);
        ASSERT_EQ(bus->start(), qor::failure::none);
        ASSERT_EQ(bus->wait_up(test_patience), 0);
        EXPECT_EQ(module.uninits, 0);
    }

    EXPECT_EQ(module.uninits, 1);
    EXPECT_EQ(module.context(), nullptr);
}

TEST_F(CppBus, OneThatNeverLoopedIsClosed)
{
    Ending module;
    {
        ASSERT_TRUE(qor::bus::create({module}, 1));
    }

    EXPECT_EQ(module.uninits, 0);
}

TEST_F(CppBus, ASecondLiveOneIsRefused)
{
    Sender first, second;
    qor::result<qor::bus> bus = qor::bus::create({first}, 1);
    ASSERT_TRUE(bus);

    EXPECT_EQ(qor::bus::create({second}, 1).error(), qor::failure::live);

    EXPECT_EQ(out.printed(), "[qor.hpp][err][bus]:there is a bus already\n");
}

TEST_F(CppBus, AnotherOneMayFollow)
{
    Ending module;
    for (int i = 0; i < 3; i++) {
        UpBus bus({module});
        EXPECT_EQ(bus.up(), 0);
    }

    EXPECT_EQ(module.uninits, 3);
}

TEST_F(CppBus, RunLoopsOnTheCallersThread)
{
    qor::bus *running = nullptr;
    Sender module([&] { return running->quit(), 0; });
    qor::result<qor::bus> bus = qor::bus::create({module}, 1);
    ASSERT_TRUE(bus);
    running = &*bus;

    EXPECT_EQ(bus->run(), 0);
}

TEST_F(CppBus, JoinGivesTheLoopsResult)
{
    Sender module;
    UpBus bus({module});
    bus->quit();

    EXPECT_EQ(bus->join(), 0);
}

TEST_F(CppBus, AMovedOneGoesOn)
{
    Ending module;
    qor::result<qor::bus> bus = qor::bus::create({module}, 1);
    ASSERT_TRUE(bus);
    ASSERT_EQ(bus->start(), qor::failure::none);

    qor::bus moved(std::move(*bus));

    EXPECT_EQ(bus->get(), nullptr);
    EXPECT_EQ(moved.wait_up(test_patience), 0);
}

TEST_F(CppBus, ItTakesDescriptorsToo)
{
    qor_context_module_t plain = {"plain", 0,       1,       0,       0,       0,         nullptr,
                                  nothing, nothing, no_init, nothing, nullptr, no_message};
    Ending module;
    UpBus bus({plain, module});

    EXPECT_EQ(bus.up(), 0);
}

TEST_F(CppBus, NoModulesAreRefused)
{
    EXPECT_EQ(qor::bus::create({}, 1).error(), qor::failure::table);
}

TEST_F(CppBus, NoTopicsAreRefused)
{
    Sender module;

    EXPECT_EQ(qor::bus::create({module}, 0).error(), qor::failure::table);
}

TEST_F(CppBus, ARefusedContractIsTold)
{
    Sender module;
    module.contract().overflow = 99;

    EXPECT_EQ(qor::bus::create({module}, 1).error(), qor::failure::contract);

    EXPECT_EQ(out.count("overflow: not known."), 1);
    module.contract().overflow = QOR_OVERFLOW_DEFAULT;
    EXPECT_TRUE(qor::bus::create({module}, 1)); /* nothing of the other is left */
}

TEST_F(CppBus, TimesOutOfRangeAreNotWaited)
{
    Sender module;
    UpBus bus({module});

    EXPECT_EQ(bus->drain(-1ms), -1);
    EXPECT_EQ(bus->wait_up(std::chrono::hours(24 * 365)), -1);
}

namespace {

void to_standard_error(void *, int32_t, const char *fmt, va_list ap)
{
    std::vfprintf(stderr, fmt, ap);
}

const qor_output_t standard_error = {to_standard_error, nullptr};

void destroy_before_the_bus()
{
    auto module = std::make_unique<Sender>();
    const qor::result<qor::bus> bus = qor::bus::create({*module}, 1);
    qor_output_set(&standard_error);
    module.reset();
}

} // namespace

TEST_F(CppBus, AModuleDestroyedBeforeItAborts)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";

    EXPECT_DEATH(destroy_before_the_bus(), "sender.:destroyed before its bus");
}

#if defined(__cpp_exceptions)
TEST_F(CppBus, TheConstructorThrowsWhatCreateReturns)
{
    Sender first, second;
    qor::bus bus({first}, 1);

    try {
        qor::bus other({second}, 1);
        FAIL() << "there are two";
    } catch (const std::runtime_error &thrown) {
        EXPECT_STREQ(thrown.what(), "there is a bus already");
    }
}
#endif
