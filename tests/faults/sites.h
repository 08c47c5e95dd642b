/* SPDX-License-Identifier: Apache-2.0 */
/* Where the library makes the calls of calls.txt, and one such place that fails. Linked into a
 * build of the library with the linker's --wrap for each of them (see sites.c).
 *
 * A site is a call with the calls that have led to it: up to SITE_DEPTH return addresses, innermost
 * first, each as an offset in the library; what called the library is not part of it. */
#ifndef QOR_TESTS_SITES_H
#define QOR_TESTS_SITES_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SITE_API __attribute__((visibility("default")))

enum { SITE_DEPTH = 4 };

/* Lets the next call of a site fail, and with onward every listed call behind that one too, until
 * fault_site_heal(). The site is written as fault_sites_print() writes it. */
SITE_API void fault_site_fail(const char *site, int onward);
SITE_API void fault_site_heal(void);
/* How many calls have been made to fail. */
SITE_API int fault_site_hits(void);
/* Blocks, locks and attributes that the library has made and not given back. */
SITE_API int fault_sites_live(void);
/* One line for each site that was met: "site", the function, the addresses, how often it
 * was met, and how often it failed. */
SITE_API void fault_sites_print(FILE *to);

#ifdef __cplusplus
}
#endif
#endif
