/* SPDX-License-Identifier: Apache-2.0 */
/* What is counted for a module with a contract: tasks, replies, deferred requests, losses. */
#include "contract.hpp"

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_que.h"
#include "qor_util.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

contract *contract_at(list_head *link)
{
    return reinterpret_cast<contract *>(link); /* first field */
}

void contract_free(list_head *link)
{
    contract *promise = contract_at(link);
    util_list_each(promise->idle, [](list_head *run) {
        qor_que_node_destroy(reinterpret_cast<qor_que_node_t *>(run), nullptr); /* first field */
    });
    free(promise);
}

} // namespace

const char *contract_name(const contract &promise)
{
    return promise.module->name;
}

contract *contract_find(const qor_bus_t *bus, const qor_context_module_t *module)
{
    const list_head &head = bus->priv->contracts;
    for (list_head *link = head.next; link != &head; link = link->next) {
        if (contract_at(link)->module == module) {
            return contract_at(link);
        }
    }
    return nullptr;
}

qor_ledger_t contract_ledger_locked(const contract &promise)
{
    const uint32_t returned = hal_load(promise.returned);
    qor_ledger_t ledger = promise.ledger;
    ledger.run += returned;
    ledger.running -= returned;
    return ledger;
}

int32_t contract_reply_take(contract &promise)
{
    uint32_t taken = hal_load(promise.replies);
    do {
        if (taken >= promise.terms.replies) {
            return -1;
        }
    } while (!__atomic_compare_exchange_n(&promise.replies, &taken, taken + 1, true,
                                          __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
    return 0;
}

void contract_reply_back(contract *promise)
{
    if (promise) {
        __atomic_fetch_sub(&promise->replies, 1, __ATOMIC_ACQ_REL);
    }
}

void contract_refused(contract *promise)
{
    if (promise) {
        hal_scoped_lock lock(*promise->mutex);
        promise->ledger.refused++;
    }
}

void contract_task_begun_locked(contract &promise, thread_record *record)
{
    if (!record) { /* nobody could say later which task it is */
        promise.ledger.run++;
        return;
    }
    promise.ledger.running++;
    record->task_of = &promise;
    record->task = task_running;
}

void contract_periodic_begun(contract &promise)
{
    hal_scoped_lock lock(*promise.mutex);
    promise.ledger.accepted++;
    contract_task_begun_locked(promise, thread_record_get());
}

void contract_task_inside(contract &promise, thread_record *record)
{
    if (record) {
        record->task_of = &promise;
        record->task = task_uncounted;
    }
}

void contract_task_over_locked(contract &promise, thread_record *record)
{
    if (record && record->task_of == &promise && record->task != task_uncounted) {
        promise.ledger.running--;
        promise.ledger.run++;
        if (record->task == task_returned) {
            __atomic_fetch_sub(&promise.returned, 1, __ATOMIC_RELAXED);
        }
    }
    if (record) {
        record->task_of = nullptr;
    }
}

bool contract_is_elsewhere(const contract *promise, const thread_record *record)
{
    const contract *slot =
        record && record->task_of && record->task_of->terms.strict ? record->task_of : nullptr;
    return slot != (promise && promise->terms.strict ? promise : nullptr);
}

void contract_moved(const qor_loss_t *lost)
{
    thread_record *record = thread_record_get();
    contract *promise = record ? record->task_of : nullptr;
    if (!promise) {
        return;
    }
    if (record->task == task_running) {
        hal_scoped_lock lock(*promise->mutex);
        promise->ledger.running--;
        (lost ? promise->ledger.dropped_transfer : promise->ledger.transferred)++;
        record->task = task_uncounted;
    }
    if (lost) {
        contract_lost(*promise, *lost);
    }
}

void contract_handler_returned(thread_record *record)
{
    if (record && record->task_of && record->task == task_running) {
        record->task = task_returned;
        __atomic_fetch_add(&record->task_of->returned, 1, __ATOMIC_RELAXED);
    }
}

int32_t contract_defer(contract &promise)
{
    hal_scoped_lock lock(*promise.mutex);
    if (promise.terms.open_max > 0 && promise.ledger.open >= promise.terms.open_max) {
        return -1;
    }
    promise.ledger.open++;
    return 0;
}

void contract_defer_undo(contract *promise)
{
    if (promise) {
        hal_scoped_lock lock(*promise->mutex);
        promise->ledger.open--;
    }
}

void contract_deferred_over(contract &promise)
{
    {
        hal_scoped_lock lock(*promise.mutex);
        promise.ledger.open--;
        promise.ledger.finished++;
    }
    if (promise.terms.open_max > 0) {
        promise.calls->serve(promise);
    }
}

void contract_lost(const contract &promise, qor_loss_t loss)
{
    if (trace_on(QOR_TRACE_REQUESTS)) {
        const auto *context =
            reinterpret_cast<const qor_context_t *>(promise.core); /* first member */
        trace_recorder().note(nullptr, context,
                              trace_what(trace_lost, trace_loss(loss.kind, loss.reason)),
                              loss.session, loss.topic);
    }
    if (!promise.terms.lost) {
        return;
    }
    thread_record_here here;
    thread_record &record = here.get();
    if (record.losing) {
        return;
    }
    loss.module = promise.module->name;
    record.losing = 1;
    promise.terms.lost(promise.terms.arg, &loss);
    record.losing = 0;
}

void contracts_free(qor_bus_t *bus)
{
    util_list_each(bus->priv->contracts, contract_free);
}
