/* SPDX-License-Identifier: Apache-2.0 */
/* Topic numbers that have two types in one program, and views of bytes. */
#include "application.hpp"

#include <cstring>

#if __has_include(<span>)
#include <span>
#endif

namespace {

struct Small {
    int32_t a;
};
struct Other {
    int32_t a;
};

class CppTopics : public testing::Test {
protected:
    Output out;
    Sender sender;
};

/* Makes a use of a topic, which is over with it. */
template <typename Topic> qor::program::topic_use use()
{
    return {Topic::number, qor::detail::half_of<typename Topic::request_type>(),
            qor::detail::half_of<typename Topic::response_type>()};
}

} // namespace

TEST_F(CppTopics, OneTypeOnANumberIsRight)
{
    const auto one = use<qor::topic<0, Small, Other>>();
    const auto two = use<qor::topic<0, Small, Other>>();
    const auto other = use<qor::topic<1, Other, Small>>();

    EXPECT_EQ(qor::topics_check(), 0);
    EXPECT_EQ(out.text(), "");
}

TEST_F(CppTopics, TwoTypesOnANumberAreTold)
{
    const auto one = use<qor::topic<0, int>>();
    const auto two = use<qor::topic<0, double, char>>();

    EXPECT_EQ(qor::topics_check(), 1);

    EXPECT_EQ(out.printed(),
              "[qor.hpp][err][topics]:topic 0 has two types: (double, char) and (int, void)\n");
}

TEST_F(CppTopics, TypesOfOneSizeAreTwo)
{
    const auto one = use<qor::topic<0, Small>>();
    const auto two = use<qor::topic<0, Other>>();

    EXPECT_EQ(qor::topics_check(), 1);

    EXPECT_EQ(out.count("Small"), 1);
    EXPECT_EQ(out.count("Other"), 1);
}

TEST_F(CppTopics, AHeaderAndAValueAreTwo)
{
    const auto one = use<qor::topic<0, int>>();
    const auto two = use<qor::topic<0, qor::tailed<int>>>();

    EXPECT_EQ(qor::topics_check(), 1);
}

TEST_F(CppTopics, OneThatIsGoneIsForgotten)
{
    const auto one = use<qor::topic<0, int>>();
    {
        const auto two = use<qor::topic<0, double>>();
        const auto three = use<qor::topic<0, double>>();
        EXPECT_EQ(qor::topics_check(), 2);
    }

    EXPECT_EQ(qor::topics_check(), 0);
}

TEST_F(CppTopics, MakingABusChecksThem)
{
    const auto one = use<qor::topic<0, int>>();
    const auto two = use<qor::topic<0, double>>();

    EXPECT_TRUE(qor::bus::create({sender}, 1));

    EXPECT_EQ(out.count("topic 0 has two types"), 1);
}

TEST(CppBytes, AreARange)
{
    char text[] = "abc";
    const qor::bytes view = qor::bytes_of(text, 3);
    std::string read;
    for (const std::byte each : view) {
        read += static_cast<char>(each);
    }

    EXPECT_EQ(read, "abc");
    EXPECT_EQ(view.size(), 3u);
    EXPECT_EQ(view.from(2).size(), 1u);
    EXPECT_EQ(view[1], std::byte('b'));
    EXPECT_TRUE(qor::bytes().empty());
}

TEST(CppBytes, ThoseToBeWrittenAreReadToo)
{
    std::byte memory[2] = {};
    const qor::mutable_bytes view(memory, 2);
    view[1] = std::byte(5);

    const qor::bytes read = view;

    EXPECT_EQ(read[1], std::byte(5));
    static_assert(!std::is_convertible_v<qor::bytes, qor::mutable_bytes>);
}

#if defined(__cpp_lib_span)
TEST(CppBytes, AreASpan)
{
    char text[] = "abc";
    const std::span<const std::byte> span = qor::bytes_of(text, 3);

    EXPECT_EQ(span.size(), 3u);
    EXPECT_EQ(static_cast<const void *>(span.data()), text);
}
#endif
