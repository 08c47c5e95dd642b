/* SPDX-License-Identifier: Apache-2.0 */
/* What the two programs share: the topics at the broker, and what is written there. It is text, as
 * the machines of a fleet need not have processors of one kind. */
#ifndef FLEET_H
#define FLEET_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qor.h"
#include "qor_mqtt.h"

/* A station's bridge bears the station's name, which stands for {module}. */
#define FLEET_VERDICT "fleet/%s/verdict"
#define FLEET_STATUS "fleet/%s/status"
#define FLEET_HOST "127.0.0.1"

/* NUMBER MS KIND LOAD HEADROOM: of the sample since the station's start, when it was taken, and
 * what the judge said of it. Shares are in tenths of a percent. */
#define FLEET_REPORT "%d %lld %d %d %d"

/* A port number, or -1. */
static inline int32_t fleet_port(const char *text)
{
    char *end;
    const long port = strtol(text, &end, 10);
    return *text && *end == '\0' && port > 0 && port < 65536 ? (int32_t)port : -1;
}

#endif /* FLEET_H */
