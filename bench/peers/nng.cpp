/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios of two threads with nng: a pair of sockets, inproc, with room for what is under
 * way.
 */
#include <cstdio>
#include <cstdlib>

#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

#include "program.hpp"
#include "threads.hpp"

namespace {

void check(int result)
{
    if (result != 0) {
        std::fprintf(stderr, "bench_nng: %s\n", nng_strerror(result));
        std::exit(1);
    }
}

class Link {
public:
    Link()
    {
        for (nng_socket &socket : sockets_) {
            check(nng_pair0_open(&socket));
            check(nng_socket_set_int(socket, NNG_OPT_SENDBUF, 64));
            check(nng_socket_set_int(socket, NNG_OPT_RECVBUF, 64));
        }
        check(nng_listen(sockets_[bench::asker], "inproc://link", nullptr, 0));
        check(nng_dial(sockets_[bench::answerer], "inproc://link", nullptr, 0));
    }

    ~Link()
    {
        for (nng_socket &socket : sockets_) {
            nng_close(socket);
        }
    }

    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    void send(bench::Side from, int64_t number)
    {
        check(nng_send(sockets_[from], &number, sizeof(number), 0));
    }

    int64_t receive(bench::Side at)
    {
        int64_t number;
        size_t size = sizeof(number);
        check(nng_recv(sockets_[at], &number, &size, 0));
        return number;
    }

private:
    nng_socket sockets_[2];
};

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "nng",
                          {
                              {"ping-pong", bench::ping_pong<Link>, 1, {2}},
                              {"pipeline", bench::ping_pong<Link>, 32, {2}},
                              {"count", bench::count<Link>, 0, {2}},
                          });
}
