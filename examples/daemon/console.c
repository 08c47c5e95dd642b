/* SPDX-License-Identifier: Apache-2.0 */
/* The console reads commands, a line each, from standard input or a FIFO and sends requests. The
 * responses come to the module's handler, which prints them. */
#include "daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

enum { LINE_MAX_LENGTH = 31 };

static struct {
    int input;
    int wake[2]; /* a byte in this pipe ends the console; -1: there is none yet */
} console = {.input = STDIN_FILENO, .wake = {-1, -1}};

static int32_t console_init(qor_context_t *self, void *path)
{
    (void)self;
    if (path) {
        console.input = open(path, O_RDWR); /* a FIFO without writers would be at its end */
        if (console.input < 0) {
            perror(path);
            return -1;
        }
    }
    return pipe(console.wake);
}

/* Waits for input. Returns 0 once the bus quits, which would refuse what is sent, or unreg has been
 * called. */
static int console_wait(void)
{
    struct pollfd files[] = {{.fd = console.input, .events = POLLIN},
                             {.fd = console.wake[0], .events = POLLIN}};
    int found;
    do {
        found = poll(files, 2, -1);
    } while (found < 0 && errno == EINTR);
    return found > 0 && files[1].revents == 0 && !qor_bus_quitting(bus);
}

static void console_command(qor_context_t *self, const char *line)
{
    int32_t sent = 0;
    if (strcmp(line, "status") == 0) {
        sent = qor_context_req_ret(self, TOPIC_STATUS, NULL, 0, sizeof(struct status));
    } else if (strcmp(line, "measure") == 0) {
        sent = qor_context_req_ret(self, TOPIC_MEASURE, NULL, 0, sizeof(double));
    } else if (strcmp(line, "quit") == 0) {
        service_stop();
    } else {
        hal_printf("commands: status, measure, quit\n");
    }
    if (sent < 0) {
        hal_printf("%s: not sent\n", line);
    }
}

/* Runs on a thread of its own. It may return early, as at the end of standard input, and must when
 * unreg is called. */
static int32_t console_run(qor_context_t *self)
{
    char line[LINE_MAX_LENGTH + 1], next;
    size_t length = 0;
    while (console_wait() && read(console.input, &next, 1) == 1) {
        if (next == '\n') {
            line[length] = '\0';
            console_command(self, line);
            length = 0;
        } else if (length < LINE_MAX_LENGTH) { /* of a longer line only the beginning */
            line[length++] = next;
        }
    }
    return 0;
}

static void console_unreg(qor_context_t *self)
{
    (void)self;
    if (console.wake[1] >= 0 && write(console.wake[1], "", 1) != 1) {
        perror("qor-daemon: console");
    }
}

/* The thread has returned by now. */
static void console_uninit(qor_context_t *self)
{
    (void)self;
    if (console.wake[0] >= 0) {
        close(console.wake[0]);
        close(console.wake[1]);
    }
    if (console.input > STDIN_FILENO) {
        close(console.input);
    }
}

static void status_print(const qor_context_msg_t *msg)
{
    qor_ledger_t meter = {.size = sizeof(meter)}; /* its requests, however they ended */
    struct status status;
    memcpy(&status, msg->response.buf, sizeof(status)); /* seldom aligned there */
    qor_bus_ledger(bus, meter_module.name, &meter);
    hal_printf("status: %u samples, %u missed, load %.2f; %llu answered, %llu dropped\n",
               (unsigned)status.samples, (unsigned)status.missed, status.load,
               (unsigned long long)meter.finished, (unsigned long long)meter.dropped_newest);
}

static void degrees_print(const qor_context_msg_t *msg)
{
    double degrees;
    memcpy(&degrees, msg->response.buf, sizeof(degrees));
    hal_printf("measure: %.1f degrees\n", degrees);
}

static int32_t console_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self; /* all that comes is responses: it has subscribed to nothing */
    if (msg->ret < 0) {
        hal_printf("%s: %s\n", msg->topic == TOPIC_STATUS ? "status" : "measure",
                   msg->ret == QOR_RET_DROPPED   ? "dropped, too many wait"
                   : msg->ret == QOR_RET_EXPIRED ? "no answer in time"
                                                 : "failed");
    } else if (msg->topic == TOPIC_STATUS) {
        status_print(msg);
    } else {
        degrees_print(msg);
    }
    return 0;
}

qor_context_module_t console_module = {
    .name = "console",
    .pure = 0, /* comes up after those it asks, and goes down before them */
    .reg = service_nothing,
    .unreg = console_unreg,
    .init = console_init,
    .uninit = console_uninit,
    .console = console_run,
    .handle_message = console_handle,
};
