/* SPDX-License-Identifier: Apache-2.0 */
/* Contracts, those that are refused too. */
#include "strict_party.hpp"

#include "contract.hpp"

#include <string.h>

#include <algorithm>

#include "hand.hpp"

namespace {

/* What is wrong with a contract for the server, or NULL. */
const char *wrong_with(const qor_contract_t &terms, uint32_t size, int32_t refcount)
{
    if (size < 8 || size > sizeof(terms) || size % sizeof(void *) != 0) {
        return "size: not known.";
    }
    if (terms.strict > 1) {
        return "strict: neither 0 nor 1.";
    }
    if (terms.strict && refcount < 0) {
        return "strict: refcount is negative.";
    }
    if (terms.overflow < 0 || terms.overflow > 5) {
        return "overflow: not known.";
    }
    if (terms.strict && terms.overflow == QOR_OVERFLOW_BYPASS) {
        return "overflow: nothing goes past a strict queue.";
    }
    if (terms.overflow == QOR_OVERFLOW_BLOCK && terms.wait_time < 1) {
        return "wait_time: below 1 ms.";
    }
    return terms.reserved0 || terms.reserved[0] || terms.reserved[1] || terms.reserved[2] ||
                   terms.reserved[3]
               ? "reserved: not 0."
               : nullptr;
}

qor_contract_t any_terms(Party &p)
{
    qor_contract_t terms;
    qor_contract_init(&terms);
    EXPECT(terms.size == sizeof(terms) && terms.strict == 0 && terms.overflow == 0);
    const uint8_t how = p.bytes.byte();
    terms.strict = how & 1 ? 1 : how & 2 ? how % 7 : 0;
    terms.depth = p.bytes.below(5);
    terms.replies = p.bytes.below(4);
    terms.overflow = static_cast<int32_t>(p.bytes.below(8)) - 1;
    terms.wait_time = static_cast<int32_t>(p.bytes.below(40)) - 2;
    terms.open_max = p.bytes.below(3);
    const uint32_t reserved = p.bytes.below(64);
    if (reserved < 4) {
        terms.reserved[reserved] = 1;
    }
    terms.reserved0 = reserved == 4;
    terms.lost = p.bytes.below(2) ? on_lost : nullptr;
    terms.arg = &p;
    return terms;
}

/* What the terms become where the record that is given is as short as that. */
qor_contract_t cut(const qor_contract_t &terms, uint32_t size)
{
    qor_contract_t whole = {};
    memcpy(static_cast<void *>(&whole), &terms, std::min<size_t>(size, sizeof(whole)));
    return whole;
}

void contract_set(Party &p, int32_t refcount)
{
    qor_contract_t terms = any_terms(p);
    if (p.bytes.below(8) == 0) {
        terms.size = p.bytes.byte();
    }
    const qor_contract_t whole = cut(terms, terms.size);
    const bool known = p.ledger.size != 0;
    const bool fails = !known && p.bytes.below(16) == 0;
    const char *wrong = wrong_with(whole, terms.size, refcount);
    p.there.memory_fails_in = fails ? static_cast<int>(p.bytes.below(2)) : -1;
    const int32_t set = qor_bus_contract_set(p.bus, "server", &terms);
    p.there.memory_fails_in = -1;
    EXPECT(set == (wrong || fails ? -1 : 0));
    if (wrong) {
        p.there.expect_printed(World::err("qor_contract", "qor_bus_contract_set", wrong));
    }
    p.there.printed.clear();
    if (set < 0) {
        return;
    }
    p.ledger.size = 1; /* there is one */
    p.terms = whole;
    p.terms.depth = whole.depth ? whole.depth : 50;
    p.terms.replies = whole.replies ? whole.replies : 50;
    p.strict = whole.strict;
    if (whole.overflow == QOR_OVERFLOW_DEFAULT) {
        p.terms.overflow = p.strict ? QOR_OVERFLOW_REFUSE : QOR_OVERFLOW_BYPASS;
    }
}

/* Names that no contract is given for. */
void contract_refused(Party &p)
{
    static const char *const names[][2] = {
        {"qor_mng_module", "name: a system module's."},
        {"nobody", "name: no module has it."},
        {"twin-a", "name: two modules have it."},
        {"alien1", "name: the module's class is another than 0."},
        {"endless-endless-endl", "name: not terminated."},
    };
    static qor_context_module_t twin = hand_module("twin-a", nullptr, nullptr, nullptr);
    static qor_context_module_t alien = hand_module("alien1", nullptr, nullptr, nullptr);
    static qor_context_module_t endless = {{'e', 'n', 'd', 'l', 'e', 's', 's', '-', 'e', 'n',
                                            'd', 'l', 'e', 's', 's', '-', 'e', 'n', 'd', 'l'},
                                           0,
                                           1,
                                           0,
                                           0,
                                           0,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr};
    static qor_context_module_t *others[] = {&twin, &twin, &alien, &endless, nullptr};
    alien.id = 1;
    const auto &pair = names[p.bytes.below(5)];
    qor_contract_t terms;
    qor_contract_init(&terms);
    qor_context_module_t **modules = p.bus->modules;
    p.bus->modules = others;
    EXPECT(qor_bus_contract_set(p.bus, pair[0], &terms) == -1);
    p.bus->modules = modules;
    p.there.expect_printed(World::err("qor_contract", "qor_bus_contract_set", pair[1]));
    EXPECT(qor_bus_contract_set(nullptr, pair[0], &terms) == -1);
    EXPECT(qor_bus_contract_set(p.bus, nullptr, &terms) == -1);
    EXPECT(qor_bus_contract_set(p.bus, pair[0], nullptr) == -1);
    EXPECT(qor_bus_ledger(nullptr, "server", nullptr) == -1);
    EXPECT(qor_bus_ledger(p.bus, nullptr, nullptr) == -1);
    EXPECT(qor_bus_ledger(p.bus, "server", nullptr) == -1);
    qor_contract_init(nullptr);
    p.there.printed.clear();
}

} // namespace

void contracts_set(Party &p, int32_t refcount)
{
    do {
        if (p.bytes.below(16) == 0) {
            contract_refused(p);
        }
        if (!p.bytes.left()) {
            qor_contract_init(&p.terms);
            p.terms.strict = p.strict = refcount >= 0;
            EXPECT(qor_bus_contract_set(p.bus, "server", &p.terms) == 0);
            p.terms.depth = p.terms.replies = 50;
            p.terms.overflow = p.strict ? QOR_OVERFLOW_REFUSE : QOR_OVERFLOW_BYPASS;
            return;
        }
        contract_set(p, refcount);
    } while (p.ledger.size == 0 || p.bytes.below(8) == 0);
}

void others_contracts_set(Party &p)
{
    const uint32_t few = p.bytes.below(6);
    p.client_replies = few > 0 ? few : items_most;
    qor_contract_t terms;
    qor_contract_init(&terms);
    terms.depth = items_most;
    terms.replies = p.client_replies;
    EXPECT(qor_bus_contract_set(p.bus, "client", &terms) == 0);
    EXPECT(qor_bus_contract_set(p.bus, "helper", &terms) == 0);
}
