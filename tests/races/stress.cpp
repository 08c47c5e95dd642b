/* SPDX-License-Identifier: Apache-2.0 */
#include "stress.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <unistd.h>

#include "qor_hal.h"

namespace {

std::atomic<uint64_t> next_seed{1};
thread_local uint64_t state; /* 0: not drawn yet */

std::atomic<const char *> doing{"the beginning"};
std::atomic<uint32_t> moves{0};

long number(const char *text)
{
    char *end;
    const long value = std::strtol(text, &end, 10);
    return *text && !*end && value >= 0 ? value : -1;
}

[[noreturn]] void usage(const char *program)
{
    std::fprintf(stderr,
                 "usage: %s [--seed N] [--workers N] [--percent N] [--seconds N] "
                 "[--cycle N]\n",
                 program);
    std::exit(2);
}

} // namespace

Options options_of(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const long value = i + 1 < argc ? number(argv[i + 1]) : -1;
        if (value < 0) {
            usage(argv[0]);
        }
        if (std::strcmp(argv[i], "--seed") == 0) {
            options.seed = static_cast<uint64_t>(value);
        } else if (std::strcmp(argv[i], "--workers") == 0 && value > 0) {
            options.workers = static_cast<uint32_t>(value);
        } else if (std::strcmp(argv[i], "--percent") == 0 && value <= 100) {
            options.percent = static_cast<int>(value);
        } else if (std::strcmp(argv[i], "--seconds") == 0) {
            options.seconds = static_cast<int>(value);
        } else if (std::strcmp(argv[i], "--cycle") == 0 && value > 0) {
            options.cycle = static_cast<int>(value);
        } else {
            usage(argv[0]);
        }
    }
    return options;
}

void dice_seed(uint64_t seed)
{
    next_seed = seed * 0x9e3779b97f4a7c15u + 1;
}

uint32_t dice(uint32_t below)
{
    if (state == 0) {
        const uint64_t mine = next_seed.fetch_add(1, std::memory_order_relaxed);
        state = (mine ^ mine >> 30) * 0xbf58476d1ce4e5b9u | 1;
    }
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<uint32_t>(state >> 32) % below;
}

void must(bool holds, const char *format, ...)
{
    if (holds) {
        return;
    }
    std::printf("not so: ");
    va_list values;
    va_start(values, format);
    std::vprintf(format, values);
    va_end(values);
    std::printf("\n");
    std::fflush(stdout);
    _exit(1);
}

void be_quiet()
{
    static const qor_output_t nowhere = {[](void *, int32_t, const char *, va_list) {}, nullptr};
    qor_output_set(&nowhere);
}

void Watchdog::at(const char *what)
{
    doing.store(what, std::memory_order_relaxed);
    moves.fetch_add(1, std::memory_order_relaxed);
}

void Watchdog::watch()
{
    std::thread([] {
        uint32_t last = 0;
        Clock::time_point since = Clock::now();
        while (Clock::now() - since < patience) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            const uint32_t here = moves.load(std::memory_order_relaxed);
            if (here != last) {
                last = here;
                since = Clock::now();
            }
        }
        must(false, "%s comes to its end within %d s", doing.load(std::memory_order_relaxed),
             static_cast<int>(patience.count()));
    }).detach();
}
