/* SPDX-License-Identifier: Apache-2.0 */
/* The C++ interface: modules as classes, typed topics, functions with captures. C++17, with or
 * without exceptions and run-time type information; nothing of it is in the library.
 *
 * A program makes its modules and then their bus:
 *
 *     using square = qor::topic<0, int, int>;
 *
 *     class squarer : public qor::module<squarer, square> {
 *     public:
 *         squarer() : module("squarer") {}
 *         int32_t handle(const qor::request<square> &in, int &out)
 *         {
 *             out = *in * *in;
 *             return 0;
 *         }
 *     };
 *
 * docs/guide/cpp.md has a whole one. Headers below qor/ are included by this one. */
#ifndef QOR_HPP
#define QOR_HPP

#include "qor.h"

#include "qor/ask.hpp"
#include "qor/await.hpp"
#include "qor/bus.hpp"
#include "qor/callable.hpp"
#include "qor/config.hpp"
#include "qor/message.hpp"
#include "qor/module.hpp"
#include "qor/result.hpp"
#include "qor/topic.hpp"

#endif /* QOR_HPP */
