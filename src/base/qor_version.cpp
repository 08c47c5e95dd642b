/* SPDX-License-Identifier: Apache-2.0 */
/* The version that the library was built as. */
#include "qor_api.h"

#define TEXT_OF(number) #number
#define TEXT(number) TEXT_OF(number)

const char *qor_version(void)
{
    return TEXT(QOR_VERSION_MAJOR) "." TEXT(QOR_VERSION_MINOR) "." TEXT(QOR_VERSION_PATCH);
}
