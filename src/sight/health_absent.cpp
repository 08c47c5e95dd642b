/* SPDX-License-Identifier: Apache-2.0 */
/* What stands for the explainer in a library that is built without the recorder. */
#include "qor_diag.hpp"
#include "qor_health.h"

namespace {

constexpr char file_tag[] = "qor_health";

} // namespace

int32_t qor_bus_explain(qor_bus_t *bus, qor_text_t text, void *)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(text, -1);
    QOR_ERR("nothing is recorded.");
    return -1;
}

int32_t qor_bus_health(qor_bus_t *bus, int32_t limit_ms, qor_health_t *health)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(limit_ms > 0, -1);
    QOR_CHECK(health, -1);
    QOR_CHECK(health->size == sizeof(*health), -1);
    QOR_ERR("nothing is recorded.");
    return -1;
}

int32_t qor_bus_circle_set(qor_bus_t *bus, int32_t policy)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(policy == QOR_CIRCLE_WAIT || policy == QOR_CIRCLE_REFUSE, -1);
    if (policy == QOR_CIRCLE_REFUSE) {
        QOR_ERR("nothing is recorded.");
        return -1;
    }
    return 0;
}
