/* SPDX-License-Identifier: Apache-2.0 */
#include "command.h"

#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>

extern char **environ;

int command_start(struct command *command, char **argv, const sigset_t *mask)
{
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attr, mask);
    const int error = posix_spawnp(&command->pid, argv[0], NULL, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (error != 0) {
        command->pid = 0;
        fprintf(stderr, "telemetry: cannot run %s: %s\n", argv[0], strerror(error));
        return -1;
    }
    return 0;
}

int command_poll(struct command *command)
{
    if (command->pid != 0 && !command->ended) {
        command->ended = waitpid(command->pid, &command->status, WNOHANG) == command->pid;
    }
    return command->ended;
}

void command_stop(struct command *command)
{
    enum { PATIENCE = 100 }; /* times 20 ms */
    const struct timespec pause = {.tv_nsec = 20 * 1000000L};
    if (command->pid == 0 || command_poll(command)) {
        return;
    }
    command->stopped = 1;
    kill(command->pid, SIGTERM);
    for (int i = 0; i < PATIENCE && !command_poll(command); i++) {
        nanosleep(&pause, NULL);
    }
    if (!command->ended) {
        kill(command->pid, SIGKILL);
        command->ended = waitpid(command->pid, &command->status, 0) == command->pid;
    }
}

void command_describe(const struct command *command, char *text, size_t size)
{
    if (command->stopped) {
        snprintf(text, size, "was still running at the end of the watch and has been stopped");
    } else if (WIFSIGNALED(command->status)) {
        snprintf(text, size, "ended by signal %d", WTERMSIG(command->status));
    } else {
        snprintf(text, size, "ended with status %d", WEXITSTATUS(command->status));
    }
}

int command_failed(const struct command *command)
{
    return command->pid != 0 && !command->stopped && command->status != 0;
}
