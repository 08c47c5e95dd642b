/* SPDX-License-Identifier: Apache-2.0 */
/* Requests on a whole bus: one module asks, the other answers, and the response is the next
 * question. */
#include <cstring>

#include <benchmark/benchmark.h>

#include "qor.h"

namespace {

qor_bus_t *bus;
benchmark::State *running;

void nothing(qor_context_t *) {}

int32_t nothing_to_do(qor_context_t *, void *)
{
    return 0;
}

void answer_reg(qor_context_t *self)
{
    qor_context_subscribe(self, 0, nullptr);
}

int32_t answer(qor_context_t *, qor_context_msg_t *msg)
{
    std::memcpy(msg->response.buf, msg->request.buf, sizeof(int64_t));
    return 0;
}

int32_t ask(qor_context_t *self)
{
    int64_t question = 42;
    return qor_context_req_ret(self, 0, &question, sizeof(question), sizeof(question));
}

int32_t asker_init(qor_context_t *self, void *)
{
    return ask(self) < 0 ? -1 : 0;
}

/* The first response begins the measurement: by then all modules are up. */
int32_t asker_handle(qor_context_t *self, qor_context_msg_t *)
{
    return running->KeepRunning() ? ask(self) : qor_bus_quit(bus);
}

qor_context_module_t asker = {"asker", 0,       1,          0,       0,       0,           nullptr,
                              nothing, nothing, asker_init, nothing, nullptr, asker_handle};
qor_context_module_t answerer = {"answerer", 0,       1,          0,       0,
                                 0,          nullptr, answer_reg, nothing, nothing_to_do,
                                 nothing,    nullptr, answer};

void request_and_response(benchmark::State &state)
{
    qor_context_module_t *modules[] = {&asker, &answerer, nullptr};
    running = &state;
    bus = qor_bus_create(modules, 1);
    qor_bus_thread_num_set(bus, static_cast<uint32_t>(state.range(0)));
    qor_bus_loop(bus);
    qor_bus_close(bus);
}

} // namespace

BENCHMARK(request_and_response)->ArgName("workers")->Arg(1)->Arg(2)->Arg(3)->UseRealTime();
