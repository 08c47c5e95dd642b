/* SPDX-License-Identifier: Apache-2.0 */
/* Functions with captures as what the C interface takes: a function, an argument and its release.
 */
#ifndef QOR_CALLABLE_HPP
#define QOR_CALLABLE_HPP

#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "config.hpp"

QOR_BEGIN_NAMESPACE
namespace detail {

/**
 * Captures that fit into an argument and need no release go into it as bytes; any others go to the
 * heap, in one block.
 */
template <typename F>
constexpr bool
    fits_argument = std::is_trivially_copyable_v<F> &&std::is_trivially_destructible_v<F> &&
                    sizeof(F) <= sizeof(void *) && alignof(F) <= alignof(void *);

/** The same for what is called again and again: what it changes in its captures is to stay. */
template <typename F>
constexpr bool fits_every_argument = fits_argument<F> && (std::is_invocable_v<const F &> ||
                                                          std::is_invocable_v<const F &, uint32_t>);

/** Captures in an argument. */
template <typename F, bool near = fits_argument<F>> struct argument {
    static constexpr bool owns = false;

    template <typename G> static bool make(G &&call, void **arg)
    {
        const F copy(std::forward<G>(call));
        *arg = nullptr;
        if constexpr (!std::is_empty_v<F>) {
            std::memcpy(arg, &copy, sizeof(F));
        }
        return true;
    }

    static void release(void *) {}

    /** Calls use with the function. */
    template <typename U> static auto with(void *arg, U &&use)
    {
        alignas(F) unsigned char place[sizeof(void *)];
        std::memcpy(place, &arg, sizeof(void *));
        return use(*std::launder(reinterpret_cast<F *>(place)));
    }
};

/** Captures on the heap. */
template <typename F> struct argument<F, false> {
    static constexpr bool owns = true;

    /** False without memory. What the captures throw on their way goes to the caller. */
    template <typename G> static bool make(G &&call, void **arg)
    {
        *arg = ::new (std::nothrow) F(std::forward<G>(call));
        return *arg != nullptr;
    }

    static void release(void *arg) { delete static_cast<F *>(arg); }

    template <typename U> static auto with(void *arg, U &&use)
    {
        return use(*static_cast<F *>(arg));
    }
};

} // namespace detail
QOR_END_NAMESPACE

#endif /* QOR_CALLABLE_HPP */
