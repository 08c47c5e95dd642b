/* SPDX-License-Identifier: Apache-2.0 */
/* Modules that are made at run time, and a bus of them. */
#ifndef BENCH_PARTIES_HPP
#define BENCH_PARTIES_HPP

#include <atomic>
#include <cstring>
#include <vector>

#include "program.hpp"
#include "qor.h"

constexpr int32_t no_topic = -1;

/* What a module of a scenario is. Scenarios embed it as the first field of a module's own state. */
struct Party {
    int32_t subscribes = no_topic;
    int32_t listens = no_topic;
    int32_t filters = no_topic;
    bool last = false; /* comes up when all that are not last have started */
    void (*start)(qor_context_t *self) = nullptr;
    int32_t (*handle)(qor_context_t *self, qor_context_msg_t *msg) = nullptr;
    qor_context_t *context = nullptr; /* from its init on */
};

/* The state of the module that a callback is for. */
template <typename P> P &party(qor_context_t *self)
{
    return *static_cast<P *>(static_cast<Party *>(self->module->arg));
}

/* Ends the program with a word on standard error unless it is good. */
void check(bool good, const char *otherwise);

/* Brings a bus of these up, runs it until leave() and takes it down. */
void run_bus(const std::vector<Party *> &parties, int32_t topics, int workers);

/* Ends the bus that runs. Any thread. */
void leave();

/* A request with an 8-byte payload and room for a response of 8 bytes. */
void ask(qor_context_t *self, int32_t topic, int64_t payload);

/* A handler that gives the payload of a request back. */
int32_t echo(qor_context_t *self, qor_context_msg_t *msg);

inline int64_t payload(const void *buf)
{
    int64_t value;
    std::memcpy(&value, buf, sizeof(value));
    return value;
}

extern bench::Switch watch_off;
extern bench::Switch strict; /* every module has a strict contract */

#endif /* BENCH_PARTIES_HPP */
