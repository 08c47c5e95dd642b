/* SPDX-License-Identifier: Apache-2.0 */
/* Least, mean and greatest of a series of numbers, without keeping the numbers. */
#ifndef SPREAD_H
#define SPREAD_H

#include <stdint.h>

struct spread {
    int64_t count;
    int64_t min;
    int64_t max;
    int64_t sum;
};

static inline void spread_add(struct spread *spread, int64_t value)
{
    if (spread->count == 0 || value < spread->min) {
        spread->min = value;
    }
    if (spread->count == 0 || value > spread->max) {
        spread->max = value;
    }
    spread->sum += value;
    spread->count++;
}

static inline int64_t spread_mean(const struct spread *spread)
{
    return spread->count > 0 ? spread->sum / spread->count : 0;
}

#endif /* SPREAD_H */
