/* SPDX-License-Identifier: Apache-2.0 */
/* In plain ISO C, without any feature macro, and behind a header that would have read them. */
#include <stdio.h>

#include "check.h"
#include "qor.h"

void check_strict(void)
{
    const int64_t before = hal_timestamp();
    const int64_t now = util_timestamp();
    check("the clock runs in strict ISO C", now >= before && before > 0);
    check("and is the library's", hal_timestamp() >= now && now - before < 60000);
}
