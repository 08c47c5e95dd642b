/* SPDX-License-Identifier: Apache-2.0 */
/* The one text that all argument checks print. */
#include "qor_diag.hpp"

uint32_t diag_lines;

void qor_check_print(const char *tag, const char *func, int line, const char *cond)
{
    hal_printf("[%s][err][%s][%d]:!(%s) == true.\n", tag, func, line, cond);
}
