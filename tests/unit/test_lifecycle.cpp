/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_core_context.h"

#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_sched_delegate.h"
#include "running_bus.hpp"
#include "sleeper.hpp"

namespace {

enum {
    INIT = QOR_USER_CONTEXT_LIFECYCLE_INIT,
    CREATE = QOR_USER_CONTEXT_LIFECYCLE_CREATE,
    START = QOR_USER_CONTEXT_LIFECYCLE_START,
    RESUME = QOR_USER_CONTEXT_LIFECYCLE_RESUME,
    PAUSE = QOR_USER_CONTEXT_LIFECYCLE_PAUSE,
    STOP = QOR_USER_CONTEXT_LIFECYCLE_STOP,
    DESTROY = QOR_USER_CONTEXT_LIFECYCLE_DESTROY
};
constexpr int states = 7;
const char *const state_names[states] = {"Init",  "Create", "Start",  "Resume",
                                         "Pause", "Stop",   "Destroy"};

const char change_text[] = "lifecycle change logical not correct.";
const char start_text[] = "lifecycle already START or not CREATE yet. START failed.";
const char stop_text[] = "lifecycle already STOP. STOP failed.";
const char resume_text[] = "lifecycle already STOP or not START yet. RESUME failed.";
const char resume_late_text[] = "lifecycle already STOP or DESTROY. RESUME failed.";
const char pause_text[] = "lifecycle already STOP or not RESUME yet. PAUSE failed.";

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_core_context", function, text);
}

/* A user context that is attached to no bus. */
class Lifecycle : public testing::Test {
protected:
    Lifecycle()
        : wrapper(qor_core_context_class.create(&module.descriptor)),
          core(qor_core_context_type(wrapper))
    {
    }

    ~Lifecycle() override
    {
        qor_context_t *inner = core->context;
        out.clear();
        qor_core_context_lifecycle_change(core, DESTROY);
        qor_context_destroy(wrapper);
        qor_context_destroy(inner);
    }

    void be(int32_t lifecycle) { ASSERT_EQ(qor_core_context_lifecycle_change(core, lifecycle), 0); }

    Module module{"clock"};
    qor_context_t *wrapper;
    qor_core_context_t *core;
    Output out;
};

/* A call that is expected to wait, on a thread of its own. */
class Call {
public:
    template <typename F>
    explicit Call(F function)
        : sleeper_(std::make_unique<Sleeper>()),
          result_(std::async(std::launch::async, [function, sleeper = sleeper_.get()] {
              sleeper->here();
              return function();
          }))
    {
    }

    int32_t get() { return result_.get(); }

    bool returned(int milliseconds = 0) const
    {
        return result_.wait_for(std::chrono::milliseconds(milliseconds)) ==
               std::future_status::ready;
    }

    /* Tells whether it has got to wait and goes on waiting; gives one that was woken the time to
     * return. */
    bool waits() const
    {
        return await([this] { return sleeper_->sleeps() || returned(); }) && !returned(30);
    }

private:
    std::unique_ptr<Sleeper> sleeper_;
    std::future<int32_t> result_;
};

template <typename F> Call begin(F function, qor_core_context_t *core)
{
    return Call([=] { return function(core); });
}

} // namespace

TEST_F(Lifecycle, TheValuesAreInOrder)
{
    EXPECT_EQ(INIT, 0);
    EXPECT_EQ(CREATE, 1);
    EXPECT_EQ(START, 2);
    EXPECT_EQ(RESUME, 3);
    EXPECT_EQ(PAUSE, 4);
    EXPECT_EQ(STOP, 5);
    EXPECT_EQ(DESTROY, 6);
}

TEST_F(Lifecycle, BeginsInInit)
{
    EXPECT_EQ(core->lifecycle, INIT);
}

/* ---- what is decided at once ---- */

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

const std::string refused_line = line("qor_core_context_lifecycle_change", change_text);
const std::string init_line = line("qor_core_context_init", "context init failed.");
const std::string start_line = line("qor_core_context_lifecycle_start", start_text);
const std::string stop_line = line("qor_core_context_lifecycle_stop", stop_text);
const std::string resume_line = line("qor_core_context_lifecycle_resume", resume_text);
const std::string pause_line = line("qor_core_context_lifecycle_pause", pause_text);

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

/* ---- change ---- */

/* One row for each state; the columns are the states asked for. */
const char *const change_accepted[states] = {"yyyyyyy", "-yyyyyy", "--yyyyy", "---yyyy",
                                             "yyyyyyy", "---y-yy", "---y--y"};

class LifecycleChange : public Lifecycle,
                        public testing::WithParamInterface<std::tuple<int, int>> {};

TEST_P(LifecycleChange, IsAcceptedUpwardsToResumeAndFromPause)
{
    const auto [from, to] = GetParam();
    const bool accepted = change_accepted[from][to] == 'y';
    be(from);

    EXPECT_EQ(qor_core_context_lifecycle_change(core, to), accepted ? 0 : -1);

    EXPECT_EQ(core->lifecycle, accepted ? to : from);
    EXPECT_EQ(out.printed(), accepted ? "" : refused_line);
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleChange,
                         testing::Combine(testing::Range(0, states), testing::Range(0, states)),
                         [](const auto &cell) {
                             return std::string(state_names[std::get<0>(cell.param)]) + "To" +
                                    state_names[std::get<1>(cell.param)];
                         });

TEST_F(Lifecycle, ResumeIsAcceptedFromAnywhere)
{
    for (int32_t from = INIT; from <= DESTROY; from++) {
        core->lifecycle = from;

        EXPECT_EQ(qor_core_context_lifecycle_change(core, RESUME), 0) << from;

        EXPECT_EQ(core->lifecycle, RESUME) << from;
    }
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Lifecycle, ChangeComparesWithoutSign)
{
    be(START);

    EXPECT_EQ(qor_core_context_lifecycle_change(core, -1), 0);

    EXPECT_EQ(core->lifecycle, -1);
    core->lifecycle = START;
}

/* ---- start ---- */

TEST_F(Lifecycle, StartIsDecidedUnderTheLock)
{
    be(INIT); /* below CREATE, so an early test would have refused it */

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);

    EXPECT_EQ(core->lifecycle, START);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Lifecycle, OfManyStartsOneSucceeds)
{
    std::vector<Call> calls;
    for (int i = 0; i < 8; i++) {
        calls.push_back(begin(qor_core_context_lifecycle_start, core));
    }
    int succeeded = 0;
    for (Call &call : calls) {
        succeeded += call.get() == 0;
    }

    EXPECT_EQ(succeeded, 1);
    EXPECT_EQ(out.count(start_text), 7);
    EXPECT_EQ(core->lifecycle, START);
}

/* ---- entering and leaving ---- */

TEST_F(Lifecycle, PauseNeverReachesPause)
{
    be(START);
    ASSERT_EQ(qor_core_context_lifecycle_resume(core), 0);

    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);

    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(core->lifecycle, RESUME);
}

TEST_F(Lifecycle, PauseIsNotLimitedByTheCount)
{
    be(RESUME);

    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);

    EXPECT_EQ(core->active_refcount, -1);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Lifecycle, TheCountWraps)
{
    be(START);
    core->active_refcount = INT32_MAX;

    EXPECT_EQ(qor_core_context_lifecycle_resume(core), 0);
    EXPECT_EQ(core->active_refcount, INT32_MIN);

    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);
    EXPECT_EQ(core->active_refcount, INT32_MAX);
}

/* ---- who is woken ---- */

namespace {

/* A thread that waits for one broadcast of the context's condition. */
class Listener {
public:
    explicit Listener(qor_core_context_t *core)
        : call_([core] {
              pthread_mutex_lock(&core->mutex);
              pthread_cond_wait(&core->cond, &core->mutex);
              pthread_mutex_unlock(&core->mutex);
              return 0;
          })
    {
    }

    bool waits() const { return call_.waits(); }
    void end() { call_.get(); }

private:
    Call call_;
};

struct BroadcastCase {
    const char *name;
    int32_t from;
    int32_t (*operation)(qor_core_context_t *);
};

} // namespace

class LifecycleBroadcast : public Lifecycle, public testing::WithParamInterface<BroadcastCase> {};

TEST_P(LifecycleBroadcast, WakesWhoeverWaits)
{
    be(GetParam().from);
    Listener first(core), second(core);
    ASSERT_TRUE(first.waits());
    ASSERT_TRUE(second.waits());

    EXPECT_EQ(GetParam().operation(core), 0);

    first.end();
    second.end();
}

INSTANTIATE_TEST_SUITE_P(
    All, LifecycleBroadcast,
    testing::Values(BroadcastCase{"Change", INIT,
                                  [](qor_core_context_t *c) {
                                      return qor_core_context_lifecycle_change(c, CREATE);
                                  }},
                    BroadcastCase{"ChangeToTheSame", RESUME,
                                  [](qor_core_context_t *c) {
                                      return qor_core_context_lifecycle_change(c, RESUME);
                                  }},
                    BroadcastCase{"Start", CREATE, qor_core_context_lifecycle_start},
                    BroadcastCase{"Pause", RESUME, qor_core_context_lifecycle_pause},
                    BroadcastCase{"Stop", PAUSE, qor_core_context_lifecycle_stop}),
    case_name<BroadcastCase>);

TEST_F(Lifecycle, ResumeMakesNoBroadcast)
{
    be(START);
    Listener listener(core);
    ASSERT_TRUE(listener.waits());

    EXPECT_EQ(qor_core_context_lifecycle_resume(core), 0);

    EXPECT_TRUE(listener.waits());
    be(RESUME);
    listener.end();
}

/* ---- waiting ---- */

struct WaitCase {
    const char *name;
    int32_t from;
};

class LifecycleResumeWait : public Lifecycle, public testing::WithParamInterface<WaitCase> {};

TEST_P(LifecycleResumeWait, EndsWithTheStart)
{
    be(GetParam().from);
    Call resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);

    EXPECT_EQ(resume.get(), 0);
    EXPECT_EQ(core->lifecycle, RESUME);
    EXPECT_EQ(core->active_refcount, 1);
    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleResumeWait,
                         testing::Values(WaitCase{"InInit", INIT}, WaitCase{"InCreate", CREATE}),
                         case_name<WaitCase>);

class LifecycleStopWait : public Lifecycle, public testing::WithParamInterface<WaitCase> {};

TEST_P(LifecycleStopWait, EndsWithPause)
{
    be(GetParam().from);
    Call stop = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(stop.waits());

    be(PAUSE);

    EXPECT_EQ(stop.get(), 0);
    EXPECT_EQ(core->lifecycle, STOP);
    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleStopWait,
                         testing::Values(WaitCase{"InInit", INIT}, WaitCase{"InCreate", CREATE},
                                         WaitCase{"InStart", START}, WaitCase{"InResume", RESUME}),
                         case_name<WaitCase>);

TEST_F(Lifecycle, ResumeStillWaitsAfterInit)
{
    Call resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    EXPECT_EQ(qor_context_init(wrapper), 0);
    EXPECT_TRUE(resume.waits());

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);
    EXPECT_EQ(resume.get(), 0);
}

TEST_F(Lifecycle, EveryWaitingResumeGoesOnAtTheStart)
{
    std::vector<Call> calls;
    for (int i = 0; i < 4; i++) {
        calls.push_back(begin(qor_core_context_lifecycle_resume, core));
    }
    EXPECT_TRUE(calls.front().waits());

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);

    for (Call &call : calls) {
        EXPECT_EQ(call.get(), 0);
    }
    EXPECT_EQ(core->active_refcount, 4);
}

class LifecycleResumeRefused : public Lifecycle, public testing::WithParamInterface<WaitCase> {};

TEST_P(LifecycleResumeRefused, HasALineOfItsOwnAfterTheWait)
{
    be(INIT);
    Call resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    be(GetParam().from);

    EXPECT_EQ(resume.get(), -1);
    EXPECT_EQ(core->lifecycle, GetParam().from);
    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(out.printed(), line("qor_core_context_lifecycle_resume", resume_late_text));
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleResumeRefused,
                         testing::Values(WaitCase{"InStop", STOP}, WaitCase{"InDestroy", DESTROY}),
                         case_name<WaitCase>);

TEST_F(Lifecycle, OfTwoStopsOneTakesThePause)
{
    be(RESUME);
    Call first = begin(qor_core_context_lifecycle_stop, core);
    Call second = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(first.waits());
    EXPECT_TRUE(second.waits());

    be(PAUSE);
    ASSERT_TRUE(await([&] { return first.returned() || second.returned(); }));
    EXPECT_TRUE((first.returned() ? second : first).waits());

    be(RESUME);
    be(PAUSE);
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(out.printed(), "");
}

/* ---- the class's operations ---- */

TEST_F(Lifecycle, ClassStartGivesTheModulesResultWhateverTheLifecycleSays)
{
    be(STOP);

    EXPECT_EQ(qor_context_start(wrapper), 0);

    EXPECT_EQ(core->lifecycle, STOP);
    EXPECT_EQ(out.printed(), start_line);
}

TEST_F(Lifecycle, ClassResumeAndPauseEnterAndLeave)
{
    be(START);

    EXPECT_EQ(qor_context_resume(wrapper), 0);
    EXPECT_EQ(core->active_refcount, 1);
    EXPECT_EQ(core->lifecycle, RESUME);

    EXPECT_EQ(qor_context_pause(wrapper), 0);
    EXPECT_EQ(core->active_refcount, 0);
}

TEST_F(Lifecycle, ClassStopWaitsForPause)
{
    be(START);
    Call stop([this] {
        qor_context_stop(wrapper);
        return 0;
    });
    EXPECT_TRUE(stop.waits());

    be(PAUSE);

    stop.get();
    EXPECT_EQ(core->lifecycle, STOP);
}

/* ---- NULL ---- */

namespace {

struct NullCase {
    const char *name;
    int32_t (*operation)(qor_core_context_t *);
    const char *function;
};

const NullCase null_cases[] = {
    {"Change", [](qor_core_context_t *c) { return qor_core_context_lifecycle_change(c, START); },
     "qor_core_context_lifecycle_change"},
    {"Start", qor_core_context_lifecycle_start, "qor_core_context_lifecycle_start"},
    {"Stop", qor_core_context_lifecycle_stop, "qor_core_context_lifecycle_stop"},
    {"Resume", qor_core_context_lifecycle_resume, "qor_core_context_lifecycle_resume"},
    {"Pause", qor_core_context_lifecycle_pause, "qor_core_context_lifecycle_pause"},
};

} // namespace

class LifecycleNull : public testing::TestWithParam<NullCase> {};

TEST_P(LifecycleNull, IsReported)
{
    Output out;

    EXPECT_EQ(GetParam().operation(nullptr), -1);

    EXPECT_EQ(out.printed(), line(GetParam().function, "!(_this) == true."));
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleNull, testing::ValuesIn(null_cases), case_name<NullCase>);

/* ---- the end of the bus ---- */

namespace {

/* A user context that is attached to a bus whose loop never runs. */
class LifecycleOnABus : public testing::Test {
protected:
    LifecycleOnABus() : bus(qor_bus_create(modules, 1))
    {
        wrapper = qor_core_context_class.create(&module.descriptor);
        core = qor_core_context_type(wrapper);
        qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, wrapper);
    }

    ~LifecycleOnABus() override
    {
        qor_core_context_lifecycle_change(core, DESTROY);
        qor_context_destroy(wrapper);
        qor_bus_close(bus); /* frees it as well */
    }

    Module module{"clock"};
    qor_context_module_t *modules[1] = {nullptr};
    qor_bus_t *bus;
    qor_context_t *wrapper;
    qor_core_context_t *core;
    Output out;
};

} // namespace

TEST_F(LifecycleOnABus, QuitEndsAWaitForTheStart)
{
    Call resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    qor_bus_quit(bus);

    EXPECT_EQ(resume.get(), -1);
    EXPECT_EQ(core->lifecycle, INIT);
    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(out.printed(), line("qor_core_context_lifecycle_resume", resume_late_text));
}

TEST_F(LifecycleOnABus, QuitEndsAWaitForPause)
{
    qor_core_context_lifecycle_change(core, START);
    Call stop = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(stop.waits());

    qor_bus_quit(bus);

    EXPECT_EQ(stop.get(), -1);
    EXPECT_EQ(core->lifecycle, START);
    EXPECT_EQ(out.printed(), stop_line);
}

TEST_F(LifecycleOnABus, QuitEndsEveryWait)
{
    std::vector<Call> calls;
    for (int i = 0; i < 4; i++) {
        calls.push_back(begin(qor_core_context_lifecycle_resume, core));
        calls.push_back(begin(qor_core_context_lifecycle_stop, core));
    }
    EXPECT_TRUE(calls.back().waits());

    qor_bus_quit(bus);

    for (Call &call : calls) {
        EXPECT_EQ(call.get(), -1);
    }
}

TEST_F(LifecycleOnABus, NothingWaitsOnceTheBusQuits)
{
    qor_bus_quit(bus);

    EXPECT_EQ(qor_core_context_lifecycle_resume(core), -1);
    EXPECT_EQ(qor_core_context_lifecycle_stop(core), -1);

    EXPECT_EQ(out.printed(),
              line("qor_core_context_lifecycle_resume", resume_late_text) + stop_line);
}

TEST_F(LifecycleOnABus, WhatNeedsNoWaitSucceedsAfterQuit)
{
    qor_bus_quit(bus);

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);
    EXPECT_EQ(qor_core_context_lifecycle_resume(core), 0);
    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);
    EXPECT_EQ(qor_core_context_lifecycle_change(core, PAUSE), 0);
    EXPECT_EQ(qor_core_context_lifecycle_stop(core), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(LifecycleOnABus, WaitsEndAsWithoutABus)
{
    Call resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());
    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);
    EXPECT_EQ(resume.get(), 0);

    Call stop = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(stop.waits());
    EXPECT_EQ(qor_core_context_lifecycle_change(core, PAUSE), 0);
    EXPECT_EQ(stop.get(), 0);
}
