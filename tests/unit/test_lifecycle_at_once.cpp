/* SPDX-License-Identifier: Apache-2.0 */
/* Lifecycle calls that are decided at once, in every state. */
#include "qor_core_context.h"

#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "lifecycle_fixture.hpp"
#include "module.hpp"

namespace {

int32_t init_with(qor_core_context_t *core, int32_t result)
{
    Module &module = *static_cast<Module *>(core->base.module->arg);
    module.init = [result](qor_context_t *) { return result; };
    return qor_context_init(&core->base);
}

/* An operation in one state: its result, the state afterwards, the lines. */
struct Cell {
    std::string name;
    int32_t from;
    int32_t (*operation)(qor_core_context_t *);
    int32_t result;
    int32_t to;
    std::string lines;
};

const std::string init_line = line("qor_core_context_init", "context init failed.");

const auto init_ok = [](qor_core_context_t *core) { return init_with(core, 0); };
const auto init_fail = [](qor_core_context_t *core) { return init_with(core, -7); };
const auto uninit = [](qor_core_context_t *core) {
    qor_context_uninit(&core->base);
    return int32_t{0};
};

const Cell cells[] = {
    {"InitOk_InInit", INIT, init_ok, 0, CREATE, ""},
    {"InitOk_InCreate", CREATE, init_ok, 0, CREATE, ""},
    {"InitOk_InStart", START, init_ok, 0, START, refused_line},
    {"InitOk_InResume", RESUME, init_ok, 0, RESUME, refused_line},
    {"InitOk_InPause", PAUSE, init_ok, 0, CREATE, ""},
    {"InitOk_InStop", STOP, init_ok, 0, STOP, refused_line},
    {"InitOk_InDestroy", DESTROY, init_ok, 0, DESTROY, refused_line},

    {"InitFail_InInit", INIT, init_fail, -7, STOP, init_line},
    {"InitFail_InCreate", CREATE, init_fail, -7, STOP, init_line},
    {"InitFail_InStart", START, init_fail, -7, STOP, init_line},
    {"InitFail_InResume", RESUME, init_fail, -7, STOP, init_line},
    {"InitFail_InPause", PAUSE, init_fail, -7, STOP, init_line},
    {"InitFail_InStop", STOP, init_fail, -7, STOP, init_line},
    {"InitFail_InDestroy", DESTROY, init_fail, -7, DESTROY, refused_line + init_line},

    {"Start_InInit", INIT, qor_core_context_lifecycle_start, 0, START, ""},
    {"Start_InCreate", CREATE, qor_core_context_lifecycle_start, 0, START, ""},
    {"Start_InStart", START, qor_core_context_lifecycle_start, -1, START, start_line},
    {"Start_InResume", RESUME, qor_core_context_lifecycle_start, -1, RESUME, start_line},
    {"Start_InPause", PAUSE, qor_core_context_lifecycle_start, -1, PAUSE, start_line},
    {"Start_InStop", STOP, qor_core_context_lifecycle_start, -1, STOP, start_line},
    {"Start_InDestroy", DESTROY, qor_core_context_lifecycle_start, -1, DESTROY, start_line},

    {"Resume_InStart", START, qor_core_context_lifecycle_resume, 0, RESUME, ""},
    {"Resume_InResume", RESUME, qor_core_context_lifecycle_resume, 0, RESUME, ""},
    {"Resume_InPause", PAUSE, qor_core_context_lifecycle_resume, 0, RESUME, ""},
    {"Resume_InStop", STOP, qor_core_context_lifecycle_resume, -1, STOP, resume_line},
    {"Resume_InDestroy", DESTROY, qor_core_context_lifecycle_resume, -1, DESTROY, resume_line},

    {"Pause_InInit", INIT, qor_core_context_lifecycle_pause, -1, INIT, pause_line},
    {"Pause_InCreate", CREATE, qor_core_context_lifecycle_pause, -1, CREATE, pause_line},
    {"Pause_InStart", START, qor_core_context_lifecycle_pause, -1, START, pause_line},
    {"Pause_InResume", RESUME, qor_core_context_lifecycle_pause, 0, RESUME, ""},
    {"Pause_InPause", PAUSE, qor_core_context_lifecycle_pause, 0, PAUSE, ""},
    {"Pause_InStop", STOP, qor_core_context_lifecycle_pause, -1, STOP, pause_line},
    {"Pause_InDestroy", DESTROY, qor_core_context_lifecycle_pause, -1, DESTROY, pause_line},

    {"Stop_InPause", PAUSE, qor_core_context_lifecycle_stop, 0, STOP, ""},
    {"Stop_InStop", STOP, qor_core_context_lifecycle_stop, -1, STOP, stop_line},
    {"Stop_InDestroy", DESTROY, qor_core_context_lifecycle_stop, -1, DESTROY, stop_line},

    {"Uninit_InInit", INIT, uninit, 0, DESTROY, ""},
    {"Uninit_InCreate", CREATE, uninit, 0, DESTROY, ""},
    {"Uninit_InStart", START, uninit, 0, DESTROY, ""},
    {"Uninit_InResume", RESUME, uninit, 0, DESTROY, ""},
    {"Uninit_InPause", PAUSE, uninit, 0, DESTROY, ""},
    {"Uninit_InStop", STOP, uninit, 0, DESTROY, ""},
    {"Uninit_InDestroy", DESTROY, uninit, 0, DESTROY, ""},
};

/* Where resume and pause count: 1 entry, 0 nothing, -1 exit. */
int32_t counted(const Cell &cell)
{
    if (cell.result < 0) {
        return 0;
    }
    return cell.operation == qor_core_context_lifecycle_resume  ? 1
           : cell.operation == qor_core_context_lifecycle_pause ? -1
                                                                : 0;
}

} // namespace

class LifecycleCell : public Lifecycle, public testing::WithParamInterface<Cell> {};

TEST_P(LifecycleCell, GivesItsResultStateAndLines)
{
    const Cell &cell = GetParam();
    be(cell.from);
    core->active_refcount = 5;

    EXPECT_EQ(cell.operation(core), cell.result);

    EXPECT_EQ(core->lifecycle, cell.to);
    EXPECT_EQ(core->active_refcount, 5 + counted(cell));
    EXPECT_EQ(out.printed(), cell.lines);
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleCell, testing::ValuesIn(cells), case_name<Cell>);
