/* SPDX-License-Identifier: Apache-2.0 */
/* The command that is watched. */
#ifndef COMMAND_H
#define COMMAND_H

#include <signal.h>
#include <stddef.h>
#include <sys/types.h>

struct command {
    pid_t pid;   /* 0 when there is none */
    int ended;   /* its end has been seen */
    int status;  /* as waitpid() gives it, once ended */
    int stopped; /* it was still running at the end of the watch and was told to stop */
};

/* Runs a command with the given signal mask. Returns -1 after a line on standard error. */
int command_start(struct command *command, char **argv, const sigset_t *mask);

/* Looks whether the command has ended, without waiting. Returns 1 if so. */
int command_poll(struct command *command);

/* Stops the command if it still runs. */
void command_stop(struct command *command);

/* Says in words how it ended. */
void command_describe(const struct command *command, char *text, size_t size);

/* Tells whether it ended by itself and with another status than 0. */
int command_failed(const struct command *command);

#endif /* COMMAND_H */
