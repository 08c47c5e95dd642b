/* SPDX-License-Identifier: Apache-2.0 */
/* Lines of text that are put together piece by piece. */
#include "info.hpp"

#include <string>

#include <gtest/gtest.h>

TEST(TextLine, HasOnePieceBehindTheOther)
{
    text_line line;
    line.length = 0;

    text_add(line, "one %d", 1);
    text_add(line, ", two %d", 2);

    EXPECT_STREQ(line.text, "one 1, two 2");
    EXPECT_EQ(line.length, strlen("one 1, two 2"));
}

TEST(TextLine, WhatIsTooMuchIsCutOff)
{
    text_line line;
    line.length = 0;
    const std::string most(sizeof(line.text) - 2, 'a');
    text_add(line, "%s", most.c_str());

    text_add(line, "%s", "bcd");
    text_add(line, "%s", "e");

    EXPECT_EQ(line.text, most + "b");
    EXPECT_EQ(line.length, sizeof(line.text) - 1);
}
