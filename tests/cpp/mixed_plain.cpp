/* SPDX-License-Identifier: Apache-2.0 */
/* The unit without exceptions: asks the other, whose handler throws at times. */
#include "mixed.hpp"

#include <atomic>

using namespace std::chrono_literals;

namespace {

std::atomic<int> answers{0};

class Plain : public qor::module<Plain, pong, qor::topic<2, int>> {
public:
    Plain() : module("plain") {}

    int32_t init()
    {
        return run([this] { ask_both(); }) < 0 ? -1 : 0;
    }

    int32_t handle(const qor::request<pong> &in, int32_t &out)
    {
        out = *in - 1;
        return 0;
    }

    int32_t handle(const qor::request<qor::topic<2, int>> &) { return 0; }

private:
    void ask_both()
    {
        ask<ping>(20, 60s,
                  [](const qor::answer<ping> &given) { answers += given && given.value == 21; });
        ask<ping>(-1, 60s, [](const qor::answer<ping> &given) { answers += given.ret == -1; });
    }
};

Plain plain;

} // namespace

qor_context_module_t *plain_module()
{
    return &plain.descriptor();
}

const qor_contract_t *plain_contract()
{
    return &plain.contract();
}

int plain_answers()
{
    return answers;
}

bool plain_has_a_second_bus()
{
    return static_cast<bool>(qor::bus::create({plain}, 1));
}
