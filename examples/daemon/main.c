/* SPDX-License-Identifier: Apache-2.0 */
/* A service from its start to its end: looks at its modules, says what each may rely on, tells the
 * supervisor when all are up, and ends in good order on a signal. */
#include "daemon.h"

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

enum { LAST_WORK_MS = 2000 };

qor_bus_t *bus;

/* The modules in the order of their start, and what each may rely on. None of them needs a lock for
 * its own data: strict lets one of its handlers and timers run at a time. */
static const struct {
    qor_context_module_t *module;
    uint32_t depth;    /* how many requests may wait; 0: the default */
    int32_t overflow;  /* what becomes of the others */
    uint32_t open_max; /* how many requests it may answer later */
} contracts[] = {
    {&sampler_module, 0, QOR_OVERFLOW_REFUSE, 0},
    {&meter_module, 4, QOR_OVERFLOW_DROP_NEWEST, 4},
    {&console_module, 0, QOR_OVERFLOW_REFUSE, 0},
};
enum { MODULES = sizeof(contracts) / sizeof(contracts[0]) };

static void finding_print(void *errors, const qor_bus_finding_t *finding)
{
    const int is_error = finding->level == QOR_FINDING_ERROR;
    fprintf(stderr, "qor-daemon: %s: module %d \"%s\": %s\n", is_error ? "error" : "warning",
            (int)finding->place, finding->module, finding->text);
    *(int *)errors += is_error;
}

static int contracts_set(void)
{
    for (int i = 0; i < MODULES; i++) {
        qor_contract_t contract;
        qor_contract_init(&contract);
        contract.strict = 1;
        contract.depth = contracts[i].depth;
        contract.overflow = contracts[i].overflow;
        contract.open_max = contracts[i].open_max;
        if (qor_bus_contract_set(bus, contracts[i].module->name, &contract) != 0) {
            return -1;
        }
    }
    return 0;
}

void service_stop(void)
{
    qor_bus_drain(bus, LAST_WORK_MS);
    qor_bus_quit(bus);
}

void service_nothing(qor_context_t *self)
{
    (void)self;
}

/* The signals are blocked in all threads and wait until this one takes them: in a signal handler
 * the bus must not be called. */
static void *signal_take(void *signals)
{
    int number;
    sigwait(signals, &number);
    service_stop();
    return NULL;
}

/* The protocol of systemd: one datagram. A name with '@' in front is not one of the file system's;
 * its first byte is zero. */
static int notify_socket(const char *name)
{
    static const char text[] = "READY=1";
    struct sockaddr_un to = {.sun_family = AF_UNIX};
    const size_t length = strlen(name);
    if (length > sizeof(to.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(to.sun_path, name, length);
    if (name[0] == '@') {
        to.sun_path[0] = '\0';
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0) {
        return -1;
    }
    const ssize_t sent = sendto(fd, text, sizeof(text) - 1, 0, (struct sockaddr *)&to,
                                (socklen_t)(offsetof(struct sockaddr_un, sun_path) + length));
    close(fd);
    return sent < 0 ? -1 : 0;
}

/* The protocol of s6: an empty line into a pipe, which is then closed. */
static int notify_fd(const char *number)
{
    const int fd = atoi(number);
    return write(fd, "\n", 1) == 1 ? close(fd) : -1;
}

static int ready_tell(void)
{
    const char *name = getenv("NOTIFY_SOCKET");
    const char *number = getenv("NOTIFY_FD");
    if (name) {
        return notify_socket(name);
    }
    if (number) {
        return notify_fd(number);
    }
    hal_printf("ready\n");
    return 0;
}

static void missing_print(const qor_start_entry_t *entry)
{
    static const char *const reasons[] = {
        [QOR_START_PENDING] = "still coming up",
        [QOR_START_INIT_FAILED] = "its init has failed",
        [QOR_START_NEVER] = "it comes after one that has failed: ",
        [QOR_START_NO_PURE] = "no module has pure",
        [QOR_START_NO_CLASS] = "its class is not registered",
        [QOR_START_NO_MEMORY] = "no memory",
        [QOR_START_BROKEN] = "the start itself has failed",
    };
    if (entry->state != QOR_START_UP && entry->state != QOR_START_NO_CONSOLE) {
        fprintf(stderr, "qor-daemon: %s is not up: %s%s\n", entry->name, reasons[entry->state],
                entry->because);
    }
}

/* Waits for the start and tells the supervisor, or ends what cannot do its work. */
static void *start_watch(void *status)
{
    qor_start_entry_t entries[MODULES];
    qor_start_report_t report = {.entries = entries, .capacity = MODULES};
    switch (qor_bus_wait_up(bus, -1, &report)) {
    case 0:
        if (ready_tell() == 0) {
            return NULL;
        }
        perror("qor-daemon: cannot tell the supervisor");
        break;
    case 1:
        for (int i = 0; i < MODULES; i++) {
            missing_print(&entries[i]);
        }
        break;
    default: /* asked to end before it was up */
        return NULL;
    }
    *(int *)status = EXIT_FAILURE;
    qor_bus_quit(bus);
    return NULL;
}

static void line_log(void *arg, int32_t level, const char *fmt, va_list ap) QOR_PRINTF(3, 0);

/* A line for the system's log, with the level that it has. */
static void line_log(void *arg, int32_t level, const char *fmt, va_list ap)
{
    char line[256];
    (void)arg;
    hal_vsnprintf(line, sizeof(line), fmt, ap);
    syslog(level, "%s", line);
}

static const qor_output_t system_log = {line_log, NULL};

/* Until somebody quits the bus. */
static int service_run(sigset_t *signals)
{
    pthread_t taker, watcher;
    int status = 0;
    int32_t looped = -1;
    const int taking = pthread_create(&taker, NULL, signal_take, signals) == 0;
    const int watching = taking && pthread_create(&watcher, NULL, start_watch, &status) == 0;
    if (watching) {
        looped = qor_bus_loop(bus);
        qor_bus_quit(bus); /* where it could not loop, the watcher still waits */
        pthread_join(watcher, NULL);
    }
    if (taking) {
        pthread_kill(taker, SIGTERM); /* it still waits if there was no signal */
        pthread_join(taker, NULL);
    }
    return looped == 0 ? status : EXIT_FAILURE;
}

int main(int argc, char **argv)
{
    qor_context_module_t *modules[MODULES + 1] = {NULL};
    sigset_t signals;
    int errors = 0;
    int next = 1;
    if (argc > next && strcmp(argv[next], "-l") == 0) {
        openlog("qor-daemon", LOG_PID, LOG_DAEMON);
        qor_output_set(&system_log);
        next++;
    }
    console_module.arg = argc > next ? argv[next] : NULL; /* a FIFO, or else standard input */
    for (int i = 0; i < MODULES; i++) {
        modules[i] = contracts[i].module;
    }
    qor_bus_check(modules, finding_print, &errors);
    if (errors > 0) {
        return EXIT_FAILURE;
    }
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL); /* before the first thread, which inherits it */

    bus = qor_bus_create(modules, TOPIC_COUNT);
    if (!bus) {
        return EXIT_FAILURE;
    }
    const int status = contracts_set() == 0 ? service_run(&signals) : EXIT_FAILURE;
    qor_bus_close(bus);
    return status;
}
