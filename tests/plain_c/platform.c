/* SPDX-License-Identifier: Apache-2.0 */
/* Version, output, names, clock and list. */
#include "check.h"
#include "qor_hal.h"

static int format(char *text, int size, const char *how, ...)
{
    va_list values;
    va_start(values, how);
    const int length = hal_vsnprintf(text, size, how, values);
    va_end(values);
    return length;
}

static int taken;

static void take(void *arg, int32_t level, const char *fmt, va_list ap)
{
    char text[16];
    hal_vsnprintf(text, sizeof(text), fmt, ap);
    taken += !arg && level == QOR_LEVEL_INF && strcmp(text, "taken\n") == 0;
}

static const qor_output_t sink = {take, NULL};

static void check_list(void)
{
    list_head head, first, second;
    INIT_LIST_HEAD(&head);
    check("a new list is empty", list_empty(&head));
    list_add(&second, &head);
    list_add(&first, &head);
    check("list_add puts in front", head.next == &first && first.next == &second);
    list_del(&first);
    check("list_del unlinks", head.next == &second && !first.next && !first.prev);
    list_add_tail(&first, &head);
    check("list_add_tail appends", head.prev == &first);
}

void check_platform(void)
{
    char text[16] = "";
    struct timespec moment;

    check("qor_version tells the project's version", strcmp(qor_version(), PROJECT_VERSION) == 0);
    hal_printf("%s\n", "plain_c");
    qor_output_set(&sink);
    hal_printf("%s\n", "taken");
    qor_output_set(NULL);
    hal_printf("%s\n", "not taken");
    check("qor_output_set", taken == 1);
    check("hal_snprintf gives the whole length", hal_snprintf(text, 4, "%d", 12345) == 5);
    check("hal_snprintf cuts and terminates", strcmp(text, "123") == 0);
    check("hal_vsnprintf formats", format(text, sizeof(text), "%s-%d", "a", 7) == 3);
    check("hal_vsnprintf writes", strcmp(text, "a-7") == 0);

    check("a thread takes a name", hal_thread_name_set("plain_c") == 0);
    check("the kernel has the name", prctl(PR_GET_NAME, text) == 0 && strcmp(text, "plain_c") == 0);

    const int64_t before = util_timestamp();
    check("the clock runs", before > 0);
    check("hal_timestamp reads the same", hal_timestamp() >= before);
    check("and at the same time", hal_timestamp() <= util_timestamp());
    util_timespec(1234567, &moment);
    check("milliseconds become seconds", moment.tv_sec == 1234);
    check("and nanoseconds", moment.tv_nsec == 567000000);
    check_list();
}
