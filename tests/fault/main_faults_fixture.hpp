/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of start-up with calls that fail share. */
#ifndef QOR_TESTS_MAIN_FAULTS_FIXTURE_HPP
#define QOR_TESTS_MAIN_FAULTS_FIXTURE_HPP

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "qor_main.h"

inline int listed()
{
    int contexts = 0;
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        contexts++;
    }
    return contexts;
}

class MainFaults : public testing::Test {
protected:
    ~MainFaults() override
    {
        for (int kind = 0; kind < FAULT_KINDS; kind++) {
            fault_arm(static_cast<fault_kind>(kind), -1);
        }
    }

    Output out;
};

#endif /* QOR_TESTS_MAIN_FAULTS_FIXTURE_HPP */
