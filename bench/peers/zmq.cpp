/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios of two threads with ZeroMQ: a pair of sockets, inproc. */
#include <cstdio>
#include <cstdlib>

#include <zmq.h>

#include "program.hpp"
#include "threads.hpp"

namespace {

void check(bool good)
{
    if (!good) {
        std::fprintf(stderr, "bench_zmq: %s\n", zmq_strerror(zmq_errno()));
        std::exit(1);
    }
}

class Link {
public:
    Link()
    {
        check(zmq_bind(sockets_[bench::asker], "inproc://link") == 0);
        check(zmq_connect(sockets_[bench::answerer], "inproc://link") == 0);
    }

    ~Link()
    {
        for (void *socket : sockets_) {
            zmq_close(socket);
        }
        zmq_ctx_term(context_);
    }

    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    void send(bench::Side from, int64_t number)
    {
        check(zmq_send(sockets_[from], &number, sizeof(number), 0) == sizeof(number));
    }

    int64_t receive(bench::Side at)
    {
        int64_t number;
        check(zmq_recv(sockets_[at], &number, sizeof(number), 0) == sizeof(number));
        return number;
    }

private:
    void *context_ = zmq_ctx_new();
    void *sockets_[2] = {zmq_socket(context_, ZMQ_PAIR), zmq_socket(context_, ZMQ_PAIR)};
};

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "zmq",
                          {
                              {"ping-pong", bench::ping_pong<Link>, 1, {2}},
                              {"pipeline", bench::ping_pong<Link>, 32, {2}},
                              {"count", bench::count<Link>, 0, {2}},
                          });
}
