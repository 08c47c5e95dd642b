/* SPDX-License-Identifier: Apache-2.0 */
/* What those who carry requests tell of them: which one a thread handles, and how it has gone on.
 */
#ifndef QOR_DEFERRED_PRIV_HPP
#define QOR_DEFERRED_PRIV_HPP

#include "qor_deferred.h"
#include "thread_record.hpp"

/* From construction to destruction the calling thread is inside the handler of this request; one
 * without a message hides that of a handler further down the stack. Does nothing on a thread that
 * is not the library's. */
class deferred_scope {
public:
    deferred_scope(const qor_context_msg_t *msg, qor_context_t *publisher, qor_context_t *aim,
                   thread_record *record = thread_record_get())
        : record_(record), request_{msg, publisher, aim, 0},
          before_(record_ ? record_->handled : nullptr)
    {
        if (record_) {
            record_->handled = &request_;
        }
    }
    ~deferred_scope()
    {
        if (record_) {
            record_->handled = before_;
        }
    }
    deferred_scope(const deferred_scope &) = delete;
    deferred_scope &operator=(const deferred_scope &) = delete;

    uint64_t deferral() const { return request_.deferral; }

private:
    thread_record *record_;
    thread_request request_;
    thread_request *before_;
};

/* What others tell of deferred requests. Called through deferred_made alone, so that a program that
 * is linked statically and defers none has none of it. */
struct deferred_calls {
    /* The handler of a deferred request has returned, and the message is no longer the caller's. */
    void (*returned)(uint64_t token, int32_t ret);

    /* The same where it has ended its thread. false when the request has not been deferred. */
    bool (*left)(const qor_context_msg_t *msg);

    /* Discard what is open: all that a module has deferred, all of a bus. The latter also keeps
     * what is complete from being handed over, for the bus is not there any more when its handler
     * returns. */
    void (*subscriber_over)(const qor_context_t *context);
    void (*bus_over)(const qor_bus_t *bus);
};

/* NULL before the first request is deferred; read without a lock. */
extern const deferred_calls *deferred_made;

#endif /* QOR_DEFERRED_PRIV_HPP */
