/* SPDX-License-Identifier: Apache-2.0 */
/* faults_driver SCENARIO [alone|onward SITE]: plays a scenario with one call of the library's that
 * fails, and once more without. Lines of the driver's begin with "@ ". Status 1: something is
 * wrong. Without arguments it lists the scenarios. */
#include "driver.hpp"

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "sites.h"

namespace {

std::atomic<int> refused, wrong;

const Scenario *find(const char *name)
{
    for (const auto *group : {&object_scenarios, &bus_scenarios}) {
        for (const Scenario &scenario : *group) {
            if (!name) {
                std::printf("%s\n", scenario.name);
            } else if (std::strcmp(scenario.name, name) == 0) {
                return &scenario;
            }
        }
    }
    return nullptr;
}

bool alone()
{
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::distance(begin(threads), end(threads)) == 1;
}

void play(const Scenario &scenario, const char *which)
{
    refused = 0;
    scenario.play();
    reached(alone, "all threads have ended");
    std::printf("@ %s refused %d hits %d live %d\n", which, refused.load(), fault_site_hits(),
                fault_sites_live());
}

} // namespace

bool got(bool good)
{
    refused += !good;
    return good;
}

void must(bool holds, const char *what)
{
    if (!holds) {
        wrong++;
        std::printf("@ wrong: %s\n", what);
        std::fflush(stdout);
    }
}

void reached(const std::function<bool()> &condition, const char *what)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience);
    while (!condition() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    must(condition(), what);
}

Bus::Bus(const std::vector<Module *> &modules, const Prepare &prepare)
    : modules_(modules), table_(table_of(modules)),
      bus_(qor_bus_create(table_.data(), /* topics */ 4))
{
    if (got(bus_)) {
        got(bus_->time_que); /* a bus that has none is made all the same */
        qor_bus_thread_num_set(bus_, 2);
        prepare(bus_);
        loop_ = std::thread([this] { result_ = qor_bus_loop(bus_); });
    }
}

bool Bus::up()
{
    int32_t state = -1;
    reached(
        [this, &state] {
            return !bus_ || result_ != 1 || (state = qor_bus_wait_up(bus_, 20, nullptr)) != -1;
        },
        "the modules are up, or never will be");
    return got(bus_ && state == 0) && bus_->time_que; /* without one nothing can be waited for */
}

void Bus::settle()
{
    if (bus_ && bus_->time_que && result_ == 1) {
        must(qor_bus_drain(bus_, patience) == 0, "the bus settles");
    }
}

void Bus::end()
{
    if (!bus_) {
        return;
    }
    must(qor_bus_quit(bus_) == 0, "the bus quits");
    loop_.join();
    got(result_ == 0);
    qor_bus_close(bus_);
    for (Module *module : modules_) {
        module->forget();
    }
    bus_ = nullptr;
}

int main(int argc, char **argv)
{
    const Scenario *scenario = find(argc > 1 ? argv[1] : nullptr);
    if (!scenario || (argc != 2 && argc != 4)) {
        return argc != 1;
    }
    if (argc == 4) {
        fault_site_fail(argv[3], std::strcmp(argv[2], "onward") == 0);
    }
    play(*scenario, "faulty");
    fault_site_heal();
    fault_sites_print(stdout);
    play(*scenario, "clean");
    must(refused == 0, "nothing is refused without a fault");
    return wrong != 0;
}
