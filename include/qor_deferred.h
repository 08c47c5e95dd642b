/* SPDX-License-Identifier: Apache-2.0 */
/* Deferred requests: a handler returns, and the response follows later, from any thread. */
#ifndef QOR_DEFERRED_H
#define QOR_DEFERRED_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * Keeps the request that the calling thread handles open after its handler has returned. Any module
 * may do so with a request that was published asynchronously, once, on the thread and before the
 * return of its handler.
 *
 * @param self       the context that the handler was called with
 * @param msg        the message that the handler was called with
 * @param wait_time  ms from now until the request is completed with QOR_RET_EXPIRED; negative is
 *                   without limit
 * @param token      gets what the other two functions know the request by; never 0
 * @return           0, or -1 and everything stays as it was
 *
 * From now on the result of the handler is ignored if it is 0 or more. A negative one completes the
 * request, unless it is complete already; its line is printed as ever. A handler that ends its
 * thread with pthread_exit() counts as having returned -1. The message stays what it is until the
 * handler returns, and is not to be touched afterwards; its response part, not to be touched by the
 * handler while another thread may complete the request.
 *
 * After the completion a worker passes the points after the handler and hands the response over,
 * but never before the handler has returned. All memory for that is had here. Whoever is told when
 * the handler is over, the monitor, is told at its return. An open request keeps no worker and no
 * place of its module; qor_bus_drain() waits for its response. The open_max of the module's
 * contract bounds how many are open; at that many no further request of its queue is begun. One
 * that has expired is not open any more, though a thread may still work for it.
 *
 * A request that is still open is discarded, without points and response, when the bus quits, or
 * when the module that has deferred it goes down because its init has failed. If its publisher goes
 * down, the response is discarded.
 *
 * Prints "!(self) == true.", "!(msg) == true.", "!(wait_time != 0) == true." or "!(token) ==
 * true."; "only the handler of an asynchronous request can defer it." in a filter, a listener, a
 * synchronous call even inside the handler, for a response, a copy of the message or another
 * module's context, and on threads that are not the library's; "the request is deferred already.";
 * "no memory to defer a request."; "open_max: as many requests are open as may be.", where it had
 * begun before that, or had gone past the queue; "the bus or the module ends."
 */
QOR_API int32_t qor_context_defer(qor_context_t *self, qor_context_msg_t *msg, int32_t wait_time,
                                  uint64_t *token);

/**
 * Copies the request part of an open request.
 *
 * @param token  from qor_context_defer()
 * @param dst    where to; may be NULL if size is 0
 * @param size   how many bytes there is room for; no more are copied
 * @return       how many bytes the request part has, or -1
 *
 * Prints "!(size >= 0) == true.", "!(dst || size == 0) == true.", or "the token is not open." when
 * the request is complete or discarded, and for any value that is not a token. Any thread, also one
 * that is not the bus's.
 */
QOR_API int32_t qor_deferred_request(uint64_t token, void *dst, int32_t size);

/**
 * Completes an open request. Of several that try, and the end of its time, one wins.
 *
 * @param token  from qor_context_defer(); refused from now on, also after the bus is closed
 * @param ret    what the publisher finds in ret; one of the QOR_RET_* becomes -1
 * @param data   what is copied to the response part, whose size becomes this; NULL leaves both as
 *               they are
 * @param size   bytes at data, at most as many as the response part has; 0 for NULL
 * @return       0, also when the bus quits before the response is handed over; or -1: the request
 *               is not open, or stays open for a bad argument
 *
 * Prints "!(size >= 0) == true.", "!(data || size == 0) == true.", "the token is not open.", "the
 * response has room for %d bytes, not for %d.", and "the result %d is reserved." for a QOR_RET_*,
 * which completes the request all the same. A negative ret prints nothing.
 *
 * Any thread, also one that is not the bus's, and also inside the handler. It neither waits nor
 * calls anything of the application's, and cannot fail for memory.
 */
QOR_API int32_t qor_deferred_complete(uint64_t token, int32_t ret, const void *data, int32_t size);

QOR_END_DECLS

#endif /* QOR_DEFERRED_H */
