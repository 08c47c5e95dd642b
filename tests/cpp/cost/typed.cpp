/* SPDX-License-Identifier: Apache-2.0 */
/* What twin.c does, by the C++ interface.
 *   usage: typed calls|publications|tasks|captures NUMBER */
#include <cstdlib>
#include <cstring>

#include "qor.hpp"

namespace {

using twice = qor::topic<0, int64_t, int64_t>;
using step = qor::topic<1, int64_t>;

qor::bus *bus;
long left;
const char *what;

class Server : public qor::module<Server, twice, step> {
public:
    Server() : module("server") {}

    int32_t handle(const qor::request<twice> &in, int64_t &out)
    {
        out = *in * 2;
        return 0;
    }

    int32_t handle(const qor::request<step> &in)
    {
        if (*in != left || --left == 0) {
            bus->quit();
            return 0;
        }
        return publish<step>(left) < 0 ? -1 : 0;
    }
};

class Client : public qor::module<Client> {
public:
    Client() : module("client") {}
    int32_t init();

private:
    void call_all()
    {
        for (; left > 0; left--) {
            const int64_t number = left;
            int64_t answer = 0;
            if (call<twice>(number, answer) < 0 || answer != 2 * number) {
                break;
            }
        }
        bus->quit();
    }

    int32_t run_with_captures()
    {
        return run([this, more = 1L] {
            left -= more;
            if (left == 0 || run_with_captures() < 0) {
                bus->quit();
            }
        });
    }
};

Client client;

void run_next()
{
    if (--left == 0 || client.run([] { run_next(); }) < 0) {
        bus->quit();
    }
}

int32_t Client::init()
{
    if (std::strcmp(what, "publications") == 0) {
        return publish<step>(left);
    }
    if (std::strcmp(what, "captures") == 0) {
        return run_with_captures();
    }
    return std::strcmp(what, "calls") == 0 ? run([this] { call_all(); }) : run([] { run_next(); });
}

} // namespace

int main(int argc, char **argv)
{
    Server server;
    what = argc == 3 ? argv[1] : "";
    left = argc == 3 ? std::atol(argv[2]) : 0;
    if (left <= 0) {
        return 2;
    }
    auto made = qor::bus::create({server, client}, 2);
    if (!made) {
        return 2;
    }
    bus = &*made;
    qor_bus_thread_num_set(bus->get(), 1);
    return bus->run() == 0 && left == 0 ? 0 : 1;
}
