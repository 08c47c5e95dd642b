/* SPDX-License-Identifier: Apache-2.0 */
/* A bus that runs beside a test, with modules whose callbacks the test writes. */
#ifndef QOR_TESTS_RUNNING_BUS_HPP
#define QOR_TESTS_RUNNING_BUS_HPP

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_module.h"
#include "qor_core_context.h"

/* How long to wait for what other threads bring about. A test that passes never waits that long; a
 * machine with much to do may need a good part of it. */
constexpr std::chrono::seconds test_patience(60);

/* Waits until a condition holds that other threads bring about; false when patience ends. */
template <typename C> bool await(C condition)
{
    const auto deadline = std::chrono::steady_clock::now() + test_patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* What has happened, in order, whatever thread wrote it down. */
class Journal {
public:
    void add(const std::string &entry)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
        changed_.notify_all();
    }

    /* All entries, with a blank between each two. */
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string all;
        for (const std::string &entry : entries_) {
            all += all.empty() ? entry : " " + entry;
        }
        return all;
    }

    size_t size() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_.size();
    }

    /* Waits until there are that many entries; false when patience ends. */
    bool await(size_t count) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, test_patience, [&] { return entries_.size() >= count; });
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> entries_;
};

/* A door that holds threads up until it is opened, for good. */
class Door {
public:
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

    /* Waits at the door; false when patience ends. */
    bool pass()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        waiting_++;
        changed_.notify_all();
        const bool passed = changed_.wait_for(lock, test_patience, [this] { return open_; });
        waiting_--;
        return passed;
    }

    /* Waits until that many threads stand at the door; false when patience ends. */
    bool await(int count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, test_patience, [&] { return waiting_ >= count; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    int waiting_ = 0;
};

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

/* A bus with its loop in a thread of its own, from construction to end() or destruction. */
class RunningBus {
public:
    explicit RunningBus(std::initializer_list<Module *> modules, int32_t topics = 8,
                        uint32_t workers = 0)
        : RunningBus(std::vector<Module *>(modules), topics, workers)
    {
    }

    RunningBus(const std::vector<Module *> &modules, int32_t topics, uint32_t workers = 0)
        : modules_(modules), table_(table_of(modules)), bus_(qor_bus_create(table_.data(), topics))
    {
        for (Module *module : modules_) {
            module->forget();
        }
        if (workers) {
            qor_bus_thread_num_set(bus_, workers);
        }
        thread_ = std::thread([this] { result_ = qor_bus_loop(bus_); });
    }

    ~RunningBus() { end(); }
    RunningBus(const RunningBus &) = delete;
    RunningBus &operator=(const RunningBus &) = delete;

    qor_bus_t *get() { return bus_; }

    /* Waits until every module has started; false when patience ends. */
    bool up() const
    {
        return await([this] {
            bool all = true;
            for (const Module *module : modules_) {
                all = all && module->started();
            }
            return all;
        });
    }

    /* Quits and waits for the loop's return; the contexts stay. */
    int32_t quit()
    {
        if (thread_.joinable()) {
            qor_bus_quit(bus_);
            thread_.join();
        }
        return result_;
    }

    /* Quits, and frees everything. */
    void end()
    {
        if (bus_) {
            quit();
            qor_bus_close(bus_);
            bus_ = nullptr;
        }
    }

private:
    static std::vector<qor_context_module_t *> table_of(const std::vector<Module *> &modules)
    {
        std::vector<qor_context_module_t *> table;
        for (Module *module : modules) {
            table.push_back(&module->descriptor);
        }
        table.push_back(nullptr);
        return table;
    }

    std::vector<Module *> modules_;
    std::vector<qor_context_module_t *> table_;
    qor_bus_t *bus_;
    int32_t result_ = -1;
    std::thread thread_;
};

#endif /* QOR_TESTS_RUNNING_BUS_HPP */
