/* SPDX-License-Identifier: Apache-2.0 */
/* Class registry: a list of classes, searched from the newest. */
#include "qor_context_core.h"

#include "hal_sync.hpp"
#include "qor_context.h"
#include "qor_context_core_priv.hpp"
#include "qor_context_module.h"
#include "qor_diag.hpp"
#include "qor_impl_context.h" /* upward: a registry starts with the class of system contexts */
#include "qor_util.hpp"

#include <string.h>

namespace {

constexpr char file_tag[] = "qor_context_core";

/* Serialises the first construction of default_core. */
hal_thread_mutex_t g_core_lock = PTHREAD_MUTEX_INITIALIZER;

qor_context_cls_t *registry_class(list_head *link)
{
    return util_container<qor_context_cls_t, offsetof(qor_context_cls_t, node)>(link);
}

/* The class for an id, or the head, which is none. */
list_head *registry_find(qor_context_core_t *registry, int32_t id)
{
    hal_scoped_lock lock(registry->lock);
    list_head *cursor = registry->head.next;
    while (cursor != &registry->head && registry_class(cursor)->id != id) {
        cursor = cursor->next;
    }
    return cursor;
}

} // namespace

qor_context_core_t default_core;
QOR_COMMON_DATA(qor_context_core_t, default_core);

const qor_context_cls_t *context_core_class(int32_t id)
{
    if (!hal_load(default_core.initialized)) {
        return id == qor_impl_context_class.id ? &qor_impl_context_class : nullptr;
    }
    list_head *link = registry_find(&default_core, id);
    return link == &default_core.head ? nullptr : registry_class(link);
}

qor_context_core_t *qor_context_core_instance_get(void)
{
    if (!hal_load(default_core.initialized)) {
        hal_scoped_lock lock(g_core_lock);
        if (!default_core.initialized && !qor_context_core_constructor(&default_core)) {
            return nullptr; /* the next call tries again */
        }
    }
    return &default_core;
}

qor_context_core_t *qor_context_core_create(void)
{
    qor_context_core_t *_this =
        static_cast<qor_context_core_t *>(malloc(sizeof(qor_context_core_t)));
    if (!_this) {
        QOR_ERR_SPACED("malloc \"qor_context_core_t\" failed.");
        return nullptr;
    }
    if (!qor_context_core_constructor(_this)) {
        QOR_ERR_SPACED("constructor \"qor_context_core_t\" failed.");
        free(_this);
        return nullptr;
    }
    return _this;
}

qor_context_core_t *qor_context_core_constructor(qor_context_core_t *_this)
{
    memset(&_this->lock, 0, sizeof(_this->lock));
    memset(&_this->head, 0, sizeof(_this->head));
    /* Deliberate: set before the list and the lock are ready, so a thread that asks for the
     * instance meanwhile gets it half built: the first use is single-threaded, when the first user
     * context is created. Test: ContextCore.FirstUseConstructsTheInstanceWithTheSystemClass. */
    hal_store(_this->initialized, 1);
    INIT_LIST_HEAD(&_this->head);
    if (pthread_mutex_init(&_this->lock, nullptr) != 0) {
        hal_store(_this->initialized, 0);
        return nullptr;
    }
    /* Deliberate: the class has one link, so a second registry takes it away from the first, whose
     * list is broken from then on. Test: ContextCore.SecondRegistryTakesTheSystemClassAway. */
    list_add(&qor_impl_context_class.node, &_this->head);
    return _this;
}

void qor_context_core_destroy(qor_context_core_t *_this)
{
    hal_store(_this->initialized, 0);
    INIT_LIST_HEAD(&_this->head);
    pthread_mutex_destroy(&_this->lock);
    free(_this);
}

int32_t qor_context_core_class_register(qor_context_core_t *_this, qor_context_cls_t *cls)
{
    hal_scoped_lock lock(_this->lock);
    list_add(&cls->node, &_this->head);
    return 0;
}

void qor_context_core_class_unregister(qor_context_core_t *_this, qor_context_cls_t *cls)
{
    hal_scoped_lock lock(_this->lock);
    list_del(&cls->node);
}

qor_context_t *qor_context_core_create_context(qor_context_core_t *_this,
                                               qor_context_module_t *module)
{
    list_head *cursor = registry_find(_this, module->id);
    /* Deliberate: the walk's cursor is never NULL, so "no match cls." is never printed; at the end
     * of the list it stands on the head, which is no class. Creation then fails without a line
     * here; a user context prints its own. Test: ContextCore.UnservedIdCreatesNothingSilently. */
    if (cursor == &_this->head) {
        return nullptr;
    }
    return qor_context_create(registry_class(cursor), module);
}
