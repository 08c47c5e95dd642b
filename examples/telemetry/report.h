/* SPDX-License-Identifier: Apache-2.0 */
/* The table at the end. */
#ifndef REPORT_H
#define REPORT_H

#include "command.h"
#include "telemetry.h"

/* Prints what was seen; after the bus is closed. */
void report(const struct telemetry *t, const struct command *command);

#endif /* REPORT_H */
