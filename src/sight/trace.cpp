/* SPDX-License-Identifier: Apache-2.0 */
/* Whether anything is recorded, and who does it. */
#include "trace.hpp"

uint32_t trace_mask;
const trace_functions *trace_made;
