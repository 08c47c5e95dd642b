/* SPDX-License-Identifier: Apache-2.0 */
/* Everything public, for applications. */
#ifndef QOR_H
#define QOR_H

#include "qor_api.h"
#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_context.h"
#include "qor_context_core.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_contract.h"
#include "qor_core_context.h"
#include "qor_deferred.h"
#include "qor_hal.h"
#include "qor_health.h"
#include "qor_impl_context.h"
#include "qor_inspect.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "qor_monitor_module.h"
#include "qor_periodic.h"
#include "qor_que.h"
#include "qor_sched_delegate.h"
#include "qor_start.h"
#include "qor_sys.h"
#include "qor_thread_pool.h"
#include "qor_time_que.h"
#include "qor_topic_core.h"
#include "qor_trace.h"
#include "qor_types.h"
#include "rbapi.h"
#include "rbapi_kv.h"
#include "rbtree.h"

#endif /* QOR_H */
