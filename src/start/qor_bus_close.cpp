/* SPDX-License-Identifier: Apache-2.0 */
/* The orderly end of a bus. It stands with start-up, whose reverse it is: it takes down what that
 * brought up. */
#include "qor_bus.h"

#include <stdlib.h>

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_diag.hpp"
#include "qor_main_priv.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";

} // namespace

void qor_bus_close(qor_bus_t *_this)
{
    QOR_CHECK_VOID(_this);
    {
        hal_scoped_lock lock(_this->priv->mutex);
        if (_this->priv->looping) {
            QOR_ERR("the loop is running.");
            return;
        }
    }
    qor_bus_quit(_this); /* what modules post while they go down is refused */
    bus_visitors_await(*_this->priv);
    bus_helpers_join(_this); /* those of a bus that never looped */
    bus_tasks_discard(_this);
    main_contexts_close(_this);
    if (_this->time_que) {
        qor_time_que_destroy(_this->time_que);
        _this->time_que = nullptr;
    }
    qor_bus_uninit(_this);
    bus_head_uninit(_this);
    free(_this);
}
