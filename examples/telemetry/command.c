/* SPDX-License-Identifier: Apache-2.0 */
/* The command that is watched, and the signals: of its end, and those that end the watch. */
#include "telemetry.h"

#include <errno.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>

extern char **environ;

int command_start(struct command *command, char **argv)
{
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attr, &command->before);
    const int error = posix_spawnp(&command->pid, argv[0], NULL, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (error != 0) {
        command->pid = 0;
        fprintf(stderr, "telemetry: cannot run %s: %s\n", argv[0], strerror(error));
        return -1;
    }
    return 0;
}

/* Looks whether the command has ended, without waiting. Returns 1 if so. */
static int command_poll(struct command *command)
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

/* Takes the signals: in a signal handler the bus must not be called. */
static void *signals_take(void *arg)
{
    struct telemetry *t = arg;
    struct command *command = &t->command;
    int asked = 0;
    while (!atomic_load(&command->over)) {
        int number = 0;
        sigwait(&command->taken, &number);
        if (number == SIGCHLD) {
            if (command_poll(command)) {
                telemetry_stop(t, STOP_COMMAND);
            }
        } else if (asked++ == 0) {
            telemetry_stop(t, STOP_SIGNAL);
        } else {
            qor_bus_quit(t->bus);
        }
    }
    return NULL;
}

void signals_block(struct command *command)
{
    signal(SIGCHLD, SIG_DFL); /* were it ignored, the command's status would be lost */
    sigemptyset(&command->taken);
    sigaddset(&command->taken, SIGINT);
    sigaddset(&command->taken, SIGTERM);
    sigaddset(&command->taken, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &command->taken, &command->before);
}

int signals_start(struct telemetry *t)
{
    atomic_init(&t->command.over, 0);
    if (pthread_create(&t->command.thread, NULL, signals_take, t) != 0) {
        fprintf(stderr, "telemetry: cannot start a thread\n");
        return -1;
    }
    return 0;
}

void signals_end(struct command *command)
{
    atomic_store(&command->over, 1);
    pthread_kill(command->thread, SIGCHLD); /* wakes it, whatever else is going on */
    pthread_join(command->thread, NULL);
}
