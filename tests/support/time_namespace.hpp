/* SPDX-License-Identifier: Apache-2.0 */
/* A process whose monotonic clock is ahead of the system's time, like that of a board that was
 * never told the time. */
#ifndef QOR_TESTS_TIME_NAMESPACE_HPP
#define QOR_TESTS_TIME_NAMESPACE_HPP

#include <cstdio>
#include <cstring>
#include <functional>

#include <sched.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#ifndef CLONE_NEWTIME
#define CLONE_NEWTIME 0x00000080
#endif

enum class InNamespace { done, failed, refused };

namespace time_namespace {

/* An hour more than the system's time has come to. The limit of 2038 of a 32-bit time_t is kept. */
inline bool move_clock_ahead()
{
    struct timespec wall, monotonic;
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    FILE *offsets = fopen("/proc/self/timens_offsets", "w");
    if (!offsets) {
        return false;
    }
    fprintf(offsets, "monotonic %lld 0\n",
            static_cast<long long>(wall.tv_sec) - monotonic.tv_sec + 3600);
    return fclose(offsets) == 0;
}

/* Children of the caller have the clock, not the caller itself. */
inline bool enter()
{
    const bool made = unshare(CLONE_NEWTIME) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWTIME) == 0;
    return made && move_clock_ahead();
}

inline bool exited(pid_t child, int status)
{
    int how = 0;
    return waitpid(child, &how, 0) == child && WIFEXITED(how) && WEXITSTATUS(how) == status;
}

} // namespace time_namespace

/* Runs the body in such a process, where it has a minute and starts no thread. Where the kernel
 * refuses, nothing is run. */
inline InNamespace in_time_namespace(const std::function<bool()> &body)
{
    enum { ok, wrong, refused };
    const pid_t outer = fork();
    if (outer == 0) {
        if (!time_namespace::enter()) {
            _exit(refused);
        }
        const pid_t inner = fork();
        if (inner == 0) {
            alarm(60);
            _exit(body() ? ok : wrong);
        }
        _exit(inner > 0 && time_namespace::exited(inner, ok) ? ok : wrong);
    }
    int how = 0;
    if (outer < 0 || waitpid(outer, &how, 0) != outer || !WIFEXITED(how)) {
        return InNamespace::failed;
    }
    return WEXITSTATUS(how) == ok        ? InNamespace::done
           : WEXITSTATUS(how) == refused ? InNamespace::refused
                                         : InNamespace::failed;
}

#endif /* QOR_TESTS_TIME_NAMESPACE_HPP */
