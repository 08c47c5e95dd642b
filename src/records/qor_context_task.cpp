/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks: filling, running and releasing the records that the queues copy. */
#include "qor_context_task.h"

#include "qor_diag.hpp"
#include "qor_util.hpp"

#include <string.h>

namespace {

/* Deliberate: the messages' tag, so that both records of the traffic are found under one word; a
 * line of this file is told by its function. Test: ContextTask.PrintsUnderTheTagOfMessages. */
constexpr char file_tag[] = "qor_context_msg";

constexpr size_t name_size = sizeof(qor_context_task_t::name);

/* Copies a name of at most `longest` characters into room for `size`, with zeroes behind a shorter
 * one. Not strncpy: a name that fills its field need not be terminated. */
void task_name_copy(char *to, size_t size, const char *name, size_t longest)
{
    const size_t length = strnlen(name, size < longest ? size : longest);
    memcpy(to, name, length);
    memset(to + length, 0, size - length);
}

/* Deliberate: the last byte of the field stays as it was, so a long name is terminated only in a
 * record that was zeroed. Test: ContextTask.LastByteOfTheNameIsLeftAlone. */
void task_name_put(qor_context_task_t *task, const char *name)
{
    task_name_copy(task->name, name_size - 1, name, name_size - 1);
}

/* The default name, "task:%p". By hand, for it is made for each task that the library makes. */
void task_name_default(qor_context_task_t *task, const void *func)
{
    constexpr char start[] = "task:0x";
    const uintptr_t address = reinterpret_cast<uintptr_t>(func);
    if (!address) { /* which every C library prints its own way */
        hal_snprintf(task->name, name_size, "task:%p", func);
        return;
    }
    memcpy(task->name, start, sizeof(start) - 1);
    char *to = task->name + sizeof(start) - 1;
    int shift = 0;
    while (shift + 4 < static_cast<int>(8 * sizeof(address)) && address >> (shift + 4)) {
        shift += 4;
    }
    for (; shift >= 0; shift -= 4) {
        *to++ = "0123456789abcdef"[address >> shift & 0xf];
    }
    *to = '\0';
}

/* What both kinds of task share; the name is the one that its diagnostics print. The function comes
 * as an address, only to name a nameless task after it. */
int32_t _qor_context_task_init(qor_context_task_t *_this, qor_context_t *context, const char *name,
                               int32_t ss, const void *func, void *arg)
{
    QOR_CHECK(_this, -1);
    if (name) {
        task_name_put(_this, name);
    } else {
        task_name_default(_this, func);
    }
    _this->context = context;
    _this->session = ss;
    _this->async = 0;
    _this->delay = 0;
    _this->arg = arg;
    _this->recycle = nullptr;
    return 0;
}

} // namespace

int32_t qor_context_task_init(qor_context_task_t *_this, qor_context_t *context, const char *name,
                              int32_t ss, qor_context_run_t func, void *arg)
{
    const void *address = reinterpret_cast<const void *>(func);
    if (_qor_context_task_init(_this, context, name, ss, address, arg) != 0) {
        return -1;
    }
    _this->fun_type = QOR_CONTEXT_FUN_RUN;
    _this->fun.run = func;
    return 0;
}

int32_t qor_context_taskx_init(qor_context_task_t *_this, qor_context_t *context, const char *name,
                               int32_t ss, qor_context_runx_t func, void *arg)
{
    QOR_CHECK(context, -1);
    const void *address = reinterpret_cast<const void *>(func);
    if (_qor_context_task_init(_this, context, name, ss, address, arg) != 0) {
        return -1;
    }
    _this->fun_type = QOR_CONTEXT_FUN_RUNX;
    _this->fun.runx = func;
    return 0;
}

qor_context_task_t *qor_context_task_create(qor_context_t *context, const char *name, int32_t ss,
                                            qor_context_run_t func, void *arg)
{
    qor_context_task_t *_this = util_zalloc<qor_context_task_t>();
    QOR_CHECK(_this, nullptr);
    qor_context_task_init(_this, context, name, ss, func, arg);
    return _this;
}

qor_context_task_t *qor_context_taskx_create(qor_context_t *context, const char *name, int32_t ss,
                                             qor_context_runx_t func, void *arg)
{
    QOR_CHECK(context, nullptr);
    qor_context_task_t *_this = util_zalloc<qor_context_task_t>();
    QOR_CHECK(_this, nullptr);
    qor_context_taskx_init(_this, context, name, ss, func, arg);
    return _this;
}

int32_t qor_context_task_copy(qor_context_task_t *_this, const qor_context_task_t *src)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(src, -1);
    *_this = *src;
    return 0;
}

void *qor_context_task_excute(qor_context_task_t *_this)
{
    QOR_CHECK(_this, nullptr);
    if (_this->fun_type == QOR_CONTEXT_FUN_RUN) {
        return _this->fun.run(_this->arg);
    }
    /* Deliberate: every kind but 0 is RUNX, not only 1. Test: ContextTask.UnknownKindRunsAsRunx. */
    QOR_CHECK(_this->context, nullptr);
    return _this->fun.runx(_this->context, _this->session, _this->arg);
}

void qor_context_task_uninit(qor_context_task_t *_this)
{
    QOR_CHECK_VOID(_this);
    /* Deliberate: recycle stays set, so releasing the record once more releases arg once more.
     * Test: ContextTask.UninitTwiceRecyclesTwice. */
    if (_this->recycle) {
        _this->recycle(_this->arg);
    }
}

void qor_context_task_destroy(qor_context_task_t *_this)
{
    QOR_CHECK_VOID(_this);
    qor_context_task_uninit(_this);
    free(_this);
}

int32_t qor_context_task_set_name(qor_context_task_t *_this, const char *name)
{
    QOR_CHECK(_this && name, -1);
    task_name_put(_this, name);
    return 0;
}

int32_t qor_context_task_get_name(qor_context_task_t *_this, char *name, int32_t len)
{
    QOR_CHECK(_this && name, -1);
    task_name_copy(name, len > 0 ? static_cast<size_t>(len) : 0, _this->name, name_size);
    return 0;
}

int32_t qor_context_task_set_async(qor_context_task_t *_this, int32_t async)
{
    QOR_CHECK(_this, -1);
    _this->async = async;
    return 0;
}

int32_t qor_context_task_get_async(qor_context_task_t *_this, int32_t *async)
{
    QOR_CHECK(_this && async, -1);
    *async = _this->async;
    return 0;
}

int32_t qor_context_task_set_delay(qor_context_task_t *_this, int32_t delay)
{
    QOR_CHECK(_this, -1);
    _this->delay = delay;
    return 0;
}

int32_t qor_context_task_get_delay(qor_context_task_t *_this, int32_t *delay)
{
    QOR_CHECK(_this && delay, -1);
    *delay = _this->delay;
    return 0;
}

int32_t qor_context_task_set_recycle(qor_context_task_t *_this, qor_context_recycle_t recycle)
{
    QOR_CHECK(_this, -1);
    _this->recycle = recycle;
    return 0;
}

qor_context_recycle_t qor_context_task_get_recycle(qor_context_task_t *_this)
{
    QOR_CHECK(_this, nullptr);
    return _this->recycle;
}
