/* SPDX-License-Identifier: Apache-2.0 */
#include "rbapi.h"

#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Answer {
    const char *hex;
    uint32_t seed;
    uint32_t hash;
};

const Answer answers[] = {
#include "data/hash_answers.inc"
};

std::string bytes_of(const std::string &hex)
{
    std::string bytes;
    for (size_t at = 0; at < hex.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

} // namespace

TEST(HashApi, MatchesTheKnownAnswers)
{
    for (const Answer &answer : answers) {
        const std::string bytes = bytes_of(answer.hex);

        EXPECT_EQ(hash_api(bytes.data(), bytes.size(), answer.seed), answer.hash)
            << "bytes " << answer.hex << ", seed " << answer.seed;
    }
    EXPECT_GT(std::size(answers), 70u);
}

TEST(HashApi, StringsAreHashedWithTheirOwnSeed)
{
    int compared = 0;
    for (const Answer &answer : answers) {
        const std::string text = bytes_of(answer.hex);
        if (answer.seed == 0xaa55aa55 && text.find('\0') == std::string::npos) {
            EXPECT_EQ(rbtree_string_hash(text.c_str()), answer.hash) << text;
            compared++;
        }
    }
    EXPECT_GT(compared, 30);
}

TEST(HashApi, BlocksAreReadFromBytesWithoutAlignment)
{
    std::vector<char> buffer(64);
    const std::string text = "a text of some length";
    const uint32_t expected = hash_api(text.data(), text.size(), 1);
    for (size_t offset = 1; offset < 9; offset++) {
        text.copy(buffer.data() + offset, text.size());

        EXPECT_EQ(hash_api(buffer.data() + offset, text.size(), 1), expected);
    }
}

TEST(HashApi, TheFirstByteOfABlockDoesNotCount)
{
    EXPECT_EQ(buf2uint32("\x01\x02\x03\x04"), 0x02030400u);
    EXPECT_EQ(buf2uint32("\xff\x02\x03\x04"), 0x02030400u);
    EXPECT_EQ(buf2uint32("\x00\xff\xfe\xfd"), 0xfffefd00u);
    EXPECT_EQ(rbtree_string_hash("abcd"), rbtree_string_hash("xbcd"));
    EXPECT_EQ(rbtree_string_hash("abcdefgh"), rbtree_string_hash("xbcdxfgh"));
    EXPECT_NE(rbtree_string_hash("abcd"), rbtree_string_hash("axcd"));
}

TEST(HashApi, EveryByteOfTheTailCounts)
{
    EXPECT_NE(rbtree_string_hash("abcde"), rbtree_string_hash("abcdx"));
    EXPECT_NE(rbtree_string_hash("abcdef"), rbtree_string_hash("abcdxf"));
    EXPECT_NE(rbtree_string_hash("abcdefg"), rbtree_string_hash("abcdxfg"));
    EXPECT_NE(rbtree_string_hash("abcdefg"), rbtree_string_hash("abcdefx"));
}
