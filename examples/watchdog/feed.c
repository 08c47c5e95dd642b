/* SPDX-License-Identifier: Apache-2.0 */
/* Who is fed, and how. */
#include "watchdog.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int device = -1;   /* any byte feeds it */
static int notified = -1; /* a socket that is connected to the supervisor */

/* A name with '@' in front is not one of the file system's; its first byte is zero. */
static int supervisor_open(const char *name)
{
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
    notified = socket(AF_UNIX, SOCK_DGRAM, 0);
    return notified < 0 ? -1
                        : connect(notified, (struct sockaddr *)&to,
                                  (socklen_t)(offsetof(struct sockaddr_un, sun_path) + length));
}

int feed_open(const char *name)
{
    const char *supervisor = getenv("NOTIFY_SOCKET");
    if (name) {
        device = open(name, O_WRONLY);
        return device < 0 ? -1 : 0;
    }
    return supervisor ? supervisor_open(supervisor) : 0;
}

int feed(void)
{
    static const char text[] = "WATCHDOG=1";
    if (device >= 0) {
        return write(device, "", 1) == 1 ? 0 : -1;
    }
    if (notified >= 0) {
        return send(notified, text, sizeof(text) - 1, MSG_NOSIGNAL) < 0 ? -1 : 0;
    }
    hal_printf("fed\n");
    return 0;
}

/* The letter tells the device's driver that no restart is wanted. */
void feed_close(void)
{
    if (device >= 0) {
        if (write(device, "V", 1) != 1) {
            hal_printf("the device stays armed\n");
        }
        close(device);
    }
    if (notified >= 0) {
        close(notified);
    }
}
