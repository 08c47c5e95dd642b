/* SPDX-License-Identifier: Apache-2.0 */
/* Requests as something that a coroutine waits for; where the compiler has coroutines. */
#ifndef QOR_AWAIT_HPP
#define QOR_AWAIT_HPP

#if defined(__cpp_impl_coroutine)

#include <coroutine>

#include "module.hpp"

QOR_BEGIN_NAMESPACE
namespace detail {

/** What a coroutine waits for: the end of one request. Its life is that of the expression. */
template <typename Topic, typename Time> class asking {
    using value_type = typename payload<typename Topic::request_type>::value;

public:
    asking(module_base &module, const value_type &value, Time time)
        : module_(module), value_(value), time_(time)
    {
    }
    asking(const asking &) = delete;
    asking &operator=(const asking &) = delete;

    /* The coroutine is destroyed while it waits, or has gone on. */
    ~asking()
    {
        if (request_) {
            module_.ask_cancel(*request_);
        }
    }

    bool await_ready() const { return false; }

    /* Once it is sent, the answer may come on another thread and end this object: nothing of it is
     * touched after that. */
    bool await_suspend(std::coroutine_handle<> waiting)
    {
        const auto resume = [this, waiting](const answer<Topic> &given) {
            answer_ = given;
            waiting.resume();
        };
        using record = asked_for<Topic, std::remove_const_t<decltype(resume)>>;
        asked_share request(::new (std::nothrow) record(resume));
        if (!request) {
            return false;
        }
        request->hold();
        request_.reset(request.get());
        if (module_.ask_begin<Topic>(value_, time_, *request) >= 0) {
            return true;
        }
        request_.reset();
        return false;
    }

    answer<Topic> await_resume() const { return answer_; }

private:
    module_base &module_;
    const value_type value_;
    const Time time_;
    asked_share request_;
    answer<Topic> answer_; /* refused, until another comes */
};

} // namespace detail

/**
 * Gives what `co_await` waits for: a request and its end, as an answer<Topic>.
 *
 *     const qor::answer<measure> now = co_await qor::ask<measure>(*this, {channel}, 100ms);
 *
 * What holds for the continuation of module_base::ask() holds for what follows the wait: where it
 * runs, and that it may do next to nothing when the module or the bus has ended. A request that
 * cannot be begun is refused, without a wait. Destroying a coroutine that waits cancels its
 * request; where that and the answer may come together, on two threads, is for its owner to avoid:
 * in a strict module, destroy it in the module's turns.
 */
template <typename Topic, typename Rep, typename Period>
auto ask(module_base &module,
         const typename detail::payload<typename Topic::request_type>::value &value,
         std::chrono::duration<Rep, Period> time)
{
    return detail::asking<Topic, std::chrono::duration<Rep, Period>>(module, value, time);
}

/** The same for a topic whose request is void. */
template <typename Topic, typename Rep, typename Period>
auto ask(module_base &module, std::chrono::duration<Rep, Period> time)
{
    return detail::asking<Topic, std::chrono::duration<Rep, Period>>(module, {}, time);
}

/**
 * A coroutine that begins at once and belongs to this object, which destroys it, wherever it waits.
 * An exception that leaves it becomes a line.
 */
class flow {
public:
    struct promise_type {
        flow get_return_object() { return flow(handle::from_promise(*this)); }
        std::suspend_never initial_suspend() const noexcept { return {}; }
        std::suspend_always final_suspend() const noexcept { return {}; }
        void return_void() const {}
        void unhandled_exception() const
        {
#if defined(__cpp_exceptions)
            detail::guarded("flow", "coroutine", -1, []() -> int32_t { throw; });
#endif
        }
    };

    /** None. */
    flow() = default;

    /** Takes over a coroutine. */
    flow(flow &&other) noexcept : own_(std::exchange(other.own_, {})) {}

    /** Changes places with another. */
    flow &operator=(flow &&other) noexcept
    {
        std::swap(own_, other.own_);
        return *this;
    }
    ~flow()
    {
        if (own_) {
            own_.destroy();
        }
    }

    /** Whether it has come to its end, or there is none. Not while it runs. */
    bool done() const
    {
        return !own_ || own_.done();
    }

private:
    using handle = std::coroutine_handle<promise_type>;
    explicit flow(handle own) : own_(own) {}

    handle own_;
};

QOR_END_NAMESPACE

#endif /* __cpp_impl_coroutine */

#endif /* QOR_AWAIT_HPP */
