/* SPDX-License-Identifier: Apache-2.0 */
/* Lines, checks and locks of the bridge. It stands on the bus's public headers, which have none. */
#ifndef MQTT_BASE_HPP
#define MQTT_BASE_HPP

#include <stdlib.h>

#include "qor_hal.h"

/* One line at the given level, a literal that becomes part of the format. */
#define MQTT_LINE(level, func, format, ...) \
    hal_printf("[%s][" level "][%s][%d]:" format "\n", file_tag, func, __LINE__, ##__VA_ARGS__)
#define MQTT_ERR(format, ...) MQTT_LINE("err", __func__, format, ##__VA_ARGS__)
#define MQTT_WRN(format, ...) MQTT_LINE("wrn", __func__, format, ##__VA_ARGS__)
#define MQTT_INF(format, ...) MQTT_LINE("inf", __func__, format, ##__VA_ARGS__)

/* Leaves the calling function with result unless cond holds; prints it as typed. */
#define MQTT_CHECK(cond, result)               \
    do {                                       \
        if (!(cond)) {                         \
            MQTT_ERR("!(" #cond ") == true."); \
            return result;                     \
        }                                      \
    } while (0)
#define MQTT_CHECK_VOID(cond)                  \
    do {                                       \
        if (!(cond)) {                         \
            MQTT_ERR("!(" #cond ") == true."); \
            return;                            \
        }                                      \
    } while (0)

/* Holds a mutex from here to the end of the block. */
class mqtt_lock {
public:
    explicit mqtt_lock(hal_thread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~mqtt_lock() { pthread_mutex_unlock(&mutex_); }
    mqtt_lock(const mqtt_lock &) = delete;
    mqtt_lock &operator=(const mqtt_lock &) = delete;

private:
    hal_thread_mutex_t &mutex_;
};

/* Makes a condition for waits on the monotonic clock: 0 or -1. */
inline int32_t mqtt_cond_init(hal_thread_cond_t &cond)
{
    hal_thread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) {
        return -1;
    }
    const bool made = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 &&
                      pthread_cond_init(&cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    return made ? 0 : -1;
}

/* Zeroed memory for a record, or NULL. */
template <typename T> inline T *mqtt_new(size_t more = 0)
{
    return static_cast<T *>(calloc(1, sizeof(T) + more));
}

#endif /* MQTT_BASE_HPP */
