/* SPDX-License-Identifier: Apache-2.0 */
/* One program of nearly everything in the C++ interface, for every compiler, language and kind of
 * code: without GoogleTest, which is built in one way. Ends with 0 when all of it held. */
#include "qor.hpp"

#include <atomic>
#include <cstdio>
#include <memory>
#if defined(__cpp_exceptions)
#include <stdexcept>
#endif
#if defined(__cpp_lib_span)
#include <span>
#endif

using namespace std::chrono_literals;

namespace {

struct Point {
    int32_t x, y;
};

using sum = qor::topic<0, Point, int64_t>;
using note = qor::topic<1, qor::tailed<int32_t>>;
using never = qor::topic<2>;
using throwing = qor::topic<3>;

std::atomic<int> wrong{0}, ends{0};

void check(const char *what, bool holds)
{
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        wrong++;
    }
}

class Server : public qor::module<Server, sum, note, never, throwing> {
public:
    Server() : module("server") {}

    int32_t handle(const qor::request<sum> &in, int64_t &out)
    {
        out = int64_t{in->x} + in->y;
        return 0;
    }

    int32_t handle(const qor::request<note> &in)
    {
        check("a tail of three bytes", in->header == 7 && in->tail.size() == 3);
#if defined(__cpp_lib_span)
        const std::span<const std::byte> raw = in.raw();
        check("a span of all of it", raw.size() == 7);
#endif
        return 0;
    }

    int32_t handle(const qor::request<never> &in)
    {
        return in.defer(1h) ? 0 : -1;
    }

    int32_t handle(const qor::request<throwing> &)
    {
#if defined(__cpp_exceptions)
        throw std::runtime_error("meant to be thrown");
#else
        return -1;
#endif
    }
};

class Client : public qor::module<Client> {
public:
    Client() : module("client") {}

    int32_t init()
    {
        return run("begin", [this] { begin(); }) < 0 ? -1 : 0;
    }

    void begin()
    {
        int64_t total = 0;
        check("a call", call<sum>({40, 2}, total) == 0 && total == 42);
        check("a publication", publish<note>({7, qor::bytes_of("abc", 3)}) >= 0);
        check("a handler that throws", call<throwing>() == -1);
        check("a request", ask<sum>({1, 2}, 60s, [this](const qor::answer<sum> &given) {
                               check("its answer", given && given.value == 3);
                               ends++;
                               more();
                           }) >= 0);
        check("one that times out", ask<never>(5ms, [](const qor::answer<never> &given) {
                                        check("its time-out", given.how == qor::outcome::timed_out);
                                        ends++;
                                    }) >= 0);
    }

    void more()
    {
        check("a timer", after("timer", 1500us, [owned = std::make_unique<int>(3)] {
                             check("what it has captured", *owned == 3);
                             ends++;
                         }) >= 0);
        periodic_ = every(1ms, [this, runs = 0](uint32_t) mutable {
            if (++runs == 3) {
                check("a cancelled timer", cancel(periodic_) == 0);
                ends++;
            }
        });
        check("a periodic timer", periodic_ >= 0);
#if defined(__cpp_impl_coroutine)
        flow_ = wait();
#else
        ends++;
#endif
    }

private:
#if defined(__cpp_impl_coroutine)
    qor::flow wait()
    {
        const qor::answer<sum> given = co_await qor::ask<sum>(*this, {5, 6}, 60s);
        check("an awaited answer", given && given.value == 11);
        ends++;
    }

    qor::flow flow_;
#endif
    int32_t periodic_ = -1;
};

} // namespace

int main()
{
    Server server;
    Client client;
    qor::result<qor::bus> bus = qor::bus::create({server, client}, 4);
    check("a bus", static_cast<bool>(bus));
    check("no second bus", qor::bus::create({server}, 1).error() == qor::failure::live);
    if (!bus || bus->start() != qor::failure::none) {
        return 1;
    }
    check("all modules", bus->wait_up(60s) == 0);
    for (int i = 0; i < 60000 && ends < 5; i++) {
        const struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
    check("all ends", ends == 5);
    return wrong == 0 ? 0 : 1;
}
