/* SPDX-License-Identifier: Apache-2.0 */
#include "parties.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <dlfcn.h>
#include <unistd.h>

bench::Switch watch_off = {"--watch-off", false};
bench::Switch strict = {"--strict", false};

namespace {

qor_bus_t *bus;
std::atomic<bool> leaving;
std::atomic<long> printed_before; /* bytes: what the library printed before the bus was ended */

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "bench_bus: %s\n", what);
    std::exit(1);
}

void reg(qor_context_t *self)
{
    const Party &own = party<Party>(self);
    if (own.subscribes != no_topic) {
        qor_context_subscribe(self, own.subscribes, nullptr);
    }
    if (own.listens != no_topic) {
        qor_context_topic_attr_t before = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                           QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
        qor_context_listen(self, own.listens, &before);
    }
    if (own.filters != no_topic) {
        qor_context_filter(self, own.filters, nullptr);
    }
}

void unreg(qor_context_t *) {}

int32_t init(qor_context_t *self, void *)
{
    Party &own = party<Party>(self);
    own.context = self;
    if (own.start) {
        own.start(self);
    }
    return 0;
}

void uninit(qor_context_t *) {}

int32_t handle(qor_context_t *self, qor_context_msg_t *msg)
{
    const Party &own = party<Party>(self);
    return own.handle ? own.handle(self, msg) : 0;
}

/* Not every version of the library has a watch that can be switched off. */
void watch_switch_off()
{
    using watch_set = void (*)(qor_bus_t *, int32_t);
    void *found = dlsym(RTLD_DEFAULT, "qor_bus_watch_set");
    if (!found) {
        fail("this library has no qor_bus_watch_set");
    }
    reinterpret_cast<watch_set>(found)(bus, 0);
}

char digit(size_t number)
{
    return static_cast<char>('0' + number % 10);
}

/* With room for whatever a scenario has under way. */
void make_strict(const qor_context_module_t &module)
{
    using set = int32_t (*)(qor_bus_t *, const char *, const qor_contract_t *);
    const auto contract_set = reinterpret_cast<set>(dlsym(RTLD_DEFAULT, "qor_bus_contract_set"));
    if (!contract_set) {
        fail("this library has no contracts");
    }
    qor_contract_t contract = {};
    contract.size = sizeof(contract);
    contract.strict = 1;
    contract.depth = contract.replies = 10000000;
    if (contract_set(bus, module.name, &contract) < 0) {
        fail("no contract");
    }
}

/* What the library prints goes to a file meanwhile: standard output is for the results. */
class Printed {
public:
    Printed() : file_(std::tmpfile()), output_(dup(STDOUT_FILENO))
    {
        std::fflush(stdout);
        if (!file_ || output_ < 0 || dup2(fileno(file_), STDOUT_FILENO) < 0) {
            fail("standard output cannot be set aside");
        }
    }

    /* Ends the program when an error is among it. What a bus refuses that quits is none. */
    ~Printed()
    {
        std::fflush(stdout);
        dup2(output_, STDOUT_FILENO);
        close(output_);
        std::rewind(file_);
        char line[512];
        while (std::ftell(file_) < printed_before && std::fgets(line, sizeof(line), file_)) {
            if (std::strstr(line, "[err]")) {
                fail(line);
            }
        }
        std::fclose(file_);
    }

    Printed(const Printed &) = delete;
    Printed &operator=(const Printed &) = delete;

private:
    FILE *file_;
    int output_;
};

} // namespace

void check(bool good, const char *otherwise)
{
    if (!good) {
        fail(otherwise);
    }
}

void run_bus(const std::vector<Party *> &parties, int32_t topics, int workers)
{
    const Printed printed;
    leaving = false;
    std::vector<qor_context_module_t> modules;
    modules.reserve(parties.size());
    std::vector<qor_context_module_t *> array;
    /* The second phase is begun by the first: where there is none, all are in the first. */
    const bool phases =
        std::any_of(parties.begin(), parties.end(), [](const Party *one) { return !one->last; });
    for (Party *one : parties) {
        const uint32_t pure = one->last && phases ? 0 : 1;
        modules.push_back({{'p', 'a', 'r', 't', 'y', digit(modules.size() / 100),
                            digit(modules.size() / 10), digit(modules.size())},
                           0,
                           pure,
                           0,
                           0,
                           0,
                           one,
                           reg,
                           unreg,
                           init,
                           uninit,
                           nullptr,
                           handle});
        array.push_back(&modules.back());
    }
    array.push_back(nullptr);
    bus = qor_bus_create(array.data(), topics);
    if (!bus) {
        fail("no bus");
    }
    if (watch_off.on) {
        watch_switch_off();
    }
    if (strict.on) {
        for (const qor_context_module_t &module : modules) {
            make_strict(module);
        }
    }
    qor_bus_thread_num_set(bus, static_cast<uint32_t>(workers));
    if (qor_bus_loop(bus) != 0) {
        fail("the bus did not run");
    }
    qor_bus_close(bus);
}

void leave()
{
    leaving = true;
    printed_before = static_cast<long>(lseek(STDOUT_FILENO, 0, SEEK_END));
    qor_bus_quit(bus);
}

void ask(qor_context_t *self, int32_t topic, int64_t payload)
{
    const int32_t session =
        qor_context_req_ret(self, topic, &payload, sizeof(payload), sizeof(payload));
    check(session >= 0 || leaving, "a request was refused");
}

int32_t echo(qor_context_t *, qor_context_msg_t *msg)
{
    if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
        std::memcpy(msg->response.buf, msg->request.buf, sizeof(int64_t));
    }
    return 0;
}
