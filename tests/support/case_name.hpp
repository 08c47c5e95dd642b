/* SPDX-License-Identifier: Apache-2.0 */
/* Names the cases of a table test after their field `name`. */
#ifndef QOR_TESTS_CASE_NAME_HPP
#define QOR_TESTS_CASE_NAME_HPP

#include <string>

#include <gtest/gtest.h>

/* The last argument of INSTANTIATE_TEST_SUITE_P: case_name<Case>. */
template <typename Case> std::string case_name(const testing::TestParamInfo<Case> &info)
{
    return info.param.name;
}

#endif /* QOR_TESTS_CASE_NAME_HPP */
