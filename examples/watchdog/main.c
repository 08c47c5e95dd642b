/* SPDX-License-Identifier: Apache-2.0 */
/* Feeds a watchdog each second as long as the bus is well, and says what it is at when it is not.
 * The thread that feeds is none of the bus's: it is never among those that are stuck. */
#include "watchdog.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { WORKERS = 2, MODULES = 2, LIMIT_MS = 1500, DRAIN_MS = 200 };

qor_bus_t *bus;

struct watch {
    int seconds; /* how long; 0: for ever */
    int starved; /* how often the watchdog was not fed */
};

static void line_print(void *arg, const char *line)
{
    (void)arg;
    hal_printf("  %s\n", line);
}

static void bus_judge(struct watch *watch)
{
    qor_health_t health = {.size = sizeof(health)};
    if (qor_bus_health(bus, LIMIT_MS, &health) == 0) {
        if (feed() != 0) {
            perror("watchdog: cannot feed");
        }
        return;
    }
    watch->starved++;
    hal_printf("not fed: busy %u of %u, over %u, circles %u, oldest %s for %d ms, queue %d ms, "
               "timer %d ms\n",
               (unsigned)health.busy, (unsigned)health.workers, (unsigned)health.over,
               (unsigned)health.circles, health.oldest, (int)health.oldest_ms, (int)health.queue_ms,
               (int)health.timer_ms);
    qor_bus_explain(bus, line_print, NULL);
}

static void *bus_watch(void *arg)
{
    struct watch *watch = arg;
    const struct timespec second = {.tv_sec = 1};
    for (int i = 0; watch->seconds == 0 || i < watch->seconds; i++) {
        nanosleep(&second, NULL);
        bus_judge(watch);
    }
    atomic_store(&ending, 1);
    qor_bus_drain(bus, DRAIN_MS); /* one that hangs is not waited for any longer */
    qor_bus_quit(bus);
    return NULL;
}

/* What the threads are inside, and no events. Lanes for the workers, for an init of each module
 * that somebody waits for, and for this thread, the loop's and the watch's. */
static void *stacks_record(void)
{
    enum { LANES = WORKERS + MODULES + 4, NAMES = MODULES + 4, EVENTS = 64 };
    qor_trace_config_t config = {.size = sizeof(config), .mask = QOR_TRACE_STACKS};
    config.lanes = LANES;
    config.names = NAMES;
    config.memory_size = qor_trace_size(LANES, NAMES, EVENTS);
    if (posix_memalign(&config.memory, 64, config.memory_size) != 0) {
        return NULL;
    }
    if (qor_trace_start(bus, &config) != 0) {
        free(config.memory);
        return NULL;
    }
    return config.memory;
}

static int bus_run(struct watch *watch)
{
    pthread_t watcher;
    if (pthread_create(&watcher, NULL, bus_watch, watch) != 0) {
        return -1;
    }
    const int32_t looped = qor_bus_loop(bus);
    pthread_join(watcher, NULL);
    return looped;
}

int main(int argc, char **argv)
{
    qor_context_module_t *modules[MODULES + 1] = {&server_module, &client_module, NULL};
    struct watch watch = {0};
    const char *device = NULL;
    int option;
    while ((option = getopt(argc, argv, "n:d:sc")) != -1) {
        switch (option) {
        case 'n':
            watch.seconds = atoi(optarg);
            break;
        case 'd':
            device = optarg;
            break;
        case 's':
            hangs = 1;
            break;
        case 'c':
            circles = 1;
            break;
        default:
            fprintf(stderr, "usage: watchdog [-n SECONDS] [-d DEVICE] [-s | -c]\n");
            return 2;
        }
    }
    if (feed_open(device) != 0) {
        perror("watchdog: nobody to feed");
        return 2;
    }
    bus = qor_bus_create(modules, TOPIC_COUNT);
    if (!bus) {
        return 2;
    }
    qor_bus_thread_num_set(bus, WORKERS);
    void *memory = stacks_record();
    const int ran = memory ? bus_run(&watch) : -1;
    qor_bus_close(bus); /* which lets go of the memory */
    free(memory);
    feed_close();
    return ran != 0 ? 2 : watch.starved ? 1 : 0;
}
