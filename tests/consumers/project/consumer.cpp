/* SPDX-License-Identifier: Apache-2.0 */
/* The same application as C++. */
#include "consumer.c"
