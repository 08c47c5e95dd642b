/* SPDX-License-Identifier: Apache-2.0 */
/* Contracts: how a module gets one, its ledger, and the places of its replies. */
#include "qor_contract.h"

#include <string.h>

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_contract_priv.hpp"
#include "qor_diag.hpp"
#include "qor_que.h"
#include "qor_util.hpp"
#include "thread_record.hpp"

namespace {

constexpr char file_tag[] = "qor_contract";
constexpr uint32_t places_default = 50;
constexpr size_t name_room = sizeof(qor_context_module_t::name);

contract *contract_at(list_head *link)
{
    return reinterpret_cast<contract *>(link); /* first field */
}

/* The caller holds the bus's mutex, or the bus loops. */
contract *contract_find_locked(const qor_bus_t *bus, const qor_context_module_t *module)
{
    const list_head &head = bus->priv->contracts;
    for (list_head *link = head.next; link != &head; link = link->next) {
        if (contract_at(link)->module == module) {
            return contract_at(link);
        }
    }
    return nullptr;
}

/* A module of the bus by its name, and why it may have no contract; NULL when it may. */
const char *module_find(const qor_bus_t *bus, const char *name, const qor_context_module_t **found)
{
    static const char *const system_modules[] = {"qor_bus_module", "qor_monitor_module",
                                                 "qor_mng_module"};
    for (const char *reserved : system_modules) {
        if (strcmp(name, reserved) == 0) {
            return "name: a system module's.";
        }
    }
    *found = nullptr;
    for (qor_context_module_t *const *module = bus->modules; *module; module++) {
        if (strncmp((*module)->name, name, name_room) != 0) {
            continue;
        }
        if (!memchr((*module)->name, '\0', name_room)) {
            return "name: not terminated.";
        }
        if (*found) {
            return "name: two modules have it.";
        }
        *found = *module;
    }
    if (!*found) {
        return "name: no module has it.";
    }
    return (*found)->id != 0 ? "name: the module's class is another than 0." : nullptr;
}

/* What is wrong with the terms, or NULL. */
const char *terms_wrong(const qor_contract_t &terms, const qor_context_module_t &module)
{
    if (terms.strict > 1) {
        return "strict: neither 0 nor 1.";
    }
    if (terms.strict && module.refcount < 0) {
        return "strict: refcount is negative.";
    }
    if (terms.overflow < QOR_OVERFLOW_DEFAULT || terms.overflow > QOR_OVERFLOW_BLOCK) {
        return "overflow: not known.";
    }
    if (terms.strict && terms.overflow == QOR_OVERFLOW_BYPASS) {
        return "overflow: nothing goes past a strict queue.";
    }
    if (terms.overflow == QOR_OVERFLOW_BLOCK && terms.wait_time < 1) {
        return "wait_time: below 1 ms.";
    }
    if (terms.reserved0 || terms.reserved[0] || terms.reserved[1] || terms.reserved[2] ||
        terms.reserved[3]) {
        return "reserved: not 0.";
    }
    return nullptr;
}

void terms_complete(qor_contract_t &terms)
{
    terms.depth = terms.depth ? terms.depth : places_default;
    terms.replies = terms.replies ? terms.replies : places_default;
    if (terms.overflow == QOR_OVERFLOW_DEFAULT) {
        terms.overflow = terms.strict ? QOR_OVERFLOW_REFUSE : QOR_OVERFLOW_BYPASS;
    }
}

/* A contract without terms, in the bus's list, or NULL without memory. The caller holds the bus's
 * mutex. */
contract *contract_make_locked(qor_bus_t *bus, const qor_context_module_t *module)
{
    contract *promise = util_zalloc<contract>();
    qor_que_node_t *run = promise ? bus_node() : nullptr;
    if (!run) {
        free(promise);
        return nullptr;
    }
    promise->module = module;
    promise->calls = &contract_queue_calls;
    INIT_LIST_HEAD(&promise->idle);
    INIT_LIST_HEAD(&promise->blocked);
    list_add(&run->node, &promise->idle);
    promise->idle_count = 1;
    list_add(&promise->link, &bus->priv->contracts);
    return promise;
}

/* Checks everything, then gives the module its terms: what is wrong, or NULL. The caller holds the
 * bus's mutex. */
const char *contract_set_locked(qor_bus_t *bus, const char *name, const qor_contract_t *wanted)
{
    if (bus->priv->looping || bus->priv->stopping) {
        return "loop: the bus loops already.";
    }
    const qor_context_module_t *module;
    const char *wrong = module_find(bus, name, &module);
    if (wrong) {
        return wrong;
    }
    if (wanted->size < 2 * sizeof(uint32_t) || wanted->size > sizeof(*wanted) ||
        wanted->size % sizeof(void *) != 0) { /* never in the middle of a field */
        return "size: not known.";
    }
    qor_contract_t terms = {};
    memcpy(&terms, wanted, wanted->size);
    wrong = terms_wrong(terms, *module);
    if (wrong) {
        return wrong;
    }
    contract *promise = contract_find_locked(bus, module);
    promise = promise ? promise : contract_make_locked(bus, module);
    if (!promise) {
        return "malloc \"contract\" failed.";
    }
    terms_complete(terms);
    promise->terms = terms;
    promise->slots = module->refcount ? static_cast<uint32_t>(module->refcount) : 1;
    return nullptr;
}

/* A contract by its module's name, or NULL. */
contract *contract_named(const qor_bus_t *bus, const char *name)
{
    const qor_context_module_t *module;
    return module_find(bus, name, &module) ? nullptr : contract_find_locked(bus, module);
}

/* Copies as much of a ledger as its record has room for: 0, or -1 without a contract. */
int32_t ledger_copy(qor_bus_t *bus, const char *name, qor_ledger_t *to)
{
    qor_ledger_t copy = {};
    {
        hal_scoped_lock lock(bus->priv->mutex);
        contract *promise = contract_named(bus, name);
        if (!promise) {
            return -1;
        }
        if (promise->mutex) {
            hal_scoped_lock queue(*promise->mutex);
            const uint32_t returned = hal_load(promise->returned);
            copy = promise->ledger;
            copy.run += returned;
            copy.running -= returned;
        }
    }
    copy.size = to->size;
    memcpy(to, &copy, to->size);
    return 0;
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
    return contract_find_locked(bus, module);
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

void qor_contract_init(qor_contract_t *contract)
{
    QOR_CHECK_VOID(contract);
    *contract = {};
    contract->size = sizeof(*contract);
}

int32_t qor_bus_contract_set(qor_bus_t *_this, const char *name, const qor_contract_t *contract)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(name, -1);
    QOR_CHECK(contract, -1);
    const char *wrong;
    {
        hal_scoped_lock lock(_this->priv->mutex);
        wrong = contract_set_locked(_this, name, contract);
    }
    if (wrong) {
        QOR_ERR("%s", wrong);
        return -1;
    }
    return 0;
}

int32_t qor_bus_ledger(qor_bus_t *_this, const char *name, qor_ledger_t *ledger)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(name, -1);
    QOR_CHECK(ledger, -1);
    const uint32_t size = ledger->size;
    if (size < offsetof(qor_ledger_t, run) || size > sizeof(*ledger) ||
        size % sizeof(ledger->run) != 0) {
        QOR_ERR("size: not known.");
        return -1;
    }
    if (ledger_copy(_this, name, ledger) < 0) {
        QOR_ERR("name: no contract for \"%s\".", name);
        return -1;
    }
    return 0;
}
