/* SPDX-License-Identifier: Apache-2.0 */
/* What stands for the recorder in a library that is built without it. */
#include "qor_diag.hpp"
#include "qor_trace.h"

namespace {

constexpr char file_tag[] = "qor_trace";

} // namespace

size_t qor_trace_size(uint32_t, uint32_t, uint32_t)
{
    return 0;
}

int32_t qor_trace_start(qor_bus_t *, const qor_trace_config_t *)
{
    QOR_ERR("built without the recorder.");
    return -1;
}

int32_t qor_trace_stop(void)
{
    return 0;
}

uint32_t qor_trace_mask_set(uint32_t)
{
    return 0;
}

void qor_trace_mark(uint32_t, int32_t) {}

int64_t qor_trace_snapshot(void *, size_t)
{
    return -1;
}
