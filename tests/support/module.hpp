/* SPDX-License-Identifier: Apache-2.0 */
/* Modules for tests: descriptors made at run time, and one whose callbacks the test writes. */
#ifndef QOR_TESTS_MODULE_HPP
#define QOR_TESTS_MODULE_HPP

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "qor_context.h"
#include "qor_context_module.h"
#include "qor_core_context.h"

/* A module descriptor with a name made at run time. */
inline qor_context_module_t named_module(const std::string &name)
{
    const auto at = [&name](size_t i) { return i < name.size() && i < 19 ? name[i] : '\0'; };
    return {{at(0),  at(1),  at(2),  at(3),  at(4),  at(5),  at(6),  at(7),  at(8),  at(9),
             at(10), at(11), at(12), at(13), at(14), at(15), at(16), at(17), at(18), '\0'},
            /* id */ 0,
            /* pure */ 1,
            /* refcount */ 0,
            /* priority */ 0,
            /* stack_size */ 0,
            /* arg */ nullptr,
            /* reg */ nullptr,
            /* unreg */ nullptr,
            /* init */ nullptr,
            /* uninit */ nullptr,
            /* console */ nullptr,
            /* handle_message */ nullptr};
}

/* A module whose callbacks do what the test sets, and nothing where it sets nothing. The callbacks
 * run on the bus's workers. It outlives the bus that runs it. */
class Module {
public:
    explicit Module(const std::string &name, uint32_t pure = 1) : descriptor(named_module(name))
    {
        descriptor.pure = pure;
        descriptor.arg = this;
        descriptor.reg = on_reg;
        descriptor.unreg = [](qor_context_t *c) { call(of(c).unreg, c); };
        descriptor.init = on_init;
        descriptor.uninit = [](qor_context_t *c) { call(of(c).uninit, c); };
        descriptor.handle_message = on_message;
    }
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;

    qor_context_module_t descriptor;
    std::function<void(qor_context_t *)> reg;
    std::function<void(qor_context_t *)> unreg;
    std::function<int32_t(qor_context_t *)> init;
    std::function<void(qor_context_t *)> uninit;
    std::function<int32_t(qor_context_t *, qor_context_msg_t *)> handle;

    /* What the module sees; NULL before its reg. */
    qor_context_t *context() const { return context_.load(); }

    /* The wrapper around it. */
    qor_core_context_t *core() const
    {
        return qor_core_context_type(
            static_cast<qor_context_t *>(qor_context_pub_data_get(context())));
    }

    /* -1 before its reg. */
    int32_t lifecycle() const
    {
        return context() ? __atomic_load_n(&core()->lifecycle, __ATOMIC_ACQUIRE) : -1;
    }

    bool started() const
    {
        const int32_t now = lifecycle();
        return now >= QOR_USER_CONTEXT_LIFECYCLE_START && now <= QOR_USER_CONTEXT_LIFECYCLE_PAUSE;
    }

    /* Its contexts went with the bus that made them. */
    void forget() { context_.store(nullptr); }

    static Module &of(qor_context_t *context)
    {
        return *static_cast<Module *>(context->module->arg);
    }

private:
    template <typename F> static void call(const F &callback, qor_context_t *context)
    {
        if (callback) {
            callback(context);
        }
    }

    static void on_reg(qor_context_t *context)
    {
        of(context).context_.store(context);
        call(of(context).reg, context);
    }

    static int32_t on_init(qor_context_t *context, void *)
    {
        const Module &self = of(context);
        return self.init ? self.init(context) : 0;
    }

    static int32_t on_message(qor_context_t *context, qor_context_msg_t *msg)
    {
        const Module &self = of(context);
        return self.handle ? self.handle(context, msg) : 0;
    }

    std::atomic<qor_context_t *> context_{nullptr};
};

/* The table of modules that a bus is created with; it ends with NULL. */
inline std::vector<qor_context_module_t *> table_of(const std::vector<Module *> &modules)
{
    std::vector<qor_context_module_t *> table;
    for (Module *module : modules) {
        table.push_back(&module->descriptor);
    }
    table.push_back(nullptr);
    return table;
}

#endif /* QOR_TESTS_MODULE_HPP */
