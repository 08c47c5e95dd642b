/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_bus.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "actor.hpp"
#include "await.hpp"
#include "case_name.hpp"
#include "leak.hpp"
#include "output.hpp"
#include "qor_core_context.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "qor_topic_core.h"
#include "sleeper.hpp"
#include "test_bus.hpp"

namespace {

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_bus", "qor_bus_" + function, text);
}

qor_context_module_t *no_modules[] = {nullptr};

int64_t now()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

/* A task function, its argument's release, and what they did. Outlives the bus. */
struct Job {
    Journal journal;
    std::function<void()> body = [] {};
    std::atomic<int> runs{0};
    std::atomic<int> recycles{0};

    static void *run(void *arg)
    {
        Job &job = *static_cast<Job *>(arg);
        job.journal.write("run");
        job.body();
        job.runs++;
        return nullptr;
    }

    static void recycle(void *arg)
    {
        Job &job = *static_cast<Job *>(arg);
        job.journal.write("recycle");
        job.recycles++;
    }

    qor_context_task_t task(int32_t session, int32_t delay = 0)
    {
        qor_context_task_t made = {};
        qor_context_task_init(&made, nullptr, "job", session, run, this);
        made.recycle = recycle;
        made.delay = delay;
        return made;
    }
};

/* How many threads of the process bear a name. */
int threads_named(const std::string &name)
{
    int found = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (const dirent *entry = readdir(tasks)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string its_name;
        found += std::getline(comm, its_name) && its_name == name ? 1 : 0;
    }
    closedir(tasks);
    return found;
}

std::string own_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

/* When the timer of a session falls due; the bus does not loop yet. */
int64_t due_time(const qor_bus_t *bus, size_t session)
{
    const list_head &head = bus->time_que->head;
    for (list_head *link = head.next; link != &head; link = link->next) {
        const auto *node = reinterpret_cast<qor_time_que_node_t *>(link);
        if (node->id == session) {
            return node->when;
        }
    }
    return -1;
}

/* A bus that does not loop unless the test says so. */
class Bus : public testing::Test {
protected:
    Output out;
    Job job; /* before the bus, whose end may still recycle it */
    PumpedBus pumped;
    qor_bus_t *bus = pumped.get();
};

/* A bus with two workers, looping. */
class BusLoop : public testing::Test {
protected:
    BusLoop()
    {
        qor_bus_cancel(bus, 0); /* start-up */
        looping.start();
    }

    Output out;
    Job job, other;
    LoopingBus looping{/* workers */ 2};
    qor_bus_t *bus = looping.get();
};

/* Until open() everybody waits in pass(). */
class Gate {
public:
    ~Gate()
    {
        open();
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this] { return waiting_ == 0; });
    }
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    void pass()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        waiting_++;
        cond_.wait(lock, [this] { return open_; });
        waiting_--;
        cond_.notify_all();
    }
    int waiting()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return waiting_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
    int waiting_ = 0;
};

} // namespace

/* ---- creating ---- */

TEST(BusCreate, GivesTheDefaults)
{
    qor_context_module_t module = {};
    qor_context_module_t *modules[] = {&module, &module, nullptr};

    qor_bus_t *bus = qor_bus_create(modules, 7);

    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->modules, modules);
    EXPECT_EQ(bus->user_topic_core->id_max, 7);
    EXPECT_EQ(bus->sys_topic_core->id_max, QOR_SYS_NUM);
    EXPECT_EQ(bus->thread_num, 3u);
    EXPECT_EQ(bus->thread_stack_size, 0x10000u);
    EXPECT_EQ(bus->thread_priority, -1);
    EXPECT_EQ(bus->que->max_count, UINT32_MAX);
    EXPECT_EQ(bus->time_que->max_count, UINT32_MAX);
    EXPECT_EQ(reinterpret_cast<void *>(bus->que->recycle),
              reinterpret_cast<void *>(qor_context_task_uninit));
    EXPECT_EQ(reinterpret_cast<void *>(bus->time_que->recycle),
              reinterpret_cast<void *>(qor_context_task_uninit));
    EXPECT_TRUE(list_empty(bus->head));
    qor_bus_close(bus);
}

TEST(BusCreate, QueuesTheStartUpAsItsFirstTask)
{
    qor_bus_t *bus = qor_bus_create(no_modules, 1);

    EXPECT_EQ(qor_que_count(bus->que), 1);
    EXPECT_EQ(bus->time_que->count, 0);
    qor_que_node_t *node = qor_que_deque(bus->que);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(qor_que_node_id(node), 0u);
    const auto *task = static_cast<qor_context_task_t *>(qor_que_node_body(node));
    EXPECT_EQ(task->session, 0);
    EXPECT_EQ(task->context, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(reinterpret_cast<void *>(task->fun.run), reinterpret_cast<void *>(qor_main));
    EXPECT_EQ(task->arg, bus);
    EXPECT_EQ(task->recycle, nullptr);
    EXPECT_EQ(std::string(task->name).substr(0, 5), "task:");
    EXPECT_EQ(qor_bus_session(bus), 1);
    qor_que_node_destroy(node, nullptr);
    qor_bus_close(bus);
}

TEST(BusCreate, CountsUpTo1023Modules)
{
    qor_context_module_t module = {};
    std::vector<qor_context_module_t *> modules(1023, &module);
    modules.push_back(nullptr);

    qor_bus_t *bus = qor_bus_create(modules.data(), 1);

    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->thread_num, 1024u);
    qor_bus_close(bus);
}

TEST(BusCreate, Refuses1024ModulesWithoutALine)
{
    Output out;
    qor_context_module_t module = {};
    std::vector<qor_context_module_t *> modules(1024, &module);
    modules.push_back(nullptr);

    EXPECT_EQ(qor_bus_create(modules.data(), 1), nullptr);

    EXPECT_EQ(out.printed(), "");
}

TEST(BusCreate, ChecksModulesBeforeTopics)
{
    Output out;

    EXPECT_EQ(qor_bus_create(nullptr, 0), nullptr);
    EXPECT_EQ(qor_bus_create(no_modules, 0), nullptr);
    EXPECT_EQ(qor_bus_create(no_modules, -1), nullptr);

    EXPECT_EQ(out.printed(), line("init", "!(modules) == true.") +
                                 line("init", "!(id_max > 0) == true.") +
                                 line("init", "!(id_max > 0) == true."));
}

TEST(BusCreate, InitChecksTheRecordFirst)
{
    Output out;

    EXPECT_EQ(qor_bus_init(nullptr, nullptr, 0), -1);

    EXPECT_EQ(out.printed(), line("init", "!(_this) == true."));
}

TEST(BusCreate, InitMakesABusOfAnyRecord)
{
    qor_bus_t record;
    memset(&record, 0xa5, sizeof(record));
    {
        PrescribedLeak head_and_timer_queue;
        ASSERT_EQ(qor_bus_init(&record, no_modules, 2), 0);
    }

    EXPECT_EQ(record.thread_num, 1u);
    EXPECT_EQ(qor_que_count(record.que), 1);
    EXPECT_EQ(qor_bus_session(&record), 1);
    qor_bus_uninit(&record);
}

TEST(BusCreate, ASecondBusFollowsAFirst)
{
    for (int i = 0; i < 3; i++) {
        LoopingBus looping;
        std::atomic<bool> ran{false};
        looping.start();
        qor_bus_run(
            looping.get(),
            [](void *arg) -> void * {
                *static_cast<std::atomic<bool> *>(arg) = true;
                return nullptr;
            },
            &ran, nullptr);
        EXPECT_TRUE(await([&] { return ran.load(); }));
        EXPECT_EQ(qor_bus_drain(looping.get(), 60000), 0); /* start-up is through */
    }
    EXPECT_TRUE(list_empty(&context_head));
}

/* ---- session numbers, tables, setters ---- */

TEST_F(Bus, SessionsRiseByOne)
{
    EXPECT_EQ(qor_bus_session(bus), 1);
    EXPECT_EQ(qor_bus_session(bus), 2);
    EXPECT_EQ(qor_bus_session(bus), 3);
}

TEST_F(Bus, SessionsStartAnewBehindTheLargest)
{
    bus->session = INT32_MAX - 1;

    EXPECT_EQ(qor_bus_session(bus), INT32_MAX - 1);
    EXPECT_EQ(qor_bus_session(bus), INT32_MAX);
    EXPECT_EQ(qor_bus_session(bus), 0);
    EXPECT_EQ(qor_bus_session(bus), 1);
}

TEST_F(Bus, SessionsDrawnByThreadsAreDistinct)
{
    constexpr int threads = 4, draws = 500;
    std::vector<int32_t> drawn[threads];
    std::vector<std::thread> drawing;
    for (std::vector<int32_t> &own : drawn) {
        drawing.emplace_back([&] {
            for (int i = 0; i < draws; i++) {
                own.push_back(qor_bus_session(bus));
            }
        });
    }
    std::set<int32_t> all;
    for (int i = 0; i < threads; i++) {
        drawing[static_cast<size_t>(i)].join();
        all.insert(drawn[i].begin(), drawn[i].end());
    }

    EXPECT_EQ(all.size(), size_t{threads * draws});
    EXPECT_EQ(*all.rbegin(), threads * draws);
}

TEST_F(Bus, RolesSelectTheTopicTable)
{
    EXPECT_EQ(qor_bus_topic_core_get(bus, QOR_BUS_ROLE_SYS), bus->sys_topic_core);
    EXPECT_EQ(qor_bus_topic_core_get(bus, QOR_BUS_ROLE_USER), bus->user_topic_core);
    EXPECT_EQ(qor_bus_topic_core_get(bus, 2), bus->user_topic_core);
    EXPECT_EQ(qor_bus_topic_core_get(bus, -1), bus->user_topic_core);
}

TEST_F(Bus, SettersStoreWhatTheyAreGiven)
{
    qor_bus_priority_set(bus, 150);
    qor_bus_thread_num_set(bus, 0);

    EXPECT_EQ(bus->thread_priority, 150);
    EXPECT_EQ(bus->thread_num, 0u);
    qor_bus_priority_set(bus, INT32_MIN);
    qor_bus_thread_num_set(bus, UINT32_MAX);
    EXPECT_EQ(bus->thread_priority, INT32_MIN);
    EXPECT_EQ(bus->thread_num, UINT32_MAX);
}

namespace {

struct StackCase {
    const char *name;
    uint32_t asked, stored;
};

void PrintTo(const StackCase &stack, std::ostream *os)
{
    *os << stack.name;
}

class BusStack : public Bus, public testing::WithParamInterface<StackCase> {};

INSTANTIATE_TEST_SUITE_P(All, BusStack,
                         testing::Values(StackCase{"Nothing", 0, 0}, StackCase{"One", 1, 4096},
                                         StackCase{"Page", 4096, 4096},
                                         StackCase{"PageAndOne", 4097, 8192},
                                         StackCase{"TwoPages", 8192, 8192},
                                         StackCase{"Large", 0xfffff000, 0xfffff000}),
                         case_name<StackCase>);

} // namespace

TEST_P(BusStack, SizeIsRoundedUpToPages)
{
    qor_bus_thread_stack_size_set(bus, GetParam().asked);

    EXPECT_EQ(bus->thread_stack_size, GetParam().stored);
}

TEST_F(Bus, EveryFunctionReportsANullBus)
{
    qor_context_task_t task = job.task(1);

    EXPECT_EQ(qor_bus_post(nullptr, &task), -1);
    EXPECT_EQ(qor_bus_run(nullptr, Job::run, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_runx(nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_timer_post(nullptr, &task), -1);
    EXPECT_EQ(qor_bus_cancel(nullptr, 0), -1);
    qor_bus_priority_set(nullptr, 0);
    qor_bus_thread_num_set(nullptr, 0);
    qor_bus_thread_stack_size_set(nullptr, 0);
    EXPECT_EQ(qor_bus_loop(nullptr), -1);
    EXPECT_EQ(qor_bus_quit(nullptr), -1);
    EXPECT_EQ(qor_bus_quitting(nullptr), -1);
    EXPECT_EQ(qor_bus_drain(nullptr, 0), -1);
    qor_bus_close(nullptr);

    std::string lines;
    for (const char *function :
         {"post", "run", "runx", "timer_post", "cancel", "priority_set", "thread_num_set",
          "thread_stack_size_set", "loop", "quit", "quitting", "drain", "close"}) {
        lines += line(function, "!(_this) == true.");
    }
    EXPECT_EQ(out.printed(), lines);
}

/* ---- posting ---- */

TEST_F(Bus, PostQueuesACopyUnderTheTasksSession)
{
    qor_context_task_t task = job.task(31);

    EXPECT_EQ(qor_bus_post(bus, &task), 0);
    memset(&task, 0, sizeof(task));

    const qor_que_node_t *node = reinterpret_cast<qor_que_node_t *>(bus->que->head.next);
    EXPECT_EQ(node->id, 31u);
    EXPECT_EQ(pumped.run(), 1);
    EXPECT_EQ(job.journal.text(), "run recycle");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Bus, PostTakesNoNoteOfADelay)
{
    qor_context_task_t task = job.task(1, 60000);

    EXPECT_EQ(qor_bus_post(bus, &task), 0);

    EXPECT_EQ(pumped.run(), 1);
}

TEST_F(Bus, NullTaskIsReported)
{
    EXPECT_EQ(qor_bus_post(bus, nullptr), -1);
    EXPECT_EQ(qor_bus_timer_post(bus, nullptr), -1);

    EXPECT_EQ(out.printed(),
              line("post", "!(task) == true.") + line("timer_post", "!(task) == true."));
}

TEST_F(Bus, ARefusedPostLeavesTheArgumentAlone)
{
    qor_context_task_t task = job.task(1);
    qor_bus_quit(bus);

    EXPECT_EQ(qor_bus_post(bus, &task), -1);
    EXPECT_EQ(qor_bus_timer_post(bus, &task), -1);
    EXPECT_EQ(qor_bus_run(bus, Job::run, &job, Job::recycle), -1);

    EXPECT_EQ(job.journal.text(), "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Bus, RunQueuesATaskUnderAFreshSession)
{
    bus->session = 60;

    EXPECT_EQ(qor_bus_run(bus, Job::run, &job, Job::recycle), 0);

    qor_context_task_t *task = pumped.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->session, 60);
    EXPECT_EQ(task->context, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(task->async, 0);
    EXPECT_EQ(task->delay, 0);
    char name[32];
    snprintf(name, sizeof(name), "task:%p", reinterpret_cast<void *>(Job::run));
    EXPECT_STREQ(task->name, name);
    qor_context_task_excute(task);
    PumpedBus::finish(task);
    EXPECT_EQ(job.journal.text(), "run recycle");
}

TEST_F(Bus, RunxQueuesATaskWithItsContext)
{
    bus->session = 61;
    Journal journal;
    Actor actor(journal, "a");
    static int32_t session;
    static qor_context_t *context;
    const auto runx = [](qor_context_t *its_context, int32_t its_session, void *) -> void * {
        context = its_context;
        session = its_session;
        return nullptr;
    };

    EXPECT_EQ(qor_bus_runx(bus, actor.get(), runx, &job, Job::recycle), 0);

    qor_context_task_t *task = pumped.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->session, 61);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(task->delay, 0);
    EXPECT_EQ(std::string(task->name).substr(0, 5), "task:");
    EXPECT_EQ(qor_bus_session(bus), 62);
    qor_context_task_excute(task);
    PumpedBus::finish(task);
    EXPECT_EQ(context, actor.get());
    EXPECT_EQ(session, 61);
    EXPECT_EQ(job.journal.text(), "recycle");
}

TEST_F(Bus, NullFunctionIsReported)
{
    Journal journal;
    Actor actor(journal, "a");

    EXPECT_EQ(qor_bus_run(bus, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_runx(bus, nullptr, nullptr, nullptr, nullptr), -1);

    EXPECT_EQ(out.printed(), line("run", "!(run) == true.") + line("runx", "!(runx) == true."));
    EXPECT_EQ(qor_bus_session(bus), 1); /* none was drawn */
}

TEST_F(Bus, RunxWithoutContextPostsAnEmptyTask)
{
    const auto runx = [](qor_context_t *, int32_t, void *) -> void * { return nullptr; };
    static int releases;
    const auto release = [](void *arg) { releases += arg ? 1 : 10; };
    releases = 0;

    EXPECT_EQ(qor_bus_runx(bus, nullptr, runx, &job, release), 0);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_taskx_init", "!(context) == true."));
    qor_context_task_t *task = pumped.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(task->fun.run, nullptr);
    EXPECT_EQ(task->session, 0);
    EXPECT_EQ(task->arg, nullptr);
    PumpedBus::finish(task);
    EXPECT_EQ(releases, 10); /* called, with the empty task's argument */
}

TEST_F(Bus, TimerPostQueuesACopyThatFallsDueLater)
{
    qor_context_task_t task = job.task(31, 60000);
    const int64_t before = now();

    EXPECT_EQ(qor_bus_timer_post(bus, &task), 0);
    memset(&task, 0, sizeof(task));

    EXPECT_EQ(qor_que_count(bus->que), 0);
    ASSERT_EQ(bus->time_que->count, 1);
    const qor_time_que_node_t *node =
        reinterpret_cast<qor_time_que_node_t *>(bus->time_que->head.next);
    EXPECT_EQ(node->id, 31u);
    EXPECT_GE(node->when, before + 60000 - 1);
    EXPECT_LE(node->when, now() + 60000);
}

/* ---- cancelling ---- */

TEST_F(Bus, CancelTakesAQueuedTaskOutAndRecyclesIt)
{
    qor_context_task_t task = job.task(8);
    qor_bus_post(bus, &task);

    EXPECT_EQ(qor_bus_cancel(bus, 8), 0);

    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(qor_que_count(bus->que), 0);
    EXPECT_EQ(pumped.run(), 0);
}

TEST_F(Bus, CancelTakesTheFirstOfASession)
{
    Job second;
    for (Job *posted : {&job, &second}) {
        qor_context_task_t task = posted->task(8);
        qor_bus_post(bus, &task);
    }

    EXPECT_EQ(qor_bus_cancel(bus, 8), 0);
    pumped.run();

    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(second.journal.text(), "run recycle");
}

TEST_F(Bus, CancelOfAnUnknownSessionLeavesTheBusAlone)
{
    EXPECT_EQ(qor_bus_cancel(bus, 8), -1);
    qor_context_task_t task = job.task(9);
    qor_bus_post(bus, &task);
    EXPECT_EQ(qor_bus_cancel(bus, 8), -1);

    EXPECT_EQ(pumped.run(), 1);
    EXPECT_EQ(qor_bus_cancel(bus, 9), -1);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Bus, CancelDoesNotFindATimer)
{
    qor_context_task_t task = job.task(8, 60000);
    qor_bus_timer_post(bus, &task);

    EXPECT_EQ(qor_bus_cancel(bus, 8), -1);

    EXPECT_EQ(bus->time_que->count, 1);
    EXPECT_EQ(job.journal.text(), "");
}

/* ---- the loop ---- */

TEST_F(BusLoop, WorkerRunsATaskAndThenRecyclesItOnce)
{
    std::thread::id ran_on, recycled_on;
    static std::thread::id *recycled;
    recycled = &recycled_on;
    job.body = [&] { ran_on = std::this_thread::get_id(); };
    const auto release = [](void *arg) {
        *recycled = std::this_thread::get_id();
        Job::recycle(arg);
    };

    EXPECT_EQ(qor_bus_run(bus, Job::run, &job, release), 0);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));
    looping.stop();

    EXPECT_EQ(job.journal.text(), "run recycle");
    EXPECT_EQ(ran_on, recycled_on);
    EXPECT_NE(ran_on, std::this_thread::get_id());
    EXPECT_EQ(looping.result, 0);
}

TEST_F(BusLoop, RunsAsManyTasksAtOnceAsThereAreWorkers)
{
    Gate gate;
    job.body = [&] { gate.pass(); };
    for (int i = 0; i < 3; i++) {
        qor_bus_run(bus, Job::run, &job, nullptr);
    }

    EXPECT_TRUE(await([&] { return gate.waiting() == 2; }));
    EXPECT_EQ(qor_que_count(bus->que), 1);
    gate.open();
    EXPECT_TRUE(await([&] { return job.runs == 3; }));
}

TEST_F(BusLoop, ThreadsBearTheNameOfWhatTheyRun)
{
    std::string while_running;
    job.body = [&] { while_running = own_name(); };
    qor_context_task_t task = job.task(5);
    snprintf(task.name, sizeof(task.name), "a name of more than fifteen");
    EXPECT_TRUE(await([] { return threads_named("context") == 2; }));

    qor_bus_post(bus, &task);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));

    EXPECT_EQ(while_running, "a name of more ");
    EXPECT_TRUE(await([] { return threads_named("context") == 2; }));
}

TEST_F(BusLoop, TaskMayPostAnother)
{
    job.body = [&] { EXPECT_EQ(qor_bus_run(bus, Job::run, &other, nullptr), 0); };

    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_TRUE(await([&] { return other.runs == 1; }));
}

TEST_F(BusLoop, ATimerIsRecycledTwice)
{
    std::atomic<int64_t> ran_at{0};
    job.body = [&] { ran_at = now(); };
    qor_context_task_t task = job.task(5, 100);
    const int64_t posted_at = now();

    EXPECT_EQ(qor_bus_timer_post(bus, &task), 0);
    ASSERT_TRUE(await([&] { return job.runs == 1 && job.recycles == 2; }));
    looping.stop();

    EXPECT_GE(ran_at - posted_at, 99);
    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(job.recycles, 2);
}

TEST(BusLoopOrder, TasksAreTakenInTheOrderOfPosting)
{
    LoopingBus looping(/* workers */ 1);
    Journal journal;
    std::vector<std::unique_ptr<Job>> jobs;
    qor_bus_cancel(looping.get(), 0);
    for (int i = 0; i < 5; i++) {
        jobs.push_back(std::make_unique<Job>());
        jobs.back()->body = [&journal, i] { journal.write(std::to_string(i)); };
        qor_bus_run(looping.get(), Job::run, jobs.back().get(), nullptr);
    }

    looping.start();
    ASSERT_TRUE(await([&] { return jobs.back()->runs == 1; }));

    EXPECT_EQ(journal.text(), "0 1 2 3 4");
    looping.stop();
}

TEST(BusLoopOrder, TimersRunInTheOrderOfTheirDueTimes)
{
    LoopingBus looping(/* workers */ 1);
    std::vector<std::unique_ptr<Job>> jobs;
    std::vector<int64_t> due; /* a pause between two posts may change the order */
    std::vector<int64_t> ran; /* the worker's, until it has ended */
    qor_bus_cancel(looping.get(), 0);
    for (int32_t delay : {120, 40, 80}) {
        const size_t number = jobs.size();
        jobs.push_back(std::make_unique<Job>());
        jobs.back()->body = [&, number] { ran.push_back(due[number]); };
        qor_context_task_t task = jobs.back()->task(delay, delay);
        qor_bus_timer_post(looping.get(), &task);
        due.push_back(due_time(looping.get(), static_cast<size_t>(delay)));
        ASSERT_GT(due.back(), 0);
    }

    looping.start();
    for (const auto &job : jobs) {
        ASSERT_TRUE(await([&] { return job->runs == 1; }));
    }
    looping.stop();

    std::sort(due.begin(), due.end());
    EXPECT_EQ(ran, due);
}

TEST(BusLoopWorkers, WithoutWorkersTasksOnlyGather)
{
    Job job;
    LoopingBus looping(/* workers */ 0);
    qor_context_task_t timer = job.task(1, 1);
    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, Job::recycle);
    qor_bus_timer_post(looping.get(), &timer);

    /* Start-up, the task and the timer that has fallen due and was recycled for that. */
    EXPECT_TRUE(await([&] { return qor_que_count(looping.get()->que) == 3; }));
    EXPECT_TRUE(await([&] { return job.recycles == 1; }));
    looping.stop();

    EXPECT_EQ(looping.result, 0);
    EXPECT_EQ(job.runs, 0);
    EXPECT_EQ(job.recycles, 3);
}

TEST(BusLoopWorkers, ADueTimerIsQueuedWithoutItsDelayBeforeItIsRecycled)
{
    static qor_bus_t *bus;
    static std::atomic<int> recycles;
    static int32_t queued, delay; /* as the first recycle finds them */
    LoopingBus looping(/* workers */ 0);
    bus = looping.get();
    recycles = 0;
    delay = -1;
    qor_bus_cancel(bus, 0);
    Job job;
    qor_context_task_t timer = job.task(1, 1);
    timer.recycle = [](void *) {
        if (recycles++ == 0) {
            qor_que_lock(bus->que); /* free: nothing is locked here */
            queued = qor_que_count(bus->que);
            if (queued == 1) {
                auto *node = reinterpret_cast<qor_que_node_t *>(bus->que->head.next);
                delay = static_cast<qor_context_task_t *>(qor_que_node_body(node))->delay;
            }
            qor_que_unlock(bus->que);
        }
    };
    qor_bus_timer_post(bus, &timer);

    looping.start();
    EXPECT_TRUE(await([] { return recycles == 1; }));
    looping.stop();

    EXPECT_EQ(queued, 1);
    EXPECT_EQ(delay, 0);
    EXPECT_EQ(recycles, 2);
}

TEST(BusLoopWorkers, HaveTheStackThatWasAsked)
{
    Job job;
    LoopingBus looping(/* workers */ 1);
    size_t size = 0;
    qor_bus_cancel(looping.get(), 0);
    qor_bus_thread_stack_size_set(looping.get(), 0x1000000 - 1); /* twice the usual default */
    job.body = [&] {
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
    };

    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, nullptr);
    ASSERT_TRUE(await([&] { return job.runs == 1; }));
    looping.stop();

    EXPECT_GE(size, 0x1000000u); /* sanitizers add to it */
}

TEST(BusLoopWorkers, AStackSizeThatTheSystemRefusesIsLetPass)
{
    Output out;
    Job job;
    LoopingBus looping(/* workers */ 1);
    qor_bus_cancel(looping.get(), 0);
    qor_bus_thread_stack_size_set(looping.get(), 0);

    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, nullptr);
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
    looping.stop();

    EXPECT_EQ(looping.result, 0);
    EXPECT_EQ(out.printed(), "");
}

TEST(BusLoopWorkers, APriorityThatTheirPolicyRefusesIsLetPass)
{
    Output out;
    Job job;
    LoopingBus looping(/* workers */ 1);
    qor_bus_cancel(looping.get(), 0);
    qor_bus_priority_set(looping.get(), 10);

    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, nullptr);
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
    looping.stop();

    EXPECT_EQ(looping.result, 0);
    EXPECT_EQ(out.printed(), "");
}

TEST(BusLoopWorkers, SettersThatComeTooLateDoNoHarm)
{
    Job job;
    LoopingBus looping(/* workers */ 3);
    qor_bus_t *bus = looping.get();
    qor_bus_cancel(bus, 0);
    job.body = [&] {
        qor_bus_thread_num_set(bus, 50);
        qor_bus_priority_set(bus, 10);
        qor_bus_thread_stack_size_set(bus, 1);
    };
    qor_bus_run(bus, Job::run, &job, nullptr); /* runs while workers are still being started */

    looping.start();
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
    looping.stop();

    EXPECT_EQ(looping.result, 0);
}

/* ---- quitting ---- */

TEST_F(Bus, QuitBeforeTheLoopMakesItReturn)
{
    qor_bus_run(bus, Job::run, &job, Job::recycle);

    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(qor_bus_loop(bus), 0);

    EXPECT_EQ(job.journal.text(), "recycle");
}

TEST_F(Bus, QuitMayBeRepeated)
{
    EXPECT_EQ(qor_bus_quitting(bus), 0);
    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(qor_bus_quitting(bus), 1);
}

TEST_F(Bus, QuitOnlyAsks)
{
    qor_bus_run(bus, Job::run, &job, Job::recycle);

    qor_bus_quit(bus);

    EXPECT_EQ(job.journal.text(), ""); /* what is queued waits for the loop's end or for close */
}

TEST_F(BusLoop, QuitLetsARunningTaskFinish)
{
    Gate gate;
    job.body = [&] { gate.pass(); };
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    ASSERT_TRUE(await([&] { return gate.waiting() == 1; }));

    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(job.journal.text(), "run");
    gate.open();
    looping.stop();

    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(job.journal.text(), "run recycle");
}

TEST_F(BusLoop, QuitRecyclesWhatIsQueuedOnce)
{
    Gate gate;
    Job blocking;
    blocking.body = [&] { gate.pass(); };
    qor_bus_run(bus, Job::run, &blocking, nullptr);
    qor_bus_run(bus, Job::run, &blocking, nullptr);
    ASSERT_TRUE(await([&] { return gate.waiting() == 2; }));
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    qor_context_task_t timer = other.task(1, 60000);
    qor_bus_timer_post(bus, &timer);

    qor_bus_quit(bus);
    gate.open();
    looping.stop();

    EXPECT_EQ(looping.result, 0);
    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(other.journal.text(), "recycle");
}

TEST_F(BusLoop, QuitMayComeFromATask)
{
    job.body = [&] { EXPECT_EQ(qor_bus_quit(bus), 0); };

    qor_bus_run(bus, Job::run, &job, nullptr);
    looping.thread.join();

    EXPECT_EQ(looping.result, 0);
}

TEST_F(BusLoop, QuitMayComeFromManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] { EXPECT_EQ(qor_bus_quit(bus), 0); });
    }
    looping.thread.join();
    for (std::thread &thread : threads) {
        thread.join();
    }

    EXPECT_EQ(looping.result, 0);
}

TEST_F(BusLoop, PostsThatMeetTheQuitAreEitherTakenOrRefused)
{
    std::atomic<int> accepted{0}, started{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&] {
            qor_context_task_t timer = other.task(1, 1);
            timer.recycle = nullptr;
            for (int k = 0; k < 50000 && qor_bus_run(bus, Job::run, &job, Job::recycle) == 0; k++) {
                accepted++;
                started++;
                qor_bus_timer_post(bus, &timer);
            }
        });
    }
    ASSERT_TRUE(await([&] { return started > 50; }));
    looping.stop();
    for (std::thread &thread : threads) {
        thread.join();
    }

    /* None of those accepted is lost or released twice. */
    EXPECT_EQ(job.recycles, accepted);
    EXPECT_LE(job.runs, accepted);
}

/* ---- draining ---- */

TEST_F(BusLoop, DrainWaitsForTasksAndForThoseThatTheyPost)
{
    other.body = [] { usleep(20000); };
    job.body = [&] { qor_bus_run(bus, Job::run, &other, nullptr); };
    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_EQ(qor_bus_drain(bus, 60000), 0);

    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(other.runs, 1);
}

TEST_F(BusLoop, DrainDoesNotWaitForATimerThatIsNotDue)
{
    qor_context_task_t timer = job.task(1, 60000);
    timer.recycle = nullptr;
    qor_bus_timer_post(bus, &timer);

    EXPECT_EQ(qor_bus_drain(bus, 60000), 0);

    EXPECT_EQ(job.runs, 0);
}

TEST_F(BusLoop, DrainEndsWithItsTime)
{
    Gate gate;
    job.body = [&] { gate.pass(); };
    qor_bus_run(bus, Job::run, &job, nullptr);
    ASSERT_TRUE(await([&] { return gate.waiting() == 1; }));
    const int64_t begun = now();

    EXPECT_EQ(qor_bus_drain(bus, 50), -1);

    EXPECT_GE(now() - begun, 49);
    EXPECT_EQ(job.runs, 0);
}

TEST_F(BusLoop, DrainOfATaskIsRefused)
{
    int32_t drained = 0;
    job.body = [&] { drained = qor_bus_drain(bus, -1); };
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));

    EXPECT_EQ(drained, -1);
    EXPECT_EQ(out.printed(), line("drain", "a task of the bus would wait for itself."));
}

TEST_F(BusLoop, DrainEndsWithQuit)
{
    Gate gate;
    job.body = [&] { gate.pass(); };
    qor_bus_run(bus, Job::run, &job, nullptr);
    std::thread draining([&] { EXPECT_EQ(qor_bus_drain(bus, -1), -1); });
    ASSERT_TRUE(await([&] { return gate.waiting() == 1; }));

    qor_bus_quit(bus);
    draining.join();

    EXPECT_EQ(qor_bus_drain(bus, -1), -1);
}

TEST_F(Bus, DrainBeforeTheLoopHasSomethingToWaitFor)
{
    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_EQ(qor_bus_drain(bus, 0), -1);
    EXPECT_EQ(qor_bus_drain(bus, 20), -1);
}

/* ---- closing ---- */

TEST(BusClose, FreesABusThatNeverLooped)
{
    Output out;
    qor_bus_t *bus = qor_bus_create(no_modules, 3);

    qor_bus_close(bus); /* the leak checker sees what stays */

    EXPECT_EQ(out.printed(), "");
}

TEST(BusClose, RecyclesWhatWasPostedToABusThatNeverLooped)
{
    Job job, timed;
    qor_bus_t *bus = qor_bus_create(no_modules, 3);
    qor_context_task_t timer = timed.task(1, 1);
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    qor_bus_timer_post(bus, &timer);

    qor_bus_close(bus);

    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(timed.journal.text(), "recycle");
}

TEST_F(BusLoop, CloseWhileTheLoopRunsChangesNothing)
{
    qor_bus_run(bus, Job::run, &other, nullptr);
    ASSERT_TRUE(await([&] { return other.runs == 1; }));

    qor_bus_close(bus);

    EXPECT_EQ(out.printed(), line("close", "the loop is running."));
    EXPECT_EQ(qor_bus_quitting(bus), 0);
    qor_bus_run(bus, Job::run, &job, nullptr);
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
}

namespace {

/* A module of the first phase that writes down what becomes of it, in the journal that is its arg
 * and, by way of its private data, everybody's. */
Journal &journal_of(qor_context_t *context)
{
    return *static_cast<Journal *>(context->module->arg);
}

void note(qor_context_t *context, const char *what)
{
    journal_of(context).write(std::string(qor_context_module_name_get(context)) + ":" + what);
}

module_ptr noting_module(const char *name, Journal &journal)
{
    module_ptr module = named_module(name);
    module->pure = 1;
    module->arg = &journal;
    module->reg = [](qor_context_t *context) { note(context, "reg"); };
    module->unreg = [](qor_context_t *context) { note(context, "unreg"); };
    module->init = [](qor_context_t *context, void *) {
        note(context, "init");
        return 0;
    };
    module->uninit = [](qor_context_t *context) { note(context, "uninit"); };
    return module;
}

} // namespace

TEST(BusClose, TakesModulesDownInTheReverseOrderOfTheirStart)
{
    Output out;
    Journal journal;
    module_ptr a = noting_module("a", journal), b = noting_module("b", journal);
    qor_context_module_t *modules[] = {a.get(), b.get(), nullptr};
    {
        LoopingBus looping(/* workers */ 1, modules);
        looping.start();
        ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
        EXPECT_EQ(journal.text(), "a:reg b:reg b:init a:init");
        looping.stop();
        journal.clear();
        out.clear();
    }

    EXPECT_EQ(journal.text(), "a:unreg a:uninit b:unreg b:uninit");
    EXPECT_EQ(out.printed(), "");
    EXPECT_TRUE(list_empty(&context_head));
}

TEST(BusClose, FreesModulesThatFailedToComeUp)
{
    Output out;
    Journal journal;
    module_ptr a = noting_module("a", journal), b = noting_module("b", journal);
    b->init = [](qor_context_t *context, void *) {
        note(context, "init");
        return -1;
    };
    qor_context_module_t *modules[] = {a.get(), b.get(), nullptr};
    {
        LoopingBus looping(/* workers */ 1, modules);
        looping.start();
        ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
        looping.stop();
        journal.clear();
    }

    EXPECT_EQ(journal.text(), "a:unreg a:uninit");
}

TEST(BusClose, RefusesWhatModulesPostOnTheWayDown)
{
    Output out;
    Journal journal;
    module_ptr a = noting_module("a", journal);
    a->unreg = [](qor_context_t *context) {
        const int32_t posted = qor_context_run(
            context, [](void *) -> void * { return nullptr; }, nullptr);
        journal_of(context).write(std::to_string(posted));
    };
    qor_context_module_t *modules[] = {a.get(), nullptr};
    {
        LoopingBus looping(/* workers */ 1, modules);
        looping.start();
        ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
    }

    EXPECT_EQ(journal.text(), "a:reg a:init -1 a:uninit");
}

TEST(BusClose, QuitsABusThatNobodyHasAskedToEnd)
{
    Output out;
    Journal journal;
    module_ptr a = noting_module("a", journal);
    a->unreg = [](qor_context_t *context) {
        const int32_t posted = qor_context_run(
            context, [](void *) -> void * { return nullptr; }, nullptr);
        journal_of(context).write(std::to_string(posted));
    };
    qor_context_module_t *modules[] = {a.get(), nullptr};
    qor_bus_t *bus = qor_bus_create(modules, 3);
    while (qor_que_node_t *node = qor_que_deque(bus->que)) { /* start-up, by hand */
        qor_context_task_excute(static_cast<qor_context_task_t *>(qor_que_node_body(node)));
        qor_que_node_destroy(node, nullptr);
    }

    qor_bus_close(bus);

    EXPECT_EQ(journal.text(), "a:reg a:init -1 a:uninit");
}

TEST(BusQuit, LetsADeliveryGoThatWaitsForAStart)
{
    Output out;
    Journal journal;
    PumpedBus pumped;
    module_ptr module = noting_module("slow", journal);
    Actor p(journal, "p");
    p.attach(pumped.get(), QOR_BUS_ROLE_USER);
    qor_context_t *slow = qor_context_create(&qor_core_context_class, module.get());
    qor_sched_delegate_create(pumped.get(), QOR_BUS_ROLE_USER, slow);
    qor_context_subscribe(slow, 0, nullptr);
    Sleeper sleeper;
    std::thread delivering([&] {
        qor_context_msg_t msg;
        qor_context_msg_fill(&msg, 1, 0, nullptr, 0);
        sleeper.here();
        EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), -1);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));

    qor_bus_quit(pumped.get());
    delivering.join();

    EXPECT_EQ(out.count("lifecycle already STOP or DESTROY. RESUME failed."), 1);
    EXPECT_EQ(qor_core_context_type(slow)->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_INIT);
    qor_core_context_lifecycle_change(qor_core_context_type(slow),
                                      QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_context_destroy(slow);
}

TEST(BusQuit, LetsAStopGoThatWaitsForAPause)
{
    Output out;
    Journal journal;
    PumpedBus pumped;
    module_ptr module = noting_module("busy", journal);
    qor_context_t *busy = qor_context_create(&qor_core_context_class, module.get());
    qor_core_context_t *core = qor_core_context_type(busy);
    qor_sched_delegate_create(pumped.get(), QOR_BUS_ROLE_USER, busy);
    qor_context_init(busy);
    qor_context_start(busy);
    Sleeper sleeper;
    std::thread stopping([&] {
        sleeper.here();
        EXPECT_EQ(qor_core_context_lifecycle_stop(core), -1);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));

    qor_bus_quit(pumped.get());
    stopping.join();

    EXPECT_EQ(out.printed(), err_line("qor_core_context", "qor_core_context_lifecycle_stop",
                                      "lifecycle already STOP. STOP failed."));
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_START);
    qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_context_destroy(busy);
}

/* ---- destroying ---- */

namespace {

/* A bus that is destroyed, not closed. What that leaves is picked up at the end of the test. */
class BusDestroy : public testing::Test {
protected:
    BusDestroy() { qor_bus_cancel(bus, 0); /* start-up */ }
    ~BusDestroy() override
    {
        if (loop.joinable()) {
            qor_time_que_quit(time_que);
            loop.join();
        }
        qor_time_que_destroy(time_que);
        free(head);
    }

    /* Returns with both workers waiting. */
    void start()
    {
        qor_bus_thread_num_set(bus, 2);
        loop = std::thread([this] {
            result = qor_bus_loop(bus);
            returned = true;
        });
        ASSERT_EQ(qor_bus_drain(bus, 60000), 0);
    }

    Job job, other;
    qor_bus_t *bus = qor_bus_create(no_modules, 2);
    qor_time_que_t *time_que = bus->time_que;
    list_head *head = bus->head;
    std::thread loop;
    int32_t result = -2;
    std::atomic<bool> returned{false};
};

} // namespace

TEST_F(Bus, DestroyLeavesTheTimerQueue)
{
    qor_bus_t *destroyed = qor_bus_create(no_modules, 2);
    qor_time_que_t *time_que = destroyed->time_que;
    list_head *head = destroyed->head;
    qor_context_task_t timer = job.task(1, 60000);
    qor_bus_timer_post(destroyed, &timer);

    qor_bus_destroy(destroyed);

    EXPECT_EQ(job.recycles, 0);
    EXPECT_EQ(time_que->count, 1);
    EXPECT_EQ(time_que->quitting, 0);
    EXPECT_TRUE(list_empty(head));
    qor_time_que_destroy(time_que);
    free(head);
}

TEST_F(BusDestroy, RecyclesQueuedTasksInOrder)
{
    static Journal *order;
    Journal journal;
    order = &journal;
    for (intptr_t i = 1; i <= 3; i++) {
        qor_bus_run(bus, Job::run, reinterpret_cast<void *>(i), [](void *arg) {
            order->write(std::to_string(reinterpret_cast<intptr_t>(arg)));
        });
    }

    qor_bus_destroy(bus);

    EXPECT_EQ(journal.text(), "1 2 3");
}

TEST_F(BusDestroy, EndsWaitingWorkersAndNotTheLoop)
{
    start();

    qor_bus_destroy(bus);

    EXPECT_TRUE(await([] { return threads_named("context") == 0; }));
    EXPECT_FALSE(returned);
    qor_time_que_quit(time_que);
    loop.join();
    EXPECT_EQ(result, 0);
}

TEST_F(BusDestroy, LetsTimersThatFallDueAfterwardsGo)
{
    start();
    qor_time_que_node_t *node = qor_time_que_node_create(1, 1, sizeof(qor_context_task_t));
    *static_cast<qor_context_task_t *>(qor_time_que_node_body(node)) = job.task(1, 1);

    qor_bus_destroy(bus);
    ASSERT_EQ(qor_time_que_enque(time_que, node), 0); /* else it might fall due too early */

    EXPECT_TRUE(await([&] { return job.recycles == 1; }));
    EXPECT_EQ(job.runs, 0);
}
