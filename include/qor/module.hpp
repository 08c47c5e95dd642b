/* SPDX-License-Identifier: Apache-2.0 */
/* Modules as classes: handlers by typed topic, requests, tasks and timers. */
#ifndef QOR_MODULE_HPP
#define QOR_MODULE_HPP

#include <array>
#include <atomic>
#include <cstdlib>

#include "ask.hpp"
#include "callable.hpp"
#include "qor_context.h"
#include "qor_context_task.h"
#include "qor_contract.h"
#include "qor_deferred.h"

QOR_BEGIN_NAMESPACE

/**
 * What every module can do on the bus. Applications derive from module instead.
 *
 * Calls that reach the bus return -1 with a line while the module is on none: before its reg() and
 * after its uninit(). They may be made on any thread until the bus is closed.
 */
class module_base {
public:
    module_base(const module_base &) = delete;
    module_base &operator=(const module_base &) = delete;

    /**
     * Ends a module that is on no bus. A bus that knows it may still call it, and the derived part
     * is gone already: that is printed, and the process aborts. Declare modules before their bus.
     */
    ~module_base()
    {
        if (users_.load(std::memory_order_acquire) > 0) {
            detail::refuse(descriptor_.name, "destroyed before its bus");
            std::abort();
        }
    }

    /** The record for the bus. What it says besides the callbacks and arg may be changed until a
     * bus is made of it: pure (1 at first), refcount, and what is for the console. */
    qor_context_module_t &descriptor() { return descriptor_; }

    /** The contract that bus gives the module: strict at first. May be changed as the descriptor.
     */
    qor_contract_t &contract() { return contract_; }

    /** The module's name. */
    const char *name() const { return descriptor_.name; }

    /** The context for calls of the C interface; NULL while the module is on no bus. */
    qor_context_t *context() const { return context_.load(std::memory_order_acquire); }

    /**
     * @name Messages
     * A value is a topic's request type; a topic without one is sent without it, or with nothing.
     * @{
     */

    /**
     * Sends a request and looks at no response.
     *
     * @return  the session, or -1: it could not be handed over
     */
    template <typename Topic>
    int32_t publish(const typename detail::payload<typename Topic::request_type>::value &value = {})
    {
        detail::use_topic<Topic>();
        qor_context_t *self = on_bus();
        detail::outgoing<typename Topic::request_type> out(value);
        return self && sendable(out) ? qor_context_req(self, Topic::number, out.data(), out.size())
                                     : -1;
    }

    /**
     * Has a request handled on this thread, before the call returns.
     *
     * @return  the handler's result, or -1
     */
    template <typename Topic>
    int32_t call(const typename detail::payload<typename Topic::request_type>::value &value = {})
    {
        static_assert(detail::payload<typename Topic::response_type>::none, "there is a response");
        detail::use_topic<Topic>();
        qor_context_t *self = on_bus();
        detail::outgoing<typename Topic::request_type> out(value);
        return self && sendable(out)
                   ? qor_context_x_req(self, Topic::number, out.data(), out.size())
                   : -1;
    }

    /**
     * The same with a response, which is written where the result is 0 or more; not for topics
     * whose response has a tail.
     */
    template <typename Topic>
    int32_t call(const typename detail::payload<typename Topic::request_type>::value &value,
                 typename Topic::response_type &response)
    {
        using payload = detail::payload<typename Topic::response_type>;
        static_assert(payload::plain, "a response with a tail is asked for");
        detail::check_payload<typename Topic::response_type>();
        detail::use_topic<Topic>();
        qor_context_t *self = on_bus();
        detail::outgoing<typename Topic::request_type> out(value);
        return self && sendable(out)
                   ? qor_context_x_req_ret(self, Topic::number, out.data(), out.size(), &response,
                                           static_cast<int32_t>(payload::room))
                   : -1;
    }

    /**
     * Sends a request whose end is told to a continuation.
     *
     * @param value  the request
     * @param time   after which it has timed out, counted from here: 1 ms to 24 days, rounded up to
     *               milliseconds
     * @param function  called with an answer<Topic>; moved
     * @return       the session, or -1: function is released and never called. That is without
     * memory, for a time out of range, and when the bus or the module ends already
     *
     * With a session the continuation is called exactly once, whatever comes first, and what it has
     * captured is released right after it; cancel() releases it uncalled. It is never called before
     * ask() has come to its end; in a handler, task or timer of a strict module not before that has
     * returned. It takes its turn in the module's queue as a response does, so in a strict module
     * it runs beside nothing else of it; without one it runs beside other timers and responses.
     *
     * When the bus quits or the module goes down (outcome::quit, outcome::ended) it is called on
     * the thread that discards what the module has left, which has no part in the module's turns:
     * there it may only release what it holds and note that it was called.
     */
    template <typename Topic, typename Rep, typename Period, typename F>
    int32_t ask(const typename detail::payload<typename Topic::request_type>::value &value,
                std::chrono::duration<Rep, Period> time, F function)
    {
        detail::asked_share request(::new (std::nothrow)
                                        detail::asked_for<Topic, F>(std::move(function)));
        return request ? ask_begin<Topic>(value, time, *request) : no_memory();
    }

    /** The same for a topic whose request is void. */
    template <typename Topic, typename Rep, typename Period, typename F>
    int32_t ask(std::chrono::duration<Rep, Period> time, F function)
    {
        return ask<Topic>({}, time, std::move(function));
    }

    /** For qor::ask(): begins what the caller has made, and keeps its share. */
    template <typename Topic, typename Rep, typename Period>
    int32_t ask_begin(const typename detail::payload<typename Topic::request_type>::value &value,
                      std::chrono::duration<Rep, Period> time, detail::asked &request)
    {
        using response = detail::payload<typename Topic::response_type>;
        detail::use_topic<Topic>();
        qor_context_t *self = on_bus();
        const int32_t wait = positive(time);
        detail::outgoing<typename Topic::request_type> out(value);
        if (!self || wait < 0 || !sendable(out)) {
            return -1;
        }
        return asks_.begin(self, request, wait, [&](int32_t session) {
            return qor_context_req_ret_s(self, session, Topic::number, out.data(), out.size(),
                                         static_cast<int32_t>(response::room));
        });
    }

    /** For qor::ask(): takes it back; true when it will not be settled. */
    bool ask_cancel(detail::asked &request)
    {
        qor_context_t *self = context();
        return self && asks_.cancel(self, request);
    }

    /** @} */

    /**
     * @name Tasks and timers
     *
     * Each takes a function object by value and calls it once, or again and again. What it has
     * captured is released when it has run for the last time, was cancelled or discarded. Captures
     * that are trivially copyable and no larger than a pointer, or none, cost no allocation, others
     * one. A result of -1, without memory or when the bus or the module ends, leaves nothing
     * behind: the captures are released. Times are rounded up to milliseconds; what is negative or
     * longer than 24 days is refused with a line. An exception becomes a line.
     *
     * A task runs in its turn of the module's queue.
     * @{
     */

    /** Calls a function as soon as possible. Gives the session, or -1. */
    template <typename F> int32_t run(F function) { return post(nullptr, 0, std::move(function)); }

    /** The same under a name, which the thread bears meanwhile. */
    template <typename F> int32_t run(qor::name name, F function)
    {
        return post(name.c_str(), 0, std::move(function));
    }

    /** Calls a function after a time. Gives the session, or -1. */
    template <typename Rep, typename Period, typename F>
    int32_t after(std::chrono::duration<Rep, Period> time, F function)
    {
        const int32_t delay = not_negative(time);
        return delay < 0 ? -1 : post(nullptr, delay, std::move(function));
    }

    /** The same under a name. */
    template <typename Rep, typename Period, typename F>
    int32_t after(qor::name name, std::chrono::duration<Rep, Period> time, F function)
    {
        const int32_t delay = not_negative(time);
        return delay < 0 ? -1 : post(name.c_str(), delay, std::move(function));
    }

    /**
     * Calls a function again and again, on a grid of its own; see qor_context_every().
     *
     * @param period  1 ms at least
     * @param function  called with nothing, or with the number of points that it has missed
     * @return        the session, or -1
     */
    template <typename Rep, typename Period, typename F>
    int32_t every(std::chrono::duration<Rep, Period> period, F function)
    {
        using argument = detail::argument<F, detail::fits_every_argument<F>>;
        qor_context_t *self = on_bus();
        const int32_t time = positive(period);
        void *arg;
        if (!self || time < 0) {
            return -1;
        }
        if (!argument::make(std::move(function), &arg)) {
            return no_memory();
        }
        const int32_t session = qor_context_every(
            self, every_run<F>, arg, argument::owns ? argument::release : nullptr, time);
        if (session < 0) {
            argument::release(arg);
        }
        return session;
    }

    /**
     * Takes back what a session stands for: a request of ask(), whose continuation is not called
     * then, or a task or timer that has not begun.
     *
     * @return  0, or -1 when there is none
     */
    int32_t cancel(int32_t session)
    {
        qor_context_t *self = on_bus();
        if (!self) {
            return -1;
        }
        return asks_.cancel(self, session) ? 0 : qor_context_timer_cancel(self, session);
    }

    /** @} */

    /** For bus: it knows the module from now on, or no longer. */
    void use(bool is_used) { users_.fetch_add(is_used ? 1 : -1, std::memory_order_acq_rel); }

protected:
    /** For module: copies the record, and makes the contract strict. */
    explicit module_base(const qor_context_module_t &descriptor)
        : descriptor_(descriptor), asks_(descriptor_.name)
    {
        descriptor_.arg = this;
        qor_contract_init(&contract_);
        contract_.strict = 1;
    }

    /** The module on the bus, or NULL and a line. */
    qor_context_t *on_bus() const
    {
        qor_context_t *self = context();
        if (!self) {
            detail::refuse(descriptor_.name, "not on a bus");
        }
        return self;
    }

    std::atomic<qor_context_t *> context_{nullptr}; /**< NULL while on no bus */
    qor_context_module_t descriptor_;               /**< what the bus is given */
    detail::ask_table asks_;                        /**< requests that wait for their end */

private:
    int32_t no_memory() const
    {
        detail::refuse(descriptor_.name, "no memory");
        return -1;
    }

    template <typename Out> bool sendable(const Out &out) const
    {
        return out.there() || no_memory() == 0;
    }

    template <typename Time> int32_t not_negative(Time time) const
    {
        const int32_t span = detail::milliseconds_of(time);
        if (span < 0) {
            detail::refuse(descriptor_.name, "time out of range");
        }
        return span;
    }

    template <typename Time> int32_t positive(Time time) const
    {
        const int32_t span = detail::milliseconds_of(time);
        if (span < 1) {
            detail::refuse(descriptor_.name, "time out of range");
            return -1;
        }
        return span;
    }

    template <typename F> static void *task_run(qor_context_t *self, int32_t, void *arg)
    {
        detail::guarded(self->module->name, "task", -1, [arg] {
            return detail::argument<F>::with(arg, [](F &call) { return call(), 0; });
        });
        return nullptr;
    }

    template <typename F>
    static void every_run(qor_context_t *self, int32_t, void *arg, uint32_t missed)
    {
        detail::guarded(self->module->name, "periodic timer", -1, [arg, missed] {
            using argument = detail::argument<F, detail::fits_every_argument<F>>;
            return argument::with(arg, [missed](F &call) {
                if constexpr (std::is_invocable_v<F &, uint32_t>) {
                    call(missed);
                } else {
                    (void)missed, call();
                }
                return 0;
            });
        });
    }

    template <typename F> int32_t post(const char *name, int32_t delay, F function)
    {
        using argument = detail::argument<F>;
        qor_context_t *self = on_bus();
        void *arg;
        if (!self) {
            return -1;
        }
        if (!argument::make(std::move(function), &arg)) {
            return no_memory();
        }
        if constexpr (!argument::owns) {
            return qor_context_x_timerx_name(self, name, task_run<F>, arg, delay);
        } else {
            const int32_t session =
                post_owned(self, name, delay, task_run<F>, arg, argument::release);
            if (session < 0) {
                argument::release(arg);
            }
            return session;
        }
    }

    /* The calls with a name have no release of their own. */
    static int32_t post_owned(qor_context_t *self, const char *name, int32_t delay,
                              qor_context_runx_t run, void *arg, qor_context_recycle_t release)
    {
        qor_context_task_t task = {};
        int32_t session = 0;
        if (qor_context_session(self, &session) < 0) {
            return -1;
        }
        qor_context_taskx_init(&task, self, name, session, run, arg);
        qor_context_task_set_delay(&task, delay);
        qor_context_task_set_recycle(&task, release);
        return qor_context_handler_post(self, &task) < 0 ? -1 : session;
    }

    qor_contract_t contract_;
    std::atomic<int32_t> users_{0}; /* buses that know it, and one that has called its reg() */
};

/**
 * A module as a class: `class meter : public qor::module<meter, measure, reset>` handles two
 * topics.
 *
 * For each of its topics the class has a public member
 *
 *     int32_t handle(const qor::request<measure> &in, measure::response_type &out);
 *
 * without out where the response is void, and with a qor::tailed_reply<Header> where it has a tail.
 * The result is the request's; a handler that returns nothing gives 0. out goes into the response
 * where the result is 0 or more and there is room for it: an asker may want no response. A request
 * or response part of any other size than the topic's is refused with a line and -1.
 *
 * These members may be there as well, all public: void reg(), after the topics were subscribed;
 * int32_t init(), where a negative result keeps the module from coming up; void unreg() and void
 * uninit(), the reverse; int32_t console(), on a thread of its own, which has to return after
 * unreg(). What they may do is told at qor_context_module_t. An exception that leaves one becomes a
 * line and -1; pthread_exit() goes on its way.
 *
 * The object is not moved or copied, and is to outlive its bus.
 */
template <typename Derived, typename... Topics> class module : public module_base {
public:
    /** A module that comes up in the first of the two phases; see descriptor(). */
    explicit module(qor::name name)
        : module_base(describe(name, std::make_index_sequence<detail::name_size>()))
    {
        (detail::use_topic<Topics>(), ...);
        (check_topic<Topics>(), ...);
        if constexpr (has_console<Derived>(0)) {
            descriptor_.console = on_console;
        }
    }

    /** Takes the module's requests of a topic again, from any thread. 0, or -1 with a line. */
    template <typename Topic> int32_t subscribe()
    {
        qor_context_t *self = on_bus();
        return self ? take(self, place_of<Topic>(), Topic::number) : -1;
    }

    /** Takes none any more; also inside the topic's own handler. 0, or -1 with a line. */
    template <typename Topic> int32_t unsubscribe()
    {
        qor_context_t *self = on_bus();
        return self ? leave(self, place_of<Topic>(), Topic::number) : -1;
    }

private:
    static constexpr std::array<int32_t, sizeof...(Topics)> numbers = {Topics::number...};

    template <typename D> static constexpr auto has_console(int) -> decltype(&D::console, true)
    {
        return true;
    }
    template <typename D> static constexpr bool has_console(...) { return false; }

    template <std::size_t... At>
    static qor_context_module_t describe(qor::name name, std::index_sequence<At...>)
    {
        return {{name[At]...}, 0,        1,       0,         0,       0,         nullptr,
                on_reg,        on_unreg, on_init, on_uninit, nullptr, on_message};
    }

    template <typename Topic> static constexpr void check_topic()
    {
        constexpr int here = ((Topics::number == Topic::number) + ...);
        static_assert(here == 1, "a module has a topic once");
    }

    template <typename Topic> static constexpr std::size_t place_of()
    {
        static_assert((std::is_same_v<Topics, Topic> || ...), "not one of the module's topics");
        std::size_t place = 0;
        while (numbers[place] != Topic::number) {
            place++;
        }
        return place;
    }

    static Derived &of(qor_context_t *self)
    {
        return static_cast<Derived &>(*static_cast<module_base *>(self->module->arg));
    }

    int32_t take(qor_context_t *self, std::size_t place, int32_t number)
    {
        const int32_t taken = qor_context_subscribe(self, number, nullptr);
        if (taken >= 0) {
            is_taken_[place].store(true, std::memory_order_relaxed);
        }
        return taken;
    }

    int32_t leave(qor_context_t *self, std::size_t place, int32_t number)
    {
        is_taken_[place].store(false, std::memory_order_relaxed);
        return qor_context_unsubscribe(self, number);
    }

    static void on_reg(qor_context_t *self)
    {
        Derived &module = of(self);
        module.use(true);
        module.context_.store(self, std::memory_order_release);
        module.is_complete_ = true;
        for (std::size_t i = 0; i < sizeof...(Topics); i++) {
            module.is_complete_ = module.take(self, i, numbers[i]) >= 0 && module.is_complete_;
        }
        module.called("reg", [&module] { return hook_reg(module, 0); });
    }

    static int32_t on_init(qor_context_t *self, void *)
    {
        using state = detail::ask_table::init_state;
        Derived &module = of(self);
        module.asks_.init_is(state::running);
        const int32_t ret = module.is_complete_
                                ? module.called("init", [&module] { return hook_init(module, 0); })
                                : -1;
        module.asks_.init_is(ret < 0 ? state::failed : state::done);
        return ret;
    }

    static void on_unreg(qor_context_t *self)
    {
        Derived &module = of(self);
        module.called("unreg", [&module] { return hook_unreg(module, 0); });
        for (std::size_t i = 0; i < sizeof...(Topics); i++) {
            if (module.is_taken_[i].load(std::memory_order_relaxed)) {
                module.leave(self, i, numbers[i]);
            }
        }
    }

    static void on_uninit(qor_context_t *self)
    {
        Derived &module = of(self);
        module.asks_.end();
        module.called("uninit", [&module] { return hook_uninit(module, 0); });
        module.asks_.init_is(detail::ask_table::init_state::none);
        module.context_.store(nullptr, std::memory_order_release);
        module.use(false);
    }

    static int32_t on_console(qor_context_t *self)
    {
        Derived &module = of(self);
        return module.called(
            "console", [&module] { return detail::result_of([&] { return module.console(); }); });
    }

    template <typename F> int32_t called(const char *what, F &&call)
    {
        return detail::guarded(descriptor_.name, what, -1, std::forward<F>(call));
    }

    static int32_t on_message(qor_context_t *self, qor_context_msg_t *msg)
    {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            return on_response(self, *msg);
        }
        return serve_one_of<Topics...>(self, *msg);
    }

    /* Not inlined, as what follows: what one kind of message or one topic's handler needs on the
     * stack, or for the way of an exception, costs no other. */
    [[gnu::noinline]] static int32_t on_response(qor_context_t *self, const qor_context_msg_t &msg)
    {
        of(self).asks_.answered(self, msg);
        return 0;
    }

    template <typename... None>
    [[gnu::noinline]] static std::enable_if_t<sizeof...(None) == 0, int32_t>
    serve_one_of(qor_context_t *self, qor_context_msg_t &)
    {
        detail::refuse(self->module->name, "a message of a topic that it does not handle");
        return -1;
    }

    template <typename Topic, typename... Others>
    static int32_t serve_one_of(qor_context_t *self, qor_context_msg_t &msg)
    {
        return msg.topic == Topic::number ? serve<Topic>(self, msg)
                                          : serve_one_of<Others...>(self, msg);
    }

    template <typename Topic>
    [[gnu::noinline]] static int32_t serve(qor_context_t *self, qor_context_msg_t &msg)
    {
        using in = detail::payload<typename Topic::request_type>;
        using out = detail::payload<typename Topic::response_type>;
        const bool has_room = msg.response.size == static_cast<int32_t>(out::room);
        if (!in::fits(msg.request)) {
            return detail::size_refused(self->module->name, Topic::number, "request",
                                        msg.request.size, in::least);
        }
        if (!has_room && msg.response.size != 0) {
            return detail::size_refused(self->module->name, Topic::number, "response",
                                        msg.response.size, out::room);
        }
        return detail::guarded(self->module->name, "handler", Topic::number, [&] {
            return served<Topic>(of(self), self, msg,
                                 has_room ? detail::response_bytes(msg) : mutable_bytes());
        });
    }

    /* With both sizes right, or no room for a response. */
    template <typename Topic>
    static int32_t served(Derived &module, qor_context_t *self, qor_context_msg_t &msg,
                          mutable_bytes room)
    {
        using out = detail::payload<typename Topic::response_type>;
        const request<Topic> given(self, msg);
        if constexpr (out::none) {
            (void)room;
            return detail::result_of([&] { return module.handle(given); });
        } else {
            typename out::filled filled = out::fresh(room);
            const int32_t ret = detail::result_of([&] { return module.handle(given, filled); });
            if (ret >= 0 && !room.empty() && !given.is_deferred()) {
                out::write(filled, room);
            }
            return ret;
        }
    }

    template <typename D> static auto hook_reg(D &module, int) -> decltype(module.reg(), 0)
    {
        return module.reg(), 0;
    }
    template <typename D> static int32_t hook_reg(D &, long) { return 0; }

    template <typename D>
    static auto hook_init(D &module, int) -> decltype(module.init(), int32_t())
    {
        return detail::result_of([&] { return module.init(); });
    }
    template <typename D> static int32_t hook_init(D &, long) { return 0; }

    template <typename D> static auto hook_unreg(D &module, int) -> decltype(module.unreg(), 0)
    {
        return module.unreg(), 0;
    }
    template <typename D> static int32_t hook_unreg(D &, long) { return 0; }

    template <typename D> static auto hook_uninit(D &module, int) -> decltype(module.uninit(), 0)
    {
        return module.uninit(), 0;
    }
    template <typename D> static int32_t hook_uninit(D &, long) { return 0; }

    std::array<std::atomic<bool>, sizeof...(Topics)> is_taken_{};
    bool is_complete_ = false; /* all topics could be subscribed; set before init is called */
};

QOR_END_NAMESPACE

#endif /* QOR_MODULE_HPP */
