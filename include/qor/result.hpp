/* SPDX-License-Identifier: Apache-2.0 */
/* A value, or why there is none: for programs with and without exceptions. */
#ifndef QOR_RESULT_HPP
#define QOR_RESULT_HPP

#include <optional>

#include "config.hpp"

QOR_BEGIN_NAMESPACE

/** Why there is no bus. */
enum class failure {
    none,      /**< there is one */
    live,      /**< there is another one, which has not been closed */
    no_memory, /**< also for locks; see the line */
    contract,  /**< of a module; see the line */
    table,     /**< no modules or topics, too many, or a module that is on a bus already */
    no_thread  /**< for the loop */
};

/** A text for an error. */
constexpr const char *text_of(failure what)
{
    switch (what) {
    case failure::none:
        return "no error";
    case failure::live:
        return "there is a bus already";
    case failure::no_memory:
        return "no memory";
    case failure::contract:
        return "a contract was refused";
    case failure::table:
        return "modules or topics are not as they must be";
    case failure::no_thread:
        return "no thread for the loop";
    }
    return "unknown";
}

/** A value or an error. */
template <typename T> class result {
public:
    /** A value. */
    result(T &&value) : value_(std::move(value)) {} // NOLINT: a value is a result

    /** An error. */
    result(failure what) : error_(what) {} // NOLINT: and so is an error

    /** Whether there is a value. */
    explicit operator bool() const { return value_.has_value(); }

    /** The value, which has to be there. */
    T &operator*() & { return *value_; }

    /** The same, of a result that ends here. */
    T &&operator*() && { return std::move(*value_); }

    /** A member of the value. */
    T *operator->() { return &*value_; }

    /** Why there is none; failure::none if there is one. */
    failure error() const { return error_; }

private:
    std::optional<T> value_;
    failure error_ = qor::failure::none;
};

QOR_END_NAMESPACE

#endif /* QOR_RESULT_HPP */
