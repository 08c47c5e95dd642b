/* SPDX-License-Identifier: Apache-2.0 */
#include "signals.h"

#include <stdio.h>

static void *signals_take(void *arg)
{
    struct signals *signals = arg;
    int asked = 0;
    while (!atomic_load(&signals->over)) {
        int number = 0;
        sigwait(&signals->taken, &number);
        if (number == SIGCHLD) {
            if (command_poll(signals->command)) {
                telemetry_stop(signals->t, STOP_COMMAND);
            }
        } else if (asked++ == 0) {
            telemetry_stop(signals->t, STOP_SIGNAL);
        } else {
            qor_bus_quit(signals->t->bus);
        }
    }
    return NULL;
}

void signals_block(struct signals *signals)
{
    signal(SIGCHLD, SIG_DFL); /* were it ignored, the command's status would be lost */
    sigemptyset(&signals->taken);
    sigaddset(&signals->taken, SIGINT);
    sigaddset(&signals->taken, SIGTERM);
    sigaddset(&signals->taken, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &signals->taken, &signals->before);
}

int signals_start(struct signals *signals, struct telemetry *t, struct command *command)
{
    signals->t = t;
    signals->command = command;
    atomic_init(&signals->over, 0);
    if (pthread_create(&signals->thread, NULL, signals_take, signals) != 0) {
        fprintf(stderr, "telemetry: cannot start a thread\n");
        return -1;
    }
    return 0;
}

void signals_end(struct signals *signals)
{
    atomic_store(&signals->over, 1);
    pthread_kill(signals->thread, SIGCHLD); /* wakes it, whatever else is going on */
    pthread_join(signals->thread, NULL);
}
