/* SPDX-License-Identifier: Apache-2.0 */
/* Makes a bridge without a bus, and asks what it has done: nothing. */
#include "qor.h"
#include "qor_mqtt.h"

int main(void)
{
    qor_mqtt_config_t config;
    qor_mqtt_status_t status = {.size = sizeof(status)};
    qor_mqtt_config_init(&config);
    config.host = "localhost";
    qor_context_module_t *bridge = qor_mqtt_module_create(&config);
    const int failed = !bridge || qor_mqtt_status(bridge, &status) != 0 || status.accepted != 0;
    qor_mqtt_module_destroy(bridge);
    return failed;
}
