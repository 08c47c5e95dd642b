/* SPDX-License-Identifier: Apache-2.0 */
/* What the program in plain C is made of: one function per object, and a count of what held. Plain
 * C that needs nothing but libc, so that it runs where there is no C++ runtime library. */
#ifndef QOR_TESTS_CHECK_H
#define QOR_TESTS_CHECK_H

#include <stdatomic.h>

/** Counts one check, and writes it to standard error when it does not hold. Main thread only. */
void check(const char *what, int holds);

/** Waits until a counter has reached a value, some seconds at the most. Returns 1, or 0 if late. */
int reached(atomic_int *counter, int value);

void check_platform(void);
void check_strict(void);
void check_tree(void);
void check_maps(void);
void check_que(void);
void check_time_que(void);
void check_messages(void);
void check_tasks(void);
void check_pool(void);
void check_context(void);
void check_registry(void);
void check_handler(void);
void check_calls(void);
void check_topics(void);
void check_idle_bus(void);
void check_delegate(void);
void check_lifecycle(void);
void check_start_up(void);
void check_whole_bus(void);
void check_contract(void);
void check_trace(void);
void check_health(void);

/* The same once more, by the second spelling of what they use. */
void check_prefixed_platform(void);
void check_prefixed_tree(void);
void check_prefixed_maps(void);

#endif /* QOR_TESTS_CHECK_H */
