/* SPDX-License-Identifier: Apache-2.0 */
/* Looks at a table of modules for what keeps them from coming up. Names are read no further than
 * they may be long. */
#include "qor_start.h"

#include <string.h>

#include "qor_bus_priv.hpp"
#include "qor_context_core_priv.hpp"
#include "qor_context_module.h"
#include "qor_diag.hpp"
#include "qor_impl_context_priv.hpp"
#include "qor_util.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";
constexpr size_t name_size = sizeof(qor_context_module_t::name);

/* A check on its way. */
struct check {
    qor_context_module_t **modules;
    qor_bus_finding_see_t see;
    void *arg;
    int32_t place; /* what is looked at: a module; -1: the whole table */
    int32_t findings;
};

void check_tell(check &run, bool found, int32_t level, const char *text)
{
    if (!found) {
        return;
    }
    run.findings++;
    if (!run.see) {
        return;
    }
    qor_bus_finding_t finding = {};
    if (run.place >= 0) {
        util_name_copy(finding.module, run.modules[run.place]->name);
    }
    finding.place = run.place;
    finding.level = level;
    finding.text = text;
    run.see(run.arg, &finding);
}

void check_error(check &run, bool found, const char *text)
{
    check_tell(run, found, QOR_FINDING_ERROR, text);
}

void check_warning(check &run, bool found, const char *text)
{
    check_tell(run, found, QOR_FINDING_WARNING, text);
}

void check_table(check &run, size_t count)
{
    bool pure = count == 0; /* nothing is to come up */
    for (size_t i = 0; i < count; i++) {
        pure = pure || run.modules[i]->pure;
    }
    check_error(run, count == bus_module_limit, "1024 modules or more.");
    check_error(run, !pure, "no module has pure.");
}

void check_name(check &run)
{
    const qor_context_module_t *module = run.modules[run.place];
    bool listed = false;
    bool named = false;
    for (int32_t i = 0; i < run.place; i++) {
        listed = listed || run.modules[i] == module;
        named = named || strncmp(run.modules[i]->name, module->name, name_size) == 0;
    }
    const size_t length = strnlen(module->name, name_size);
    check_error(run, length == name_size, "name not terminated.");
    check_warning(run, length == 0, "name empty.");
    check_warning(run, listed, "listed before.");
    check_warning(run, named && !listed && length > 0, "name used before.");
}

/* What a system context reports as missing, and what it makes of the console. */
void check_callbacks(check &run)
{
    const qor_context_module_t *module = run.modules[run.place];
    check_error(run, !module->init, "no init.");
    check_warning(run, !module->reg, "no reg.");
    check_warning(run, !module->unreg, "no unreg.");
    check_warning(run, !module->uninit, "no uninit.");
    check_warning(run, !module->handle_message, "no handle_message.");
    if (module->console) {
        check_warning(run, impl_console_stack_refused(module), "console: stack size refused.");
        check_warning(run, module->priority && impl_console_priority(module) != module->priority,
                      "console: priority not 1 to 99.");
    }
}

} // namespace

int32_t qor_bus_check(qor_context_module_t **modules, qor_bus_finding_see_t see, void *arg)
{
    QOR_CHECK(modules, -1);
    check run = {modules, see, arg, -1, 0};
    const size_t count = bus_module_count(modules);
    check_table(run, count);
    while (++run.place < static_cast<int32_t>(count)) {
        check_name(run);
        const qor_context_cls_t *cls = context_core_class(modules[run.place]->id);
        check_error(run, !cls, "no class for its id.");
        if (cls == &qor_impl_context_class) {
            check_callbacks(run);
        }
    }
    return run.findings;
}
