/* SPDX-License-Identifier: Apache-2.0 */
/* Typed topics: a number with the types of its payloads, and what a handler is called with. */
#ifndef QOR_TOPIC_HPP
#define QOR_TOPIC_HPP

#include <cstdio>
#include <mutex>
#include <string_view>

#include "message.hpp"
#include "qor_context.h"
#include "qor_context_module.h"
#include "qor_deferred.h"

/* What all units of a program share, whether they catch exceptions or not. */
namespace qor {
namespace program {

/** How a type is spelled by the compiler, which needs no type information at run time for it. */
template <typename T> constexpr std::string_view spelling()
{
    constexpr std::string_view whole = __PRETTY_FUNCTION__;
    constexpr std::size_t from = whole.find("T = ") + 4;
    constexpr std::size_t to = whole.find_first_of(";", from);
    return whole.substr(from, (to == std::string_view::npos ? whole.rfind(']') : to) - from);
}

/** One half of a topic: what tells it from others. */
struct half {
    std::string_view type;
    std::size_t size; /**< of the type, 0 for void */
    bool is_tailed;

    friend bool operator!=(const half &a, const half &b)
    {
        return a.type != b.type || a.size != b.size || a.is_tailed != b.is_tailed;
    }
};

template <typename T> constexpr std::size_t size_or_none()
{
    if constexpr (std::is_void_v<T>) {
        return 0;
    } else {
        return sizeof(T);
    }
}

class topic_use;

/** All topics that the program's units use. */
struct topic_uses {
    std::mutex mutex;           /**< guards the rest */
    topic_use *first = nullptr; /**< the newest */
};

inline topic_uses uses; // constant-initialised, so that it is there for every unit's topics

/** One topic type that some unit uses. Made before main(), or when the unit is loaded later. */
class topic_use {
public:
    topic_use(int32_t number, half request, half response)
        : number_(number), request_(request), response_(response)
    {
        const std::lock_guard<std::mutex> lock(uses.mutex);
        next_ = uses.first;
        uses.first = this;
    }

    ~topic_use()
    {
        const std::lock_guard<std::mutex> lock(uses.mutex);
        topic_use **link = &uses.first;
        while (*link != this) {
            link = &(*link)->next_;
        }
        *link = next_;
    }

    topic_use(const topic_use &) = delete;
    topic_use &operator=(const topic_use &) = delete;

    /** Prints a line for each two that share a number and differ; gives how many there are. */
    static int32_t check()
    {
        int32_t found = 0;
        const std::lock_guard<std::mutex> lock(uses.mutex);
        for (const topic_use *use = uses.first; use; use = use->next_) {
            for (const topic_use *other = use->next_; other; other = other->next_) {
                if (use->number_ == other->number_ &&
                    (use->request_ != other->request_ || use->response_ != other->response_)) {
                    print(*use, *other);
                    found++;
                }
            }
        }
        return found;
    }

private:
    static void print(const topic_use &one, const topic_use &two)
    {
        hal_printf("[%s][err][%s]:topic %d has two types: (%.*s, %.*s) and (%.*s, %.*s)\n",
                   "qor.hpp", "topics", static_cast<int>(one.number_), length(one.request_),
                   one.request_.type.data(), length(one.response_), one.response_.type.data(),
                   length(two.request_), two.request_.type.data(), length(two.response_),
                   two.response_.type.data());
    }

    static int length(const half &of) { return static_cast<int>(of.type.size()); }

    int32_t number_;
    half request_;
    half response_;
    topic_use *next_ = nullptr;
};

} // namespace program
} // namespace qor

QOR_BEGIN_NAMESPACE

/**
 * A topic: its number, and the types of a request and its response. A type is one of
 *  - a trivially copyable one: its bytes, wherever they lie in a message, become a value;
 *  - void: nothing;
 *  - tailed<Header>: a header and a tail of bytes;
 *  - bytes, for a request: any number of them, as they are.
 *
 * A number has one type in a program: topics_check() tells of those that have two. Types are told
 * apart by how the compiler spells them and by their size.
 */
template <int32_t Number, typename Request = void, typename Response = void> struct topic {
    static_assert(Number >= 0, "topics are counted from 0");

    using request_type = Request;             /**< of the request's payload */
    using response_type = Response;           /**< of the response's */
    static constexpr int32_t number = Number; /**< the topic's on the bus */
};

/**
 * Prints a line for each two types that the program's units use for one topic number.
 *
 * @return  how many such pairs there are
 *
 * bus::create() calls it. "Use" is to handle the topic, or to send to it. Any thread.
 */
inline int32_t topics_check()
{
    return program::topic_use::check();
}

namespace detail {

template <typename T> constexpr program::half half_of()
{
    using type = typename payload<T>::described;
    return {program::spelling<type>(), program::size_or_none<type>(),
            !payload<T>::none && !payload<T>::plain};
}

/** The entry of a topic; there is one when a function names it. */
template <typename Topic>
inline const program::topic_use used{Topic::number, half_of<typename Topic::request_type>(),
                                     half_of<typename Topic::response_type>()};

template <typename Topic> void use_topic()
{
    (void)&used<Topic>;
}

/** Prints that a part of a message has another size than its topic's; gives -1. */
[[gnu::cold, gnu::noinline]] inline int32_t
size_refused(const char *module, int32_t topic, const char *part, int32_t size, std::size_t wanted)
{
    hal_printf("[%s][err][%s]:topic %d: a %s of %d bytes where %d are due\n", file_tag, module,
               static_cast<int>(topic), part, static_cast<int>(size), static_cast<int>(wanted));
    return -1;
}

} // namespace detail

/**
 * A request as its handler gets it. The value is a copy; what it refers to, a tail or raw bytes, is
 * valid while the handler runs.
 */
template <typename Topic> class request {
    using payload = detail::payload<typename Topic::request_type>;

public:
    using value_type = typename payload::value; /**< the payload as a value */

    /** For the interface itself: the size has been looked at. */
    request(qor_context_t *self, qor_context_msg_t &msg)
        : self_(self), msg_(msg), value_(payload::read(detail::request_bytes(msg)))
    {
    }

    /** The payload. */
    const value_type &operator*() const { return value_; }

    /** A member of the payload. */
    const value_type *operator->() const { return &value_; }

    /** Its bytes as they came; listeners and filters see those of the request that goes on. */
    qor::bytes raw() const { return detail::request_bytes(msg_); }

    /** The number by which the asker knows it. */
    int32_t session() const { return msg_.session; }

    /**
     * Keeps the request open after its handler has returned; see qor_context_defer(). What the
     * handler has put into its response is not sent then: complete() does.
     *
     * @param time  until it is completed with QOR_RET_EXPIRED; less than 1 ms or too long is
     * refused
     * @return      the token, or 0 with a line
     */
    template <typename Rep, typename Period>
    uint64_t defer(std::chrono::duration<Rep, Period> time) const
    {
        uint64_t token = 0;
        const int32_t wait = detail::milliseconds_of(time);
        if (wait < 1) {
            detail::refuse(self_->module->name, "time out of range");
            return 0;
        }
        is_deferred_ = qor_context_defer(self_, &msg_, wait, &token) == 0;
        return is_deferred_ ? token : 0;
    }

    /** For the interface itself: whether the response comes later. */
    bool is_deferred() const { return is_deferred_; }

    /** The context, for calls of the C interface. */
    qor_context_t *context() const { return self_; }

    /** The message, for calls of the C interface. */
    qor_context_msg_t *message() const { return &msg_; }

private:
    qor_context_t *self_;
    qor_context_msg_t &msg_;
    value_type value_;
    mutable bool is_deferred_ = false;
};

/** Completes a deferred request of a topic without a response; see qor_deferred_complete(). */
template <typename Topic> int32_t complete(uint64_t token, int32_t ret)
{
    static_assert(detail::payload<typename Topic::response_type>::none, "there is a response");
    return qor_deferred_complete(token, ret, nullptr, 0);
}

/** Completes a deferred request with its response, also where the asker wants none; not for
 * responses with a tail. */
template <typename Topic>
int32_t complete(uint64_t token, int32_t ret, const typename Topic::response_type &response)
{
    using payload = detail::payload<typename Topic::response_type>;
    static_assert(payload::plain, "a response with a tail is completed with its bytes");
    const int32_t size = static_cast<int32_t>(payload::room);
    return qor_deferred_complete(token, ret, &response, size) == 0
               ? 0
               : qor_deferred_complete(token, ret, nullptr, 0); /* there is no room for one */
}

QOR_END_NAMESPACE

#endif /* QOR_TOPIC_HPP */
