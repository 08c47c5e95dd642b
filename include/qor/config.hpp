/* SPDX-License-Identifier: Apache-2.0 */
/* What every header of the C++ interface stands on: the namespace, diagnostic lines, calls that may
 * throw, names and durations. */
#ifndef QOR_CONFIG_HPP
#define QOR_CONFIG_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "qor_hal.h"

#if defined(__cpp_exceptions)
#include <cxxabi.h>
#include <exception>
/* Code that catches and code that does not differ, so that one program may have units of both. */
#define QOR_BEGIN_NAMESPACE \
    namespace qor {         \
    inline namespace with_exceptions {
#else
#define QOR_BEGIN_NAMESPACE \
    namespace qor {         \
    inline namespace without_exceptions {
#endif
#define QOR_END_NAMESPACE \
    }                     \
    }

QOR_BEGIN_NAMESPACE

/** The inside of the interface: nothing for applications. */
namespace detail {

constexpr char file_tag[] = "qor.hpp";

/** Bytes of a module's name in its record, the final zero included. */
constexpr std::size_t name_size = 20;

/** Prints that a call was refused. As all that prints it is out of the way of what does not. */
[[gnu::cold, gnu::noinline]] inline void refuse(const char *module, const char *what)
{
    hal_printf("[%s][err][%s]:%s\n", file_tag, module, what);
}

/** Prints what an exception has said. */
[[gnu::cold, gnu::noinline]] inline void print_thrown(const char *module, const char *what,
                                                      int32_t topic, const char *said)
{
    if (topic >= 0) {
        hal_printf("[%s][err][%s]:exception in %s, topic %d: %s\n", file_tag, module, what,
                   static_cast<int>(topic), said);
    } else {
        hal_printf("[%s][err][%s]:exception in %s: %s\n", file_tag, module, what, said);
    }
}

/**
 * Calls a function of the application's for the library, which no exception may reach: one becomes
 * a line and -1. The end of the thread, by pthread_exit() or pthread_cancel(), goes on its way.
 *
 * @param topic  of the message that is handled, else -1
 */
template <typename F> int32_t guarded(const char *module, const char *what, int32_t topic, F &&call)
{
#if defined(__cpp_exceptions)
    try {
        return call();
#ifdef __GLIBCXX__
    } catch (abi::__forced_unwind &) {
        throw;
#endif
    } catch (const std::exception &thrown) {
        print_thrown(module, what, topic, thrown.what());
    } catch (...) {
        print_thrown(module, what, topic, "not a std::exception");
    }
    return -1;
#else
    (void)module, (void)what, (void)topic;
    return call();
#endif
}

/** Calls what returns nothing; the result is then 0. */
template <typename F, typename... Args> int32_t result_of(F &&call, Args &&...args)
{
    if constexpr (std::is_void_v<decltype(call(std::forward<Args>(args)...))>) {
        call(std::forward<Args>(args)...);
        return 0;
    } else {
        return static_cast<int32_t>(call(std::forward<Args>(args)...));
    }
}

/**
 * Milliseconds, rounded up; -1 for what is negative, more than an int32_t holds, or no number. The
 * first comparison is coarse, and leaves what can be converted exactly.
 */
template <typename Rep, typename Period>
constexpr int32_t milliseconds_of(const std::chrono::duration<Rep, Period> &time)
{
    using coarse = std::chrono::duration<double, std::milli>;
    constexpr double limit = 2147483647.0;
    const double about = std::chrono::duration_cast<coarse>(time).count();
    if (!(about >= 0.0 && about <= limit + 1.0)) {
        return -1;
    }
    const auto exact = std::chrono::ceil<std::chrono::duration<int64_t, std::milli>>(time);
    return exact.count() > INT32_MAX ? -1 : static_cast<int32_t>(exact.count());
}

} // namespace detail

/** The name of a module or task: a literal of at most 19 characters; a longer one fails to compile.
 */
class name {
public:
    /** A literal with its final zero. */
    template <std::size_t Size>
    constexpr name(const char (&text)[Size]) // NOLINT: a literal is a name
        : text_(text), size_(Size)
    {
        static_assert(Size <= detail::name_size, "a name has at most 19 characters");
    }

    /** The literal, terminated. */
    constexpr const char *c_str() const { return text_; }

    /** A character of it, and zero behind its end. */
    constexpr char operator[](std::size_t place) const
    {
        return place < size_ ? text_[place] : '\0';
    }

private:
    const char *text_;
    std::size_t size_;
};

QOR_END_NAMESPACE

#endif /* QOR_CONFIG_HPP */
