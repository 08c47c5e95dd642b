/* SPDX-License-Identifier: Apache-2.0 */
/* The unit with exceptions, which has the bus. */
#include "mixed.hpp"

#include <stdexcept>

using namespace std::chrono_literals;

namespace {

class Thrower : public qor::module<Thrower, ping, qor::topic<2, double>> {
public:
    Thrower() : module("thrower") {}

    int32_t handle(const qor::request<ping> &in, int32_t &out)
    {
        if (*in < 0) {
            throw std::runtime_error("less than nothing");
        }
        out = *in + 1;
        return 0;
    }

    int32_t handle(const qor::request<qor::topic<2, double>> &) { return 0; }
};

} // namespace

int main()
{
    Thrower thrower;
    qor::bus bus({thrower, *plain_module()}, 3);
    if (qor_bus_contract_set(bus.get(), "plain", plain_contract()) < 0 ||
        plain_has_a_second_bus() || bus.start() != qor::failure::none || bus.wait_up(60s) != 0) {
        return 1;
    }
    for (int i = 0; i < 60000 && plain_answers() < 2; i++) {
        const struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
    return plain_answers() == 2 ? 0 : 1;
}
