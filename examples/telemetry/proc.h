/* SPDX-License-Identifier: Apache-2.0 */
/* The machine as the kernel shows it under /proc. */
#ifndef PROC_H
#define PROC_H

#include "recording.h"

/* Reads processor and memory; at_ms is left alone. Returns -1 when a file cannot be read or lacks
 * what is looked for. */
int proc_read(struct reading *reading);

#endif /* PROC_H */
