/* SPDX-License-Identifier: Apache-2.0 */
/* Requests with a continuation: what is asked and not answered yet, and how each ends. */
#ifndef QOR_ASK_HPP
#define QOR_ASK_HPP

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_periodic.h"
#include "topic.hpp"

QOR_BEGIN_NAMESPACE

/** How a request ended. */
enum class outcome {
    response,  /**< its handler, or the bus for it, has answered: ret says how */
    dropped,   /**< its place in a full queue went to another */
    expired,   /**< its handler deferred it and did not complete it in time */
    refused,   /**< it could not be handed over */
    timed_out, /**< nothing came within the time that was given; what comes later is thrown away */
    ended,     /**< the asking module goes down, because its init has failed */
    quit       /**< the bus has quit */
};

/** What a request has come to. */
template <typename Topic> struct answer {
    using payload = detail::payload<typename Topic::response_type>; /**< of the response */

    outcome how = outcome::refused;  /**< what brought the end */
    int32_t ret = -1;                /**< the handler's result; -1 unless there was a response */
    int32_t session = -1;            /**< what ask() has returned */
    typename payload::value value{}; /**< with a result of 0 or more; a tail of it is valid while
                                        the continuation runs */

    /** Whether there is a value. */
    explicit operator bool() const { return how == outcome::response && ret >= 0; }
};

namespace detail {

/** A request that waits for its end. Its table and its timers share it. */
class asked {
public:
    asked() = default;
    virtual ~asked() = default;
    asked(const asked &) = delete;
    asked &operator=(const asked &) = delete;

    /** Calls the continuation, then releases it; msg is the response, or NULL. Called once. */
    virtual void settle(const char *module, outcome how, const qor_context_msg_t *msg) = 0;

    /** Releases the continuation uncalled. */
    virtual void release() = 0;

    void hold() { holders_.fetch_add(1, std::memory_order_relaxed); }

    void drop()
    {
        if (holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    int32_t session = -1;

private:
    friend class ask_table;

    std::atomic<int32_t> holders_{1};
    class ask_table *table_ = nullptr;
    asked *next_ = nullptr;
    int32_t timer_ = -1;
    bool is_linked_ = false; /* what follows is guarded by the table's mutex */
    bool is_asking_ = false; /* ask() has not returned */
    bool is_refused_ = false;
    bool has_ticked_ = false; /* while it was asking */
    bool has_timer_ = false;
};

/** Lets go of a share in a request, also when the thread ends on the way. */
struct asked_drop {
    void operator()(asked *request) const { request->drop(); }
};
using asked_share = std::unique_ptr<asked, asked_drop>;

/** The requests of one module that wait for their end. */
class ask_table {
public:
    explicit ask_table(const char *module) : module_(module) {}
    ask_table(const ask_table &) = delete;
    ask_table &operator=(const ask_table &) = delete;

    /**
     * Begins a request: arms its timer, which has all memory that its end may need, and sends it.
     *
     * @param request  the caller's share; the table's and the timer's are made here
     * @param publish  hands it over under the session that it is given
     * @return         the session, or -1: the continuation is not called then
     */
    template <typename P>
    int32_t begin(qor_context_t *context, asked &request, int32_t time, P &&publish)
    {
        if (qor_context_session(context, &request.session) < 0) {
            return -1;
        }
        request.table_ = this;
        request.is_asking_ = true;
        request.has_timer_ = true;
        link(request);
        request.hold(); /* the timer's */
        request.timer_ = qor_context_every(context, tick, &request, timer_over, time);
        if (request.timer_ < 0) {
            request.drop();
            if (unlink(request)) {
                request.drop();
            }
            return -1;
        }
        return published(context, request, publish(request.session));
    }

    /** Ends what a response is for; one that nobody waits for any more is passed over. */
    void answered(qor_context_t *context, const qor_context_msg_t &msg)
    {
        if (count_.load(std::memory_order_relaxed) == 0) {
            return;
        }
        int32_t timer = -1;
        asked_share request;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            asked *found = find(msg.session);
            while (found &&
                   found->is_asking_) { /* on another thread, whose call is as good as over */
                left_.wait(lock);
                found = find(msg.session);
            }
            if (!found) {
                return;
            }
            timer = take_locked(*found);
            request.reset(found);
        }
        if (timer >= 0) {
            qor_context_timer_cancel(context, timer);
        }
        request->settle(module_, how_of(msg.ret), &msg);
    }

    /** Takes a request back: true when its continuation will not be called. */
    bool cancel(qor_context_t *context, asked &request)
    {
        int32_t timer = -1;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (!request.is_linked_) {
                return false;
            }
            timer = take_locked(request);
        }
        const asked_share share(&request);
        if (timer >= 0) {
            qor_context_timer_cancel(context, timer);
        }
        request.release();
        return true;
    }

    /** The same by its number. */
    bool cancel(qor_context_t *context, int32_t session)
    {
        asked_share share;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            asked *found = find(session);
            if (!found) {
                return false;
            }
            found->hold();
            share.reset(found);
        }
        return cancel(context, *share);
    }

    /** The module goes down: whatever still waits ends, on this thread. */
    void end()
    {
        for (asked *each = first(); each; each = first()) {
            const asked_share request(each);
            request->settle(module_, ending(), nullptr);
        }
    }

    /** What the module's init has come to. */
    enum class init_state { none, running, done, failed };
    void init_is(init_state state) { init_.store(state, std::memory_order_release); }

private:
    static constexpr std::size_t buckets = 16;

    static outcome how_of(int32_t ret)
    {
        return ret == QOR_RET_DROPPED   ? outcome::dropped
               : ret == QOR_RET_EXPIRED ? outcome::expired
                                        : outcome::response;
    }

    /* A module that goes down with its init does so before the bus's end, unless both are at once.
     */
    outcome ending() const
    {
        const init_state state = init_.load(std::memory_order_acquire);
        return state == init_state::running || state == init_state::failed ? outcome::ended
                                                                           : outcome::quit;
    }

    asked **bucket(int32_t session) { return &buckets_[static_cast<uint32_t>(session) % buckets]; }

    asked *find(int32_t session)
    {
        asked *found = *bucket(session);
        while (found && found->session != session) {
            found = found->next_;
        }
        return found;
    }

    void link(asked &request)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        asked **head = bucket(request.session);
        request.hold();
        request.next_ = *head;
        *head = &request;
        request.is_linked_ = true;
        count_.fetch_add(1, std::memory_order_relaxed);
    }

    /* Unlinks; the table's share is the caller's. Gives the timer that is still to be cancelled. */
    int32_t take_locked(asked &request)
    {
        asked **at = bucket(request.session);
        while (*at != &request) {
            at = &(*at)->next_;
        }
        *at = request.next_;
        request.is_linked_ = false;
        count_.fetch_sub(1, std::memory_order_relaxed);
        return request.has_timer_ ? request.timer_ : -1;
    }

    bool unlink(asked &request)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const bool was_linked = request.is_linked_;
        if (was_linked) {
            take_locked(request);
        }
        return was_linked;
    }

    asked *first()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (asked *each : buckets_) {
            if (each) {
                take_locked(*each);
                return each;
            }
        }
        return nullptr;
    }

    /* The request is handed over, or refused. What came meanwhile may go on. */
    int32_t published(qor_context_t *context, asked &request, int32_t result)
    {
        bool is_prompt = false;
        bool is_over = false;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            request.is_asking_ = false;
            request.is_refused_ = result < 0;
            /* Without its timer the bus has quit: nothing more comes but the module's end. */
            is_over = result < 0 && !request.has_timer_ && request.is_linked_;
            is_prompt = request.has_timer_ && (result < 0 || request.has_ticked_);
            if (is_over) {
                take_locked(request);
            }
        }
        left_.notify_all();
        if (is_over) {
            request.drop();
            return -1;
        }
        if (is_prompt) {
            end_soon(context, request);
        }
        return request.session;
    }

    /* A second timer that is due at once; without memory for it the first one does, later. */
    void end_soon(qor_context_t *context, asked &request)
    {
        request.hold();
        if (qor_context_every(context, tick, &request, prompt_over, 1) < 0) {
            request.drop();
        }
    }

    /* The time is over, or the end of a refused request has come. */
    static void tick(qor_context_t *context, int32_t session, void *arg, uint32_t)
    {
        asked &request = *static_cast<asked *>(arg);
        ask_table &table = *request.table_;
        int32_t timer = -1;
        asked_share share;
        {
            const std::lock_guard<std::mutex> lock(table.mutex_);
            if (request.is_asking_) { /* the next point of the grid, or what follows the call */
                request.has_ticked_ = true;
                return;
            }
            if (request.is_linked_) {
                timer = table.take_locked(request);
                share.reset(&request);
            }
        }
        qor_context_timer_cancel(context, session);
        if (timer >= 0 && timer != session) {
            qor_context_timer_cancel(context, timer);
        }
        if (share) {
            share->settle(table.module_,
                          request.is_refused_ ? outcome::refused : outcome::timed_out, nullptr);
        }
    }

    static void timer_over(void *arg)
    {
        const asked_share own(static_cast<asked *>(arg));
        asked_share share;
        {
            const std::lock_guard<std::mutex> lock(own->table_->mutex_);
            own->has_timer_ = false;
            if (own->is_linked_ && !own->is_asking_) { /* nobody cancelled it */
                own->table_->take_locked(*own);
                share.reset(own.get());
            }
        }
        if (share) {
            share->settle(own->table_->module_, own->table_->ending(), nullptr);
        }
    }

    static void prompt_over(void *arg) { static_cast<asked *>(arg)->drop(); }

    const char *module_;
    std::mutex mutex_;             /* guards the buckets and what they lead to; a leaf */
    std::condition_variable left_; /* some ask() is about to return */
    asked *buckets_[buckets] = {};
    std::atomic<int32_t> count_{0};
    std::atomic<init_state> init_{init_state::none};
};

/** A request with the continuation F. */
template <typename Topic, typename F> class asked_for final : public asked {
    using payload = detail::payload<typename Topic::response_type>;

public:
    template <typename G> explicit asked_for(G &&call) : call_(std::forward<G>(call)) {}

    void settle(const char *module, outcome how, const qor_context_msg_t *msg) override
    {
        const releasing released{*this};
        guarded(module, "continuation", Topic::number, [&] {
            (*call_)(answer_of(module, how, msg));
            return 0;
        });
    }

    void release() override { call_.reset(); }

private:
    struct releasing {
        asked_for &request;
        ~releasing() { request.call_.reset(); }
    };

    answer<Topic> answer_of(const char *module, outcome how, const qor_context_msg_t *msg) const
    {
        answer<Topic> given;
        given.how = how;
        given.session = session;
        if (how != outcome::response) {
            return given;
        }
        given.ret = msg->ret;
        const bytes room = response_bytes(*msg);
        if (msg->ret < 0) {
            return given;
        }
        if (room.size() != payload::room) {
            given.ret =
                size_refused(module, Topic::number, "response", msg->response.size, payload::room);
            return given;
        }
        given.value = payload::read(room);
        return given;
    }

    std::optional<F> call_;
};

} // namespace detail
QOR_END_NAMESPACE

#endif /* QOR_ASK_HPP */
