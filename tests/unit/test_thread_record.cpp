/* SPDX-License-Identifier: Apache-2.0 */
/* What a thread of the library's remembers of the scopes that it has entered. */
#include "thread_record.hpp"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string left; /* a letter for each scope that was left by the record */

void leave_note(void *letter)
{
    left += *static_cast<char *>(letter);
}

/* Enters so many scopes, one inside the other, a letter each; innermost the test goes on. */
template <typename F> void enter(int scopes, const F &innermost)
{
    static char letters[] = "abcdefghijklmnopqrstuvwxyz";
    if (scopes == 0) {
        innermost();
        return;
    }
    thread_scope inside(leave_note, &letters[scopes - 1]);
    enter(scopes - 1, innermost);
}

/* The calling thread has a record. */
class ThreadRecord : public testing::Test {
protected:
    ThreadRecord()
    {
        left.clear();
        EXPECT_EQ(thread_records_open(), 0);
        EXPECT_EQ(thread_record_set(&record), 0);
    }
    ~ThreadRecord() override { thread_record_set(nullptr); }

    /* A copy is left: the scopes themselves end in the test, too. */
    std::string leaves() const
    {
        thread_record copy = record;
        thread_record_leave(copy);
        EXPECT_EQ(copy.depth, 0u);
        return left;
    }

    thread_record record = {};
};

} // namespace

TEST_F(ThreadRecord, ScopesAreLeftInnermostFirst)
{
    enter(3, [this] { EXPECT_EQ(leaves(), "abc"); });
    EXPECT_EQ(record.depth, 0u);
}

TEST_F(ThreadRecord, WhatLiesBeyondSixteenScopesIsNotLeft)
{
    enter(18, [this] {
        int remembered = 0;
        thread_scopes_each(leave_note, [&remembered](void *) { remembered++; });
        EXPECT_EQ(remembered, 16);
        EXPECT_EQ(leaves(), "cdefghijklmnopqr");
    });
    EXPECT_EQ(record.depth, 0u);
}

TEST_F(ThreadRecord, AScopeBeyondThemChangesNothing)
{
    char becomes = '!';
    enter(16, [&] {
        thread_scope beyond(leave_note, &becomes);
        beyond.becomes(leave_note, &becomes);
        EXPECT_EQ(leaves(), "abcdefghijklmnop");
    });
}

TEST_F(ThreadRecord, AScopeLeavesWhatItHasBecome)
{
    char first = '1';
    char second = '2';
    thread_scope inside(leave_note, &first);
    inside.becomes(leave_note, &second);

    EXPECT_EQ(leaves(), "2");
}

TEST(ThreadWithoutARecord, RemembersNothing)
{
    char letter = '?';
    thread_scope inside(leave_note, &letter);
    inside.becomes(leave_note, &letter);
    int remembered = 0;

    thread_scopes_each(leave_note, [&remembered](void *) { remembered++; });

    EXPECT_EQ(remembered, 0);
}
