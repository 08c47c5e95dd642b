/* SPDX-License-Identifier: Apache-2.0 */
/* What the library's calls of the system meet in a build of it for stress: threads that are late,
 * waits that end for no reason, memory that is short, clocks that are elsewhere. Off at first. */
#ifndef QOR_TESTS_RACES_MEDDLE_H
#define QOR_TESTS_RACES_MEDDLE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** From now on so many of a hundred calls of locks and conditions are delayed, and as many waits
 * end at once. What a thread draws depends on the seed and on how many have drawn before it. */
void fault_delay(uint64_t seed, int percent);

/** From now on so many of a million allocations fail; 0: none. */
void fault_starve(int per_million);

/** Moves the monotonic clock, once and before the library has looked at it. */
void fault_monotonic_move(int64_t seconds);

/** Steps the system's clock, any time. */
void fault_wall_step(int64_t seconds);

/** How often something of the kind has happened. */
int64_t fault_delays(void);
int64_t fault_spurious(void);
int64_t fault_starved(void);
/** Timed waits that were measured by the system's clock. */
int64_t fault_wall_waits(void);

/** Blocks that the library has allocated and not freed. */
int64_t fault_blocks(void);

#ifdef __cplusplus
}
#endif

#endif /* QOR_TESTS_RACES_MEDDLE_H */
