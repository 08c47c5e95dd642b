/* SPDX-License-Identifier: Apache-2.0 */
/* Contracts: how a module gets one, and its ledger. */
#include "qor_contract.h"

#include <string.h>

#include "contract.hpp"
#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_diag.hpp"
#include "qor_que.h"
#include "qor_util.hpp"
#include "thread_record.hpp"

namespace {

constexpr char file_tag[] = "qor_contract";
constexpr uint32_t places_default = 50;
constexpr size_t name_room = sizeof(qor_context_module_t::name);

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
    contract *promise = contract_find(bus, module);
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
    return module_find(bus, name, &module) ? nullptr : contract_find(bus, module);
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
            copy = contract_ledger_locked(*promise);
        }
    }
    copy.size = to->size;
    memcpy(to, &copy, to->size);
    return 0;
}

} // namespace

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
