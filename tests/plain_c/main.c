/* SPDX-License-Identifier: Apache-2.0 */
/* Drives every exported function, then whole buses up to their end. Prints 'N passed, N failed'. */
#include <stdio.h>

#include "check.h"
#include "qor_hal.h"

static int passed;
static int failed;

void check(const char *what, int holds)
{
    if (holds) {
        passed++;
    } else {
        failed++;
        fprintf(stderr, "does not hold: %s\n", what);
    }
}

int reached(atomic_int *counter, int value)
{
    const struct timespec pause = {0, 1000000};
    const int64_t deadline = util_timestamp() + 20000;
    while (atomic_load(counter) < value) {
        if (util_timestamp() > deadline) {
            return 0;
        }
        nanosleep(&pause, NULL);
    }
    return 1;
}

int main(void)
{
    check_platform();
    check_strict();
    check_tree();
    check_maps();
    check_que();
    check_time_que();
    check_messages();
    check_tasks();
    check_pool();
    check_context();
    check_registry();
    check_handler();
    check_calls();
    check_topics();
    check_idle_bus();
    check_delegate();
    check_lifecycle();
    check_start_up();
    check_whole_bus();
    check_whole_bus(); /* a second one in the same process */
    check_contract();
    check_trace();
    check_health();
    check_prefixed_platform();
    check_prefixed_tree();
    check_prefixed_maps();
    printf("%d passed, %d failed\n", passed, failed);
    return failed > 0;
}
