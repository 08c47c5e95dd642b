/* SPDX-License-Identifier: Apache-2.0 */
/* Modules as classes: typed payloads and their sizes, callbacks, and topics taken and given up. */
#include "application.hpp"

#include <cstring>
#include <vector>

namespace {

struct Point {
    int64_t x;
    double y;
};

using plus = qor::topic<0, Point, int64_t>;
using mark = qor::topic<1>;
using state = qor::topic<2, void, Point>;
using text = qor::topic<3, qor::tailed<int32_t>, qor::tailed<int32_t, 8>>;
using raw = qor::topic<4, qor::bytes>;
using later = qor::topic<5, int32_t, int32_t>;

class Server : public qor::module<Server, plus, mark, state, text, raw, later> {
public:
    Server() : module("server") {}

    int32_t handle(const qor::request<plus> &in, int64_t &out)
    {
        is_aligned = reinterpret_cast<uintptr_t>(&*in) % alignof(Point) == 0;
        was_aligned = reinterpret_cast<uintptr_t>(in.raw().data()) % alignof(Point) == 0;
        out = in->x + static_cast<int64_t>(in->y);
        return plus_result;
    }

    int32_t handle(const qor::request<mark> &)
    {
        marks++;
        return leaves ? unsubscribe<mark>() : 0;
    }

    void handle(const qor::request<state> &, Point &out) { out = {7, 8.5}; }

    int32_t handle(const qor::request<text> &in, qor::tailed_reply<int32_t> &out)
    {
        told = std::string(reinterpret_cast<const char *>(in->tail.data()), in->tail.size());
        out.header = in->header + 1;
        if (!out.tail.empty()) {
            std::memcpy(out.tail.data(), "response", out.tail.size());
        }
        return 0;
    }

    int32_t handle(const qor::request<raw> &in)
    {
        told = std::string(reinterpret_cast<const char *>(in->data()), in->size());
        return static_cast<int32_t>(in.raw().size());
    }

    int32_t handle(const qor::request<later> &in, int32_t &out)
    {
        token = in.defer(60s);
        out = 99; /* not sent */
        return token ? 0 : -1;
    }

    std::atomic<int32_t> plus_result{0};
    std::atomic<int> marks{0};
    std::atomic<bool> leaves{false};
    std::atomic<bool> is_aligned{false}, was_aligned{false};
    std::atomic<uint64_t> token{0};
    std::string told;
};

class CppModules : public testing::Test {
protected:
    /* A synchronous request of any sizes, as a module in C might send it. */
    int32_t send(int32_t topic, void *request, int32_t size, void *response, int32_t room)
    {
        return qor_context_x_req_ret(sender.context(), topic, request, size, response, room);
    }

    Output out;
    Server server;
    Sender sender;
    UpBus bus{{server, sender}};
};

} // namespace

TEST_F(CppModules, AValueGoesThereAndBack)
{
    int64_t sum = 0;

    EXPECT_EQ(sender.call<plus>({40, 2.0}, sum), 0);

    EXPECT_EQ(sum, 42);
}

TEST_F(CppModules, MisalignedBytesBecomeAnAlignedValue)
{
    char buffer[sizeof(Point) + 1];
    const Point point = {1, 2.0};
    std::memcpy(buffer + 1, &point, sizeof(point));
    char response[sizeof(int64_t) + 1] = {};
    alignas(8) char *const from = buffer;

    EXPECT_EQ(send(plus::number, from + 1, sizeof(Point), response + 1, sizeof(int64_t)), 0);

    int64_t sum;
    std::memcpy(&sum, response + 1, sizeof(sum));
    EXPECT_EQ(sum, 3);
    EXPECT_TRUE(server.is_aligned);
}

TEST_F(CppModules, ANegativeResultLeavesTheResponse)
{
    server.plus_result = -5;
    int64_t sum = 11;

    EXPECT_EQ(sender.call<plus>({40, 2.0}, sum), -5);

    EXPECT_EQ(sum, 11);
}

TEST_F(CppModules, VoidIsNothingEitherWay)
{
    EXPECT_EQ(sender.call<mark>(), 0);
    Point point = {};
    EXPECT_EQ(sender.call<state>({}, point), 0);

    EXPECT_EQ(server.marks, 1);
    EXPECT_EQ(point.x, 7);
    EXPECT_EQ(point.y, 8.5);
}

TEST_F(CppModules, AHeaderHasATailOfBytes)
{
    const std::string longer(1000, 'x'); /* more than a sender keeps beside the heap */
    EXPECT_GE(sender.publish<text>({5, qor::bytes_of("abc", 3)}), 0);
    bus.settle();
    EXPECT_EQ(server.told, "abc");
    EXPECT_GE(sender.publish<text>({5, qor::bytes_of(longer.data(), longer.size())}), 0);
    bus.settle();
    EXPECT_EQ(server.told, longer);
    EXPECT_GE(sender.publish<text>({5, {}}), 0);
    bus.settle();
    EXPECT_EQ(server.told, "");
}

TEST_F(CppModules, AResponseHasATailOfItsRoom)
{
    std::string told;
    std::atomic<int32_t> header{0};

    EXPECT_GE(sender.ask<text>({5, qor::bytes_of("abc", 3)}, 60s,
                               [&](const qor::answer<text> &given) {
                                   const qor::bytes tail = given.value.tail;
                                   told.assign(reinterpret_cast<const char *>(tail.data()),
                                               tail.size());
                                   header = given.value.header;
                               }),
              0);

    EXPECT_TRUE(await([&] { return header == 6; }));
    EXPECT_EQ(told, "response");
}

TEST_F(CppModules, BytesComeAsTheyAre)
{
    EXPECT_EQ(sender.call<raw>(qor::bytes_of("12345", 5)), 5);
    EXPECT_EQ(server.told, "12345");
    EXPECT_EQ(sender.call<raw>(), 0);
    EXPECT_EQ(server.told, "");
}

TEST_F(CppModules, ARequestOfTheWrongSizeIsRefused)
{
    char bytes[sizeof(Point) + 1] = {};
    int64_t sum = 11;
    out.clear();

    EXPECT_EQ(send(plus::number, bytes, sizeof(Point) - 1, &sum, sizeof(sum)), -1);
    EXPECT_EQ(out.count("[qor.hpp][err][server]:topic 0: a request of 15 bytes where 16 are due\n"),
              1);
    EXPECT_EQ(send(plus::number, bytes, sizeof(Point) + 1, &sum, sizeof(sum)), -1);
    EXPECT_EQ(out.count("a request of 17 bytes where 16 are due\n"), 1);
    EXPECT_EQ(send(mark::number, bytes, 1, nullptr, 0), -1);
    EXPECT_EQ(out.count("topic 1: a request of 1 bytes where 0 are due\n"), 1);
    EXPECT_EQ(send(text::number, bytes, 3, nullptr, 0), -1);
    EXPECT_EQ(out.count("topic 3: a request of 3 bytes where 4 are due\n"), 1);

    EXPECT_EQ(sum, 11);
    EXPECT_EQ(server.marks, 0);
}

TEST_F(CppModules, ARoomOfTheWrongSizeIsRefused)
{
    Point point = {1, 2.0};
    char room[sizeof(int64_t) + 1] = {};
    out.clear();

    EXPECT_EQ(send(plus::number, &point, sizeof(point), room, sizeof(room)), -1);
    EXPECT_EQ(out.count("[qor.hpp][err][server]:topic 0: a response of 9 bytes where 8 are due\n"),
              1);
    EXPECT_EQ(send(mark::number, nullptr, 0, room, 1), -1);
    EXPECT_EQ(out.count("topic 1: a response of 1 bytes where 0 are due\n"), 1);
}

TEST_F(CppModules, AnAskerMayWantNoResponse)
{
    Point point = {1, 2.0};

    EXPECT_EQ(send(plus::number, &point, sizeof(point), nullptr, 0), 0);
}

TEST_F(CppModules, ATopicIsGivenUpInsideItsOwnHandler)
{
    server.leaves = true;

    EXPECT_EQ(sender.call<mark>(), 0);
    EXPECT_LT(sender.call<mark>(), 0);

    EXPECT_EQ(server.marks, 1);
    server.leaves = false;
    EXPECT_EQ(server.subscribe<mark>(), 0);
    EXPECT_EQ(sender.call<mark>(), 0);
    EXPECT_EQ(server.marks, 2);
}

TEST_F(CppModules, ATopicIsGivenUpInsideATaskOfItsHandler)
{
    server.leaves = true;

    EXPECT_GE(sender.publish<mark>(), 0);
    bus.settle();

    EXPECT_LT(sender.publish<mark>(), 0);
    EXPECT_EQ(server.marks, 1);
}

TEST_F(CppModules, ADeferredRequestIsCompletedWithAValue)
{
    std::atomic<int32_t> got{0};
    EXPECT_GE(
        sender.ask<later>(1, 60s, [&](const qor::answer<later> &given) { got = given.value; }), 0);
    ASSERT_TRUE(await([&] { return server.token != 0; }));
    EXPECT_EQ(got, 0);

    EXPECT_EQ(qor::complete<later>(server.token, 0, 5), 0);

    EXPECT_TRUE(await([&] { return got == 5; }));
}

TEST_F(CppModules, ADeferredRequestWithoutRoomIsCompletedToo)
{
    EXPECT_GE(sender.publish<later>(1), 0);
    ASSERT_TRUE(await([&] { return server.token != 0; }));

    EXPECT_EQ(qor::complete<later>(server.token, 0, 5), 0);

    bus.settle();
}

TEST_F(CppModules, ATimeOutOfRangeDefersNothing)
{
    int32_t response = 0;
    out.clear();

    EXPECT_EQ(sender.call<later>(1, response), -1); /* nobody can defer a synchronous one */

    EXPECT_EQ(server.token, 0u);
    EXPECT_EQ(out.count("only the handler of an asynchronous request can defer it."), 1);
}

namespace {

/* Writes down in which order it is called. */
class Hooks : public qor::module<Hooks> {
public:
    Hooks() : module("hooks") {}
    void reg() { order += "reg "; }
    int32_t init()
    {
        order += "init ";
        return init_result;
    }
    void unreg()
    {
        order += "unreg ";
        stopping = true;
    }
    void uninit() { order += "uninit "; }
    int32_t console()
    {
        consoles++;
        return await([this] { return stopping.load(); }) ? 0 : -1;
    }

    std::string order;
    int32_t init_result = 0;
    std::atomic<int> consoles{0};
    std::atomic<bool> stopping{false};
};

/* Its base would not be a base if these held. */
static_assert(!std::is_copy_constructible_v<Hooks> && !std::is_move_constructible_v<Hooks>);

} // namespace

TEST(CppModule, CallbacksComeInTheirOrder)
{
    Output out;
    Hooks hooks;
    {
        UpBus bus({hooks});
        EXPECT_EQ(bus.up(), 0);
        EXPECT_TRUE(await([&] { return hooks.consoles == 1; }));
    }

    EXPECT_EQ(hooks.order, "reg init unreg uninit ");
}

TEST(CppModule, OneWhoseInitFailsDoesNotComeUp)
{
    Output out;
    Hooks hooks;
    hooks.init_result = -1;
    UpBus bus({hooks});

    EXPECT_EQ(bus.up(), 1);
    bus.settle();
    EXPECT_EQ(hooks.order, "reg init unreg uninit ");
}

TEST(CppModule, OneWhoseTopicIsNotOfTheBusDoesNotComeUp)
{
    using beyond = qor::topic<1000>;
    class Beyond : public qor::module<Beyond, beyond> {
    public:
        Beyond() : module("beyond") {}
        void handle(const qor::request<beyond> &) {}
    };
    Output out;
    Beyond module;
    UpBus bus({module});

    EXPECT_EQ(bus.up(), 1);
}

TEST(CppModule, CallsBeforeTheBusAreRefused)
{
    Output out;
    Sender module;

    EXPECT_EQ(module.publish<mark>(), -1);
    EXPECT_EQ(module.run([] {}), -1);

    EXPECT_EQ(out.printed(), "[qor.hpp][err][sender]:not on a bus\n"
                             "[qor.hpp][err][sender]:not on a bus\n");
}

TEST(CppModule, TheLongestNameIsTakenWhole)
{
    class Longest : public qor::module<Longest> {
    public:
        Longest() : module("1234567890123456789") {}
    };
    const Longest module;

    EXPECT_STREQ(module.name(), "1234567890123456789");
}

TEST(CppModule, ItIsStrictUnlessToldOtherwise)
{
    Output out;
    Sender module;
    std::atomic<int> inside{0}, most{0}, runs{0};
    const auto task = [&] {
        const int now = ++inside;
        most = now > most ? now : most.load();
        std::this_thread::yield();
        --inside;
        runs++;
    };
    UpBus bus({module}, 4);

    for (int i = 0; i < 40; i++) {
        EXPECT_GE(module.run(task), 0);
        EXPECT_GE(module.after(1ms, task), 0);
    }

    EXPECT_TRUE(await([&] { return runs == 80; }));
    EXPECT_EQ(most, 1);
}

TEST(CppModule, WithoutStrictItRunsBesideItself)
{
    Output out;
    Sender module;
    std::atomic<int> inside{0}, met{0};
    const auto meet = [&] {
        inside++;
        met += await([&] { return inside == 2; });
    };
    module.contract().strict = 0;
    UpBus bus({module}, 4);

    EXPECT_GE(module.after(1ms, meet), 0);
    EXPECT_GE(module.after(1ms, meet), 0);

    EXPECT_TRUE(await([&] { return met == 2; }));
}
